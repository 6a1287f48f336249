// Drives the engine in-process against the test programs: launch or attach, pop every event (its
// output text copied at once, as the output window does), continue stops, collect what was seen.
#pragma once
#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "ui/engine_event_text.h"

struct SeenEvent {
  EngineEvent event;
  std::string text;         // EngineEventText's output
  std::string module_name;  // kinds 10 and 11, and the module of kinds 1 and 4
};

struct Seen {
  std::vector<SeenEvent> events;
  std::vector<std::string> debug_strings;  // kind 5 texts
  std::string output;
  bool ended = false;
  bool detached = false;
  u32 exit_code = 0xFFFFFFFF;
  int Count(u32 kind) const {
    int n = 0;
    for (const SeenEvent &e : events) n += e.event.kind == kind;
    return n;
  }
  const SeenEvent *First(u32 kind) const {
    for (const SeenEvent &e : events)
      if (e.event.kind == kind) return &e;
    return nullptr;
  }
};

std::string TargetPath(const char *name);         // "Z:/.../tests/targets/NAME"
std::wstring TargetPathW(const char *name);       // with backslashes
int MarkerLine(const char *source, const char *marker);  // line of a marker in a test program's source

// The wake-up event the engine signals after each event it queues.
HANDLE HarnessWakeEvent();
void HarnessWake(void *user);

int LaunchTarget(const char *program, const char *arguments, Target **out, u32 *pid,
                 const LaunchDescription *extra = nullptr);

// Pops every queued event into seen; stops (kinds 1 and 4) go to on_stop, which by default waits
// for the engine to serve commands and runs it on. Returns when the run ends or timeout_ms passed
// (then the target is terminated and the test fails).
using OnStop = std::function<void(Target *, const SeenEvent &)>;
void PopInto(Target *target, Seen &seen, const OnStop &on_stop);
void DriveToEnd(Target *target, Seen &seen, const OnStop &on_stop = nullptr, DWORD timeout_ms = 90000);
// Launches eng_target.exe with the arguments and lets it past its held start (the first run).
int LaunchAndRun(const char *arguments, Target **out, u32 *pid);
// Launches eng_target.exe with the arguments, lets it past its held start and drives it to its end.
void RunToEnd(const char *arguments, Seen &seen, const OnStop &on_stop = nullptr);
// Pops until an event of the kind arrives (true) or the time passes (false); stops are not run on.
bool WaitForKind(Target *target, Seen &seen, u32 kind, DWORD timeout_ms = 30000);
// Waits until the engine runs the target (after a run command).
bool WaitRunning(Target *target, DWORD timeout_ms = 10000);
