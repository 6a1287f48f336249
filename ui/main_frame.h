// The per-frame drawing of the main window's contents: the menu bar, the status text, the dock
// space "KtrnDockspace" with every tool window, and the shortcut keys. It draws and edits the
// model; what needs the engine or the operating system it leaves as requests in MainFrameRequests
// for the program to carry out after the frame.
#pragma once
#include "app/app_state.h"

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
  bool new_session;
  bool save_session;     // "Save..." (Ctrl+S): the save-as dialog when the session is unnamed
  bool save_session_as;
  bool open_session;     // "Open...": the file dialog
  const char *open_recent;  // a recent session chosen (points into Settings)
  bool quit;             // "Exit"
};

struct ImFont;

struct MainFrameState {
  MainFrameRequests requests;  // cleared at the start of each frame
  ImFont *text_font;           // source and disassembly text (the UI font is Dear ImGui's default)
  unsigned frame_count;
  bool show_about;
  bool chord_armed;      // Ctrl+L was pressed: the next Ctrl+key picks a window
  double chord_time;
};

// The tool windows every layout holds, in the order of the Window menu.
enum { kToolWindowCount = 21 };
const char *ToolWindowTitle(u32 index);
// The window's shown flag in Settings.
u8 *ToolWindowShown(Settings *settings, u32 index);

// Draws one frame between ImGui::NewFrame and ImGui::Render.
void DrawMainFrame(AppState *app, MainFrameState *state);
