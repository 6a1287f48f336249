#include "app/source_tabs.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "app/app_state.h"

void SourceTabsInit(SourceTabs *tabs) {
  memset(tabs, 0, sizeof *tabs);
  tabs->next_serial = 1;
  tabs->active = -1;
}

void SourceTabsFree(SourceTabs *tabs) {
  while (tabs->count) SourceTabsClose(tabs, tabs->count - 1);
  free(tabs->tabs);
  TextSearch search = tabs->search;
  SourceTabsInit(tabs);
  tabs->search = search;
}

s32 SourceTabsFind(const SourceTabs *tabs, const char *path) {
  for (u32 i = 0; i < tabs->count; i++)
    if (SourcePathsEqual(tabs->tabs[i]->path, path)) return (s32)i;
  return -1;
}

SourceTab *SourceTabsOpen(SourceTabs *tabs, const char *path, u32 index) {
  if (strlen(path) >= kSourceTabPathCapacity) return nullptr;
  if (tabs->count == tabs->capacity) {
    u32 capacity = tabs->capacity ? tabs->capacity * 2 : 16;
    SourceTab **grown = (SourceTab **)realloc(tabs->tabs, capacity * sizeof(SourceTab *));
    if (!grown) return nullptr;
    tabs->tabs = grown;
    tabs->capacity = capacity;
  }
  SourceTab *tab = (SourceTab *)calloc(1, sizeof(SourceTab));
  if (!tab) return nullptr;
  if (SourceTextLoad(&tab->text, path) != kSourceTextOk) {
    free(tab);
    return nullptr;
  }
  snprintf(tab->path, sizeof tab->path, "%s", path);
  tab->serial = tabs->next_serial++;
  snprintf(tab->title, sizeof tab->title, "%s###%03zd", PathFileName(path), (size_t)tab->serial);
  tab->scroll_to_line = -1;
  if (index > tabs->count) index = tabs->count;
  memmove(&tabs->tabs[index + 1], &tabs->tabs[index], (tabs->count - index) * sizeof(SourceTab *));
  tabs->tabs[index] = tab;
  tabs->count++;
  return tab;
}

void SourceTabsClose(SourceTabs *tabs, u32 index) {
  if (index >= tabs->count) return;
  SourceTab *tab = tabs->tabs[index];
  SourceTextFree(&tab->text);
  free(tab);
  memmove(&tabs->tabs[index], &tabs->tabs[index + 1], (tabs->count - index - 1) * sizeof(SourceTab *));
  tabs->count--;
  if (tabs->active == (s32)index) tabs->active = -1;
  else if (tabs->active > (s32)index) tabs->active--;
}
