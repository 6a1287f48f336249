// Running processes for the attach dialog and for reattaching by name: 64-bit processes only,
// since WOW64 processes cannot be debugged by this engine.
#pragma once
#include "base/types.h"
#include "engine/engine_result.h"

enum : u32 {
  kProcessListCapacity = 2048,
  kProcessNameCapacity = 260 * 3,  // 260 UTF-16 units as UTF-8
};

typedef struct ProcessEntry {
  u32 id;
  char name[kProcessNameCapacity];  // base name of the first module, UTF-8
} ProcessEntry;

typedef struct ProcessList {
  u32 count;
  u32 ids[kProcessListCapacity];  // the system's answer, before the filtering
  ProcessEntry entries[kProcessListCapacity];
} ProcessList;

enum ProcessSort : u32 { kSortByName = 0, kSortById = 1 };

// Fills the list with every process that can be opened for query and read, is not WOW64, and has
// a first module. 0, or 37 when the system does not enumerate.
EngineResult ProcessListRefresh(ProcessList *list);
void ProcessListSort(ProcessList *list, u32 sort);
// Whether the row "%5u %s" shows for the filter: every filter character in order, ignoring case
// (an empty filter shows every row); "12" also matches by the process id's digits.
bool ProcessListMatches(const ProcessEntry *entry, const char *filter);
// The id of the first process whose name equals name, ignoring case; 0 when none.
u32 ProcessFindByName(const char *name);
