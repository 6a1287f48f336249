// The per-frame drawing of the main window's contents: the menu bar, the status text, the dock
// space "KtrnDockspace" with every tool window, and the shortcut keys. It draws and edits the
// model; what needs the engine or the operating system it leaves as requests in MainFrameRequests
// for the program to carry out after the frame.
#pragma once
#include "app/app_state.h"
#include "app/saved_layouts.h"
#include "engine/process_list.h"
#include "ui/source_view.h"
#include "ui/target_windows.h"

// The steps of the Control menu, its keys and the toolbar.
enum StepRequest : u32 {
  kAskStepNone = 0,
  kAskStepIntoLine = 1,
  kAskStepIntoInstruction = 2,
  kAskStepOverLine = 3,
  kAskStepOut = 4,
  kAskStepOverInstruction = 5,
};

// What the user asked for during the frame.
struct MainFrameRequests {
  bool start_debugging;  // "Start Debugging" (F5 or the menu); reason in start_reason
  u32 start_reason;
  bool continue_run;     // "Continue"
  bool stop_debugging;   // "Stop Debugging" (Shift+F5): detach or terminate
  bool restart;          // "Restart" (Ctrl+Shift+F5)
  bool break_in;         // "Break"
  // The StopReason code of each: the menu item and its key have codes of their own.
  u32 continue_reason, restart_reason, break_reason;
  u32 step;         // StepRequest: a step (at a stop), or a launch halted at the entry (not debugging)
  u32 step_reason;  // its StopReason code
  bool new_session;
  bool save_session;     // "Save..." (Ctrl+S): the save-as dialog when the session is unnamed
  bool save_session_as;
  bool open_session;     // "Open...": the file dialog
  const char *open_recent;  // a recent session chosen (points into Settings)
  bool clear_recent;     // "Clear" under "Recent": asks first
  bool quit;             // "Exit"
  // "Application and Parameters": the file or folder dialogs of the current target command.
  bool browse_command, browse_working_directory;
  // The attach dialog.
  bool refresh_processes;  // the dialog opened, or "Refresh"
  u32 attach_process_id;   // "Attach##icmd" or a double-click; 0 for none
  bool reattach;           // "Reattach to Process..."
  // Saved layouts: the slot + 1 of each (0 for none); the name to save under in layout_name.
  u32 load_layout, save_layout, delete_layout;
  const char *layout_name;
};

struct ImFont;

struct MainFrameState {
  MainFrameRequests requests;  // cleared at the start of each frame
  TargetWindowRequests target_requests;  // the call stack and threads windows' (cleared likewise)
  SourceViewRequests source_requests;    // the source view's (cleared likewise)
  SourceViewState source_view;
  ImFont *text_font;           // source and disassembly text (the UI font is Dear ImGui's default)
  unsigned frame_count;
  bool show_about;
  bool chord_armed;      // Ctrl+L was pressed: the next Ctrl+key picks a window
  double chord_time;
  bool show_target_editor;  // "Application and Parameters"
  bool show_attach;         // "Attach to Process"
  char layout_name[kSavedLayoutNameCapacity];  // "##layoutinput"
  char process_filter[128];
  u32 process_sort;         // ProcessSort
  // Filled by the program (it owns the memory; null until then).
  SavedLayouts *layouts;
  ProcessList *processes;
  const char *reattach_name;  // the process last attached to, empty when none
};

// The tool windows every layout holds, in the order of the Window menu.
enum { kToolWindowCount = 21 };
const char *ToolWindowTitle(u32 index);
// The window's shown flag in Settings.
u8 *ToolWindowShown(Settings *settings, u32 index);

// Draws one frame between ImGui::NewFrame and ImGui::Render.
void DrawMainFrame(AppState *app, MainFrameState *state);
