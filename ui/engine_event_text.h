// The output window's text for each engine event: module loads and unloads, debug strings, C++
// exception lines, exceptions, thread and process exits, detach. Shared by the output window and by
// ktrn-cli, so that both print the same lines. Needs no Dear ImGui.
#pragma once
#include "base/types.h"
#include "engine/engine_event.h"

typedef struct OutputOptions {
  u8 module_load;    // "ShowModuleLoad"
  u8 module_unload;  // "ShowModuleUnload"
  u8 thread_exit;    // "ShowThreadExit"
  u8 process_exit;   // "ShowProcessExit"
} OutputOptions;

// Options as a fresh installation has them: every kind of message shown.
OutputOptions OutputOptionsDefault(void);

// Writes the text that the event adds to the output (possibly several lines, always terminated)
// and returns its length; 0 when the event adds nothing (kinds without text, options switched off).
// process_id is the debugged process, for the detach line.
u32 EngineEventText(const EngineEvent *event, const OutputOptions *options, u32 process_id, char *out, u32 capacity);

// A short description of an exception code ("Access violation", ...); "" for codes without one.
const char *ExceptionCodeText(u32 code);
