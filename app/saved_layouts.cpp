#include "app/saved_layouts.h"

#include <stdio.h>
#include <string.h>

#include "app/session.h"
#include "app/settings.h"

static const char kFilePrefix[] = "layout";
static const char kFileSuffix[] = ".ini";
static const char kOwnHeader[] = "[Kestrune][";

void SavedLayoutsReset(SavedLayouts *layouts) {
  memset(layouts, 0, sizeof *layouts);
  for (u32 i = 0; i < kSavedLayoutCount; i++) snprintf(layouts->names[i], kSavedLayoutNameCapacity, "Layout%u", i);
}

s32 SavedLayoutsTakeFileName(SavedLayouts *layouts, const char *file_name) {
  u64 length = strlen(file_name), prefix = sizeof kFilePrefix - 1, suffix = sizeof kFileSuffix - 1;
  // "layout" digit "." at least one character ".ini"
  if (length < prefix + 3 + suffix || !TextEqualNoCase(kFileSuffix, file_name + length - suffix)) return -1;
  char head[sizeof kFilePrefix];
  memcpy(head, file_name, prefix);
  head[prefix] = 0;
  if (!TextEqualNoCase(head, kFilePrefix)) return -1;
  char digit = file_name[prefix];
  if (digit < '0' || digit > '9' || file_name[prefix + 1] != '.') return -1;
  u32 slot = (u32)(digit - '0');
  const char *name = file_name + prefix + 2;
  TextCopyClamped(layouts->names[slot], kSavedLayoutNameCapacity, name, (u64)(file_name + length - suffix - name));
  layouts->saved[slot] = 1;
  return (s32)slot;
}

bool SavedLayoutFileName(u32 slot, const char *name, char *out, u32 capacity) {
  if (slot >= kSavedLayoutCount || !name || !name[0]) return false;
  char clean[kSavedLayoutNameCapacity];
  u64 n = TextCopyClamped(clean, sizeof clean, name, strlen(name));
  for (u64 i = 0; i < n; i++)
    if ((u8)clean[i] < 0x20 || strchr("\\/:*?\"<>|", clean[i])) clean[i] = '_';
  int written = snprintf(out, capacity, "%s%u.%s%s", kFilePrefix, slot, clean, kFileSuffix);
  return written > 0 && (u32)written < capacity;
}

// A header line "[Kestrune][Name]" of a section that is not about the tool windows.
static bool IsOwnSectionOutsideLayout(const char *line, u64 length) {
  u64 header = sizeof kOwnHeader - 1;
  if (length <= header + 1 || memcmp(line, kOwnHeader, header) != 0 || line[length - 1] != ']') return false;
  char name[64];
  u64 n = TextCopyClamped(name, sizeof name, line + header, length - header - 1);
  name[n] = 0;
  return !SettingsSectionIsLayout(name);
}

void SavedLayoutFilterText(const char *text, u64 length, LayoutTextFn sink, void *user) {
  bool keep = true;
  u64 at = 0;
  while (at < length) {
    u64 end = at;
    while (end < length && text[end] != '\n') end++;
    u64 line_end = end > at && text[end - 1] == '\r' ? end - 1 : end;
    if (line_end > at && text[at] == '[') keep = !IsOwnSectionOutsideLayout(text + at, line_end - at);
    u64 next = end < length ? end + 1 : end;
    if (keep) sink(user, text + at, next - at);
    at = next;
  }
}
