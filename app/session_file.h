// Session files (".ktrn"): the binary form of a Session.
//
// The format has no version number; it grew by appending sections, so a reader takes a file that
// ends after any complete section and leaves what follows at its defaults, and a writer emits the
// sections in this order and never inserts one. Integers are little-endian; a string is a 32-bit
// length and that many bytes, no terminator.
//    1  magic "KTRN"
//    2  first target command: command, arguments, working directory (three strings)
//    3  open source files: count, paths
//    4  breakpoints: count N, then per breakpoint a reserved empty string, the kind and its place
//       (0 function name; 1 file path and line; 2 64-bit address; 3 nothing, see 12)
//    5  watch window 1: row count, row expressions
//    6  N, each breakpoint's size word
//    7  N, each breakpoint's condition
//    8  first target command's environment and inherit-from-parent byte
//    9  target command count, then for the second and later ones four strings and a byte
//   10  index of the current target command
//   11  further watch windows (7), each as in 5
//   12  N, then for processor breakpoints only: address expression, size, access kind
//   13  N, each breakpoint's enabled byte
//   14  for each of the eight watch windows: row count, row comments
//   15  target command count, each one's halt-at-nominal-entry-point byte
#pragma once
#include "app/recent_files.h"
#include "app/session.h"

enum SessionFileResult {
  kSessionFileOk = 0,
  kSessionFileUnreadable = 1,  // cannot be opened or read
  kSessionFileBadMagic = 2,    // shorter than four bytes or not "KTRN"
  kSessionFileNoMemory = 3,
  kSessionFileTooLarge = 4,
  kSessionFileWriteFailed = 5,
};

enum { kSessionSectionCount = 15, kSessionFileMaxSize = 1u << 30 };

// What the reader hands to the rest of the program. Every member may be null.
typedef struct SessionReadHooks {
  void *user;
  // Opens a source file in a tab of the source view; false when it cannot be opened (the reader
  // then reports it and leaves it out of the session).
  bool (*open_source_file)(void *user, const char *path);
  // Called once per breakpoint after the whole file was read, so that the breakpoint arrives
  // complete (condition, size, access and enabled flag) for the engine to bind.
  void (*add_breakpoint)(void *user, const Session *session, u32 index);
  // Output window text, e.g. "Unable to open %s\n".
  void (*output)(void *user, const char *text);
} SessionReadHooks;

// Reads a session image into session (reset first, so a failure leaves an empty session).
// *sections_read (optional) receives the number of the last complete section: 0 when the magic
// was wrong, 15 for a whole current file. A file that ends early is still a success.
// *bytes_unread (optional) receives how many bytes follow the last complete section: 0 for a file
// that ends after a section (an older file's last one included); more means the next section was
// cut or damaged, and saving over the file would lose what it still holds.
int SessionReadFromMemory(Session *session, const u8 *data, u64 size, const SessionReadHooks *hooks,
                          u32 *sections_read, u64 *bytes_unread = nullptr);

// Reads a session file: the session is reset, the file read, and on success the session's path
// becomes the file's full path. The path goes to the head of recent (optional) on success and also
// when the magic is wrong, never when the file cannot be opened.
int SessionReadFile(Session *session, const char *path, const SessionReadHooks *hooks, RecentFiles *recent,
                    u32 *sections_read, u64 *bytes_unread = nullptr);

typedef struct SessionBytes {
  u8 *data;  // heap; SessionBytesFree releases it
  u64 size;
  u64 capacity;
  bool failed;  // ran out of memory while growing
} SessionBytes;

void SessionBytesFree(SessionBytes *bytes);

// The file image of a session. Breakpoints of an unknown kind are left out; row texts are cut to
// kWatchTextMaxLength bytes.
int SessionWriteToMemory(const Session *session, SessionBytes *out);

// Saves through a temporary file beside the target that then replaces it, so a failed write never
// destroys the previous file. On success: the session's path becomes the full path, the modified
// flag is cleared and the path goes to the head of recent (optional).
int SessionWriteFile(Session *session, const char *path, RecentFiles *recent);
