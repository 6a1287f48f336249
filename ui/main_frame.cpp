#include "ui/main_frame.h"

#include <imgui.h>

static void DrawMenuBar(MainFrameState *state) {
  if (!ImGui::BeginMainMenuBar()) return;
  if (ImGui::BeginMenu("File")) {
    if (ImGui::MenuItem("Exit", "Alt+F4")) state->quit_requested = true;
    ImGui::EndMenu();
  }
  if (ImGui::BeginMenu("Debug")) {
    ImGui::MenuItem("Start Debugging", "F5", false, false);
    ImGui::EndMenu();
  }
  if (ImGui::BeginMenu("Window")) {
    ImGui::MenuItem("Output", nullptr, false, false);
    ImGui::EndMenu();
  }
  if (ImGui::BeginMenu("Help")) {
    ImGui::MenuItem("About Kestrune", nullptr, false, false);
    ImGui::EndMenu();
  }
  ImGui::EndMainMenuBar();
}

// The area under the menu bar; the dock space and tool windows will live here.
static void DrawWorkArea(MainFrameState *state) {
  const ImGuiViewport *viewport = ImGui::GetMainViewport();
  ImGui::SetNextWindowPos(viewport->WorkPos);
  ImGui::SetNextWindowSize(viewport->WorkSize);
  ImGuiWindowFlags flags = ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_NoMove |
                           ImGuiWindowFlags_NoBringToFrontOnFocus | ImGuiWindowFlags_NoSavedSettings;
  if (ImGui::Begin("##workarea", nullptr, flags)) {
    if (state->target_name)
      ImGui::Text("Target: %s", state->target_name);
    else
      ImGui::TextDisabled("No target");
  }
  ImGui::End();
}

void DrawMainFrame(MainFrameState *state) {
  DrawMenuBar(state);
  DrawWorkArea(state);
  state->frame_count++;
}
