// The source view's open files: one tab per file, in the order of the session's list of open
// source files, which is what the session saves. Each tab holds its text, its cursor and
// selection, the one-frame requests of navigation, the change watch of its folder and the checksum
// state against the symbols. Portable: the folder watch is an opaque handle that app/ polls.
#pragma once
#include "app/source_text.h"
#include "app/text_search.h"

enum { kSourceTabPathCapacity = 260 };

enum SourceChecksumState : u8 {
  kChecksumUnchecked = 0,  // no loaded module's symbols name the file yet
  kChecksumMatches = 1,
  kChecksumDiffers = 2,    // "Warning: source file on disk does not match checksum in symbol file"
};

typedef struct SourceTab {
  char path[kSourceTabPathCapacity];
  char title[kSourceTabPathCapacity + 8];  // "%s###%03zd": file name and serial number
  u32 serial;
  SourceText text;
  // Cursor and selection as (line, byte column) pairs, 0-based; the selection runs from the anchor
  // to the cursor.
  u32 cursor_line, cursor_column;
  u32 anchor_line, anchor_column;
  // One-frame requests, cleared by the frame that honours them.
  s32 scroll_to_line;   // 0-based; -1 for none
  u8 focus;
  // The folder watch (a change-notification handle, 0 for none) and the last write time loaded.
  intptr_t watch;
  u8 watch_polled;  // tested by the frame itself, not by the watching thread (it was full)
  u64 last_write_time;
  u8 checksum;          // SourceChecksumState
  u32 checksum_run;     // the run (AppState's run serial) and module count the state was made for
  u32 checksum_modules;
} SourceTab;

typedef struct SourceTabs {
  SourceTab **tabs;  // heap records that never move, in tab order
  u32 count;
  u32 capacity;
  u32 next_serial;
  s32 active;        // the tab last focused, -1 for none
  TextSearch search; // the Find pattern shared by all tabs
} SourceTabs;

void SourceTabsInit(SourceTabs *tabs);
void SourceTabsFree(SourceTabs *tabs);  // the caller has closed the watches

// The tab of a path (SourcePathsEqual), or -1.
s32 SourceTabsFind(const SourceTabs *tabs, const char *path);
// Opens the file in a new tab at position index (count for the end); null when it cannot be read.
SourceTab *SourceTabsOpen(SourceTabs *tabs, const char *path, u32 index);
// Closes a tab (its watch must be closed by the caller first).
void SourceTabsClose(SourceTabs *tabs, u32 index);
