// Reading and writing session files. The reader walks the image with a bounds-checked cursor and
// stops at the first field it cannot read; everything read before that point stays.
//
// [SECTION] Cursor
// [SECTION] Reader
// [SECTION] Writer
// [SECTION] Files
#include "app/session_file.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/os.h"

static const u8 kMagic[4] = {'K', 'T', 'R', 'N'};

// [SECTION] Cursor

typedef struct Cursor {
  const u8 *data;
  u64 size;
  u64 at;
} Cursor;

static u64 Remaining(const Cursor *c) { return c->size - c->at; }

static bool ReadBytes(Cursor *c, void *out, u64 count) {
  if (Remaining(c) < count) return false;
  memcpy(out, c->data + c->at, (size_t)count);
  c->at += count;
  return true;
}

static bool ReadU8(Cursor *c, u8 *out) { return ReadBytes(c, out, 1); }

static bool ReadU32(Cursor *c, u32 *out) {
  u8 b[4];
  if (!ReadBytes(c, b, 4)) return false;
  *out = (u32)b[0] | (u32)b[1] << 8 | (u32)b[2] << 16 | (u32)b[3] << 24;
  return true;
}

static bool ReadU64(Cursor *c, u64 *out) {
  u32 lo, hi;
  if (!ReadU32(c, &lo) || !ReadU32(c, &hi)) return false;
  *out = (u64)hi << 32 | lo;
  return true;
}

// A string's bytes stay in the image; *text points at them (not terminated).
static bool ReadString(Cursor *c, const char **text, u32 *length) {
  if (!ReadU32(c, length) || Remaining(c) < *length) return false;
  *text = (const char *)c->data + c->at;
  c->at += *length;
  return true;
}

// An owned copy of a string (null for an empty one); false when the string cannot be read or
// memory runs out.
static bool ReadOwnedString(Cursor *c, char **out) {
  const char *text;
  u32 length;
  if (!ReadString(c, &text, &length)) return false;
  *out = nullptr;
  if (length == 0) return true;
  *out = TextDuplicate(text, length);
  return *out != nullptr;
}

// [SECTION] Reader

typedef struct Reader {
  Cursor cursor;
  Session *session;
  const SessionReadHooks *hooks;
} Reader;

static void Output(const Reader *r, const char *text) {
  if (r->hooks && r->hooks->output) r->hooks->output(r->hooks->user, text);
}

// Ensures the first target command exists (an empty one when the file brought no text for it).
static bool EnsureFirstTarget(Session *s) {
  return s->target_count > 0 || SessionAddTarget(s, nullptr, nullptr, nullptr, nullptr) == kSessionOk;
}

// One watch list's texts (expressions or comments). A text of 511 bytes or more ends the list at
// once, right after its length word: what follows is then read out of step, as it always was.
// Returns false only when the image ends (or memory runs out) inside the list.
static bool ReadWatchTexts(Reader *r, WatchList *list, bool comments) {
  u32 count;
  if (!ReadU32(&r->cursor, &count)) return false;
  if (count == 0) return true;
  if (list && !comments) {
    // Each row takes at least its 4-byte length, so the image bounds what can really follow.
    u32 plausible = (u32)MinU64(count, Remaining(&r->cursor) / 4);
    if (WatchListReserve(list, plausible) != kSessionOk) return false;
  }
  for (u32 i = 0; i < count; i++) {
    u32 length;
    if (!ReadU32(&r->cursor, &length)) return false;
    if (length > kWatchTextMaxLength) return true;
    char text[kWatchRowBufferSize];
    if (!ReadBytes(&r->cursor, text, length)) return false;
    text[length] = 0;
    if (!list) continue;
    if (comments) {
      if (i < list->count) memcpy(list->rows[i]->comment, text, (size_t)length + 1);
    } else {
      WatchRow *row = WatchListAppend(list);
      if (!row) return false;
      memcpy(row->expression, text, (size_t)length + 1);
      row->comment[0] = 0;
    }
  }
  return true;
}

static bool ReadTargetStrings(Reader *r, char **command, char **arguments, char **directory) {
  return ReadOwnedString(&r->cursor, command) && ReadOwnedString(&r->cursor, arguments) &&
         ReadOwnedString(&r->cursor, directory);
}

static bool ReadSection2(Reader *r) {
  char *command = nullptr, *arguments = nullptr, *directory = nullptr;
  bool ok = ReadTargetStrings(r, &command, &arguments, &directory);
  if (ok && (command || arguments || directory))
    ok = SessionAddTarget(r->session, command, arguments, directory, nullptr) == kSessionOk;
  free(command);
  free(arguments);
  free(directory);
  return ok;
}

static bool ReadSection3(Reader *r) {
  u32 count;
  if (!ReadU32(&r->cursor, &count)) return false;
  for (u32 i = 0; i < count; i++) {
    const char *text;
    u32 length;
    if (!ReadString(&r->cursor, &text, &length)) return false;
    if (length > kSourcePathMaxLength) continue;  // too long for a tab: skipped without a word
    char path[kSessionPathCapacity];
    memcpy(path, text, length);
    path[length] = 0;
    if (!path[0]) continue;
    const SessionReadHooks *h = r->hooks;
    if (h && h->open_source_file && !h->open_source_file(h->user, path)) {
      char message[kSessionPathCapacity + 32];
      snprintf(message, sizeof(message), "Unable to open %s\n", path);
      Output(r, message);
      continue;
    }
    if (SessionAddSourceFile(r->session, path) != kSessionOk) return false;
  }
  return true;
}

static bool ReadSection4(Reader *r) {
  u32 count;
  if (!ReadU32(&r->cursor, &count)) return false;
  for (u32 i = 0; i < count; i++) {
    u32 reserved, kind, line = 0;
    u64 address = 0;
    char *place = nullptr;
    // Only the reserved string's length word is read: the writer always leaves it empty.
    if (!ReadU32(&r->cursor, &reserved) || !ReadU32(&r->cursor, &kind)) return false;
    bool ok = true;
    switch (kind) {
      case kBreakpointFunction: ok = ReadOwnedString(&r->cursor, &place); break;
      case kBreakpointSourceLine: ok = ReadOwnedString(&r->cursor, &place) && ReadU32(&r->cursor, &line); break;
      case kBreakpointAddress: ok = ReadU64(&r->cursor, &address); break;
      case kBreakpointProcessor: place = TextDuplicateZ(" "); ok = place != nullptr; break;
      default: ok = false; break;  // an unknown kind has no known layout: nothing after it can be trusted
    }
    u32 index;
    if (ok) ok = SessionAddBreakpoint(r->session, kind, place, line, address, &index) == kSessionOk;
    free(place);
    if (!ok) return false;
    Breakpoint *b = r->session->breakpoints[index];
    b->enabled = (kind == kBreakpointFunction || kind == kBreakpointSourceLine);
  }
  return true;
}

// Sections 6, 7 and 13: a count, then one field per breakpoint. Values beyond the session's own
// breakpoints are read (to stay in step) and dropped.
enum PerBreakpointField { kFieldSize, kFieldCondition, kFieldEnabled };

static bool ReadPerBreakpoint(Reader *r, PerBreakpointField field) {
  u32 count;
  if (!ReadU32(&r->cursor, &count)) return false;
  Session *s = r->session;
  for (u32 i = 0; i < count; i++) {
    Breakpoint *b = i < s->breakpoint_count ? s->breakpoints[i] : nullptr;
    if (field == kFieldSize) {
      u32 size;
      if (!ReadU32(&r->cursor, &size)) return false;
      if (b) b->size = size;
    } else if (field == kFieldEnabled) {
      u8 enabled;
      if (!ReadU8(&r->cursor, &enabled)) return false;
      if (b) b->enabled = enabled != 0;
    } else {
      char *condition;
      if (!ReadOwnedString(&r->cursor, &condition)) return false;
      if (b) {
        free(b->condition);
        b->condition = condition;
      } else {
        free(condition);
      }
    }
  }
  return true;
}

static bool ReadSection8(Reader *r) {
  char *environment;
  u8 inherit;
  if (!ReadOwnedString(&r->cursor, &environment)) return false;
  if (!ReadU8(&r->cursor, &inherit)) {
    free(environment);
    return false;
  }
  Session *s = r->session;
  if ((environment || inherit) && !EnsureFirstTarget(s)) {
    free(environment);
    return false;
  }
  if (s->target_count) {
    free(s->targets[0]->environment);
    s->targets[0]->environment = environment;
    s->targets[0]->inherit_from_parent = inherit != 0;
  }
  return true;
}

static bool ReadSection9(Reader *r) {
  u32 count;
  if (!ReadU32(&r->cursor, &count)) return false;
  if (count == 0) return true;
  if (!EnsureFirstTarget(r->session)) return false;
  for (u32 i = 1; i < count; i++) {
    char *command = nullptr, *arguments = nullptr, *directory = nullptr, *environment = nullptr;
    u8 inherit = 0;
    u32 index;
    bool ok = ReadTargetStrings(r, &command, &arguments, &directory) &&
              ReadOwnedString(&r->cursor, &environment) && ReadU8(&r->cursor, &inherit) &&
              SessionAddTarget(r->session, command, arguments, directory, &index) == kSessionOk;
    if (ok) {
      r->session->targets[index]->environment = environment;
      r->session->targets[index]->inherit_from_parent = inherit != 0;
      environment = nullptr;
    }
    free(command);
    free(arguments);
    free(directory);
    free(environment);
    if (!ok) return false;
  }
  return true;
}

static bool ReadSection10(Reader *r) {
  u32 index;
  if (!ReadU32(&r->cursor, &index)) return false;
  if (index < r->session->target_count) r->session->current_target = index;
  return true;
}

static bool ReadSection11(Reader *r) {
  u32 count;
  if (!ReadU32(&r->cursor, &count)) return false;
  for (u32 k = 0; k < count; k++) {  // lists past the eighth window are read and dropped
    WatchList *list = k + 1 < kWatchWindowCount ? &r->session->watches[k + 1] : nullptr;
    if (!ReadWatchTexts(r, list, false)) return false;
  }
  return true;
}

static bool ReadSection12(Reader *r) {
  u32 count;
  if (!ReadU32(&r->cursor, &count)) return false;
  Session *s = r->session;
  u32 n = count < s->breakpoint_count ? count : s->breakpoint_count;
  for (u32 i = 0; i < n; i++) {
    Breakpoint *b = s->breakpoints[i];
    if (b->kind != kBreakpointProcessor) continue;
    char *expression;
    u32 size, access;
    if (!ReadOwnedString(&r->cursor, &expression)) return false;
    free(b->place);
    b->place = expression;
    if (!ReadU32(&r->cursor, &size) || !ReadU32(&r->cursor, &access)) return false;
    b->size = size;
    b->access = access <= kAccessExecute ? access : kAccessWrite;
  }
  return true;
}

static bool ReadSection14(Reader *r) {
  for (u32 w = 0; w < kWatchWindowCount; w++)
    if (!ReadWatchTexts(r, &r->session->watches[w], true)) return false;
  return true;
}

static bool ReadSection15(Reader *r) {
  u32 count;
  if (!ReadU32(&r->cursor, &count)) return false;
  for (u32 i = 0; i < count; i++) {
    u8 halt;
    if (!ReadU8(&r->cursor, &halt)) return false;
    if (i < r->session->target_count) r->session->targets[i]->halt_at_nominal_entry = halt != 0;
  }
  return true;
}

static bool ReadSection(Reader *r, u32 section) {
  switch (section) {
    case 2: return ReadSection2(r);
    case 3: return ReadSection3(r);
    case 4: return ReadSection4(r);
    case 5: return ReadWatchTexts(r, &r->session->watches[0], false);
    case 6: return ReadPerBreakpoint(r, kFieldSize);
    case 7: return ReadPerBreakpoint(r, kFieldCondition);
    case 8: return ReadSection8(r);
    case 9: return ReadSection9(r);
    case 10: return ReadSection10(r);
    case 11: return ReadSection11(r);
    case 12: return ReadSection12(r);
    case 13: return ReadPerBreakpoint(r, kFieldEnabled);
    case 14: return ReadSection14(r);
    case 15: return ReadSection15(r);
  }
  return false;
}

int SessionReadFromMemory(Session *session, const u8 *data, u64 size, const SessionReadHooks *hooks,
                          u32 *sections_read, u64 *bytes_unread) {
  SessionReset(session);
  if (sections_read) *sections_read = 0;
  if (bytes_unread) *bytes_unread = 0;
  if (!data || size < 4 || memcmp(data, kMagic, 4) != 0) return kSessionFileBadMagic;
  Reader r = {{data, size, 4}, session, hooks};
  u32 complete = 1;
  u64 complete_end = r.cursor.at;
  while (complete < kSessionSectionCount && ReadSection(&r, complete + 1)) {
    complete++;
    complete_end = r.cursor.at;
  }
  if (sections_read) *sections_read = complete;
  if (bytes_unread) *bytes_unread = size - complete_end;
  session->modified = 0;
  if (hooks && hooks->add_breakpoint)
    for (u32 i = 0; i < session->breakpoint_count; i++) hooks->add_breakpoint(hooks->user, session, i);
  return kSessionFileOk;
}

// [SECTION] Writer

static void Put(SessionBytes *out, const void *bytes, u64 count) {
  if (out->failed) return;
  if (out->size + count > out->capacity) {
    u64 next = out->capacity ? out->capacity * 2 : 4096;
    while (next < out->size + count) next *= 2;
    u8 *grown = (u8 *)realloc(out->data, (size_t)next);
    if (!grown) {
      out->failed = true;
      return;
    }
    out->data = grown;
    out->capacity = next;
  }
  if (count) memcpy(out->data + out->size, bytes, (size_t)count);
  out->size += count;
}

static void PutU8(SessionBytes *out, u8 value) { Put(out, &value, 1); }

static void PutU32(SessionBytes *out, u32 value) {
  u8 b[4] = {(u8)value, (u8)(value >> 8), (u8)(value >> 16), (u8)(value >> 24)};
  Put(out, b, 4);
}

static void PutU64(SessionBytes *out, u64 value) {
  PutU32(out, (u32)value);
  PutU32(out, (u32)(value >> 32));
}

static void PutText(SessionBytes *out, const char *text, u64 length) {
  PutU32(out, (u32)length);
  Put(out, text, length);
}

static void PutString(SessionBytes *out, const char *text) {
  u64 length = TextLength(text);
  if (length > 0xFFFFFFFFu) length = 0xFFFFFFFFu;
  PutText(out, text, length);
}

// A row text as saved: up to its terminator, never 511 bytes or more.
static void PutRowText(SessionBytes *out, const char *buffer) {
  u64 length = strnlen(buffer, kWatchRowBufferSize);
  char clamped[kWatchRowBufferSize];
  length = TextCopyClamped(clamped, kWatchTextMaxLength + 1, buffer, length);
  PutText(out, clamped, length);
}

static bool Writable(const Breakpoint *b) { return b->kind <= kBreakpointProcessor; }

static u32 WritableBreakpointCount(const Session *s) {
  u32 n = 0;
  for (u32 i = 0; i < s->breakpoint_count; i++) n += Writable(s->breakpoints[i]);
  return n;
}

static void PutTargetTail(SessionBytes *out, const TargetCommand *t) {
  PutString(out, t->environment);
  PutU8(out, t->inherit_from_parent != 0);
}

int SessionWriteToMemory(const Session *s, SessionBytes *out) {
  memset(out, 0, sizeof(*out));
  const TargetCommand *first = s->target_count ? s->targets[0] : nullptr;
  u32 n = WritableBreakpointCount(s);
  Put(out, kMagic, 4);
  PutString(out, first ? first->command : nullptr);  // 2
  PutString(out, first ? first->arguments : nullptr);
  PutString(out, first ? first->working_directory : nullptr);
  PutU32(out, s->source_file_count);  // 3
  for (u32 i = 0; i < s->source_file_count; i++) PutString(out, s->source_files[i]);
  PutU32(out, n);  // 4
  for (u32 i = 0; i < s->breakpoint_count; i++) {
    const Breakpoint *b = s->breakpoints[i];
    if (!Writable(b)) continue;
    PutU32(out, 0);
    PutU32(out, b->kind);
    if (b->kind == kBreakpointFunction) PutString(out, b->place);
    if (b->kind == kBreakpointSourceLine) {
      PutString(out, b->place);
      PutU32(out, b->line);
    }
    if (b->kind == kBreakpointAddress) PutU64(out, b->address);
  }
  const WatchList *list = &s->watches[0];  // 5
  PutU32(out, list->count);
  for (u32 r = 0; r < list->count; r++) PutRowText(out, list->rows[r]->expression);
  PutU32(out, n);  // 6
  for (u32 i = 0; i < s->breakpoint_count; i++)
    if (Writable(s->breakpoints[i])) PutU32(out, s->breakpoints[i]->size);
  PutU32(out, n);  // 7
  for (u32 i = 0; i < s->breakpoint_count; i++)
    if (Writable(s->breakpoints[i])) PutString(out, s->breakpoints[i]->condition);
  if (first) {  // 8
    PutTargetTail(out, first);
  } else {
    PutU32(out, 0);
    PutU8(out, 0);
  }
  PutU32(out, s->target_count);  // 9
  for (u32 i = 1; i < s->target_count; i++) {
    const TargetCommand *t = s->targets[i];
    PutString(out, t->command);
    PutString(out, t->arguments);
    PutString(out, t->working_directory);
    PutTargetTail(out, t);
  }
  PutU32(out, s->current_target < s->target_count ? s->current_target : 0);  // 10
  PutU32(out, kWatchWindowCount - 1);  // 11
  for (u32 w = 1; w < kWatchWindowCount; w++) {
    list = &s->watches[w];
    PutU32(out, list->count);
    for (u32 r = 0; r < list->count; r++) PutRowText(out, list->rows[r]->expression);
  }
  PutU32(out, n);  // 12
  for (u32 i = 0; i < s->breakpoint_count; i++) {
    const Breakpoint *b = s->breakpoints[i];
    if (b->kind != kBreakpointProcessor) continue;
    PutString(out, b->place);
    PutU32(out, b->size);
    PutU32(out, b->access);
  }
  PutU32(out, n);  // 13
  for (u32 i = 0; i < s->breakpoint_count; i++)
    if (Writable(s->breakpoints[i])) PutU8(out, s->breakpoints[i]->enabled != 0);
  for (u32 w = 0; w < kWatchWindowCount; w++) {  // 14
    list = &s->watches[w];
    PutU32(out, list->count);
    for (u32 r = 0; r < list->count; r++) PutRowText(out, list->rows[r]->comment);
  }
  PutU32(out, s->target_count);  // 15
  for (u32 i = 0; i < s->target_count; i++) PutU8(out, s->targets[i]->halt_at_nominal_entry != 0);
  if (out->failed) {
    SessionBytesFree(out);
    return kSessionFileNoMemory;
  }
  return kSessionFileOk;
}

void SessionBytesFree(SessionBytes *bytes) {
  free(bytes->data);
  memset(bytes, 0, sizeof(*bytes));
}

// [SECTION] Files

static void SetSessionPath(Session *session, const char *path) {
  char full[1024];
  const char *use = OsPathMakeAbsolute(path, full, sizeof(full)) == kOsOk ? full : path;
  TextCopyClamped(session->path, sizeof(session->path), use, strlen(use));
}

int SessionReadFile(Session *session, const char *path, const SessionReadHooks *hooks, RecentFiles *recent,
                    u32 *sections_read, u64 *bytes_unread) {
  SessionReset(session);
  if (sections_read) *sections_read = 0;
  if (bytes_unread) *bytes_unread = 0;
  OsFile file;
  if (!path || OsFileOpenRead(path, &file) != kOsOk) return kSessionFileUnreadable;
  u64 size = 0;
  int result = kSessionFileOk;
  u8 *data = nullptr;
  if (OsFileSize(file, &size) != kOsOk) {
    result = kSessionFileUnreadable;
  } else if (size > kSessionFileMaxSize) {
    result = kSessionFileTooLarge;
  } else if (!(data = (u8 *)malloc((size_t)(size ? size : 1)))) {
    result = kSessionFileNoMemory;
  } else {
    u64 got = 0;
    if (OsFileRead(file, data, size, &got) != kOsOk) result = kSessionFileUnreadable;
    size = got;
  }
  OsFileClose(&file);
  if (result == kSessionFileOk) result = SessionReadFromMemory(session, data, size, hooks, sections_read, bytes_unread);
  free(data);
  if (result == kSessionFileOk) SetSessionPath(session, path);
  if ((result == kSessionFileOk || result == kSessionFileBadMagic) && recent) RecentFilesAdd(recent, path);
  return result;
}

int SessionWriteFile(Session *session, const char *path, RecentFiles *recent) {
  if (!path || !*path) return kSessionFileWriteFailed;
  SessionBytes bytes;
  int result = SessionWriteToMemory(session, &bytes);
  if (result != kSessionFileOk) return result;
  char temporary[1100];
  int n = snprintf(temporary, sizeof(temporary), "%s.tmp", path);
  OsFile file;
  result = kSessionFileWriteFailed;
  if (n > 0 && (u64)n < sizeof(temporary) && OsFileOpenWrite(temporary, &file) == kOsOk) {
    bool written = OsFileWrite(file, bytes.data, bytes.size) == kOsOk;
    OsFileClose(&file);
    if (written && OsFileReplace(temporary, path) == kOsOk) result = kSessionFileOk;
  }
  SessionBytesFree(&bytes);
  if (result != kSessionFileOk) return result;
  SetSessionPath(session, path);
  session->modified = 0;
  if (recent) RecentFilesAdd(recent, path);
  return kSessionFileOk;
}
