// Command words: what other programs (editors, build scripts) ask of Kestrune, on its own command
// line or forwarded through the command buffer to the running instance.
//
//   --settings FOLDER                  settings folder instead of the per-user one (start-up only)
//   open-session PATH                  open-file PATH [LINE]            close-file PATH
//   start-debugging [BREAK]            stop-debugging                   continue-execution
//   attach-to-process-by-id PID [--continue]
//   add-breakpoint-at-file PATH LINE   remove-breakpoint-at-file PATH LINE
//   add-breakpoint-at-function NAME [CONDITION]                         remove-breakpoint-at-function NAME
//   remove-all-breakpoints             run-to-cursor PATH LINE
#pragma once
#include "base/types.h"

enum { kCommandPathCapacity = 260 };

// The program's side of each command. Paths arrive absolute; numbers as read (non-numbers 0).
// A member left null makes its command do nothing.
typedef struct CommandActions {
  void *user;
  void (*set_settings_folder)(void *user, const char *folder);  // exists; one trailing separator dropped
  void (*open_session)(void *user, const char *path);
  void (*open_file)(void *user, const char *path, u32 line);
  void (*close_file)(void *user, const char *path);
  void (*start_debugging)(void *user, bool break_at_entry);
  void (*stop_debugging)(void *user);
  void (*attach_to_process)(void *user, u32 process_id, bool let_run);
  void (*add_breakpoint_at_file)(void *user, const char *path, u32 line);
  void (*remove_breakpoint_at_file)(void *user, const char *path, u32 line);
  void (*remove_all_breakpoints)(void *user);
  void (*add_breakpoint_at_function)(void *user, const char *name, const char *condition);  // condition may be null
  void (*remove_breakpoint_at_function)(void *user, const char *name);
  void (*continue_execution)(void *user);
  void (*run_to_cursor)(void *user, const char *path, u32 line);
} CommandActions;

// argv[0] is the program name, argv[1] the command word. Returns true when the word is a command
// and its arguments made it act ("--settings", "open-session" and "continue-execution" act but
// report false, so the start-up code goes on with the rest of the command line). Missing
// arguments make a command do nothing.
bool CommandDispatch(const CommandActions *actions, int argc, const char *const *argv);

// One of the thirteen words that a second process forwards to the running instance ("--settings"
// is not one of them).
bool CommandIsChannelWord(const char *word);

// A decimal integer as the commands read it: optional spaces and sign, then digits up to the first
// other character; no digits reads as 0; clamped to the 32-bit signed range.
s32 CommandReadNumber(const char *text);
