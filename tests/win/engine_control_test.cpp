// The engine's exception table and command channel against real programs under Wine: reported
// exceptions, C++ exception lines, the program's own int3, attach and break-in, break while
// running, stop debugging and terminate while running and while stopped, wrong-state results.
#include <gtest/gtest.h>

#include <stdio.h>

#include "tests/win/engine_harness.h"

static const char *kSource = "tests/targets/engine/eng_target.cpp";

TEST(EngineExceptions, AccessViolationStopsAtItsLine) {
  Seen seen;
  int stopped_state = -1;
  RunToEnd("av", seen, [&](Target *target, const SeenEvent &) {
    stopped_state = EngineWaitStopped(target, 10000);
    EXPECT_EQ(EngineBreak(target), 37);  // already stopped
    EXPECT_EQ(EngineRun(target), 0);
  });
  EXPECT_EQ(stopped_state, 0);
  ASSERT_EQ(seen.Count(kEventException), 1);
  const SeenEvent *e = seen.First(kEventException);
  EXPECT_EQ(e->event.exception.code, 0xC0000005u);
  EXPECT_EQ(e->event.exception.first_chance, 1);
  EXPECT_EQ(e->event.exception.continuable, 1);
  EXPECT_EQ(e->event.exception.access_kind, 0u);
  EXPECT_EQ(e->event.exception.data_address, 0x10u);
  EXPECT_EQ(e->module_name, "eng_target.exe");
  EXPECT_EQ((int)e->event.exception.location.line, MarkerLine(kSource, "AV_LINE"));
  char expected[256];
  snprintf(expected, sizeof expected,
           "Exception thrown at 0x%016llX in eng_target.exe: 0xC0000005: Access violation reading location "
           "0x0000000000000010.\n",
           (unsigned long long)e->event.exception.address);
  EXPECT_EQ(e->text, expected);
  // Continued as not handled: the program's own handler ends it.
  EXPECT_EQ(seen.exit_code, 0xABu);
  EXPECT_EQ(seen.Count(kEventStopped), 0);
}

TEST(EngineExceptions, CallThroughNullPointerShowsTheCallersLine) {
  Seen seen;
  RunToEnd("nullcall", seen);
  ASSERT_EQ(seen.Count(kEventException), 1);
  const SeenEvent *e = seen.First(kEventException);
  EXPECT_EQ(e->event.exception.access_kind, 8u);
  EXPECT_NE(e->event.exception.address, 0u);
  EXPECT_EQ(e->module_name, "eng_target.exe");
  EXPECT_EQ((int)e->event.exception.location.line, MarkerLine(kSource, "NULL_CALL_LINE"));
  EXPECT_EQ(seen.exit_code, 0xABu);
}

TEST(EngineExceptions, FirstChanceCxxExceptionPrintsOneLineAndNeverStops) {
  Seen seen;
  RunToEnd("cxx", seen);
  EXPECT_EQ(seen.Count(kEventStopped), 0);
  EXPECT_EQ(seen.Count(kEventException), 0);
  int lines = 0;
  for (const std::string &s : seen.debug_strings)
    if (s.rfind("Exception thrown at 0x", 0) == 0) {
      lines++;
      unsigned long long at = 0, object = 0;
      char type[128];
      ASSERT_EQ(sscanf(s.c_str(),
                       "Exception thrown at 0x%llX in eng_target.exe: Microsoft C++ exception: %127s at memory "
                       "location 0x%llX",
                       &at, type, &object),
                3)
          << s;
      EXPECT_STREQ(type, "ktrn::parse_error");
      EXPECT_NE(object, 0u);
      EXPECT_EQ(s.back(), '\n');
    }
  EXPECT_EQ(lines, 1);
  ASSERT_EQ(seen.debug_strings.size(), 2u);
  EXPECT_EQ(seen.debug_strings[1], "after cxx (1 handled)\n");
  EXPECT_EQ(seen.exit_code, 5u);
}

// A C++ exception whose throw information cannot be read prints nothing; an exception code the
// engine does not know is passed on. Neither stops, and the program handles both.
TEST(EngineExceptions, ExceptionsThatAreNeitherShownNorStopped) {
  struct Case {
    const char *mode;
    u32 exit_code;
    const char *after;
  } cases[] = {{"cxxbad", 4, "after cxxbad (3 handled)\n"}, {"unknown", 6, "after unknown (1 handled)\n"}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.mode);
    Seen seen;
    RunToEnd(c.mode, seen);
    EXPECT_EQ(seen.Count(kEventStopped), 0);
    EXPECT_EQ(seen.Count(kEventException), 0);
    EXPECT_EQ(seen.debug_strings, std::vector<std::string>{c.after});  // the program's handler saw each one
    EXPECT_EQ(seen.exit_code, c.exit_code);
  }
}

TEST(EngineExceptions, ProgramsOwnInt3StopsAtItsLineAndResumesPastIt) {
  Seen seen;
  std::vector<std::string> names;
  bool snapshot = false;
  RunToEnd("int3", seen, [&](Target *target, const SeenEvent &e) {
    EXPECT_EQ(EngineWaitStopped(target, 10000), 0);
    for (TargetThread *th = target->threads; th; th = th->next) names.push_back(th->name);
    // The threads window's view: the stopped thread is inside main of eng_target.exe.
    TargetThread *main = target->threads;
    snapshot = main && main->ip_module == target->main_module && main->ip_function &&
               main->ip_function_start <= e.event.stopped.address && e.event.stopped.address < main->ip_function_end;
    EXPECT_EQ(EngineRun(target), 0);
  });
  EXPECT_TRUE(snapshot);
  ASSERT_EQ(seen.Count(kEventStopped), 1);
  const SeenEvent *e = seen.First(kEventStopped);
  EXPECT_EQ(e->event.stopped.reason, (u32)kStopProgramBreakpoint);
  EXPECT_EQ(e->module_name, "eng_target.exe");
  EXPECT_EQ((int)e->event.stopped.location.line, MarkerLine(kSource, "INT3_LINE"));
  ASSERT_GE(names.size(), 2u);
  EXPECT_EQ(names[0], "Main Thread");
  bool idle = false;
  for (const std::string &n : names) idle |= n == "eng_target.exe!IdleThread";
  EXPECT_TRUE(idle);
  EXPECT_EQ(seen.debug_strings, std::vector<std::string>{"after int3\n"});
  EXPECT_EQ(seen.exit_code, 3u);
}

// [SECTION] Attach, break, detach, terminate

struct FreeProcess {
  PROCESS_INFORMATION pi = {};
  bool Start(const char *mode) {
    STARTUPINFOW si = {sizeof si};
    std::wstring line = L"\"" + TargetPathW("eng_target.exe") + L"\" " + std::wstring(mode, mode + strlen(mode));
    if (!CreateProcessW(nullptr, &line[0], nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE, nullptr, nullptr, &si, &pi))
      return false;
    Sleep(500);  // let it get going
    return true;
  }
  bool Alive() { return WaitForSingleObject(pi.hProcess, 300) == WAIT_TIMEOUT; }
  ~FreeProcess() {
    if (pi.hProcess) {
      TerminateProcess(pi.hProcess, 0);
      WaitForSingleObject(pi.hProcess, 5000);
      CloseHandle(pi.hProcess);
      CloseHandle(pi.hThread);
    }
  }
};

TEST(EngineAttach, BreakInThenBreakWhileRunningThenDetachWhileRunning) {
  FreeProcess p;
  ASSERT_TRUE(p.Start("spin"));
  Target *t = nullptr;
  ASSERT_EQ(EngineStartAttach(p.pi.dwProcessId, HarnessWake, HarnessWakeEvent(), &t), 0);
  Seen seen;
  ASSERT_TRUE(WaitForKind(t, seen, kEventStopped));
  EXPECT_EQ(seen.First(kEventStopped)->event.stopped.reason, (u32)kStopBreak);
  EXPECT_GE(seen.Count(kEventModuleLoaded), 2);
  ASSERT_EQ(EngineWaitStopped(t, 10000), 0);
  // The thread that raised the break-in is not one of the program's.
  ASSERT_NE(t->break_in_address, 0u);
  int threads = 0;
  for (TargetThread *th = t->threads; th; th = th->next, threads++) EXPECT_NE(th->start_address, t->break_in_address);
  EXPECT_EQ(threads, 1);  // the spinning main thread
  EXPECT_STREQ(t->threads->name, "Main Thread");
  EXPECT_EQ(EngineBreak(t), 37);
  EXPECT_EQ(EngineRun(t), 0);
  ASSERT_TRUE(WaitRunning(t));
  // Operations that need a stopped target.
  EXPECT_EQ(EngineRun(t), 26);
  EXPECT_EQ(EngineSetInstructionPointer(t, 0x1000), 26);
  EXPECT_EQ(EngineSetNextStatement(t, "eng_target.cpp", 1), 26);
  EXPECT_EQ(EngineSelectFrame(t, 0), 0);
  EXPECT_EQ(EngineSelectThread(t, 1), 0);
  size_t before = seen.events.size();
  EXPECT_EQ(EngineBreak(t), 0);
  ASSERT_TRUE(WaitForKind(t, seen, kEventStopped));
  int stops_after_break = 0;
  for (size_t i = before; i < seen.events.size(); i++)
    if (seen.events[i].event.kind == kEventStopped) {
      stops_after_break++;
      EXPECT_EQ(seen.events[i].event.stopped.reason, (u32)kStopBreak);  // not frame selected: that was ignored
    }
  EXPECT_EQ(stops_after_break, 1);
  ASSERT_EQ(EngineWaitStopped(t, 10000), 0);
  EXPECT_EQ(EngineRun(t), 0);
  ASSERT_TRUE(WaitRunning(t));
  before = seen.events.size();
  EXPECT_EQ(EngineStopDebugging(t), 0);
  ASSERT_TRUE(WaitForKind(t, seen, kEventDetached));
  for (size_t i = before; i < seen.events.size(); i++) EXPECT_NE(seen.events[i].event.kind, (u32)kEventStopped);
  char expected[64];
  snprintf(expected, sizeof expected, "Detached from process (%u)\n", (u32)p.pi.dwProcessId);
  EXPECT_EQ(seen.events.back().text, expected);
  EngineRelease(t);
  EXPECT_TRUE(p.Alive());
}

TEST(EngineAttach, StopDebuggingWhileStoppedDetaches) {
  FreeProcess p;
  ASSERT_TRUE(p.Start("spin"));
  Target *t = nullptr;
  ASSERT_EQ(EngineStartAttach(p.pi.dwProcessId, HarnessWake, HarnessWakeEvent(), &t), 0);
  Seen seen;
  ASSERT_TRUE(WaitForKind(t, seen, kEventStopped));
  ASSERT_EQ(EngineWaitStopped(t, 10000), 0);
  EXPECT_EQ(EngineStopDebugging(t), 0);
  ASSERT_TRUE(WaitForKind(t, seen, kEventDetached));
  EngineRelease(t);
  EXPECT_TRUE(p.Alive());
}

// Stopped at the program's own int3, a detach lets the thread go on past it: the program ends
// normally instead of meeting the int3 again with nobody to handle it.
TEST(EngineAttach, StopDebuggingAtTheProgramsOwnInt3LetsItFinish) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchTarget("eng_target.exe", "int3", &t, &pid), 0);
  HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, pid);
  ASSERT_NE(process, nullptr);
  EngineRun(t);
  Seen seen;
  ASSERT_TRUE(WaitForKind(t, seen, kEventStopped));
  ASSERT_EQ(EngineWaitStopped(t, 10000), 0);
  EXPECT_EQ(EngineStopDebugging(t), 0);
  ASSERT_TRUE(WaitForKind(t, seen, kEventDetached));
  EngineRelease(t);
  ASSERT_EQ(WaitForSingleObject(process, 20000), (DWORD)WAIT_OBJECT_0);
  DWORD code = 0;
  GetExitCodeProcess(process, &code);
  EXPECT_EQ(code, 3u);  // the int3 mode's own exit code, not a breakpoint exception's
  CloseHandle(process);
}

// A break still on its way when the terminate comes must end in the process exit, not in a stop
// that nobody answers. The test holds the rings' lock, which the engine needs between taking the
// break and waiting for a command: the terminate then always finds the engine still running.
TEST(EngineTerminate, RightAfterABreakWhileRunning) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchAndRun("spin", &t, &pid), 0);
  Seen seen;
  ASSERT_TRUE(WaitForKind(t, seen, kEventText));
  TicketLockAcquire(&t->lock);  // nothing below may take it, nor return before it is let go
  u64 own_ticket = t->lock.now_serving;
  EXPECT_EQ(EngineBreak(t), 0);
  for (ULONGLONG start = GetTickCount64(); t->lock.next_ticket == own_ticket + 1 && GetTickCount64() - start < 10000;)
    Sleep(1);
  bool engine_took_the_break = t->lock.next_ticket > own_ticket + 1;
  int state_at_terminate = EngineStoppedState(t);
  EXPECT_EQ(EngineTerminate(t, 79), 0);
  TicketLockRelease(&t->lock);
  EXPECT_TRUE(engine_took_the_break);
  EXPECT_EQ(state_at_terminate, 26);
  DriveToEnd(t, seen, [](Target *, const SeenEvent &) {}, 30000);
  EXPECT_TRUE(seen.ended);
  EXPECT_EQ(seen.exit_code, 79u);
}

TEST(EngineAttach, RefusedAttachIs37) {
  Target *t = nullptr;
  EXPECT_EQ(EngineStartAttach(0x7FFFFFF0u, HarnessWake, HarnessWakeEvent(), &t), 37);
  EXPECT_EQ(t, nullptr);
  EXPECT_EQ(EngineStartAttach(0, HarnessWake, HarnessWakeEvent(), &t), 1);
  EXPECT_EQ(EngineRun(nullptr), 1);
  EXPECT_EQ(EngineBreak(nullptr), 1);
}

TEST(EngineTerminate, WhileRunningAndWhileStopped) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchAndRun("spin", &t, &pid), 0);
  Seen running;
  ASSERT_TRUE(WaitForKind(t, running, kEventText));
  EXPECT_EQ(EngineTerminate(t, 77), 0);
  DriveToEnd(t, running);
  EXPECT_EQ(running.exit_code, 77u);
  EXPECT_EQ(running.Count(kEventStopped), 0);

  ASSERT_EQ(LaunchAndRun("int3", &t, &pid), 0);
  Seen stopped;
  ASSERT_TRUE(WaitForKind(t, stopped, kEventStopped));
  ASSERT_EQ(EngineWaitStopped(t, 10000), 0);
  EXPECT_EQ(EngineTerminate(t, 78), 0);
  DriveToEnd(t, stopped);
  EXPECT_EQ(stopped.exit_code, 78u);
  EXPECT_EQ(stopped.debug_strings.size(), 0u);  // "after int3" never ran
  EXPECT_EQ(stopped.events.back().text, "Process exited: with exit code 78 (0x4e)\n");
}

TEST(EngineTerminate, StopDebuggingALaunchedProgramWhileRunningLeavesItRunning) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchAndRun("spin", &t, &pid), 0);
  Seen seen;
  ASSERT_TRUE(WaitForKind(t, seen, kEventText));
  EXPECT_EQ(EngineStopDebugging(t), 0);
  ASSERT_TRUE(WaitForKind(t, seen, kEventDetached));
  EXPECT_EQ(seen.Count(kEventStopped), 0);
  EXPECT_EQ(EngineStopDebugging(t), 3);  // no process any more
  EngineRelease(t);
  HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid);
  ASSERT_NE(process, nullptr);
  EXPECT_EQ(WaitForSingleObject(process, 300), (DWORD)WAIT_TIMEOUT);
  TerminateProcess(process, 0);
  CloseHandle(process);
}

// [SECTION] More reported exceptions and the continue status

TEST(EngineExceptions, DivideByZeroAndStackOverflowAreReported) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchAndRun("div0", &t, &pid), 0);
  Seen div;
  DriveToEnd(t, div);
  ASSERT_EQ(div.Count(kEventException), 1);
  EXPECT_EQ(div.First(kEventException)->event.exception.code, 0xC0000094u);
  EXPECT_EQ((int)div.First(kEventException)->event.exception.location.line, MarkerLine(kSource, "DIV0_LINE"));
  EXPECT_NE(div.First(kEventException)->text.find(": 0xC0000094: Integer division by zero.\n"), std::string::npos);
  EXPECT_EQ(div.exit_code, 0xADu);

  ASSERT_EQ(LaunchAndRun("overflow", &t, &pid), 0);
  Seen overflow;
  u8 flag = 0;
  DriveToEnd(t, overflow, [&](Target *target, const SeenEvent &) {
    EXPECT_EQ(EngineWaitStopped(target, 10000), 0);
    for (TargetThread *th = target->threads; th; th = th->next)
      if (th->id == target->event.dwThreadId) flag = th->stack_overflow_seen;
    EngineRun(target);
  });
  ASSERT_EQ(overflow.Count(kEventException), 1);
  EXPECT_EQ(overflow.First(kEventException)->event.exception.code, 0xC00000FDu);
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(overflow.exit_code, 0xAFu);
}

TEST(EngineExceptions, UnhandledFirstChanceComesBackAsSecondChance) {
  Seen seen;
  int stops = 0;
  RunToEnd("avraw", seen, [&](Target *target, const SeenEvent &e) {
    EXPECT_EQ(EngineWaitStopped(target, 10000), 0);
    if (++stops == 1) {
      EXPECT_EQ(e.event.exception.first_chance, 1);
      EngineRun(target);  // not handled: the program has no handler for it
    } else {
      EXPECT_EQ(e.event.exception.first_chance, 0);
      EXPECT_EQ(e.text.rfind("Unhandled exception at 0x", 0), 0u) << e.text;
      EXPECT_EQ(EngineTerminate(target, 5), 0);
    }
  });
  EXPECT_EQ(stops, 2);
  EXPECT_EQ(seen.exit_code, 5u);
}

TEST(EngineExceptions, SettingTheInstructionPointerHandsTheExceptionToNobody) {
  // Written registers make the next run continue as handled: the faulting read runs again and
  // faults again (first chance), instead of reaching the program's handler.
  Seen seen;
  int exceptions = 0;
  RunToEnd("av", seen, [&](Target *target, const SeenEvent &e) {
    EXPECT_EQ(EngineWaitStopped(target, 10000), 0);
    if (e.event.kind == kEventStopped) {  // thread states after the register write
      EXPECT_EQ(e.event.stopped.reason, (u32)kStopThreadStates);
      EngineRun(target);
      return;
    }
    if (++exceptions == 1)
      EXPECT_EQ(EngineSetInstructionPointer(target, e.event.exception.address), 0);
    else
      EngineRun(target);
  });
  ASSERT_EQ(exceptions, 2);
  for (const SeenEvent &e : seen.events)
    if (e.event.kind == kEventException) EXPECT_EQ(e.event.exception.first_chance, 1);
  EXPECT_EQ(seen.exit_code, 0xABu);
}

TEST(EngineTerminate, StopDebuggingOrTerminateWhileHeldBeforeTheFirstRun) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchTarget("eng_target.exe", "spin", &t, &pid), 0);
  EXPECT_EQ(EngineStopDebugging(t), 0);
  Seen detached;
  ASSERT_TRUE(WaitForKind(t, detached, kEventDetached));
  EngineRelease(t);
  HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid);
  ASSERT_NE(process, nullptr);
  EXPECT_EQ(WaitForSingleObject(process, 500), (DWORD)WAIT_TIMEOUT);  // runs on without the debugger
  TerminateProcess(process, 0);
  CloseHandle(process);

  ASSERT_EQ(LaunchTarget("eng_target.exe", "spin", &t, &pid), 0);
  EXPECT_EQ(EngineTerminate(t, 12), 0);
  Seen ended;
  DriveToEnd(t, ended);
  EXPECT_EQ(ended.exit_code, 12u);
  EXPECT_EQ(ended.debug_strings.size(), 0u);
}

TEST(EngineExceptions, FaultInTheSanitizersShadowMemoryPassesSilently) {
  Seen seen;
  RunToEnd("shadow", seen);
  EXPECT_EQ(seen.Count(kEventException), 0);
  EXPECT_EQ(seen.Count(kEventStopped), 0);
  EXPECT_EQ(seen.exit_code, 0xB0u);  // the program's handler saw the fault
}
