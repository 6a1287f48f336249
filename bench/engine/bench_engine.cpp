// bench_engine [ROUNDS] [INT3_COUNT] [STRING_COUNT] [THREAD_COUNT] [HIT_COUNT] [STEP_LOOP_ROUNDS]
//
// In one run, each workload alternately under minimal raw debug loops and under the engine; every
// figure is the median of the rounds. Times run from the workload's first event to its last, so
// process start and exit are left out.
//
// 1. Stop and resume (eng_target int3loop N: N breakpoint instructions of the program's own, each a
//    stop that is continued), microseconds per stop:
//    - raw loop: WaitForDebugEvent / ContinueDebugEvent on one thread, nothing else;
//    - raw loop that also reads the stopped thread's registers (GetThreadContext, the engine's flags);
//    - raw loop that hands every stop to a second thread and waits for its answer through two
//      kernel events (what a debugger thread and a UI thread pay with kernel objects alone);
//    - the same hand-off through one state word (WaitOnAddress / WakeByAddressSingle);
//    - the engine as built, driven as kestrune.exe drives it (the debugger thread, rings, the stop
//      sequence; the UI side sleeps in EngineWaitForEvent, pops the events and answers stops with run).
// 2. Events that do not stop: strloop N (debug strings; the raw loop also with the string read)
//    and many N (threads started and ended), microseconds per event, raw loop and engine.
// 3. Breakpoint hits (bench_hits N: one function called N times with a breakpoint on it), hits per
//    second, for a minimal raw loop that does the system work of a hit that goes on: move the
//    instruction pointer back, put the byte back, single-step, write 0xCC again; and the engine with
//    a function breakpoint on it, every hit a stop answered with run.
// 4. Single steps (bench_hits step N: a loop of N rounds on one source line between two breakpoint
//    instructions of the program's own), steps per second, for a raw trap-flag loop (from the first
//    int3 to the second, at every single step: read the control registers, set the trap flag, write
//    them) and the engine stepping over that line (the program's first int3 a stop, then one step
//    over, which single-steps every instruction of the loop and stops at the next line).
// 5. The price of the system calls a stop makes, on a debuggee held at its first event.
// The load average is printed before and after: under Wine every figure depends on it.
//
// [SECTION] Helpers
// [SECTION] Raw loops
// [SECTION] The engine
// [SECTION] System calls
// [SECTION] Main
#include <windows.h>

#include <algorithm>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <vector>

#include "bench/engine/bench_util.h"
#include "engine/engine.h"

// [SECTION] Helpers

// Seconds per counted event, first to last; negative when fewer than two were counted.
struct Span {
  int seen = 0;
  double first = 0, last = 0;
  void Count() {
    double t = Now();
    if (seen++ == 0) first = t;
    last = t;
  }
  double PerEvent() const { return seen > 1 ? (last - first) / (seen - 1) : -1; }
};

// A test program (eng_target.exe) or the benchmark's own (bench_hits.exe), with backslashes.
static std::string TargetProgram(const char *name) {
  std::string folder = strcmp(name, "bench_hits.exe") == 0 ? KTRN_BENCH_DIR : KTRN_TARGETS_DIR;
  std::string path = folder + "/" + name;
  for (char &c : path)
    if (c == '/') c = '\\';
  return path;
}

// The debuggee made by a raw loop: created for debugging only this process, in a console of its own.
static bool CreateDebuggee(const char *program, const std::string &arguments, PROCESS_INFORMATION *pi) {
  std::string line = "\"" + TargetProgram(program) + "\" " + arguments;
  std::wstring wide(line.begin(), line.end());
  STARTUPINFOW si = {sizeof si};
  *pi = {};
  return CreateProcessW(nullptr, &wide[0], nullptr, nullptr, FALSE, DEBUG_ONLY_THIS_PROCESS | CREATE_NEW_CONSOLE,
                        nullptr, nullptr, &si, pi) != 0;
}

static void CloseEventFiles(const DEBUG_EVENT &ev) {
  if (ev.dwDebugEventCode == CREATE_PROCESS_DEBUG_EVENT && ev.u.CreateProcessInfo.hFile)
    CloseHandle(ev.u.CreateProcessInfo.hFile);
  if (ev.dwDebugEventCode == LOAD_DLL_DEBUG_EVENT && ev.u.LoadDll.hFile) CloseHandle(ev.u.LoadDll.hFile);
}

// A context buffer with the flags the engine reads: all register groups and the extended state
// (AVX) when the system has InitializeContext, else a plain context.
struct ContextBuffer {
  alignas(64) unsigned char bytes[8192];
  CONTEXT *context = nullptr;
  DWORD flags = 0;
  bool Prepare(DWORD wanted) {
    typedef BOOL(WINAPI * InitFn)(void *, DWORD, CONTEXT **, DWORD *);
    InitFn init = (InitFn)(void *)GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "InitializeContext");
    DWORD size = sizeof bytes;
    flags = wanted;
    if (init && init(bytes, wanted, &context, &size)) return true;
    flags = wanted & ~0x40u;  // no extended state
    context = (CONTEXT *)bytes;
    memset(bytes, 0, sizeof(CONTEXT));
    return true;
  }
  BOOL Read(HANDLE thread) {
    context->ContextFlags = flags;
    return GetThreadContext(thread, context);
  }
};

// [SECTION] Raw loops

enum Counted { kCountStops, kCountStrings, kCountThreadExits };

// What the raw loop does at each stop beyond continuing it.
enum StopWork { kStopNothing, kStopReadContext, kStopHandOffEvents, kStopHandOffWord };

typedef BOOL(WINAPI *WaitOnAddressFn)(volatile void *, void *, SIZE_T, DWORD);
typedef void(WINAPI *WakeByAddressFn)(void *);

// A second thread that answers every stop, as a UI thread would: through two kernel events, or
// through one state word it waits on.
struct HandOff {
  enum : LONG { kRunning = 0, kStopped = 1, kQuit = 2 };
  StopWork kind = kStopNothing;
  HANDLE stopped = nullptr, run = nullptr, thread = nullptr;
  volatile LONG state = kRunning;
  WaitOnAddressFn wait_on_address = nullptr;
  WakeByAddressFn wake_by_address = nullptr;

  static DWORD WINAPI Answer(void *parameter) {
    HandOff *h = (HandOff *)parameter;
    for (;;) {
      if (h->kind == kStopHandOffEvents) {
        WaitForSingleObject(h->stopped, INFINITE);
        if (h->state == kQuit) return 0;
        SetEvent(h->run);
      } else {
        LONG seen = h->state;
        while (seen == kRunning) {
          h->wait_on_address(&h->state, &seen, sizeof seen, INFINITE);
          seen = h->state;
        }
        if (seen == kQuit) return 0;
        InterlockedExchange(&h->state, kRunning);
        h->wake_by_address((void *)&h->state);
      }
    }
  }
  bool Start(StopWork work) {
    kind = work;
    if (kind == kStopHandOffWord) {
      HMODULE base = GetModuleHandleW(L"kernelbase.dll");
      wait_on_address = base ? (WaitOnAddressFn)(void *)GetProcAddress(base, "WaitOnAddress") : nullptr;
      wake_by_address = base ? (WakeByAddressFn)(void *)GetProcAddress(base, "WakeByAddressSingle") : nullptr;
      if (!wait_on_address || !wake_by_address) return false;
    } else {
      stopped = CreateEventW(nullptr, FALSE, FALSE, nullptr);
      run = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    }
    thread = CreateThread(nullptr, 0, Answer, this, 0, nullptr);
    return thread != nullptr;
  }
  // The debugger thread's side of one stop: tell, then wait for the answer.
  void Stop() {
    if (kind == kStopHandOffEvents) {
      SetEvent(stopped);
      WaitForSingleObject(run, INFINITE);
      return;
    }
    InterlockedExchange(&state, kStopped);
    wake_by_address((void *)&state);
    LONG seen = kStopped;
    while (state == kStopped) wait_on_address(&state, &seen, sizeof seen, INFINITE);
  }
  void End() {
    if (!thread) return;
    InterlockedExchange(&state, kQuit);
    if (kind == kStopHandOffEvents) SetEvent(stopped);
    else wake_by_address((void *)&state);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    if (stopped) CloseHandle(stopped);
    if (run) CloseHandle(run);
  }
};

// The threads a raw loop has seen, for the ones that need a thread's registers.
struct ThreadHandles {
  struct Entry {
    DWORD id;
    HANDLE handle;
  } entries[64];
  int count = 0;
  void Note(const DEBUG_EVENT &ev) {
    HANDLE h = ev.dwDebugEventCode == CREATE_PROCESS_DEBUG_EVENT ? ev.u.CreateProcessInfo.hThread
               : ev.dwDebugEventCode == CREATE_THREAD_DEBUG_EVENT ? ev.u.CreateThread.hThread
                                                                  : nullptr;
    if (h && count < 64) entries[count++] = {ev.dwThreadId, h};
  }
  HANDLE Find(DWORD id) const {
    for (int i = 0; i < count; i++)
      if (entries[i].id == id) return entries[i].handle;
    return nullptr;
  }
};

static double RawRun(const char *mode, int count, Counted counted, bool read_strings, StopWork work) {
  HandOff hand_off;
  if ((work == kStopHandOffEvents || work == kStopHandOffWord) && !hand_off.Start(work)) return -1;
  PROCESS_INFORMATION pi;
  if (!CreateDebuggee("eng_target.exe", std::string(mode) + " " + std::to_string(count), &pi)) {
    hand_off.End();
    return -1;
  }
  ContextBuffer registers;
  if (work == kStopReadContext) registers.Prepare(0x10005F);
  ThreadHandles threads;
  bool loader_breakpoint = true;
  Span span;
  for (;;) {
    DEBUG_EVENT ev;
    if (!WaitForDebugEvent(&ev, INFINITE)) break;
    DWORD status = DBG_CONTINUE;
    threads.Note(ev);
    CloseEventFiles(ev);
    switch (ev.dwDebugEventCode) {
      case EXCEPTION_DEBUG_EVENT:
        if (ev.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT) {
          status = DBG_EXCEPTION_NOT_HANDLED;
        } else if (loader_breakpoint) {
          loader_breakpoint = false;
        } else if (counted == kCountStops) {
          span.Count();
          if (work == kStopReadContext) registers.Read(threads.Find(ev.dwThreadId));
          if (work == kStopHandOffEvents || work == kStopHandOffWord) hand_off.Stop();
        }
        break;
      case OUTPUT_DEBUG_STRING_EVENT:
        if (read_strings) {
          char text[256];
          SIZE_T got = 0;
          ReadProcessMemory(pi.hProcess, ev.u.DebugString.lpDebugStringData, text,
                            std::min<SIZE_T>(sizeof text, ev.u.DebugString.nDebugStringLength), &got);
        }
        if (counted == kCountStrings) span.Count();
        break;
      case EXIT_THREAD_DEBUG_EVENT:
        if (counted == kCountThreadExits) span.Count();
        break;
    }
    ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
    if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) break;
  }
  hand_off.End();
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return span.PerEvent();
}

// The least system work of a breakpoint hit that goes on: at the int3, read the registers, move
// the instruction pointer back and set the trap flag, put the original byte back; at the single
// step that follows, write 0xCC again. Seconds per hit; the exit code must say every call counted.
static double RawHitsRun(int count) {
  PROCESS_INFORMATION pi;
  if (!CreateDebuggee("bench_hits.exe", std::to_string(count), &pi)) return -1;
  ContextBuffer registers;
  registers.Prepare(0x100001);  // CONTEXT_CONTROL: the instruction pointer and the flags
  ThreadHandles threads;
  bool loader_breakpoint = true;
  unsigned long long address = 0;
  unsigned char original = 0;
  const unsigned char int3 = 0xCC;
  bool rearm = false;
  DWORD exit_code = 1;
  Span span;
  for (;;) {
    DEBUG_EVENT ev;
    if (!WaitForDebugEvent(&ev, INFINITE)) break;
    DWORD status = DBG_CONTINUE;
    threads.Note(ev);
    CloseEventFiles(ev);
    if (ev.dwDebugEventCode == OUTPUT_DEBUG_STRING_EVENT && !address) {
      // "BenchHit 0x...": set the breakpoint.
      char text[64] = "";
      SIZE_T got = 0;
      ReadProcessMemory(pi.hProcess, ev.u.DebugString.lpDebugStringData, text,
                        std::min<SIZE_T>(sizeof text - 1, ev.u.DebugString.nDebugStringLength), &got);
      if (!strncmp(text, "BenchHit 0x", 11)) address = strtoull(text + 11, nullptr, 16);
      if (address && (!ReadProcessMemory(pi.hProcess, (void *)address, &original, 1, &got) ||
                      !WriteProcessMemory(pi.hProcess, (void *)address, &int3, 1, &got)))
        address = 0;
      FlushInstructionCache(pi.hProcess, (void *)address, 1);
    } else if (ev.dwDebugEventCode == EXCEPTION_DEBUG_EVENT) {
      const EXCEPTION_RECORD &record = ev.u.Exception.ExceptionRecord;
      HANDLE thread = threads.Find(ev.dwThreadId);
      SIZE_T got = 0;
      if (record.ExceptionCode == EXCEPTION_BREAKPOINT && loader_breakpoint) {
        loader_breakpoint = false;
      } else if (record.ExceptionCode == EXCEPTION_BREAKPOINT && address &&
                 (unsigned long long)record.ExceptionAddress == address && thread && registers.Read(thread)) {
        span.Count();
        registers.context->Rip = address;
        registers.context->EFlags |= 0x100;
        SetThreadContext(thread, registers.context);
        WriteProcessMemory(pi.hProcess, (void *)address, &original, 1, &got);
        FlushInstructionCache(pi.hProcess, (void *)address, 1);
        rearm = true;
      } else if (record.ExceptionCode == EXCEPTION_SINGLE_STEP && rearm) {
        WriteProcessMemory(pi.hProcess, (void *)address, &int3, 1, &got);
        FlushInstructionCache(pi.hProcess, (void *)address, 1);
        rearm = false;
      } else {
        status = DBG_EXCEPTION_NOT_HANDLED;
      }
    } else if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) {
      exit_code = ev.u.ExitProcess.dwExitCode;
    }
    ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
    if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) break;
  }
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  if (exit_code != 0 || span.seen != count) {
    fprintf(stderr, "raw breakpoint loop: %d hits of %d, exit code %lu\n", span.seen, count, exit_code);
    return -1;
  }
  return span.PerEvent();
}

// The raw trap-flag loop: seconds per single step and the number of steps (the exit code must say
// the loop's sum came out right).
static double RawStepsRun(int count, int *steps) {
  *steps = 0;
  PROCESS_INFORMATION pi;
  if (!CreateDebuggee("bench_hits.exe", "step " + std::to_string(count), &pi)) return -1;
  ContextBuffer registers;
  registers.Prepare(0x100001);  // CONTEXT_CONTROL: the instruction pointer and the flags
  ThreadHandles threads;
  int program_int3s = 0;
  bool loader_breakpoint = true;
  DWORD exit_code = 1;
  double begin = 0, end = 0;
  for (;;) {
    DEBUG_EVENT ev;
    if (!WaitForDebugEvent(&ev, INFINITE)) break;
    DWORD status = DBG_CONTINUE;
    threads.Note(ev);
    CloseEventFiles(ev);
    if (ev.dwDebugEventCode == EXCEPTION_DEBUG_EVENT) {
      DWORD code = ev.u.Exception.ExceptionRecord.ExceptionCode;
      HANDLE thread = threads.Find(ev.dwThreadId);
      bool trap = false;
      if (code == EXCEPTION_BREAKPOINT && loader_breakpoint) {
        loader_breakpoint = false;
      } else if (code == EXCEPTION_BREAKPOINT) {
        if (++program_int3s == 1) {
          begin = Now();
          trap = true;
        } else {
          end = Now();
          if (thread && registers.Read(thread)) {  // the trap flag set before the int3 ran goes
            registers.context->EFlags &= ~0x100u;
            SetThreadContext(thread, registers.context);
          }
        }
      } else if (code == EXCEPTION_SINGLE_STEP && program_int3s == 1) {
        ++*steps;
        trap = true;
      } else {
        status = DBG_EXCEPTION_NOT_HANDLED;
      }
      if (trap && thread && registers.Read(thread)) {
        registers.context->EFlags |= 0x100;
        SetThreadContext(thread, registers.context);
      }
    } else if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) {
      exit_code = ev.u.ExitProcess.dwExitCode;
    }
    ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
    if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) break;
  }
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  if (exit_code != 0 || program_int3s != 2 || *steps == 0) {
    fprintf(stderr, "raw trap-flag loop: %d steps, %d int3s, exit code %lu\n", *steps, program_int3s, exit_code);
    return -1;
  }
  return (end - begin) / *steps;
}

// [SECTION] The engine

// The engine, driven as a user interface without a message loop drives it: events popped on this
// thread whenever EngineWaitForEvent says some are queued, every stop answered with the run command.
// settle false: the engine as it runs on Windows, without the single step under Wine that follows a
// thread let go from an int3 (this loop asks for no break-in, so it is safe without it here).
static double EngineRunOnce(const char *mode, int count, Counted counted, bool settle = true) {
  std::string path = TargetProgram("eng_target.exe");
  std::string arguments = std::string(mode) + " " + std::to_string(count);
  LaunchDescription launch = {};
  launch.executable = path.c_str();
  launch.arguments = arguments.c_str();
  Target *target = nullptr;
  u32 pid = 0;
  if (EngineStartLaunch(&launch, nullptr, nullptr, &target, &pid) != 0) return -1;
  if (!settle) target->settle_after_int3 = 0;  // read by the engine only once the program runs
  if (EngineRun(target) != 0) {
    (void)EngineTerminate(target, 1);
    EngineRelease(target);
    return -1;
  }
  Span span;
  for (bool done = false; !done;) {
    (void)EngineWaitForEvent(target, INFINITE);
    EngineEvent e;
    bool answered_stop = false;
    for (;;) {
      (void)EnginePopEvent(target, &e);
      if (e.kind == kEventNone) break;
      if ((counted == kCountStops && e.kind == kEventStopped) || (counted == kCountStrings && e.kind == kEventText) ||
          (counted == kCountThreadExits && e.kind == kEventThreadExited))
        span.Count();
      // The stop event is posted once the engine serves commands: it can be answered at once.
      if (e.kind == kEventStopped) {
        answered_stop = true;
        if (EngineRun(target) != 0) {
          (void)EngineWaitStopped(target, INFINITE);
          (void)EngineRun(target);
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
  return span.PerEvent();
}

// The engine with a function breakpoint on BenchHit (added while the launch is held, bound through
// the program's PDB), every hit a stop answered with run as the user interface answers it: the
// engine rewinds, restores the byte, single-steps and re-arms. Seconds per hit; the exit code must
// say every call counted and every hit must have stopped.
//
// With a condition that is false at every call but the first and the last, the calls between run
// through the engine's condition evaluation without a stop: seconds per call between those two
// stops, which bp->hit_count must have counted.
static double EngineHitsRun(int count, bool conditional = false) {
  std::string path = TargetProgram("bench_hits.exe");
  std::string arguments = std::to_string(count);
  LaunchDescription launch = {};
  launch.executable = path.c_str();
  launch.arguments = arguments.c_str();
  Target *target = nullptr;
  u32 pid = 0;
  if (EngineStartLaunch(&launch, nullptr, nullptr, &target, &pid) != 0) return -1;
  BreakpointWanted wanted = {};
  wanted.kind = kBreakpointFunction;
  wanted.place = "BenchHit";
  std::string condition = "g_hits == 0 || g_hits == " + std::to_string(count - 1);
  if (conditional) wanted.condition = condition.c_str();
  BreakpointLocation *bp = nullptr;
  if (EngineAddBreakpoint(target, &wanted, &bp) != kEngineOk || EngineRun(target) != 0) {
    (void)EngineTerminate(target, 1);
    EngineRelease(target);
    return -1;
  }
  Span span;
  u32 exit_code = 1;
  for (bool done = false; !done;) {
    (void)EngineWaitForEvent(target, INFINITE);
    EngineEvent e;
    bool answered_stop = false;
    for (;;) {
      (void)EnginePopEvent(target, &e);
      if (e.kind == kEventNone) break;
      if (e.kind == kEventBreakpointHit && e.breakpoint.location_record == bp) span.Count();
      if (e.kind == kEventStopped || e.kind == kEventBreakpointHit) {
        answered_stop = true;
        if (EngineRun(target) != 0) {
          (void)EngineWaitStopped(target, INFINITE);
          (void)EngineRun(target);
        }
      }
      if (e.kind == kEventModuleUnloaded) TargetModuleRelease(target, e.module.module);
      if (e.kind == kEventProcessExited) exit_code = e.process.exit_code;
      if (e.kind == kEventProcessExited || e.kind == kEventDetached) done = true;
    }
    if (!answered_stop && !done) Sleep(16);
  }
  u32 counted = bp->hit_count;
  EngineRelease(target);
  if (conditional) {
    if (exit_code != 0 || span.seen != 2 || counted != (u32)count) {
      fprintf(stderr, "engine conditional run: %d stops of 2, %u hits of %d, exit code %u\n", span.seen, counted,
              count, exit_code);
      return -1;
    }
    return (span.last - span.first) / (count - 1);
  }
  if (exit_code != 0 || span.seen != count) {
    fprintf(stderr, "engine breakpoint run: %d hits of %d, exit code %u\n", span.seen, count, exit_code);
    return -1;
  }
  return span.PerEvent();
}

// A thousand watch requests of one shape ("g_type.name[i]", a member's array element) at one stop
// of eng_target: seconds from the refresh to the last result, and the system reads the memory cache
// made for them (its lines hold at the second refresh). Returns the median of the refreshes.
static double EngineWatchesRun(int watches, int refreshes, u64 *first_fills, u64 *later_fills) {
  std::string path = TargetProgram("eng_target.exe");
  LaunchDescription launch = {};
  launch.executable = path.c_str();
  launch.arguments = "int3";
  Target *target = nullptr;
  u32 pid = 0;
  if (EngineStartLaunch(&launch, nullptr, nullptr, &target, &pid) != 0) return -1;
  std::vector<EvaluationRequest *> requests(watches);
  for (int i = 0; i < watches; i++) {
    std::string text = "g_type.name[" + std::to_string(i % 22) + "]";
    if (EngineAddEvaluationRequest(target, text.c_str(), (void *)(uintptr_t)(i + 1), &requests[i]) != 0) return -1;
  }
  // Pops until the stop and the results it brings; then each refresh's results, timed.
  auto await_results = [&](int wanted) {
    int seen = 0;
    for (;;) {
      EngineEvent e;
      while (EnginePopEvent(target, &e) == 0 && e.kind != kEventNone) {
        if (e.kind == kEventEvaluation && ++seen == wanted) return true;
        if (e.kind == kEventProcessExited) return false;
      }
      if (!EngineWaitForEvent(target, 10000)) return false;
    }
  };
  std::vector<double> times;
  bool ok = EngineRun(target) == 0 && await_results(watches) && EngineWaitStopped(target, 10000) == 0;
  for (int r = 0; ok && r < refreshes; r++) {
    u64 fills = TargetCache(target)->line_fills;
    double begin = Now();
    ok = EngineRefresh(target) == 0 && await_results(watches);
    times.push_back(Now() - begin);
    (r == 0 ? *first_fills : *later_fills) = TargetCache(target)->line_fills - fills;
    ok = ok && EngineWaitStopped(target, 10000) == 0;
  }
  (void)EngineTerminate(target, 0);
  for (bool done = false; !done;) {
    EngineEvent e;
    while (EnginePopEvent(target, &e) == 0 && e.kind != kEventNone)
      if (e.kind == kEventProcessExited || e.kind == kEventDetached) done = true;
    if (!done && !EngineWaitForEvent(target, 10000)) break;
  }
  EngineRelease(target);
  return ok ? Median(times) : -1;
}

// The engine stepping over the loop's line: seconds per single step (the target's debug events
// between the step command and its stop) and the number of steps; the first int3 stop and the
// step's stop must come as the program has them, and the exit code must say the sum is right.
static double EngineStepsRun(int count, int *steps) {
  *steps = 0;
  std::string path = TargetProgram("bench_hits.exe");
  std::string arguments = "step " + std::to_string(count);
  LaunchDescription launch = {};
  launch.executable = path.c_str();
  launch.arguments = arguments.c_str();
  Target *target = nullptr;
  u32 pid = 0;
  if (EngineStartLaunch(&launch, nullptr, nullptr, &target, &pid) != 0) return -1;
  if (EngineRun(target) != 0) {
    (void)EngineTerminate(target, 1);
    EngineRelease(target);
    return -1;
  }
  int stops = 0;
  bool step_completed = false;
  u64 events_before = 0;
  double begin = 0, end = 0;
  u32 exit_code = 1;
  for (bool done = false; !done;) {
    (void)EngineWaitForEvent(target, INFINITE);
    EngineEvent e;
    for (;;) {
      (void)EnginePopEvent(target, &e);
      if (e.kind == kEventNone) break;
      if (e.kind == kEventStopped) {
        (void)EngineWaitStopped(target, INFINITE);
        if (++stops == 1) {  // the first int3: step over the loop's line
          events_before = target->debug_events;
          begin = Now();
          (void)EngineStep(target, kRunStepOver);
        } else {
          if (stops == 2) {
            end = Now();
            *steps = (int)(target->debug_events - events_before);
            step_completed = e.stopped.reason == kStopStepOver;
          }
          (void)EngineRun(target);
        }
      }
      if (e.kind == kEventModuleUnloaded) TargetModuleRelease(target, e.module.module);
      if (e.kind == kEventProcessExited) exit_code = e.process.exit_code;
      if (e.kind == kEventProcessExited || e.kind == kEventDetached) done = true;
    }
  }
  EngineRelease(target);
  if (exit_code != 0 || !step_completed || *steps == 0) {
    fprintf(stderr, "engine step: %d steps, %d stops, exit code %u\n", *steps, stops, exit_code);
    return -1;
  }
  return (end - begin) / *steps;
}

// [SECTION] System calls

// The price of the system calls a stop makes, under the same conditions: a debuggee held at its
// first event, a thread handle from it.
static void SystemCallCosts() {
  PROCESS_INFORMATION pi;
  if (!CreateDebuggee("eng_target.exe", "strloop 1", &pi)) return;
  DEBUG_EVENT ev;
  WaitForDebugEvent(&ev, INFINITE);  // CREATE_PROCESS: the process is held
  HANDLE thread = ev.u.CreateProcessInfo.hThread;
  const int n = 2000;
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ContextBuffer full;
  full.Prepare(0x10005F);
  static CONTEXT plain;
  struct Case {
    const char *what;
    int kind;
  } cases[] = {{"SetEvent", 0}, {"WaitForSingleObject, zero time-out", 1}, {"GetThreadContext, all registers", 2},
               {"GetThreadContext, with the extended state", 3}, {"ReadProcessMemory, 8 bytes", 4}};
  printf("\n| system call (debuggee held) | us a call |\n|---|---|\n");
  for (const Case &c : cases) {
    if (c.kind == 3 && !(full.flags & 0x40)) continue;
    double start = Now();
    for (int i = 0; i < n; i++) {
      switch (c.kind) {
        case 0: SetEvent(event); break;
        case 1: WaitForSingleObject(event, 0); break;
        case 2: plain.ContextFlags = 0x10001F; GetThreadContext(thread, &plain); break;
        case 3: full.Read(thread); break;
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
  CloseEventFiles(ev);
  TerminateProcess(pi.hProcess, 0);
  ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, DBG_CONTINUE);
  for (;;) {
    if (!WaitForDebugEvent(&ev, 5000)) break;
    CloseEventFiles(ev);
    ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, DBG_CONTINUE);
    if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) break;
  }
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
}

// [SECTION] Main

static void PrintMicroseconds(double seconds) {
  if (seconds < 0)
    printf("failed");
  else
    printf("%.1f", seconds * 1e6);
}

int main(int argc, char **argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 5;
  int int3_count = argc > 2 ? atoi(argv[2]) : 5000;
  int string_count = argc > 3 ? atoi(argv[3]) : 20000;
  int thread_count = argc > 4 ? atoi(argv[4]) : 2000;
  int hit_count = argc > 5 ? atoi(argv[5]) : 5000;
  setvbuf(stdout, nullptr, _IONBF, 0);
  PrintLoadAverage("before");
  printf("%d rounds; in each round the paths of a table run one after the other; medians\n\n", rounds);

  // 1. Stop and resume.
  struct StopPath {
    const char *label;
    StopWork work;
    bool engine;
    bool settle;
  } paths[] = {{"raw loop (WaitForDebugEvent / ContinueDebugEvent)", kStopNothing, false},
               {"raw loop + GetThreadContext of the stopped thread", kStopReadContext, false},
               {"raw loop + hand-off to a second thread and back through two kernel events", kStopHandOffEvents, false},
               {"raw loop + hand-off through one state word (WaitOnAddress / WakeByAddressSingle)", kStopHandOffWord,
                false},
               {"the engine as built (debugger thread, rings, stop sequence, UI thread answering)", kStopNothing, true, true},
               {"the engine as on Windows (no single step after the int3, which only Wine needs)", kStopNothing, true,
                false}};
  const size_t path_count = sizeof paths / sizeof paths[0];
  std::vector<std::vector<double>> stop_times(path_count);
  // Each round starts with another path, so that no path always runs first (after a pause, or
  // right after the engine's run).
  for (int r = 0; r < rounds; r++)
    for (size_t k = 0, p = r % path_count; k < path_count; k++, p = (p + 1) % path_count)
      stop_times[p].push_back(paths[p].engine ? EngineRunOnce("int3loop", int3_count, kCountStops, paths[p].settle)
                                              : RawRun("int3loop", int3_count, kCountStops, false, paths[p].work));
  double raw_stop = Median(stop_times[0]);
  printf("| stop and resume (%d int3s of the program, each continued) | us per stop | / raw loop |\n|---|---|---|\n",
         int3_count);
  for (size_t p = 0; p < path_count; p++) {
    double m = Median(stop_times[p]);
    printf("| %s | ", paths[p].label);
    PrintMicroseconds(m);
    printf(" | %.2f |\n", raw_stop > 0 && m > 0 ? m / raw_stop : 0);
  }

  // 2. Events that do not stop.
  struct Workload {
    const char *mode;
    int count;
    Counted counted;
    const char *label;
  } workloads[] = {{"strloop", string_count, kCountStrings, "debug-string event (no stop)"},
                   {"many", thread_count, kCountThreadExits, "thread start and exit (two events, no stop)"}};
  printf("\n| workload | events per run | raw loop (us/event) | raw loop reading the string (us/event) | "
         "engine (us/event) | engine / raw |\n|---|---|---|---|---|---|\n");
  for (const Workload &w : workloads) {
    std::vector<double> raw, raw_read, engine;
    for (int r = 0; r < rounds; r++) {
      raw.push_back(RawRun(w.mode, w.count, w.counted, false, kStopNothing));
      engine.push_back(EngineRunOnce(w.mode, w.count, w.counted));
      if (w.counted == kCountStrings) raw_read.push_back(RawRun(w.mode, w.count, w.counted, true, kStopNothing));
    }
    double mr = Median(raw), me = Median(engine);
    printf("| %s | %d | ", w.label, w.count);
    PrintMicroseconds(mr);
    printf(" | ");
    if (w.counted == kCountStrings)
      PrintMicroseconds(Median(raw_read));
    else
      printf("-");
    printf(" | ");
    PrintMicroseconds(me);
    printf(" | %.2f |\n", mr > 0 && me > 0 ? me / mr : 0);
  }

  // 3. Breakpoint hits, alternating the raw loop and the engine as the stop table does.
  std::vector<double> hits, engine_hits, false_hits;
  for (int r = 0; r < rounds; r++) {
    if (r % 2 == 0) {
      hits.push_back(RawHitsRun(hit_count));
      engine_hits.push_back(EngineHitsRun(hit_count));
      false_hits.push_back(EngineHitsRun(hit_count, true));
    } else {
      false_hits.push_back(EngineHitsRun(hit_count, true));
      engine_hits.push_back(EngineHitsRun(hit_count));
      hits.push_back(RawHitsRun(hit_count));
    }
  }
  double hit = Median(hits), engine_hit = Median(engine_hits), false_hit = Median(false_hits);
  printf("\n| breakpoint hits (%d calls of one function) | hits per second | us per hit | / raw loop |\n"
         "|---|---|---|---|\n",
         hit_count);
  printf("| minimal raw loop: rewind rip, restore the byte, single-step, write 0xCC again | %.0f | ",
         hit > 0 ? 1 / hit : 0);
  PrintMicroseconds(hit);
  printf(" | 1.00 |\n| the engine: a function breakpoint, stopping at each hit, answered with run | %.0f | ",
         engine_hit > 0 ? 1 / engine_hit : 0);
  PrintMicroseconds(engine_hit);
  printf(" | %.2f |\n", hit > 0 && engine_hit > 0 ? engine_hit / hit : 0);
  printf("| the engine: the same breakpoint with a condition that is false, evaluated at each hit | %.0f | ",
         false_hit > 0 ? 1 / false_hit : 0);
  PrintMicroseconds(false_hit);
  printf(" | %.2f |\n", hit > 0 && false_hit > 0 ? false_hit / hit : 0);

  // 5 (before the steps, which take longest). Watches at one stop.
  {
    u64 first_fills = 0, later_fills = 0;
    double watches = EngineWatchesRun(1000, 2 * rounds + 1, &first_fills, &later_fills);
    printf("\n| 1,000 watches of `g_type.name[i]` at one stop | ms per refresh (all results popped) | "
           "system reads, first refresh | later refreshes |\n|---|---|---|---|\n| the engine | %.2f | %llu | %llu |\n",
           watches * 1e3, (unsigned long long)first_fills, (unsigned long long)later_fills);
  }

  // 4. Single steps, alternating the raw loop and the engine.
  int step_rounds_count = argc > 6 ? atoi(argv[6]) : 2000;
  std::vector<double> raw_steps, engine_steps;
  int raw_step_count = 0, engine_step_count = 0;
  for (int r = 0; r < rounds; r++) {
    for (int k = 0; k < 2; k++) {
      if ((k == 0) == (r % 2 == 0))
        raw_steps.push_back(RawStepsRun(step_rounds_count, &raw_step_count));
      else
        engine_steps.push_back(EngineStepsRun(step_rounds_count, &engine_step_count));
    }
  }
  double raw_step = Median(raw_steps), engine_step = Median(engine_steps);
  printf("\n| single steps (a %d-round loop on one line) | steps per run | steps per second | us per step | "
         "/ raw loop (speed) |\n|---|---|---|---|---|\n",
         step_rounds_count);
  printf("| raw trap-flag loop: read the control registers, set the trap flag, write them | %d | %.0f | ",
         raw_step_count, raw_step > 0 ? 1 / raw_step : 0);
  PrintMicroseconds(raw_step);
  printf(" | 1.00 |\n| the engine: one step over the line | %d | %.0f | ", engine_step_count,
         engine_step > 0 ? 1 / engine_step : 0);
  PrintMicroseconds(engine_step);
  printf(" | %.2f |\n", raw_step > 0 && engine_step > 0 ? raw_step / engine_step : 0);

  // 5. System calls.
  SystemCallCosts();
  printf("\n");
  PrintLoadAverage("after");
  return 0;
}
