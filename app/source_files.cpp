#include "app/source_files.h"

#include <windows.h>

#include <stdio.h>
#include <string.h>

#include "app/debugging.h"
#include "app/folder_watch.h"
#include "engine/engine.h"
#include "symbols/source_checksum.h"

// [SECTION] Folder watch

// File name, folder name, attributes, size, last write and security changes.
enum : DWORD { kWatchFilter = 0x11F };

static u64 LastWriteTime(const char *path) {
  wchar_t wide[kSourceTabPathCapacity];
  if (MultiByteToWideChar(CP_UTF8, 0, path, -1, wide, kSourceTabPathCapacity) <= 0) return 0;
  HANDLE file = CreateFileW(wide, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return 0;
  FILETIME written = {};
  GetFileTime(file, nullptr, nullptr, &written);
  CloseHandle(file);
  return (u64)written.dwHighDateTime << 32 | written.dwLowDateTime;
}

// The watch of the tab's folder (the path up to its last separator); none for a bare name.
static void WatchOpen(SourceTab *tab) {
  tab->last_write_time = LastWriteTime(tab->path);
  const char *separator = nullptr;
  for (const char *p = tab->path; *p; p++)
    if (*p == '\\' || *p == '/') separator = p;
  if (!separator) return;
  char folder[kSourceTabPathCapacity];
  snprintf(folder, sizeof folder, "%.*s", (int)(separator - tab->path), tab->path);
  if (separator == tab->path + 2 && tab->path[1] == ':') snprintf(folder, sizeof folder, "%.3s", tab->path);  // "C:\"
  wchar_t wide[kSourceTabPathCapacity];
  if (MultiByteToWideChar(CP_UTF8, 0, folder, -1, wide, kSourceTabPathCapacity) <= 0) return;
  HANDLE watch = FindFirstChangeNotificationW(wide, FALSE, kWatchFilter);
  if (watch == INVALID_HANDLE_VALUE) return;
  tab->watch = (intptr_t)watch;
  tab->watch_polled = !FolderWatchAdd(tab->watch);
}

static void WatchClose(SourceTab *tab) {
  if (!tab->watch) return;
  if (!tab->watch_polled) FolderWatchRemove(tab->watch);
  FindCloseChangeNotification((HANDLE)tab->watch);
  tab->watch = 0;
}

// Tested without waiting; when signalled, re-armed and the file reloaded if its write time moved.
// A file that cannot be read keeps its old text.
static void WatchSignalled(SourceTab *tab) {
  FindNextChangeNotification((HANDLE)tab->watch);
  u64 written = LastWriteTime(tab->path);
  if (!written || written == tab->last_write_time) return;
  if (SourceTextLoad(&tab->text, tab->path) != kSourceTextOk) return;
  tab->last_write_time = written;
  tab->checksum = kChecksumUnchecked;
  tab->checksum_run = tab->checksum_modules = 0;
  if (tab->cursor_line >= tab->text.line_count) tab->cursor_line = tab->text.line_count - 1;
  tab->anchor_line = tab->cursor_line;
  tab->anchor_column = tab->cursor_column = 0;
}

// Each frame: the watches the watching thread saw fire are handled (re-armed, the file reloaded if
// its write time moved) and given back to it; any watch it had no room for is tested here, with one
// wait per 64 of them (each wait is a round trip to the system; under Wine one to its server).
static void PollWatches(AppState *app) {
  intptr_t fired[kFolderWatchCapacity];
  u32 fired_count = FolderWatchTakeFired(fired, kFolderWatchCapacity);
  for (u32 f = 0; f < fired_count; f++) {
    for (u32 i = 0; i < app->sources.count; i++)
      if (app->sources.tabs[i]->watch == fired[f]) WatchSignalled(app->sources.tabs[i]);
    FolderWatchRearm(fired[f]);
  }
  enum { kWaitMax = MAXIMUM_WAIT_OBJECTS };
  for (u32 first = 0; first < app->sources.count; first += kWaitMax) {
    HANDLE handles[kWaitMax];
    SourceTab *owners[kWaitMax];
    u32 n = 0;
    for (u32 i = first; i < app->sources.count && i < first + kWaitMax; i++)
      if (app->sources.tabs[i]->watch && app->sources.tabs[i]->watch_polled) {
        owners[n] = app->sources.tabs[i];
        handles[n] = (HANDLE)owners[n]->watch;
        n++;
      }
    while (n) {
      DWORD hit = WaitForMultipleObjects(n, handles, FALSE, 0);
      if (hit >= WAIT_OBJECT_0 + n) break;
      u32 i = hit - WAIT_OBJECT_0;
      WatchSignalled(owners[i]);
      handles[i] = handles[n - 1];
      owners[i] = owners[--n];
    }
  }
}

// [SECTION] Tabs and the session

static void Report(AppState *app, const char *path) {
  char line[kSourceTabPathCapacity + 32];
  snprintf(line, sizeof line, "Unable to open %s\n", path);
  OutputAppendZ(&app->output, line);
}

static SourceTab *OpenTab(AppState *app, const char *path, u32 index) {
  SourceTab *tab = SourceTabsOpen(&app->sources, path, index);
  if (tab) WatchOpen(tab);
  return tab;
}

static void CloseTab(AppState *app, u32 index) {
  WatchClose(app->sources.tabs[index]);
  SourceTabsClose(&app->sources, index);
}

bool SourceFilesOpenForSession(void *user, const char *path) {
  AppState *app = (AppState *)user;
  return SourceTabsFind(&app->sources, path) >= 0 || OpenTab(app, path, app->sources.count);
}

// The tabs in the order of the session's list: tabs of files the session dropped close, files it
// gained open (one that cannot be read is reported and dropped from the list).
static void FollowSession(AppState *app) {
  Session *s = &app->session;
  SourceTabs *tabs = &app->sources;
  for (u32 i = 0; i < s->source_file_count;) {
    const char *path = s->source_files[i];
    if (i < tabs->count && SourcePathsEqual(tabs->tabs[i]->path, path)) {
      i++;
      continue;
    }
    s32 at = SourceTabsFind(tabs, path);
    if (at > (s32)i) {  // moved: the tab keeps its serial number
      SourceTab *tab = tabs->tabs[at];
      memmove(&tabs->tabs[i + 1], &tabs->tabs[i], (u32)(at - (s32)i) * sizeof(SourceTab *));
      tabs->tabs[i] = tab;
      i++;
      continue;
    }
    if (OpenTab(app, path, i)) {
      i++;
      continue;
    }
    Report(app, path);
    char dropped[kSourceTabPathCapacity];
    snprintf(dropped, sizeof dropped, "%s", path);
    (void)SessionRemoveSourceFile(s, dropped);
  }
  while (tabs->count > s->source_file_count) CloseTab(app, tabs->count - 1);
}

// A stop in a file that cannot be read (a system library's sources) is not reported: report off.
static bool OpenAt(AppState *app, const char *path, u32 line, bool report) {
  Session *s = &app->session;
  s32 at = SourceTabsFind(&app->sources, path);
  if (at < 0) {
    SourceTab *tab = OpenTab(app, path, app->sources.count);
    if (!tab) {
      if (report) Report(app, path);
      return false;
    }
    if (SessionAddSourceFile(s, tab->path) != kSessionOk) {
      CloseTab(app, app->sources.count - 1);
      return false;
    }
    s->modified = 1;
    at = (s32)app->sources.count - 1;
  }
  SourceTab *tab = app->sources.tabs[at];
  if (line) {
    tab->scroll_to_line = (s32)line - 1;
    tab->cursor_line = tab->anchor_line = line - 1;
    tab->cursor_column = tab->anchor_column = 0;
  }
  tab->focus = 1;
  return true;
}

bool SourceFilesOpen(AppState *app, const char *path, u32 line) { return OpenAt(app, path, line, true); }

void SourceFilesClose(AppState *app, const char *path) {
  s32 at = SourceTabsFind(&app->sources, path);
  if (at < 0) return;
  char held[kSourceTabPathCapacity];
  snprintf(held, sizeof held, "%s", app->sources.tabs[at]->path);
  CloseTab(app, (u32)at);
  for (u32 i = 0; i < app->session.source_file_count; i++)
    if (SourcePathsEqual(app->session.source_files[i], held)) {
      (void)SessionRemoveSourceFile(&app->session, app->session.source_files[i]);
      app->session.modified = 1;
      break;
    }
}

void SourceFilesCarryOut(AppState *app, const SourceViewRequests *r, void (*wake)(void *), void *wake_user) {
  SourceTabs *tabs = &app->sources;
  char path[kAppPathCapacity];
  if (r->toggle_tab >= 0 && (u32)r->toggle_tab < tabs->count) {
    if (r->toggle_breakpoint) DebuggingRemoveBreakpoint(app, r->toggle_breakpoint);
    else DebuggingAddLineBreakpoint(app, tabs->tabs[r->toggle_tab]->path, r->toggle_line);
  }
  if (r->run_to_tab >= 0 && (u32)r->run_to_tab < tabs->count)
    DebuggingRunToLine(app, tabs->tabs[r->run_to_tab]->path, r->run_to_line, r->run_to_reason, wake, wake_user);
  if (r->set_next_tab >= 0 && (u32)r->set_next_tab < tabs->count &&
      DebuggingSetNextStatement(app, tabs->tabs[r->set_next_tab]->path, r->set_next_line) != kEngineOk)
    OutputAppendZ(&app->output, "Unable to set the next statement: no code at or after that line\n");
  if (r->add_watch[0] && SessionAddWatchRow(&app->session, 0, r->add_watch, "") == kSessionOk) app->session.modified = 1;
  if (r->close_others >= 0 && (u32)r->close_others < tabs->count) {
    snprintf(path, sizeof path, "%s", tabs->tabs[r->close_others]->path);
    for (u32 i = tabs->count; i-- > 0;)
      if (i < tabs->count && !SourcePathsEqual(tabs->tabs[i]->path, path)) SourceFilesClose(app, tabs->tabs[i]->path);
  } else if (r->close_tab >= 0 && (u32)r->close_tab < tabs->count) {
    snprintf(path, sizeof path, "%s", tabs->tabs[r->close_tab]->path);
    SourceFilesClose(app, path);
  }
}

void SourceFilesCloseAll(AppState *app) {
  for (u32 i = 0; i < app->sources.count; i++) WatchClose(app->sources.tabs[i]);
}

// [SECTION] The stopped target

// A file's checksum record in a module's symbols: the record of its first line entry.
static const u8 *ChecksumRecord(const ModuleSymbols *symbols, const char *path) {
  u32 file = PdbFindSourceFile(&symbols->pdb.source_files, path);
  if (!file) return nullptr;
  const PdbLines *lines = &symbols->pdb.lines;
  u32 lo = 0, hi = lines->count;
  while (lo < hi) {
    u32 mid = lo + (hi - lo) / 2;
    if (PdbLineFileOffset(&lines->by_file[mid]) < file) lo = mid + 1; else hi = mid;
  }
  return lo < lines->count && PdbLineFileOffset(&lines->by_file[lo]) == file ? lines->by_file[lo].file : nullptr;
}

// Under the model lock: each tab not checked against this run's modules is checked against the
// first loaded module whose symbols name its file.
static void CheckChecksums(AppState *app) {
  u32 modules = 0;
  for (TargetModule *m = app->target->modules; m; m = m->next) modules++;
  for (u32 i = 0; i < app->sources.count; i++) {
    SourceTab *tab = app->sources.tabs[i];
    if (tab->checksum_run == app->run_serial && tab->checksum_modules == modules) continue;
    tab->checksum_run = app->run_serial;
    tab->checksum_modules = modules;
    tab->checksum = kChecksumUnchecked;
    for (TargetModule *m = app->target->modules; m; m = m->next) {
      if (m->symbols.status != kSymbolsLoaded) continue;
      const u8 *record = ChecksumRecord(&m->symbols, tab->path);
      if (!record) continue;
      bool bom = false;
      SourceChecksumResult r = CheckSourceChecksum(record, (const u8 *)tab->text.bytes, tab->text.size, &bom);
      tab->checksum = r == kSourceDiffers ? kChecksumDiffers : kChecksumMatches;
      break;
    }
  }
}

// The selected frame's file and line; when the stop, thread or frame changed since the last
// frame, its file is opened (or its tab found) and asked to show the line.
static void FollowStop(AppState *app) {
  static u32 seen_stop, seen_thread;
  static s32 seen_frame = -1;
  if (!app->target || app->debug_state != kDebugSuspended) {
    app->location_line = 0;
    app->location_file[0] = 0;
    return;
  }
  if (!EngineTryLockModel(app->target)) return;
  TargetThread *thread = app->target->current_thread;
  u32 thread_id = thread ? thread->id : 0;
  s32 frame_index = thread ? thread->selected_frame : 0;
  CheckChecksums(app);
  EngineUnlockModel(app->target);
  if (seen_stop == app->stop_serial && seen_thread == thread_id && seen_frame == frame_index) return;
  const StackFrame *frames = nullptr;
  u32 count = thread ? EngineThreadStack(app->target, thread, &frames) : 0;
  if (!EngineTryLockModel(app->target)) return;  // looked at again next frame
  seen_stop = app->stop_serial;
  seen_thread = thread_id;
  seen_frame = frame_index;
  app->location_line = 0;
  app->location_file[0] = 0;
  app->location_top_frame = frame_index <= 0;
  if (frame_index >= 0 && (u32)frame_index < count) {
    const StackFrame *f = &frames[frame_index];
    if (f->module && f->file && f->line && f->module->symbols.status == kSymbolsLoaded) {
      const char *name = PdbStringAt(&f->module->symbols.pdb.strings, PdbFileRecordNameOffset(f->file));
      snprintf(app->location_file, sizeof app->location_file, "%s", name);
      app->location_line = f->line;
    }
  }
  EngineUnlockModel(app->target);
  // The file as the symbols name it (under Wine a Unix path of a program built here opens as it is).
  if (app->location_line) OpenAt(app, app->location_file, app->location_line, false);
}

void SourceFilesEachFrame(AppState *app) {
  FollowSession(app);
  PollWatches(app);
  FollowStop(app);
}
