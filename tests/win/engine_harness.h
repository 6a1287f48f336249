// Drives the engine in-process against the test programs: launch or attach, pop every event (its
// output text copied at once, as the output window does), answer stops, collect what was seen.
// Each step of a test's set-up is one call here: launch, wait for a kind, wait stopped, operate
// on the stopped target.
#pragma once
#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "ui/engine_event_text.h"

struct SeenEvent {
  EngineEvent event = {};
  std::string text;         // EngineEventText's output
  std::string module_name;  // kinds 10 and 11, and the module of kinds 1 and 4
};

struct Seen {
  std::vector<SeenEvent> events;
  std::vector<std::string> debug_strings;  // kind 5 texts
  bool ended = false;  // process exited or detached
  u32 exit_code = 0xFFFFFFFF;
  u64 requests_served = 0;  // by the engine, as the run ended
  int Count(u32 kind, size_t from = 0) const {  // among the events from that index on
    int n = 0;
    for (size_t i = from; i < events.size(); i++) n += events[i].event.kind == kind;
    return n;
  }
  const SeenEvent *First(u32 kind) const {
    for (const SeenEvent &e : events)
      if (e.event.kind == kind) return &e;
    return nullptr;
  }
};

extern const char *const kTargetSource;   // eng_target.cpp, as its PDB names it
extern const char *const kPluginSource;   // eng_plugin.c
// The events that stop the target: stopped, exception, breakpoint and processor-breakpoint hits.
inline bool IsStop(u32 kind) {
  return kind == kEventStopped || kind == kEventException || kind == kEventBreakpointHit ||
         kind == kEventProcessorBreakpointHit;
}
std::string TargetPath(const char *name);  // "Z:/.../tests/targets/NAME"
std::string Backslashed(std::string path);
int MarkerLine(const char *marker, const char *source = nullptr);  // of a marker comment (eng_target.cpp)

// [SECTION] Launch and attach
// Launches eng_target.exe (or program) and, with run, lets it past its held start; null, and a
// failure, when the launch fails. The tests wait with EngineWaitForEvent: no wake-up callback
// unless one is given.
Target *Launch(const char *arguments, bool run = true, u32 *pid = nullptr, const char *program = "eng_target.exe",
               const LaunchDescription *extra = nullptr, EngineWakeFn wake = nullptr);
// Attaches to a running process; null, and a failure, when the attach fails.
Target *Attach(u32 pid);

// [SECTION] Events and stops
// Pops every queued event into seen; stops (kinds 1 and 4) go to on_stop, which by default waits
// for the engine to serve commands and runs it on. kLeaveStopped answers none.
using OnStop = std::function<void(Target *, const SeenEvent &)>;
extern const OnStop kLeaveStopped;
void PopInto(Target *target, Seen &seen, const OnStop &on_stop);
// Pops until the run ends, then releases the target. After timeout_ms the target is terminated and
// the test fails.
void DriveToEnd(Target *target, Seen &seen, const OnStop &on_stop = nullptr, DWORD timeout_ms = 90000);
// Launches eng_target.exe (or program), runs it and drives it to its end.
Seen RunToEnd(const char *arguments, const OnStop &on_stop = nullptr, const char *program = "eng_target.exe",
              const LaunchDescription *extra = nullptr);
// Pops (answering no stop) until an event of the kind arrives at index from or later: its index,
// or -1 when none came within the time.
int WaitForKind(Target *target, Seen &seen, u32 kind, size_t from = 0, DWORD timeout_ms = 30000);
// Waits for an event of the kind (a stop unless told) and then for the engine to serve commands:
// a copy of the event, or (and a failure) one of kind 0.
SeenEvent WaitStopped(Target *target, Seen &seen, u32 kind = kEventStopped, size_t from = 0);
// Waits until the engine runs the target (after a run command).
bool WaitRunning(Target *target, DWORD timeout_ms = 10000);

// Carries out an operation on the stopped target and returns the stop event it brings, once the
// engine serves commands again (one of kind 0, and a failure, when the operation fails or no stop
// comes).
template <typename Operation>
SeenEvent StopAfter(Target *t, Seen &seen, Operation operation) {
  size_t mark = seen.events.size();
  int result = operation();
  EXPECT_EQ(result, 0);
  return result == 0 ? WaitStopped(t, seen, kEventStopped, mark) : SeenEvent{};
}

// [SECTION] Programs outside the debugger
// eng_target.exe (or another image) started without the debugger; ended with the object.
struct FreeProcess {
  PROCESS_INFORMATION pi = {};
  bool Start(const char *mode, std::string path = TargetPath("eng_target.exe"));
  bool Alive() { return WaitForSingleObject(pi.hProcess, 300) == WAIT_TIMEOUT; }
  u32 Id() const { return pi.dwProcessId; }
  void End();
  ~FreeProcess() { End(); }
};
