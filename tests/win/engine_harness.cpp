#include "tests/win/engine_harness.h"

#include <fstream>

const char *const kTargetSource = KTRN_SOURCE_DIR "/tests/targets/engine/eng_target.cpp";
const char *const kPluginSource = KTRN_SOURCE_DIR "/tests/targets/engine/eng_plugin.c";

std::string TargetPath(const char *name) { return std::string(KTRN_TARGETS_DIR) + "/" + name; }

std::string Backslashed(std::string path) {
  for (char &c : path)
    if (c == '/') c = '\\';
  return path;
}

int MarkerLine(const char *marker, const char *source) {
  std::ifstream in(std::string("Z:") + (source ? source : kTargetSource));
  std::string line;
  for (int n = 1; std::getline(in, line); n++)
    if (line.find(marker) != std::string::npos) return n;
  return -1;
}

// [SECTION] Launch

// The run a test started and has not driven to its end. There is one Target for the program, so a
// test that fails half-way would leave every later start refused: the run is ended after the test.
static Target *g_unended;

static void EndLeftoverRun() {
  Target *t = g_unended;
  g_unended = nullptr;
  if (!t || !t->engine_thread) return;
  (void)EngineTerminate(t, 1);
  (void)EngineRun(t);
  for (ULONGLONG start = GetTickCount64(); GetTickCount64() - start < 20000;) {
    EngineEvent event;
    while (EnginePopEvent(t, &event) == kEngineOk && event.kind != kEventNone)
      if (event.kind == kEventModuleUnloaded) TargetModuleRelease(t, event.module.module);
    if (WaitForSingleObject(t->engine_thread, 20) == WAIT_OBJECT_0) break;
  }
  if (WaitForSingleObject(t->engine_thread, 0) == WAIT_OBJECT_0) EngineRelease(t);
}

namespace {
struct LeftoverRunListener : testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo &) override {
    if (g_unended && g_unended->engine_thread) ADD_FAILURE() << "the test left its run going; it is terminated";
    EndLeftoverRun();
  }
};
const bool g_listener_added = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new LeftoverRunListener);
  return true;
}();
}  // namespace

Target *Launch(const char *arguments, bool run, u32 *pid, const char *program, const LaunchDescription *extra,
               EngineWakeFn wake) {
  std::string path = TargetPath(program);
  LaunchDescription launch = {};
  if (extra) launch = *extra;
  launch.executable = path.c_str();
  launch.arguments = arguments;
  Target *target = nullptr;
  int result = EngineStartLaunch(&launch, wake, nullptr, &target, pid);
  EXPECT_EQ(result, 0) << program << " " << (arguments ? arguments : "");
  if (result != 0) return nullptr;
  g_unended = target;
  if (run) EXPECT_EQ(EngineRun(target), 0);
  return target;
}

Target *Attach(u32 pid) {
  Target *target = nullptr;
  int result = EngineStartAttach(pid, nullptr, nullptr, &target);
  EXPECT_EQ(result, 0) << "attach to " << pid;
  if (result != 0) return nullptr;
  g_unended = target;
  return target;
}

// [SECTION] Events and stops

const OnStop kLeaveStopped = [](Target *, const SeenEvent &) {};

void PopInto(Target *target, Seen &seen, const OnStop &on_stop) {
  OutputOptions options = OutputOptionsDefault();
  for (EngineEvent event; EnginePopEvent(target, &event) == 0 && event.kind != kEventNone;) {
    SeenEvent e;
    e.event = event;
    char text[4096];
    if (EngineEventText(&event, &options, target->process_id, text, sizeof text)) e.text = text;
    u32 kind = event.kind;
    const TargetModule *module = kind == kEventModuleLoaded || kind == kEventModuleUnloaded ? event.module.module
                                 : kind == kEventStopped   ? event.stopped.location.module
                                 : kind == kEventException ? event.exception.location.module
                                 : kind == kEventBreakpointHit || kind == kEventBreakpointBound
                                     ? event.breakpoint.location.module
                                     : nullptr;
    if (module && module->symbols.name) e.module_name = module->symbols.name;
    if (kind == kEventText) seen.debug_strings.push_back(e.text);
    if (kind == kEventProcessExited) seen.exit_code = event.process.exit_code;
    seen.ended |= kind == kEventProcessExited || kind == kEventDetached;
    seen.events.push_back(e);
    if (kind == kEventModuleUnloaded) TargetModuleRelease(target, event.module.module);
    if (!IsStop(kind)) continue;
    if (on_stop) {
      on_stop(target, e);
    } else {
      EXPECT_EQ(EngineWaitStopped(target, 10000), 0);
      EXPECT_EQ(EngineRun(target), 0);
    }
  }
}

void DriveToEnd(Target *target, Seen &seen, const OnStop &on_stop, DWORD timeout_ms) {
  ULONGLONG deadline = GetTickCount64() + timeout_ms;
  bool terminated = false;
  while (!seen.ended && GetTickCount64() < deadline + 10000) {  // 10 s more for the terminate
    if (!terminated && GetTickCount64() > deadline) {
      ADD_FAILURE() << "the run did not end in time";
      terminated = true;
      EXPECT_EQ(EngineTerminate(target, 1), 0);
    }
    (void)EngineWaitForEvent(target, 20);
    PopInto(target, seen, on_stop);
  }
  seen.requests_served = target->requests_served;
  if (!seen.ended) return;  // left for the end of the test
  EngineRelease(target);
  g_unended = nullptr;
}

Seen RunToEnd(const char *arguments, const OnStop &on_stop, const char *program, const LaunchDescription *extra) {
  Seen seen;
  if (Target *target = Launch(arguments, true, nullptr, program, extra)) DriveToEnd(target, seen, on_stop);
  return seen;
}

int WaitForKind(Target *target, Seen &seen, u32 kind, size_t from, DWORD timeout_ms) {
  ULONGLONG start = GetTickCount64();
  for (;;) {
    for (; from < seen.events.size(); from++)
      if (seen.events[from].event.kind == kind) return (int)from;
    if (GetTickCount64() - start > timeout_ms) return -1;
    (void)EngineWaitForEvent(target, 20);
    PopInto(target, seen, kLeaveStopped);
  }
}

SeenEvent WaitStopped(Target *target, Seen &seen, u32 kind, size_t from) {
  int at = WaitForKind(target, seen, kind, from);
  EXPECT_GE(at, 0) << "no event of kind " << kind;
  int state = at < 0 ? -1 : EngineWaitStopped(target, 10000);
  EXPECT_EQ(state, 0);
  return state == 0 ? seen.events[at] : SeenEvent{};
}

bool WaitRunning(Target *target, DWORD timeout_ms) {
  for (ULONGLONG start = GetTickCount64(); GetTickCount64() - start < timeout_ms; Sleep(5))
    if (EngineStoppedState(target) == 26) return true;
  return false;
}

// [SECTION] Programs outside the debugger

bool FreeProcess::Start(const char *mode, std::string path) {
  STARTUPINFOW si = {sizeof si};
  std::string line = "\"" + Backslashed(path) + "\" " + mode;
  std::wstring wide(line.begin(), line.end());
  if (!CreateProcessW(nullptr, &wide[0], nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE, nullptr, nullptr, &si, &pi))
    return false;
  Sleep(500);  // let it get going
  return true;
}

void FreeProcess::End() {
  if (!pi.hProcess) return;
  TerminateProcess(pi.hProcess, 0);
  WaitForSingleObject(pi.hProcess, 5000);
  CloseHandle(pi.hProcess);
  CloseHandle(pi.hThread);
  pi = {};
}
