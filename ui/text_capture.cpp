#include "ui/text_capture.h"

#include <imgui.h>
#include <imgui_internal.h>

static const char *g_capture_path;

void TextCaptureStart(const char *path) { g_capture_path = path; }

void TextCaptureStop(void) {
  if (GImGui->LogEnabled) ImGui::LogFinish();
  g_capture_path = nullptr;
}

void TextCaptureWindow(const char *name) {
  if (!g_capture_path) return;
  if (!GImGui->LogEnabled) ImGui::LogToFile(-1, g_capture_path);
  ImGui::LogText("\n[window %s]\n", name);
}

bool TextCaptureActive(void) { return g_capture_path != nullptr; }
