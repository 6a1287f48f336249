// The recent-sessions list: at most ten full paths, most recent first. Kept in Settings and
// stored in the settings file's RecentFiles section.
#pragma once
#include "base/types.h"

enum { kRecentFilesMax = 10, kRecentPathCapacity = 260 };

typedef struct RecentFiles {
  char paths[kRecentFilesMax][kRecentPathCapacity];
  u32 count;
} RecentFiles;

// Puts a path at the head: made absolute first, an existing entry (compared without regard to
// ASCII case) moves up, otherwise the oldest entry falls off a full list. Returns 0, or 1 when
// the path is empty or its absolute form does not fit in an entry (the list is then unchanged).
int RecentFilesAdd(RecentFiles *recent, const char *path);

// Takes every entry equal to path (ignoring ASCII case) out of the list; returns how many went.
u32 RecentFilesRemove(RecentFiles *recent, const char *path);

// One line of the settings file's RecentFiles section: a path equal (ignoring case) to the entry
// just before it is skipped, any other is appended while the list has room. Empty lines and
// paths too long for an entry are ignored.
void RecentFilesLoadLine(RecentFiles *recent, const char *line);
