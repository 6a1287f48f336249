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

static bool g_suspended;

bool TextCaptureActive(void) { return g_capture_path && GImGui->LogEnabled; }

void TextCaptureSuspend(bool suspended) {
  if (!g_capture_path || g_suspended == suspended) return;
  // The log file stays open: widgets only skip writing while the flag is off.
  GImGui->LogEnabled = !suspended;
  g_suspended = suspended;
}

void TextCaptureLine(const char *line) {
  if (!g_capture_path) return;
  bool was = GImGui->LogEnabled;
  GImGui->LogEnabled = true;
  ImGui::LogText("%s\n", line);
  GImGui->LogEnabled = was;
}
