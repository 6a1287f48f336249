#include "ui/output_window.h"

#include <imgui.h>

static void CopyAll(const AppState *app) { ImGui::SetClipboardText(app->output.text ? app->output.text : ""); }

static void DrawContextMenu(AppState *app) {
  if (!ImGui::BeginPopupContextWindow("output-wnd")) return;
  Settings *s = &app->settings;
  if (ImGui::MenuItem("Copy to Clipboard", "Ctrl+C")) CopyAll(app);
  ImGui::Separator();
  bool module_load = s->show_module_load, module_unload = s->show_module_unload;
  bool thread_exit = s->show_thread_exit, process_exit = s->show_process_exit;
  bool auto_clear = s->auto_clear_output_window;
  if (ImGui::MenuItem("Module Load Messages", nullptr, &module_load)) s->show_module_load = module_load;
  if (ImGui::MenuItem("Module Unload Messages", nullptr, &module_unload)) s->show_module_unload = module_unload;
  if (ImGui::MenuItem("Thread Exit Messages", nullptr, &thread_exit)) s->show_thread_exit = thread_exit;
  if (ImGui::MenuItem("Process Exit Messages", nullptr, &process_exit)) s->show_process_exit = process_exit;
  if (ImGui::MenuItem("Auto Clear", nullptr, &auto_clear)) s->auto_clear_output_window = auto_clear;
  if (ImGui::MenuItem("Clear")) OutputClear(&app->output);
  ImGui::EndPopup();
}

void DrawOutputWindow(AppState *app) {
  OutputLog *log = &app->output;
  if (ImGui::IsWindowFocused(ImGuiFocusedFlags_RootAndChildWindows) && ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiKey_C))
    CopyAll(app);
  ImGui::BeginChild("scrolling", ImVec2(0, 0), ImGuiChildFlags_None, ImGuiWindowFlags_HorizontalScrollbar);
  // Follow the bottom only when the view was there before the new text arrived.
  bool at_bottom = ImGui::GetScrollY() >= ImGui::GetScrollMaxY();
  if (log->length) ImGui::TextUnformatted(log->text, log->text + log->length);
  if (log->grew && at_bottom) ImGui::SetScrollHereY(1.0f);
  log->grew = 0;
  DrawContextMenu(app);
  ImGui::EndChild();
}
