// The source view: each open source file in a "TextEditor" window of its own, the windows docked
// together as tabs. A tab shows its text with line numbers, the target's current line (and the
// selected frame's), breakpoint markers and the selection; a click in the margin toggles a
// breakpoint, a right click opens the context menu that drives run control. Find in File and Go to
// Line act on the active tab. Only the visible lines are drawn, and drawing allocates nothing.
//
// What needs the engine or the session is left in SourceViewRequests for the program to carry out
// after the frame, as the other windows do.
#pragma once
#include "app/app_state.h"

struct ImFont;

enum { kSourceHoverCapacity = 256 };

typedef struct SourceViewRequests {
  // 1-based lines; a tab index of -1 means no request.
  s32 toggle_tab;           // a click in the margin
  u32 toggle_line;
  u32 toggle_breakpoint;    // the id of the breakpoint whose marker is on that line, 0: add one
  s32 run_to_tab;           // "Run to Cursor" (Ctrl+F10)
  u32 run_to_line;
  u32 run_to_reason;        // StopReason code: menu 1, key 2
  s32 set_next_tab;         // "Set Next Statement" (Ctrl+Shift+F10)
  u32 set_next_line;
  u32 edit_breakpoint;      // "Edit Breakpoint": the breakpoint's id, 0 for none
  s32 close_tab;            // the tab's close button or "Close"
  s32 close_others;         // "Close All But This"
  bool open_file;           // Source File > Open (Ctrl+O): the file dialog
  char add_watch[kWatchRowBufferSize];  // "Add Watch": the text, empty for none
  // Hover evaluation: the identifier the mouse has rested on for the tool-tip delay. The program
  // answers through SourceViewState::hover_value (the evaluator's hook).
  char hover_expression[kSourceHoverCapacity];
} SourceViewRequests;

typedef struct SourceViewState {
  bool open_find;       // Source File > Find (Ctrl+F): open the popup
  bool find_next;       // Find Next (F3), Find Prev (Shift+F3)
  bool find_previous;
  bool open_goto;       // Goto Line (Ctrl+G)
  s32 goto_line;
  s32 menu_tab;         // the context menu's tab and clicked line (0-based)
  u32 menu_line;
  bool selecting;       // a drag of the left button in the text
  // Hover: where the mouse rests (tab, byte offset of the identifier's start) and since when.
  s32 hover_tab;
  u32 hover_offset;
  double hover_since;
  const char *hover_value;  // the program's answer to hover_expression; null: no tool-tip
  bool show_hover;          // the tool-tip is due in this frame
} SourceViewState;

void SourceViewRequestsClear(SourceViewRequests *requests);
// Every tab, then the Find and Go to Line popups. New tabs dock into dock_id (the dock space's
// central node) the first time they are shown.
void DrawSourceTabs(AppState *app, SourceViewState *view, SourceViewRequests *requests, ImFont *font, u32 dock_id);
// The active tab, or null.
SourceTab *SourceViewActiveTab(AppState *app);
