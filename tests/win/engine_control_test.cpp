// The engine's exception table and the ends of a run against real programs under Wine: reported
// exceptions and their answers, exceptions that never stop, attach and break-in, break while
// running, wrong-state results, stop debugging and terminate in every state.
#include <gtest/gtest.h>

#include <stdio.h>

#include <regex>

#include "tests/win/engine_harness.h"

// [SECTION] Exceptions

// Reported exceptions stop at their line (a call through a null pointer at the caller's) with their
// first parameters; while stopped a break is refused; continued as not handled, each reaches the
// program's own handler, which ends it with a code of its own. One the program does not handle comes
// back as a second chance. Written registers make the next run continue as handled: the faulting
// read runs again and faults again (first chance), instead of reaching the program's handler.
TEST(EngineExceptions, ReportedExceptionsStopAtTheirLineAndReachTheProgram) {
  enum Answer { kRun, kTerminateTheSecond, kSetInstructionPointerFirst };
  const char *av10 = ": 0xC0000005: Access violation reading location 0x0000000000000010.\n";
  struct Case {
    const char *mode;
    Answer answer;
    u32 code;
    u32 access_kind;
    const char *marker;   // null: no line of the program's own to check
    const char *message;  // what follows "... at 0x... in eng_target.exe", or null
    std::vector<u8> chances;  // first_chance of each exception in turn
    u32 exit_code;
  } cases[] = {
      {"av", kRun, 0xC0000005, 0, "AV_LINE", av10, {1}, 0xAB},
      {"nullcall", kRun, 0xC0000005, 8, "NULL_CALL_LINE", nullptr, {1}, 0xAB},
      {"div0", kRun, 0xC0000094, 0, "DIV0_LINE", ": 0xC0000094: Integer division by zero.\n", {1}, 0xAD},
      {"overflow", kRun, 0xC00000FD, 1, nullptr, nullptr, {1}, 0xAF},
      {"avraw", kTerminateTheSecond, 0xC0000005, 0, nullptr,
       ": 0xC0000005: Access violation reading location 0x0000000000000020.\n", {1, 0}, 5},
      {"av", kSetInstructionPointerFirst, 0xC0000005, 0, "AV_LINE", av10, {1, 1}, 0xAB},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.mode << " answered " << c.answer);
    int exceptions = 0;
    u8 overflow_seen = 0;
    Seen seen = RunToEnd(c.mode, [&](Target *target, const SeenEvent &e) {
      EXPECT_EQ(EngineWaitStopped(target, 10000), 0);
      if (e.event.kind == kEventStopped) {  // thread states after the register write
        EXPECT_EQ(e.event.stopped.reason, (u32)kStopThreadStates);
        EXPECT_EQ(EngineRun(target), 0);
        return;
      }
      EXPECT_EQ(EngineBreak(target), 37);  // already stopped
      for (TargetThread *th = target->threads; th; th = th->next)
        if (th->id == target->event.dwThreadId) overflow_seen = th->stack_overflow_seen;
      exceptions++;
      if (c.answer == kSetInstructionPointerFirst && exceptions == 1)
        EXPECT_EQ(EngineSetInstructionPointer(target, e.event.exception.address), 0);
      else if (c.answer == kTerminateTheSecond && exceptions == 2)
        EXPECT_EQ(EngineTerminate(target, 5), 0);
      else
        EXPECT_EQ(EngineRun(target), 0);
    });
    std::vector<u8> chances;
    for (const SeenEvent &seen_event : seen.events) {
      if (seen_event.event.kind != kEventException) continue;
      const auto &e = seen_event.event.exception;
      chances.push_back(e.first_chance);
      EXPECT_EQ(e.code, c.code);
      EXPECT_EQ(e.continuable, 1);
      EXPECT_EQ(e.access_kind, c.access_kind);
      EXPECT_NE(e.address, 0u);
      EXPECT_EQ(seen_event.module_name, "eng_target.exe");
      if (c.marker) EXPECT_EQ((int)e.location.line, MarkerLine(c.marker));
      char expected[256];
      snprintf(expected, sizeof expected, "%s at 0x%016llX in eng_target.exe%s",
               e.first_chance ? "Exception thrown" : "Unhandled exception", (unsigned long long)e.address,
               c.message ? c.message : "");
      if (c.message) EXPECT_EQ(seen_event.text, expected);
    }
    EXPECT_EQ(chances, c.chances);
    EXPECT_EQ(overflow_seen, c.code == 0xC00000FD);
    EXPECT_EQ(seen.exit_code, c.exit_code);
  }
}

// Exceptions that never stop: a first-chance C++ exception prints one line; one whose throw
// information cannot be read prints nothing; an unknown code and a fault in the sanitizer's shadow
// memory are passed on silently. The program's handler sees every one.
TEST(EngineExceptions, ExceptionsThatNeverStop) {
  struct Case {
    const char *mode;
    u32 exit_code;
    const char *strings;  // a pattern for the debug strings, one after another
  } cases[] = {
      {"cxx", 5,
       // Pointers as %p prints them on Windows: 16 upper-case hexadecimal digits.
       "Exception thrown at [0-9A-F]{16} in eng_target\\.exe: Microsoft C\\+\\+ exception: ktrn::parse_error at "
       "memory location (?!0{16})[0-9A-F]{16}\nafter cxx \\(1 handled\\)\n"},
      {"cxxbad", 4, "after cxxbad \\(3 handled\\)\n"},
      {"unknown", 6, "after unknown \\(1 handled\\)\n"},
      {"shadow", 0xB0, ""},
  };
  for (const Case &c : cases) {
    Seen seen = RunToEnd(c.mode);
    std::string strings;
    for (const std::string &text : seen.debug_strings) strings += text;
    EXPECT_TRUE(std::regex_match(strings, std::regex(c.strings))) << c.mode << ": " << strings;
    EXPECT_EQ(seen.Count(kEventStopped) + seen.Count(kEventException), 0) << c.mode;
    EXPECT_EQ(seen.exit_code, c.exit_code) << c.mode;
  }
}

// [SECTION] Attach, break, detach, terminate

TEST(EngineAttach, BreakInThenBreakWhileRunningThenDetachWhileRunning) {
  FreeProcess p;
  ASSERT_TRUE(p.Start("spin"));
  Target *t = Attach(p.Id());
  ASSERT_NE(t, nullptr);
  Seen seen;
  EXPECT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopBreak);
  EXPECT_GE(seen.Count(kEventModuleLoaded), 2);
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
  EXPECT_EQ(WaitStopped(t, seen, kEventStopped, before).event.stopped.reason, (u32)kStopBreak);  // not frame selected
  EXPECT_EQ(seen.Count(kEventStopped, before), 1);
  EXPECT_EQ(EngineRun(t), 0);
  ASSERT_TRUE(WaitRunning(t));
  before = seen.events.size();
  EXPECT_EQ(EngineStopDebugging(t), 0);
  ASSERT_GE(WaitForKind(t, seen, kEventDetached, before), 0);
  EXPECT_EQ(seen.Count(kEventStopped, before), 0);
  EngineRelease(t);
  EXPECT_TRUE(p.Alive());
}

// Terminate and stop debugging in every state a run can be in: held before its first run, running,
// stopped at the program's own int3, stopped at an attach's break-in. Neither shows a stop on the
// way. A detached program runs on; stopped at its own int3, it goes on past it and ends normally
// instead of meeting the int3 again with nobody to handle it.
TEST(EngineTerminate, AndStopDebuggingInEveryState) {
  enum State { kHeld, kRunning, kAtInt3, kAttached };
  struct Case {
    State state;
    bool terminate;
    u32 exit_code;  // given to terminate; after a detach, the int3 mode's own
  } cases[] = {
      {kHeld, true, 12},    {kRunning, true, 77},  {kAtInt3, true, 78}, {kAttached, true, 0xC0000005},
      {kHeld, false, 0},    {kRunning, false, 0},  {kAtInt3, false, 3}, {kAttached, false, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "state " << c.state << (c.terminate ? " terminate" : " stop debugging"));
    FreeProcess free_process;
    if (c.state == kAttached) ASSERT_TRUE(free_process.Start("spin"));
    u32 pid = free_process.Id();
    Target *t = pid ? Attach(pid) : Launch(c.state == kAtInt3 ? "int3" : "spin", c.state != kHeld, &pid);
    ASSERT_NE(t, nullptr);
    Seen seen;
    if (c.state == kRunning) ASSERT_GE(WaitForKind(t, seen, kEventText), 0);
    if (c.state == kAtInt3 || c.state == kAttached) ASSERT_EQ(WaitStopped(t, seen).event.kind, (u32)kEventStopped);
    HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid);
    ASSERT_NE(process, nullptr);
    size_t mark = seen.events.size();
    u32 debug_strings = (u32)seen.debug_strings.size();
    EXPECT_EQ(c.terminate ? EngineTerminate(t, c.exit_code) : EngineStopDebugging(t), 0);
    ASSERT_GE(WaitForKind(t, seen, c.terminate ? kEventProcessExited : kEventDetached, mark), 0);
    EXPECT_EQ(seen.Count(kEventStopped, mark), 0);
    EXPECT_EQ(seen.debug_strings.size(), debug_strings);  // "after int3" never ran under the debugger
    EXPECT_EQ(EngineStopDebugging(t), 3);                 // no process any more
    EngineRelease(t);
    char expected[80];
    if (c.terminate)
      snprintf(expected, sizeof expected, "Process exited: with exit code %u (0x%x)\n", c.exit_code, c.exit_code);
    else
      snprintf(expected, sizeof expected, "Detached from process (%u)\n", pid);
    EXPECT_EQ(seen.events.back().text, expected);
    DWORD code = 0;
    if (c.terminate || c.state == kAtInt3) {
      EXPECT_EQ(WaitForSingleObject(process, 20000), (DWORD)WAIT_OBJECT_0);
      EXPECT_TRUE(GetExitCodeProcess(process, &code) && code == c.exit_code) << code;
    } else {
      EXPECT_EQ(WaitForSingleObject(process, 500), (DWORD)WAIT_TIMEOUT);  // runs on without the debugger
      TerminateProcess(process, 0);
    }
    CloseHandle(process);
  }
}

// A break still on its way when the terminate comes must end in the process exit, not in a stop
// that nobody answers. The test holds the rings' lock, which the engine needs between taking the
// break and waiting for a command: the terminate then always finds the engine still running.
TEST(EngineTerminate, RightAfterABreakWhileRunning) {
  Target *t = Launch("spin");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_GE(WaitForKind(t, seen, kEventText), 0);
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
  DriveToEnd(t, seen, kLeaveStopped, 15000);
  EXPECT_EQ(seen.exit_code, 79u);
}
