#include "tests/win/engine_harness.h"

#include <gtest/gtest.h>

#include <fstream>

std::string TargetPath(const char *name) { return std::string(KTRN_TARGETS_DIR) + "/" + name; }

std::wstring TargetPathW(const char *name) {
  std::string path = TargetPath(name);
  for (char &c : path)
    if (c == '/') c = '\\';
  return std::wstring(path.begin(), path.end());
}

int MarkerLine(const char *source, const char *marker) {
  std::ifstream in(std::string("Z:") + KTRN_SOURCE_DIR + "/" + source);
  std::string line;
  for (int n = 1; std::getline(in, line); n++)
    if (line.find(marker) != std::string::npos) return n;
  return -1;
}

HANDLE HarnessWakeEvent() {
  static HANDLE wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  return wake;
}

void HarnessWake(void *user) { SetEvent((HANDLE)user); }

int LaunchTarget(const char *program, const char *arguments, Target **out, u32 *pid, const LaunchDescription *extra) {
  static std::string path;
  path = TargetPath(program);
  LaunchDescription launch = {};
  if (extra) launch = *extra;
  launch.executable = path.c_str();
  launch.arguments = arguments;
  return EngineStartLaunch(&launch, HarnessWake, HarnessWakeEvent(), out, pid);
}

static void Record(Target *target, Seen &seen, const EngineEvent &event, SeenEvent &out) {
  out.event = event;
  char text[4096];
  OutputOptions options = OutputOptionsDefault();
  if (EngineEventText(&event, &options, target->process_id, text, sizeof text)) out.text = text;
  const TargetModule *module = nullptr;
  if (event.kind == kEventModuleLoaded || event.kind == kEventModuleUnloaded) module = event.module.module;
  if (event.kind == kEventStopped) module = event.stopped.location.module;
  if (event.kind == kEventException) module = event.exception.location.module;
  if (module && module->symbols.name) out.module_name = module->symbols.name;
  seen.output += out.text;
  if (event.kind == kEventText) seen.debug_strings.push_back(out.text);
  if (event.kind == kEventProcessExited) {
    seen.ended = true;
    seen.exit_code = event.process.exit_code;
  }
  if (event.kind == kEventDetached) seen.ended = seen.detached = true;
}

void PopInto(Target *target, Seen &seen, const OnStop &on_stop) {
  for (;;) {
    EngineEvent event;
    EnginePopEvent(target, &event);
    if (event.kind == kEventNone) return;
    SeenEvent e;
    Record(target, seen, event, e);
    seen.events.push_back(e);
    if (event.kind == kEventModuleUnloaded) TargetModuleRelease(target, event.module.module);
    if (event.kind == kEventStopped || event.kind == kEventException) {
      if (on_stop) {
        on_stop(target, e);
      } else {
        EXPECT_EQ(EngineWaitStopped(target, 10000), 0);
        EXPECT_EQ(EngineRun(target), 0);
      }
    }
  }
}

void DriveToEnd(Target *target, Seen &seen, const OnStop &on_stop, DWORD timeout_ms) {
  ULONGLONG start = GetTickCount64();
  bool terminated = false;
  while (!seen.ended) {
    WaitForSingleObject(HarnessWakeEvent(), 20);
    PopInto(target, seen, on_stop);
    if (!terminated && GetTickCount64() - start > timeout_ms) {
      ADD_FAILURE() << "the run did not end in time";
      terminated = true;
      EngineTerminate(target, 1);
      start = GetTickCount64() - timeout_ms + 10000;
    } else if (terminated && GetTickCount64() - start > timeout_ms) {
      break;
    }
  }
  EngineRelease(target);
}

int LaunchAndRun(const char *arguments, Target **out, u32 *pid) {
  int result = LaunchTarget("eng_target.exe", arguments, out, pid);
  if (result == 0) EngineRun(*out);
  return result;
}

void RunToEnd(const char *arguments, Seen &seen, const OnStop &on_stop) {
  Target *target = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchAndRun(arguments, &target, &pid), 0) << arguments;
  DriveToEnd(target, seen, on_stop);
}

bool WaitForKind(Target *target, Seen &seen, u32 kind, DWORD timeout_ms) {
  ULONGLONG start = GetTickCount64();
  size_t checked = seen.events.size();
  for (;;) {
    for (; checked < seen.events.size(); checked++)
      if (seen.events[checked].event.kind == kind) return true;
    if (GetTickCount64() - start > timeout_ms) return false;
    WaitForSingleObject(HarnessWakeEvent(), 20);
    PopInto(target, seen, [](Target *, const SeenEvent &) {});
  }
}

bool WaitRunning(Target *target, DWORD timeout_ms) {
  ULONGLONG start = GetTickCount64();
  while (GetTickCount64() - start < timeout_ms) {
    if (EngineStoppedState(target) == 26) return true;
    Sleep(5);
  }
  return false;
}
