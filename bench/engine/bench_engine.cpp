// bench_engine [ROUNDS] [INT3_COUNT] [STRING_COUNT] [THREAD_COUNT]
//
// Two workloads of eng_target, each run alternately under a minimal raw loop
// (WaitForDebugEvent / ContinueDebugEvent on one thread, nothing else) and under the engine
// (debugger thread, rings, stop sequence, the UI side popping events and answering stops from
// another thread, as kestrune.exe does):
//   int3loop: N breakpoint instructions, each a stop that is continued: the round trip of one
//             stop and resume;
//   strloop:  N debug strings, events that never stop (the engine reads each string; the raw loop
//             is run both without and with that read);
//   many:     N threads started and ended one after the other: events that need no system call
//             from the engine, so the difference is the engine's own per-event cost.
// Times run from the workload's first event to its last, so process start and exit are left out.
// Prints the median of the rounds, in microseconds per event, and the engine's ratio to raw.
#include <windows.h>

#include <algorithm>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <vector>

#include "engine/engine.h"

static double Now() {
  static LARGE_INTEGER frequency;
  if (!frequency.QuadPart) QueryPerformanceFrequency(&frequency);
  LARGE_INTEGER t;
  QueryPerformanceCounter(&t);
  return (double)t.QuadPart / (double)frequency.QuadPart;
}

struct Sample {
  double wall = -1;  // seconds per counted event, first to last
};

static std::string TargetProgram() {
  std::string path = std::string(KTRN_TARGETS_DIR) + "/eng_target.exe";
  for (char &c : path)
    if (c == '/') c = '\\';
  return path;
}

// The raw loop: the least a debugger can do for these events.
enum Counted { kCountStops, kCountStrings, kCountThreadExits };

static Sample RawRun(const char *mode, int count, Counted counted, bool read_strings) {
  Sample sample;
  std::string line = "\"" + TargetProgram() + "\" " + mode + " " + std::to_string(count);
  std::wstring wide(line.begin(), line.end());
  STARTUPINFOW si = {sizeof si};
  PROCESS_INFORMATION pi = {};
  if (!CreateProcessW(nullptr, &wide[0], nullptr, nullptr, FALSE, DEBUG_ONLY_THIS_PROCESS | CREATE_NEW_CONSOLE, nullptr,
                      nullptr, &si, &pi))
    return sample;
  bool loader_breakpoint = true;
  int seen = 0;
  double first = 0, last = 0;
  for (;;) {
    DEBUG_EVENT ev;
    if (!WaitForDebugEvent(&ev, INFINITE)) break;
    DWORD status = DBG_CONTINUE;
    switch (ev.dwDebugEventCode) {
      case CREATE_PROCESS_DEBUG_EVENT:
        if (ev.u.CreateProcessInfo.hFile) CloseHandle(ev.u.CreateProcessInfo.hFile);
        break;
      case LOAD_DLL_DEBUG_EVENT:
        if (ev.u.LoadDll.hFile) CloseHandle(ev.u.LoadDll.hFile);
        break;
      case EXCEPTION_DEBUG_EVENT:
        if (ev.u.Exception.ExceptionRecord.ExceptionCode == EXCEPTION_BREAKPOINT) {
          if (loader_breakpoint) {
            loader_breakpoint = false;
          } else if (counted == kCountStops) {
            if (seen++ == 0) first = Now();
            last = Now();
          }
        } else {
          status = DBG_EXCEPTION_NOT_HANDLED;
        }
        break;
      case OUTPUT_DEBUG_STRING_EVENT:
        if (read_strings) {
          char text[256];
          SIZE_T got = 0;
          ReadProcessMemory(pi.hProcess, ev.u.DebugString.lpDebugStringData, text,
                            std::min<SIZE_T>(sizeof text, ev.u.DebugString.nDebugStringLength), &got);
        }
        if (counted == kCountStrings) {
          if (seen++ == 0) first = Now();
          last = Now();
        }
        break;
      case EXIT_THREAD_DEBUG_EVENT:
        if (counted == kCountThreadExits) {
          if (seen++ == 0) first = Now();
          last = Now();
        }
        break;
    }
    ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
    if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) break;
  }
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  if (seen > 1) sample.wall = (last - first) / (seen - 1);
  return sample;
}

static void Wake(void *user) { SetEvent((HANDLE)user); }

// The engine, driven as the user interface drives it: events popped on this thread after each
// wake-up, every stop answered with the run command.
static Sample EngineRunOnce(const char *mode, int count, Counted counted) {
  Sample sample;
  static HANDLE wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  std::string path = TargetProgram();
  std::string arguments = std::string(mode) + " " + std::to_string(count);
  LaunchDescription launch = {};
  launch.executable = path.c_str();
  launch.arguments = arguments.c_str();
  Target *target = nullptr;
  u32 pid = 0;
  if (EngineStartLaunch(&launch, Wake, wake, &target, &pid) != 0) return sample;
  EngineRun(target);
  int seen = 0;
  double first = 0, last = 0;
  for (bool done = false; !done;) {
    WaitForSingleObject(wake, INFINITE);
    EngineEvent e;
    bool answered_stop = false;
    for (;;) {
      EnginePopEvent(target, &e);
      if (e.kind == kEventNone) break;
      if ((counted == kCountStops && e.kind == kEventStopped) || (counted == kCountStrings && e.kind == kEventText) ||
          (counted == kCountThreadExits && e.kind == kEventThreadExited)) {
        if (seen++ == 0) first = Now();
        last = Now();
      }
      // The stop event is posted once the engine serves commands: it can be answered at once.
      if (e.kind == kEventStopped) {
        answered_stop = true;
        if (EngineRun(target) != 0) {
          EngineWaitStopped(target, INFINITE);
          EngineRun(target);
        }
      }
      if (e.kind == kEventModuleUnloaded) TargetModuleRelease(target, e.module.module);
      if (e.kind == kEventProcessExited || e.kind == kEventDetached) done = true;
    }
    // A UI draws a frame between two looks at the ring (16 ms: a 60 Hz display);
    // one that has just resumed the target waits for the next wake-up instead.
    if (!answered_stop && !done) Sleep(16);
  }
  EngineRelease(target);
  if (seen > 1) sample.wall = (last - first) / (seen - 1);
  return sample;
}

// The price of the system calls a stop makes, under the same conditions: a debuggee held at its
// first event, a thread handle from it.
static void SystemCallCosts() {
  std::string line = "\"" + TargetProgram() + "\" strloop 1";
  std::wstring wide(line.begin(), line.end());
  STARTUPINFOW si = {sizeof si};
  PROCESS_INFORMATION pi = {};
  if (!CreateProcessW(nullptr, &wide[0], nullptr, nullptr, FALSE, DEBUG_ONLY_THIS_PROCESS | CREATE_NEW_CONSOLE, nullptr,
                      nullptr, &si, &pi))
    return;
  DEBUG_EVENT ev;
  WaitForDebugEvent(&ev, INFINITE);  // CREATE_PROCESS: the process is held
  HANDLE thread = ev.u.CreateProcessInfo.hThread;
  const int n = 2000;
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  alignas(64) static unsigned char buffer[8192];
  CONTEXT *full = nullptr;
  DWORD size = sizeof buffer;
  typedef BOOL(WINAPI * InitFn)(void *, DWORD, CONTEXT **, DWORD *);
  InitFn init = (InitFn)(void *)GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "InitializeContext");
  if (init && !init(buffer, 0x10005F, &full, &size)) full = nullptr;
  static CONTEXT plain;
  struct Case {
    const char *what;
    int kind;
  } cases[] = {{"SetEvent", 0}, {"WaitForSingleObject, zero time-out", 1}, {"GetThreadContext, all registers", 2},
               {"GetThreadContext, with the extended state", 3}, {"ReadProcessMemory, 8 bytes", 4}};
  printf("\n| system call (debuggee held) | us a call |\n|---|---|\n");
  for (const Case &c : cases) {
    if (c.kind == 3 && !full) continue;
    double start = Now();
    for (int i = 0; i < n; i++) {
      switch (c.kind) {
        case 0: SetEvent(event); break;
        case 1: WaitForSingleObject(event, 0); break;
        case 2: plain.ContextFlags = 0x10001F; GetThreadContext(thread, &plain); break;
        case 3: full->ContextFlags = 0x10005F; GetThreadContext(thread, full); break;
        case 4: {
          unsigned long long v;
          SIZE_T got;
          ReadProcessMemory(pi.hProcess, ev.u.CreateProcessInfo.lpBaseOfImage, &v, 8, &got);
          break;
        }
      }
    }
    printf("| %s | %.1f |\n", c.what, (Now() - start) / n * 1e6);
  }
  CloseHandle(event);
  TerminateProcess(pi.hProcess, 0);
  ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, DBG_CONTINUE);
  for (;;) {
    if (!WaitForDebugEvent(&ev, 5000)) break;
    if (ev.dwDebugEventCode == LOAD_DLL_DEBUG_EVENT && ev.u.LoadDll.hFile) CloseHandle(ev.u.LoadDll.hFile);
    ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, DBG_CONTINUE);
    if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) break;
  }
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
}

static double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

int main(int argc, char **argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 5;
  int int3_count = argc > 2 ? atoi(argv[2]) : 5000;
  int string_count = argc > 3 ? atoi(argv[3]) : 20000;
  int thread_count = argc > 4 ? atoi(argv[4]) : 2000;
  struct Workload {
    const char *mode;
    int count;
    Counted counted;
    const char *label;
  } workloads[] = {{"int3loop", int3_count, kCountStops, "stop and resume (int3 continued)"},
                   {"strloop", string_count, kCountStrings, "debug-string event (no stop)"},
                   {"many", thread_count, kCountThreadExits, "thread start and exit (two events, no stop)"}};
  printf("| workload | events per run | raw loop (us/event) | raw loop reading the string (us/event) | engine (us/event) | "
         "engine / raw |\n");
  printf("|---|---|---|---|---|---|\n");
  for (const Workload &w : workloads) {
    std::vector<double> raw, raw_read, engine;
    for (int r = 0; r < rounds; r++) {
      Sample a = RawRun(w.mode, w.count, w.counted, false);
      Sample b = EngineRunOnce(w.mode, w.count, w.counted);
      raw.push_back(a.wall * 1e6);
      engine.push_back(b.wall * 1e6);
      if (w.counted == kCountStrings) {
        Sample c = RawRun(w.mode, w.count, w.counted, true);
        raw_read.push_back(c.wall * 1e6);
      }
    }
    double mr = Median(raw), me = Median(engine);
    char read_column[64] = "-";
    if (w.counted == kCountStrings) snprintf(read_column, sizeof read_column, "%.1f", Median(raw_read));
    printf("| %s | %d | %.1f | %s | %.1f | %.2f |\n", w.label, w.count, mr, read_column, me, mr > 0 ? me / mr : 0);
    fflush(stdout);
  }
  SystemCallCosts();
  return 0;
}
