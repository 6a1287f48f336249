// The ten saved window layouts. Each slot is a file "layout%d.%s.ini" in the settings folder
// (slot digit, user-given name) holding Dear ImGui's window and docking sections and our sections
// of the tool windows (which are shown, their options); the user's other preferences stay out of
// it, so loading a layout changes only the windows.
#pragma once
#include "base/types.h"

enum { kSavedLayoutCount = 10, kSavedLayoutNameCapacity = 64, kSavedLayoutFileCapacity = 96 };

typedef struct SavedLayouts {
  char names[kSavedLayoutCount][kSavedLayoutNameCapacity];  // "Layout3" until a file names it
  u8 saved[kSavedLayoutCount];                                // the slot has a file
} SavedLayouts;

// Every slot back to its default name "Layout" followed by its digit, none saved.
void SavedLayoutsReset(SavedLayouts *layouts);
// A file name found in the settings folder: when it has the form "layout%d.%s.ini" with a
// non-empty name, that slot takes the name and counts as saved. Returns the slot, or -1.
s32 SavedLayoutsTakeFileName(SavedLayouts *layouts, const char *file_name);
// The file name of a slot under a name. Characters a file name cannot hold (\ / : * ? " < > |
// and controls) become '_'; the name is cut to fit. False for a slot out of range or an empty name.
bool SavedLayoutFileName(u32 slot, const char *name, char *out, u32 capacity);

// The part of an ini text that a layout keeps: every section but ours that are not about the tool
// windows. Passed through sink piece by piece; used both when a layout is saved and when one is
// loaded, so a hand-edited file cannot change the other preferences either.
typedef void (*LayoutTextFn)(void *user, const char *text, u64 length);
void SavedLayoutFilterText(const char *text, u64 length, LayoutTextFn sink, void *user);
