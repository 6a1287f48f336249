// AppState: the one application object of the user-interface thread. It holds the user's session
// and settings, what the current debugging run looks like from the window's side, the output
// window's text and the requests that wait for the run to end. ui/ draws and edits it; app/ fills
// it at start-up, drives the engine with it and saves it. No Dear ImGui and no Windows types here.
#pragma once
#include "base/types.h"
#include "app/session.h"
#include "app/source_tabs.h"
#include "app/settings.h"

enum { kAppPathCapacity = 260, kAppIniPathCapacity = 280, kAppTitleCapacity = 300 };

enum DebugState { kDebugNone = 0, kDebugSuspended = 1, kDebugRunning = 2 };

// A request that has to wait until the target has ended.
enum PendingActionCode {
  kPendingNone = 0,
  kPendingRestart = 1,      // launch the current target command again (argument: launch reason)
  kPendingOpenSession = 2,  // argument: the session path (owned)
  kPendingNewSession = 3,
  kPendingAttach = 4,       // arguments: process id, continue flag
};

typedef struct PendingAction {
  u32 code;  // PendingActionCode
  u32 reason;
  u32 process_id;
  u8 continue_after_attach;
  char *path;  // owned copy for kPendingOpenSession
} PendingAction;

// The output window's text: one growing buffer of lines.
typedef struct OutputLog {
  char *text;  // zero-terminated, heap
  u64 length;
  u64 capacity;
  u8 grew;     // text arrived since the window last drew (it then follows the bottom)
} OutputLog;

typedef struct WindowPlacement {
  s32 x, y, width, height;
  u8 maximized;
} WindowPlacement;

struct Target;  // the engine's run; opaque here

typedef struct AppState {
  Session session;
  Settings settings;
  char settings_folder[kAppPathCapacity];  // empty: no ini file is read or written
  char ini_path[kAppIniPathCapacity];
  u8 first_run_layout;  // no ini file existed: build the default dock layout on the first frame

  // The debugging run as the windows see it.
  struct Target *target;     // null when not debugging
  u32 debug_state;           // DebugState
  u8 attached;               // the run attached rather than launched
  u32 process_id;
  u32 stop_reason;           // StopReason code
  u32 run_started_by;        // the StopReason code of the action that started the current run
  u8 has_run;                // a process has run and exited since start-up
  u32 last_exit_code;

  u32 run_serial;             // counts the runs started
  u32 stop_serial;            // counts the stops the windows were told of
  // Where the stopped target stands, for the source view: the selected frame's file as its symbols
  // name it and its 1-based line (0: no line known, or not stopped); whether that frame is the top.
  char location_file[kAppPathCapacity];
  u32 location_line;
  u8 location_top_frame;

  SourceTabs sources;         // the source view's open files (the session lists their paths)

  PendingAction pending;
  u8 quit_when_target_exits;  // "-q"
  u8 start_when_shown;        // "-g"

  WindowPlacement placement;  // last restored placement of the main window
  u8 wake;                    // a wake-up arrived: draw two frames
  u8 title_modified_shown;    // the modified mark the title shows now
  u8 title_dirty;             // name or program changed: rebuild the title
  u8 fonts_need_rebuild;      // a font setting or the window's display scale changed
  s32 style_applied;          // the ui_style whose colours Dear ImGui has (-1: none yet)

  OutputLog output;
} AppState;

void AppStateInit(AppState *app);  // defaults; the session empty
void AppStateFree(AppState *app);

// The main window's title: the session's file name, else the program's, else "Untitled"; then "*"
// when the session is modified; then " - Kestrune".
void AppStateTitle(const AppState *app, char *out, u32 capacity);

// Parks a request until the run ends; a request already parked is replaced.
void AppStateSetPending(AppState *app, u32 code, const char *path);
void AppStateClearPending(AppState *app);

// Output window text. Appending never fails loudly: text that does not fit in memory is dropped.
void OutputAppend(OutputLog *log, const char *text, u64 length);
void OutputAppendZ(OutputLog *log, const char *text);
void OutputClear(OutputLog *log);

// The file name part of a path (after the last slash or backslash).
const char *PathFileName(const char *path);
