// The per-frame drawing of the main window's contents: menu bar and the area below it.
#pragma once

struct MainFrameState {
  const char *target_name;  // file name of the program to debug, or null
  bool quit_requested;      // set when the user chose File > Exit
  unsigned frame_count;
};

// Draws one frame between ImGui::NewFrame and ImGui::Render.
void DrawMainFrame(MainFrameState *state);
