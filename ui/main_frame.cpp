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

// The area under the menu bar: a host window "DockSpace" filling it, holding the dock space every
// tool window docks into.
static void DrawDockSpace(MainFrameState *state) {
  const ImGuiViewport *viewport = ImGui::GetMainViewport();
  ImGui::SetNextWindowPos(viewport->WorkPos);
  ImGui::SetNextWindowSize(viewport->WorkSize);
  ImGui::SetNextWindowViewport(viewport->ID);
  ImGuiWindowFlags flags = ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_NoMove |
                           ImGuiWindowFlags_NoBringToFrontOnFocus | ImGuiWindowFlags_NoNavFocus |
                           ImGuiWindowFlags_NoDocking | ImGuiWindowFlags_NoSavedSettings;
  ImGui::PushStyleVar(ImGuiStyleVar_WindowPadding, ImVec2(0, 0));
  ImGui::PushStyleVar(ImGuiStyleVar_WindowRounding, 0.0f);
  ImGui::PushStyleVar(ImGuiStyleVar_WindowBorderSize, 0.0f);
  ImGui::Begin("DockSpace", nullptr, flags);
  ImGui::PopStyleVar(3);
  ImGui::DockSpace(ImGui::GetID("KtrnDockspace"), ImVec2(0, 0), ImGuiDockNodeFlags_PassthruCentralNode);
  ImGui::End();
  // Until the tool windows exist, the target's name stands in a window of its own in the dock space.
  if (ImGui::Begin("Target")) {
    if (state->target_name)
      ImGui::Text("Target: %s", state->target_name);
    else
      ImGui::TextDisabled("No target");
  }
  ImGui::End();
}

void DrawMainFrame(MainFrameState *state) {
  DrawMenuBar(state);
  DrawDockSpace(state);
  state->frame_count++;
}
