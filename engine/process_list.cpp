#include "engine/process_list.h"

#include "base/os.h"

#include <windows.h>
#include <psapi.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// The base name of the process's first module, or false when it is WOW64, cannot be opened or
// has no module.
static bool NameOf64BitProcess(DWORD id, char *out, u32 capacity) {
  HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id);
  if (!process) return false;
  bool ok = false;
  BOOL wow64 = FALSE;
  HMODULE first = nullptr;
  DWORD needed = 0;
  wchar_t wide[260];
  if (IsWow64Process(process, &wow64) && !wow64 && K32EnumProcessModules(process, &first, sizeof first, &needed) &&
      needed >= sizeof first && K32GetModuleBaseNameW(process, first, wide, 260) > 0) {
    ok = WideCharToMultiByte(CP_UTF8, 0, wide, -1, out, (int)capacity, nullptr, nullptr) > 0;
  }
  CloseHandle(process);
  return ok;
}

EngineResult ProcessListRefresh(ProcessList *list) {
  list->count = 0;
  DWORD *ids = (DWORD *)list->ids;
  DWORD bytes = 0;
  if (!K32EnumProcesses(ids, sizeof list->ids, &bytes)) return kEngineSystemCallFailed;
  u32 n = bytes / sizeof(DWORD);
  for (u32 i = 0; i < n && list->count < kProcessListCapacity; i++) {
    ProcessEntry *e = &list->entries[list->count];
    if (ids[i] == 0 || !NameOf64BitProcess(ids[i], e->name, sizeof e->name)) continue;
    e->id = ids[i];
    list->count++;
  }
  return kEngineOk;
}

static int CompareByName(const void *a, const void *b) {
  const ProcessEntry *x = (const ProcessEntry *)a, *y = (const ProcessEntry *)b;
  int c = _stricmp(x->name, y->name);
  return c ? c : (x->id > y->id) - (x->id < y->id);
}

static int CompareById(const void *a, const void *b) {
  const ProcessEntry *x = (const ProcessEntry *)a, *y = (const ProcessEntry *)b;
  return (x->id > y->id) - (x->id < y->id);
}

void ProcessListSort(ProcessList *list, u32 sort) {
  qsort(list->entries, list->count, sizeof(ProcessEntry), sort == kSortById ? CompareById : CompareByName);
}

static char Lower(char c) { return c >= 'A' && c <= 'Z' ? (char)(c + 32) : c; }

static bool Subsequence(const char *text, const char *filter) {
  const char *f = filter;
  for (const char *t = text; *t && *f; t++)
    if (Lower(*t) == Lower(*f)) f++;
  return *f == 0;
}

bool ProcessListMatches(const ProcessEntry *entry, const char *filter) {
  if (!filter || !*filter) return true;
  char id[16];
  snprintf(id, sizeof id, "%u", entry->id);
  return Subsequence(entry->name, filter) || strstr(id, filter) != nullptr;
}

u32 ProcessFindByName(const char *name) {
  // The list is large (a name per process): pages of its own for the look-up, not the stack.
  ProcessList *list = (ProcessList *)OsMemoryAllocate(sizeof(ProcessList));
  if (!list) return 0;
  u32 id = 0;
  if (ProcessListRefresh(list) == kEngineOk)
    for (u32 i = 0; i < list->count && !id; i++)
      if (_stricmp(list->entries[i].name, name) == 0) id = list->entries[i].id;
  OsMemoryRelease(list, sizeof(ProcessList));
  return id;
}
