// Loads the fonts of the settings into Dear ImGui's atlas (see fonts.h).
#include "app/fonts.h"

#include <imgui.h>
#include <shlobj.h>
#include <stdio.h>
#include <windows.h>

#include "ui/run_control_glyphs.h"

#define STB_TRUETYPE_IMPLEMENTATION
#define STBTT_STATIC
#include "imstb_truetype.h"

// The whole file, in memory that Dear ImGui's atlas then owns; null when it cannot be read or is
// not a font that the atlas can build from (a broken file would fail the whole atlas).
static void *ReadFontFile(const char *path, int *size) {
  wchar_t wide[MAX_PATH];
  if (!MultiByteToWideChar(CP_UTF8, 0, path, -1, wide, MAX_PATH)) return nullptr;
  HANDLE file = CreateFileW(wide, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return nullptr;
  LARGE_INTEGER length = {};
  void *data = nullptr;
  if (GetFileSizeEx(file, &length) && length.QuadPart > 12 && length.QuadPart < (64 << 20)) {
    data = ImGui::MemAlloc((size_t)length.QuadPart);
    DWORD got = 0;
    if (data && (!ReadFile(file, data, (DWORD)length.QuadPart, &got, nullptr) || got != (DWORD)length.QuadPart)) {
      ImGui::MemFree(data);
      data = nullptr;
    }
  }
  CloseHandle(file);
  stbtt_fontinfo info;
  if (data && (stbtt_GetFontOffsetForIndex((const unsigned char *)data, 0) != 0 ||
               !stbtt_InitFont(&info, (const unsigned char *)data, 0))) {
    ImGui::MemFree(data);
    data = nullptr;
  }
  *size = (int)length.QuadPart;
  return data;
}

// "lucon.ttf" in the system fonts folder, as UTF-8; false when the folder cannot be had.
static bool DefaultFontPath(char *out, u32 capacity) {
  wchar_t *folder = nullptr;
  bool ok = false;
  if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_Fonts, 0, nullptr, &folder))) {
    wchar_t path[MAX_PATH];
    ok = _snwprintf(path, MAX_PATH, L"%ls\\lucon.ttf", folder) > 0 &&
         WideCharToMultiByte(CP_UTF8, 0, path, -1, out, (int)capacity, nullptr, nullptr) > 0;
  }
  CoTaskMemFree(folder);
  return ok;
}

static ImFont *AddFont(AppState *app, const char *name, s32 size_px, float scale, const SymbolFont *symbols,
                       const char *missing_message) {
  ImFontAtlas *atlas = ImGui::GetIO().Fonts;
  float pixels = (float)(size_px > 0 ? size_px : 14) * scale;
  char default_path[MAX_PATH * 3];
  const char *path = name[0] ? name : (DefaultFontPath(default_path, sizeof default_path) ? default_path : nullptr);
  int size = 0;
  void *data = path ? ReadFontFile(path, &size) : nullptr;
  ImFont *font = nullptr;
  if (data) {
    ImFontConfig config;
    config.FontDataOwnedByAtlas = true;
    font = atlas->AddFontFromMemoryTTF(data, size, pixels, &config);
  } else {
    if (name[0]) {
      char text[kSettingsFontNameCapacity + 80];
      snprintf(text, sizeof text, missing_message, name);
      OutputAppendZ(&app->output, text);
    }
    // The built-in font is a pixel font drawn for 13 px: other sizes blur it, so it keeps its own
    // size (times the display scale), and the symbols are merged at that size too.
    pixels = 13.0f * scale;
    ImFontConfig config;
    config.SizePixels = pixels;
    font = atlas->AddFontDefault(&config);
  }
  if (symbols->data && symbols->size) {
    static const ImWchar kRange[] = {(ImWchar)kRunControlGlyphFirst, (ImWchar)kRunControlGlyphLast, 0};
    ImFontConfig merge;
    merge.MergeMode = true;
    merge.FontDataOwnedByAtlas = false;  // the executable's resource
    merge.PixelSnapH = true;
    atlas->AddFontFromMemoryTTF((void *)symbols->data, (int)symbols->size, pixels, &merge, kRange);
  }
  return font;
}

FontsBuilt FontsBuild(AppState *app, const SymbolFont *symbols, float display_scale) {
  ImGuiIO &io = ImGui::GetIO();
  io.Fonts->Clear();
  const Settings *s = &app->settings;
  FontsBuilt built;
  built.ui = AddFont(app, s->ui_font_name, s->ui_font_size_px, display_scale, symbols,
                     "ERROR: Unable to open UI font file \"%s\". Using default font.\n");
  built.text = AddFont(app, s->text_font_name, s->text_font_size_px, display_scale, symbols,
                       "ERROR: Unable to open text font file \"%s\". Using default font.\n");
  io.FontDefault = built.ui;
  return built;
}
