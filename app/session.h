// The user's debugging document: target commands, breakpoints, eight watch lists and the open
// source files. Plain data with owned texts (heap, freed by SessionReset/SessionFree); the file
// form lives in session_file.h.
//
// Every row (target command, breakpoint, watch row) is allocated on its own and never moves: the
// lists hold pointers, so a pointer to a row stays valid until that row is removed, however the
// list grows or shrinks around it. Each row also carries an id, unique within the process, that
// the windows and the engine's results use to find it again after the list changed.
#pragma once
#include "engine/breakpoint_kind.h"
#include "base/types.h"

// [SECTION] Limits
enum {
  kSessionPathCapacity = 260,     // session path, recent-file paths, source paths with terminator
  kSourcePathMaxLength = 258,     // longer open-file paths are skipped when a session is read
  kWatchWindowCount = 8,
  kWatchRowBufferSize = 512,      // one row's expression or comment buffer, with its terminator
  kWatchTextMaxLength = 510,      // a saved row text of 511 bytes or more would derail the reader
  kWatchRowMinCapacity = 128,
};

// [SECTION] Target commands
typedef struct TargetCommand {
  u32 id;
  char *command;            // program path
  char *arguments;
  char *working_directory;
  char *environment;        // the user's variable lines
  u8 inherit_from_parent;   // merge the environment with the debugger's own
  u8 halt_at_nominal_entry; // 1: a first step stops at the nominal entry point
} TargetCommand;

// [SECTION] Breakpoints

// What a breakpoint is while a target runs; never saved. The engine keeps its own record of each
// bound place (struct BreakpointLocation, engine side); the model holds only a pointer to it.
enum BreakpointState {
  kBreakpointStateNone = 0,       // no target, or not given to the engine yet
  kBreakpointStateBound = 1,
  kBreakpointStatePending = 2,    // no loaded module has its place yet
  kBreakpointStateExpressionFailed = 4,  // a processor breakpoint's address expression failed
};
enum { kBreakpointErrorCapacity = 128, kBreakpointBoundFileCapacity = 260 };

struct BreakpointLocation;  // the engine's location record

typedef struct BreakpointRuntime {
  u32 state;                 // BreakpointState
  u8 condition_parse_failed;
  char condition_error[kBreakpointErrorCapacity];
  struct BreakpointLocation *location;  // owned by the engine's target; null when unbound
  u64 bound_address;
  const void *bound_module;  // the engine's TargetModule, for display only
  char bound_file[kBreakpointBoundFileCapacity];
  u32 bound_line;
  u32 hit_count;
} BreakpointRuntime;

typedef struct Breakpoint {
  u32 id;
  // What the session file holds:
  u32 kind;       // BreakpointKind
  char *place;    // function name (kind 0), file path (kind 1), address expression (kind 3)
  u32 line;       // kind 1
  u64 address;    // kind 2
  u32 size;       // a processor breakpoint's byte count; kept for every kind
  u32 access;     // ProcessorAccess, kind 3
  char *condition;
  u8 enabled;
  // What the current run made of it (cleared when the run ends):
  BreakpointRuntime runtime;
} Breakpoint;

// [SECTION] Watch lists
typedef struct WatchRow {
  u32 id;
  char expression[kWatchRowBufferSize];
  char comment[kWatchRowBufferSize];
} WatchRow;

typedef struct WatchList {
  WatchRow **rows;  // rows[0..count) allocated; slots up to capacity reserved
  u32 count;
  u32 capacity;
} WatchList;

// [SECTION] Session
typedef struct Session {
  TargetCommand **targets;
  u32 target_count;
  u32 target_capacity;
  u32 current_target;
  Breakpoint **breakpoints;
  u32 breakpoint_count;
  u32 breakpoint_capacity;
  WatchList watches[kWatchWindowCount];
  char **source_files;      // full paths in tab order
  u32 source_file_count;
  u32 source_file_capacity;
  char path[kSessionPathCapacity];  // empty for an unnamed session
  u8 modified;
} Session;

enum SessionResult {
  kSessionOk = 0,
  kSessionNoMemory = 1,
  kSessionBadArgument = 2,   // index out of range, text too long
  kSessionNotFound = 3,
};

void SessionInit(Session *session);     // an empty, unnamed session
void SessionReset(Session *session);    // drops everything (New Session); keeps nothing
void SessionFree(Session *session);     // same as reset; the object may be dropped afterwards

// Owned copy of length bytes of text with a terminator (null when out of memory).
char *TextDuplicate(const char *text, u64 length);
char *TextDuplicateZ(const char *text);  // null text gives an empty owned string
u64 TextLength(const char *text);        // null counts as empty
bool TextEqual(const char *a, const char *b);            // byte for byte; null equals ""
bool TextEqualNoCase(const char *a, const char *b);      // ASCII letters folded
void TextReplace(char **slot, const char *text);         // frees the old text; null text clears

// Target commands. Appending returns the new command's index in *index.
int SessionAddTarget(Session *session, const char *command, const char *arguments,
                     const char *working_directory, u32 *index);
int SessionRemoveTarget(Session *session, u32 index);
TargetCommand *SessionCurrentTarget(Session *session);  // null when there is none

// Breakpoints. The new breakpoint gets size 4, write access, no condition, enabled.
int SessionAddBreakpoint(Session *session, u32 kind, const char *place, u32 line, u64 address,
                         u32 *index);
int SessionRemoveBreakpoint(Session *session, u32 index);
// Index of the source-line breakpoint on that file (case-insensitive) and line, or -1.
s32 SessionFindSourceLineBreakpoint(const Session *session, const char *path, u32 line);
// Removes every function breakpoint whose name equals name byte for byte; returns how many.
// removed (optional) is told each one before it goes, so the engine can drop its location.
typedef void (*BreakpointRemovedFn)(void *user, const Breakpoint *breakpoint);
u32 SessionRemoveFunctionBreakpoints(Session *session, const char *name, BreakpointRemovedFn removed,
                                     void *user);

// Watch rows. Texts longer than kWatchTextMaxLength bytes are cut there (at a character start).
int SessionAddWatchRow(Session *session, u32 window, const char *expression, const char *comment);
int SessionSetWatchRow(Session *session, u32 window, u32 row, const char *expression, const char *comment);
// Removes a row (its id is gone with it); moves a row to index to, the rows between shifting by one.
int SessionRemoveWatchRow(Session *session, u32 window, u32 row);
int SessionMoveWatchRow(Session *session, u32 window, u32 row, u32 to);
// Makes room for at least count rows (and never fewer than kWatchRowMinCapacity).
int WatchListReserve(WatchList *list, u32 count);
// A new, empty row at the end of the list (null when out of memory). Does not mark the session.
WatchRow *WatchListAppend(WatchList *list);

// Finding rows again by id; null when the row is gone.
Breakpoint *SessionFindBreakpoint(Session *session, u32 id);
WatchRow *SessionFindWatchRow(Session *session, u32 window, u32 id);
// Forgets what the last run made of every breakpoint (state, engine record, bound place).
void SessionClearBreakpointRuntime(Session *session);

// Open source files; paths longer than kSourcePathMaxLength are refused (kSessionBadArgument).
int SessionAddSourceFile(Session *session, const char *path);
int SessionRemoveSourceFile(Session *session, const char *path);  // case-insensitive match

// Copies at most capacity-1 bytes, never splitting a UTF-8 sequence; returns the length copied.
u64 TextCopyClamped(char *out, u64 capacity, const char *text, u64 length);

// Deep comparison of the saved content (not the path or the modified flag); used by tests and the
// round-trip tool. Returns 0 when equal, else a short description of the first difference.
const char *SessionDifference(const Session *a, const Session *b);
