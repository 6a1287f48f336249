// The session model: owned texts and growable arrays on the C heap.
#include "app/session.h"

#include <stdlib.h>
#include <string.h>

// [SECTION] Texts

char *TextDuplicate(const char *text, u64 length) {
  char *copy = (char *)malloc((size_t)length + 1);
  if (!copy) return nullptr;
  if (length) memcpy(copy, text, (size_t)length);
  copy[length] = 0;
  return copy;
}

char *TextDuplicateZ(const char *text) { return TextDuplicate(text ? text : "", TextLength(text)); }

u64 TextLength(const char *text) { return text ? strlen(text) : 0; }

bool TextEqual(const char *a, const char *b) { return strcmp(a ? a : "", b ? b : "") == 0; }

static int FoldAscii(unsigned char c) { return (c >= 'A' && c <= 'Z') ? c + 32 : c; }

bool TextEqualNoCase(const char *a, const char *b) {
  const unsigned char *x = (const unsigned char *)(a ? a : "");
  const unsigned char *y = (const unsigned char *)(b ? b : "");
  for (;; x++, y++) {
    if (FoldAscii(*x) != FoldAscii(*y)) return false;
    if (!*x) return true;
  }
}

void TextReplace(char **slot, const char *text) {
  char *copy = (text && *text) ? TextDuplicateZ(text) : nullptr;
  free(*slot);
  *slot = copy;
}

u64 TextCopyClamped(char *out, u64 capacity, const char *text, u64 length) {
  if (capacity == 0) return 0;
  u64 n = MinU64(length, capacity - 1);
  // Step back over continuation bytes so that a cut never leaves half a character.
  if (n < length)
    while (n > 0 && ((unsigned char)text[n] & 0xC0) == 0x80) n--;
  if (n) memcpy(out, text, (size_t)n);
  out[n] = 0;
  return n;
}

// [SECTION] Growing arrays

static bool Grow(void **items, u32 *capacity, u32 needed, u64 item_size, u32 minimum) {
  if (needed <= *capacity) return true;
  u64 next = *capacity ? (u64)*capacity * 2 : minimum;
  if (next < needed) next = needed;
  if (next > 0xFFFFFFFFu) next = 0xFFFFFFFFu;
  void *grown = realloc(*items, (size_t)(next * item_size));
  if (!grown) return false;
  *items = grown;
  *capacity = (u32)next;
  return true;
}

// Row ids: unique within the process, never 0.
static u32 g_next_row_id = 1;
static u32 NextRowId(void) {
  u32 id = g_next_row_id++;
  if (g_next_row_id == 0) g_next_row_id = 1;
  return id;
}

// One zeroed row of size bytes with a fresh id in its first word.
static void *NewRow(u64 size) {
  void *row = calloc(1, (size_t)size);
  if (row) *(u32 *)row = NextRowId();
  return row;
}

// [SECTION] Lifetime

void SessionInit(Session *session) { memset(session, 0, sizeof(*session)); }

static void TargetCommandFree(TargetCommand *t) {
  free(t->command);
  free(t->arguments);
  free(t->working_directory);
  free(t->environment);
  free(t);
}

static void BreakpointFree(Breakpoint *b) {
  free(b->place);
  free(b->condition);
  free(b);
}

void SessionReset(Session *session) {
  for (u32 i = 0; i < session->target_count; i++) TargetCommandFree(session->targets[i]);
  for (u32 i = 0; i < session->breakpoint_count; i++) BreakpointFree(session->breakpoints[i]);
  for (u32 i = 0; i < session->source_file_count; i++) free(session->source_files[i]);
  for (u32 w = 0; w < kWatchWindowCount; w++) {
    WatchList *list = &session->watches[w];
    for (u32 r = 0; r < list->count; r++) free(list->rows[r]);
    free(list->rows);
  }
  free(session->targets);
  free(session->breakpoints);
  free(session->source_files);
  SessionInit(session);
}

void SessionFree(Session *session) { SessionReset(session); }

// [SECTION] Target commands

int SessionAddTarget(Session *session, const char *command, const char *arguments,
                     const char *working_directory, u32 *index) {
  if (!Grow((void **)&session->targets, &session->target_capacity, session->target_count + 1,
            sizeof(TargetCommand *), 4))
    return kSessionNoMemory;
  TargetCommand *t = (TargetCommand *)NewRow(sizeof(TargetCommand));
  if (!t) return kSessionNoMemory;
  session->targets[session->target_count] = t;
  t->halt_at_nominal_entry = 1;
  TextReplace(&t->command, command);
  TextReplace(&t->arguments, arguments);
  TextReplace(&t->working_directory, working_directory);
  if (index) *index = session->target_count;
  session->target_count++;
  session->modified = 1;
  return kSessionOk;
}

int SessionRemoveTarget(Session *session, u32 index) {
  if (index >= session->target_count) return kSessionBadArgument;
  TargetCommandFree(session->targets[index]);
  memmove(&session->targets[index], &session->targets[index + 1],
          (session->target_count - index - 1) * sizeof(TargetCommand *));
  session->target_count--;
  if (session->current_target > index || session->current_target >= session->target_count)
    session->current_target = session->current_target ? session->current_target - 1 : 0;
  session->modified = 1;
  return kSessionOk;
}

TargetCommand *SessionCurrentTarget(Session *session) {
  if (session->current_target >= session->target_count) return nullptr;
  return session->targets[session->current_target];
}

// [SECTION] Breakpoints

int SessionAddBreakpoint(Session *session, u32 kind, const char *place, u32 line, u64 address,
                         u32 *index) {
  if (kind > kBreakpointProcessor) return kSessionBadArgument;
  if (!Grow((void **)&session->breakpoints, &session->breakpoint_capacity, session->breakpoint_count + 1,
            sizeof(Breakpoint *), 8))
    return kSessionNoMemory;
  Breakpoint *b = (Breakpoint *)NewRow(sizeof(Breakpoint));
  if (!b) return kSessionNoMemory;
  session->breakpoints[session->breakpoint_count] = b;
  b->kind = kind;
  if (kind != kBreakpointAddress) TextReplace(&b->place, place);
  b->line = kind == kBreakpointSourceLine ? line : 0;
  b->address = kind == kBreakpointAddress ? address : 0;
  b->size = 4;
  b->access = kAccessWrite;
  b->enabled = 1;
  if (index) *index = session->breakpoint_count;
  session->breakpoint_count++;
  session->modified = 1;
  return kSessionOk;
}

int SessionRemoveBreakpoint(Session *session, u32 index) {
  if (index >= session->breakpoint_count) return kSessionBadArgument;
  BreakpointFree(session->breakpoints[index]);
  memmove(&session->breakpoints[index], &session->breakpoints[index + 1],
          (session->breakpoint_count - index - 1) * sizeof(Breakpoint *));
  session->breakpoint_count--;
  session->modified = 1;
  return kSessionOk;
}

s32 SessionFindSourceLineBreakpoint(const Session *session, const char *path, u32 line) {
  for (u32 i = 0; i < session->breakpoint_count; i++) {
    const Breakpoint *b = session->breakpoints[i];
    if (b->kind == kBreakpointSourceLine && b->line == line && TextEqualNoCase(b->place, path)) return (s32)i;
  }
  return -1;
}

u32 SessionRemoveFunctionBreakpoints(Session *session, const char *name, BreakpointRemovedFn removed,
                                     void *user) {
  u32 count = 0;
  u32 i = 0;
  while (i < session->breakpoint_count) {  // no advance after a removal: the next one moved into i
    const Breakpoint *b = session->breakpoints[i];
    if (b->kind == kBreakpointFunction && TextEqual(b->place, name)) {
      if (removed) removed(user, b);
      SessionRemoveBreakpoint(session, i);
      count++;
    } else {
      i++;
    }
  }
  return count;
}

// [SECTION] Watch rows

int WatchListReserve(WatchList *list, u32 count) {
  u32 wanted = count < kWatchRowMinCapacity ? kWatchRowMinCapacity : count;
  if (wanted <= list->capacity) return kSessionOk;
  WatchRow **grown = (WatchRow **)realloc(list->rows, (size_t)wanted * sizeof(WatchRow *));
  if (!grown) return kSessionNoMemory;
  list->rows = grown;
  list->capacity = wanted;
  return kSessionOk;
}

WatchRow *WatchListAppend(WatchList *list) {
  if (list->count == 0xFFFFFFFFu) return nullptr;
  if (list->count >= list->capacity) {
    u64 next = list->capacity ? (u64)list->capacity * 2 : kWatchRowMinCapacity;
    if (WatchListReserve(list, (u32)MinU64(next, 0xFFFFFFFFu)) != kSessionOk) return nullptr;
  }
  WatchRow *row = (WatchRow *)NewRow(sizeof(WatchRow));
  if (row) list->rows[list->count++] = row;
  return row;
}

Breakpoint *SessionFindBreakpoint(Session *session, u32 id) {
  for (u32 i = 0; i < session->breakpoint_count; i++)
    if (session->breakpoints[i]->id == id) return session->breakpoints[i];
  return nullptr;
}

WatchRow *SessionFindWatchRow(Session *session, u32 window, u32 id) {
  if (window >= kWatchWindowCount) return nullptr;
  WatchList *list = &session->watches[window];
  for (u32 r = 0; r < list->count; r++)
    if (list->rows[r]->id == id) return list->rows[r];
  return nullptr;
}

void SessionClearBreakpointRuntime(Session *session) {
  for (u32 i = 0; i < session->breakpoint_count; i++)
    memset(&session->breakpoints[i]->runtime, 0, sizeof(BreakpointRuntime));
}

static void SetRowText(char *buffer, const char *text) {
  const char *t = text ? text : "";
  TextCopyClamped(buffer, kWatchTextMaxLength + 1, t, strlen(t));
}

int SessionSetWatchRow(Session *session, u32 window, u32 row, const char *expression, const char *comment) {
  if (window >= kWatchWindowCount || row >= session->watches[window].count) return kSessionBadArgument;
  WatchRow *r = session->watches[window].rows[row];
  SetRowText(r->expression, expression);
  SetRowText(r->comment, comment);
  session->modified = 1;
  return kSessionOk;
}

int SessionAddWatchRow(Session *session, u32 window, const char *expression, const char *comment) {
  if (window >= kWatchWindowCount) return kSessionBadArgument;
  WatchList *list = &session->watches[window];
  if (list->count == 0xFFFFFFFFu) return kSessionBadArgument;
  if (!WatchListAppend(list)) return kSessionNoMemory;
  return SessionSetWatchRow(session, window, list->count - 1, expression, comment);
}

int SessionRemoveWatchRow(Session *session, u32 window, u32 row) {
  if (window >= kWatchWindowCount || row >= session->watches[window].count) return kSessionBadArgument;
  WatchList *list = &session->watches[window];
  free(list->rows[row]);
  memmove(&list->rows[row], &list->rows[row + 1], (size_t)(list->count - row - 1) * sizeof(WatchRow *));
  list->count--;
  session->modified = 1;
  return kSessionOk;
}

int SessionMoveWatchRow(Session *session, u32 window, u32 row, u32 to) {
  if (window >= kWatchWindowCount) return kSessionBadArgument;
  WatchList *list = &session->watches[window];
  if (row >= list->count || to >= list->count) return kSessionBadArgument;
  if (row == to) return kSessionOk;
  WatchRow *moved = list->rows[row];
  if (to < row) memmove(&list->rows[to + 1], &list->rows[to], (size_t)(row - to) * sizeof(WatchRow *));
  else memmove(&list->rows[row], &list->rows[row + 1], (size_t)(to - row) * sizeof(WatchRow *));
  list->rows[to] = moved;
  session->modified = 1;
  return kSessionOk;
}

// [SECTION] Source files

int SessionAddSourceFile(Session *session, const char *path) {
  if (!path || !*path || strlen(path) > kSourcePathMaxLength) return kSessionBadArgument;
  if (!Grow((void **)&session->source_files, &session->source_file_capacity, session->source_file_count + 1,
            sizeof(char *), 8))
    return kSessionNoMemory;
  char *copy = TextDuplicateZ(path);
  if (!copy) return kSessionNoMemory;
  session->source_files[session->source_file_count++] = copy;
  session->modified = 1;
  return kSessionOk;
}

int SessionRemoveSourceFile(Session *session, const char *path) {
  for (u32 i = 0; i < session->source_file_count; i++) {
    if (!TextEqualNoCase(session->source_files[i], path)) continue;
    free(session->source_files[i]);
    memmove(&session->source_files[i], &session->source_files[i + 1],
            (session->source_file_count - i - 1) * sizeof(char *));
    session->source_file_count--;
    session->modified = 1;
    return kSessionOk;
  }
  return kSessionNotFound;
}

// [SECTION] Comparison

const char *SessionDifference(const Session *a, const Session *b) {
  if (a->target_count != b->target_count) return "target command count";
  if (a->target_count && a->current_target != b->current_target) return "current target command";
  for (u32 i = 0; i < a->target_count; i++) {
    const TargetCommand *x = a->targets[i], *y = b->targets[i];
    if (!TextEqual(x->command, y->command)) return "target command";
    if (!TextEqual(x->arguments, y->arguments)) return "target arguments";
    if (!TextEqual(x->working_directory, y->working_directory)) return "target working directory";
    if (!TextEqual(x->environment, y->environment)) return "target environment";
    if ((x->inherit_from_parent != 0) != (y->inherit_from_parent != 0)) return "target inherit flag";
    if ((x->halt_at_nominal_entry != 0) != (y->halt_at_nominal_entry != 0)) return "target halt flag";
  }
  if (a->breakpoint_count != b->breakpoint_count) return "breakpoint count";
  for (u32 i = 0; i < a->breakpoint_count; i++) {
    const Breakpoint *x = a->breakpoints[i], *y = b->breakpoints[i];
    if (x->kind != y->kind) return "breakpoint kind";
    if (!TextEqual(x->place, y->place)) return "breakpoint place";
    if (x->line != y->line) return "breakpoint line";
    if (x->address != y->address) return "breakpoint address";
    if (x->size != y->size) return "breakpoint size";
    if (x->kind == kBreakpointProcessor && x->access != y->access) return "breakpoint access";
    if (!TextEqual(x->condition, y->condition)) return "breakpoint condition";
    if ((x->enabled != 0) != (y->enabled != 0)) return "breakpoint enabled flag";
  }
  for (u32 w = 0; w < kWatchWindowCount; w++) {
    const WatchList *x = &a->watches[w], *y = &b->watches[w];
    if (x->count != y->count) return "watch row count";
    for (u32 r = 0; r < x->count; r++) {
      if (strcmp(x->rows[r]->expression, y->rows[r]->expression) != 0) return "watch expression";
      if (strcmp(x->rows[r]->comment, y->rows[r]->comment) != 0) return "watch comment";
    }
  }
  if (a->source_file_count != b->source_file_count) return "source file count";
  for (u32 i = 0; i < a->source_file_count; i++)
    if (!TextEqual(a->source_files[i], b->source_files[i])) return "source file";
  return nullptr;
}
