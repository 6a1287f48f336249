#include "app/test_hook.h"

#include <windows.h>

#include "base/types.h"
#include "ui/text_capture.h"

#include <imgui.h>
#include <stdio.h>
#include <string.h>

enum { kHookPathCapacity = 600, kStepNameCapacity = 64 };

static char g_folder[kHookPathCapacity];
static char g_dump_path[kHookPathCapacity];
static char g_temp_path[kHookPathCapacity];
static bool g_logging;

bool TestHookInit(void) {
  DWORD n = GetEnvironmentVariableA("KTRN_TEST_DUMP_DIR", g_folder, sizeof g_folder - 80);
  if (n == 0 || n >= sizeof g_folder - 80) g_folder[0] = 0;
  return g_folder[0] != 0;
}

// The step name from the request file: letters, digits, '-' and '_' only, so it stays a file name.
static bool TakeRequest(char *step) {
  char request[kHookPathCapacity];
  snprintf(request, sizeof request, "%s\\request", g_folder);
  FILE *f = fopen(request, "rb");
  if (!f) return false;
  char raw[kStepNameCapacity] = "";
  size_t got = fread(raw, 1, sizeof raw - 1, f);
  fclose(f);
  DeleteFileA(request);
  u32 length = 0;
  for (size_t i = 0; i < got; i++) {
    char c = raw[i];
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    if (plain) step[length++] = c;
  }
  if (!length) memcpy(step, "dump", 5), length = 4;
  step[length] = 0;
  return true;
}

void TestHookBeginFrame(void) {
  char step[kStepNameCapacity];
  if (!g_folder[0] || g_logging || !TakeRequest(step)) return;
  snprintf(g_dump_path, sizeof g_dump_path, "%s\\%s.txt", g_folder, step);
  snprintf(g_temp_path, sizeof g_temp_path, "%s\\%s.part", g_folder, step);
  DeleteFileA(g_temp_path);
  TextCaptureStart(g_temp_path);
  g_logging = true;
}

void TestHookEndFrame(void) {
  if (!g_logging) return;
  // What a "Copy" left there, as the user would paste it.
  const char *clipboard = ImGui::GetClipboardText();
  if (clipboard && clipboard[0]) {
    TextCaptureWindow("clipboard");
    TextCaptureLine(clipboard);
  }
  TextCaptureStop();
  g_logging = false;
  // The dump appears whole or not at all.
  MoveFileExA(g_temp_path, g_dump_path, MOVEFILE_REPLACE_EXISTING);
}
