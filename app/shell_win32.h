// What kestrune.exe's shell asks of Windows beside its window: the file and folder dialogs, and
// the saved layouts' files in the settings folder (loaded and saved through Dear ImGui).
#pragma once
#include "app/app_state.h"
#include "app/saved_layouts.h"

// [SECTION] Dialogs
// Each returns false when the user cancelled; the path arrives as UTF-8. owner is the HWND.
enum FileDialog { kDialogSaveSession, kDialogOpenSession, kDialogOpenProgram, kDialogOpenSymbols };
bool AskFilePath(void *owner, FileDialog kind, char *out, u32 capacity);
bool AskFolder(void *owner, char *out, u32 capacity);  // the working directory's folder chooser

// [SECTION] Saved layouts
// settings_folder empty: no layouts (the program runs without an ini file). Problems are told in
// the output window.
void SavedLayoutsRead(SavedLayouts *layouts, const char *settings_folder);  // from the folder's files
// Dear ImGui's windows and docking with our tool windows, into the slot's file (a former file of
// the slot under another name goes); then the slots are read again.
void SavedLayoutSave(SavedLayouts *layouts, const char *settings_folder, u32 slot, const char *name, OutputLog *output);
// Between frames only: Dear ImGui takes the windows' places and docking from the file at once.
void SavedLayoutLoad(const SavedLayouts *layouts, const char *settings_folder, u32 slot, OutputLog *output);
void SavedLayoutDelete(SavedLayouts *layouts, const char *settings_folder, u32 slot);
