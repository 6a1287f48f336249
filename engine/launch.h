// Starting a program under the debugger: the launch description, the command line and
// environment block built from it, and the mapping of the system's failures to start results.
#pragma once
#include "base/types.h"
#include "engine/engine_result.h"

typedef struct EnvironmentPair {
  const char *name;
  const char *value;
} EnvironmentPair;

typedef struct LaunchDescription {
  const char *executable;         // UTF-8 path; required
  const char *arguments;          // null or "": the program gets no command line beyond its name
  const char *working_directory;  // null or "": the default directory, else the debugger's own
  const char *default_directory;  // the session's default directory, or null
  const EnvironmentPair *environment;
  u32 environment_count;
  u8 inherit_from_parent;  // start from the debugger's own environment, then the pairs
} LaunchDescription;

// Splits an environment text (lines "NAME=VALUE" separated by '\n') in place into pairs at the
// first '=' of each line; lines without '=' or with an empty value are skipped. Returns the count.
u32 LaunchSplitEnvironment(char *text, EnvironmentPair *pairs, u32 capacity);

// Builds the UTF-16 environment block of a launch in out (capacity in wide characters): the
// inherited strings when asked for, then each pair in order (duplicates kept), then the final
// terminator. Returns the number of wide characters written, 0 when there are no pairs (the program
// then inherits the debugger's environment) or when the block does not fit.
u64 LaunchEnvironmentBlock(const LaunchDescription *launch, wchar_t *out, u64 capacity);
// The wide characters the block needs, terminators included.
u64 LaunchEnvironmentBlockSize(const LaunchDescription *launch);

// Builds the UTF-16 command line: the quoted executable, one space and the arguments; an empty
// string when there are no arguments. False when it does not fit.
bool LaunchCommandLine(const char *executable, const char *arguments, wchar_t *out, u64 capacity);

// The start result for a failed CreateProcess: 5, 7, 12, or 4 for anything else.
EngineResult LaunchResultOfError(u32 error);

// Creates the process with the debugging flags (on the debugger thread). 0 with the process id, or
// a start result. The scratch memory comes from the caller's arena.
struct SymbolArena;
EngineResult LaunchCreateProcess(struct SymbolArena *arena, const LaunchDescription *launch, u32 *out_process_id);
