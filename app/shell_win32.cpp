// [SECTION] Dialogs
// [SECTION] Saved layouts
#include "app/shell_win32.h"

#include <windows.h>
#include <commdlg.h>
#include <shlobj.h>

#include <imgui.h>
#include <imgui_internal.h>
#include <stdio.h>
#include <string.h>

#include "base/os.h"

// [SECTION] Dialogs

bool AskFilePath(void *owner, FileDialog kind, char *out, u32 capacity) {
  wchar_t file[MAX_PATH] = L"";
  OPENFILENAMEW ofn = {sizeof ofn};
  ofn.hwndOwner = (HWND)owner;
  ofn.lpstrFilter = kind == kDialogOpenProgram   ? L"Programs (*.exe)\0*.exe\0All files (*.*)\0*.*\0"
                    : kind == kDialogOpenSymbols ? L"Program databases (*.pdb)\0*.pdb\0All files (*.*)\0*.*\0"
                                                 : L"Kestrune session (*.ktrn)\0*.ktrn\0";
  ofn.lpstrFile = file;
  ofn.nMaxFile = MAX_PATH;
  ofn.lpstrDefExt = kind == kDialogOpenProgram ? L"exe" : kind == kDialogOpenSymbols ? L"pdb" : L"ktrn";
  BOOL chosen;
  if (kind == kDialogSaveSession) {
    ofn.Flags = OFN_OVERWRITEPROMPT | OFN_PATHMUSTEXIST;
    chosen = GetSaveFileNameW(&ofn);
  } else {
    ofn.Flags = OFN_FILEMUSTEXIST | OFN_PATHMUSTEXIST;
    chosen = GetOpenFileNameW(&ofn);
  }
  return chosen && WideCharToMultiByte(CP_UTF8, 0, file, -1, out, (int)capacity, nullptr, nullptr) > 0;
}

bool AskFolder(void *owner, char *out, u32 capacity) {
  BROWSEINFOW info = {};
  info.hwndOwner = (HWND)owner;
  info.lpszTitle = L"Working Directory";
  info.ulFlags = BIF_RETURNONLYFSDIRS | BIF_NEWDIALOGSTYLE;
  PIDLIST_ABSOLUTE chosen = SHBrowseForFolderW(&info);
  if (!chosen) return false;
  wchar_t folder[MAX_PATH];
  bool ok = SHGetPathFromIDListW(chosen, folder) &&
            WideCharToMultiByte(CP_UTF8, 0, folder, -1, out, (int)capacity, nullptr, nullptr) > 0;
  CoTaskMemFree(chosen);
  return ok;
}

// [SECTION] Saved layouts

enum { kLayoutPathCapacity = 260 + kSavedLayoutFileCapacity };

static bool LayoutPath(const char *folder, u32 slot, const char *name, char *out, u32 capacity) {
  char file[kSavedLayoutFileCapacity];
  if (!folder[0] || !SavedLayoutFileName(slot, name, file, sizeof file)) return false;
  int n = snprintf(out, capacity, "%s\\%s", folder, file);
  return n > 0 && (u32)n < capacity;
}

void SavedLayoutsRead(SavedLayouts *layouts, const char *folder) {
  SavedLayoutsReset(layouts);
  if (!folder[0]) return;
  char pattern[kLayoutPathCapacity];
  snprintf(pattern, sizeof pattern, "%s\\*.ini", folder);
  WIN32_FIND_DATAA found;
  HANDLE search = FindFirstFileA(pattern, &found);
  if (search == INVALID_HANDLE_VALUE) return;
  do SavedLayoutsTakeFileName(layouts, found.cFileName);
  while (FindNextFileA(search, &found));
  FindClose(search);
}

static void AppendToImGuiText(void *user, const char *text, u64 length) {
  ((ImGuiTextBuffer *)user)->append(text, text + length);
}

static void Report(OutputLog *output, const char *what, const char *path) {
  char line[kLayoutPathCapacity + 48];
  snprintf(line, sizeof line, "%s %s\n", what, path);
  OutputAppendZ(output, line);
}

void SavedLayoutSave(SavedLayouts *layouts, const char *folder, u32 slot, const char *name, OutputLog *output) {
  char path[kLayoutPathCapacity], old_path[kLayoutPathCapacity];
  if (!LayoutPath(folder, slot, name, path, sizeof path)) return;
  if (layouts->saved[slot] && LayoutPath(folder, slot, layouts->names[slot], old_path, sizeof old_path) &&
      strcmp(old_path, path) != 0)
    DeleteFileA(old_path);
  size_t size = 0;
  const char *whole = ImGui::SaveIniSettingsToMemory(&size);
  ImGuiTextBuffer kept;
  SavedLayoutFilterText(whole, size, AppendToImGuiText, &kept);
  OsFile file;
  bool written = OsFileOpenWrite(path, &file) == kOsOk;
  if (written) {
    written = OsFileWrite(file, kept.c_str(), (u64)kept.size()) == kOsOk;
    OsFileClose(&file);
  }
  if (!written) Report(output, "Unable to save the layout to", path);
  SavedLayoutsRead(layouts, folder);
}

void SavedLayoutLoad(const SavedLayouts *layouts, const char *folder, u32 slot, OutputLog *output) {
  char path[kLayoutPathCapacity];
  if (!LayoutPath(folder, slot, layouts->names[slot], path, sizeof path)) return;
  size_t size = 0;
  char *text = (char *)ImFileLoadToMemory(path, "rb", &size);
  if (!text) {
    Report(output, "Unable to open the layout", path);
    return;
  }
  ImGuiTextBuffer kept;
  SavedLayoutFilterText(text, size, AppendToImGuiText, &kept);
  IM_FREE(text);
  if (kept.size()) ImGui::LoadIniSettingsFromMemory(kept.c_str(), (size_t)kept.size());
}

void SavedLayoutDelete(SavedLayouts *layouts, const char *folder, u32 slot) {
  char path[kLayoutPathCapacity];
  if (LayoutPath(folder, slot, layouts->names[slot], path, sizeof path)) DeleteFileA(path);
  SavedLayoutsRead(layouts, folder);
}
