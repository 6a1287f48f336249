// Commands served while the target is stopped, evaluation requests, the request ring while it runs,
// the process list and the pending-action rules, against real programs under Wine.
#include <gtest/gtest.h>

#include <string.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "engine/pending_action.h"
#include "engine/process_list.h"
#include "symbols/scope_lookup.h"
#include "tests/win/engine_harness.h"

// One stop at the program's own int3 (with an idle second thread), and everything served there:
// evaluation requests, the threads and their names, the threads window's view of the stopped one
// (inside main), every command answered by the stop it reports, and the next statement.
TEST(EngineCommands, ServedAtTheProgramsOwnInt3) {
  Target *t = Launch("int3", false);
  ASSERT_NE(t, nullptr);
  // Requests added while held are parsed at once; a text too long or absent is refused.
  EvaluationRequest *parsed = nullptr, *broken = nullptr, *late = nullptr;
  EXPECT_EQ(EngineAddEvaluationRequest(t, std::string(256, 'a').c_str(), nullptr, &parsed), 33);
  EXPECT_EQ(EngineAddEvaluationRequest(t, nullptr, nullptr, &parsed), 1);
  ASSERT_EQ(EngineAddEvaluationRequest(t, "counter + 1, x", (void *)1, &parsed), 0);
  ASSERT_EQ(EngineAddEvaluationRequest(t, "1 +* )", (void *)2, &broken), 0);
  EXPECT_EQ(parsed->parse_failed, 0);
  EXPECT_NE(parsed->tree, nullptr);
  EXPECT_STREQ(broken->result, "Parse error");
  EXPECT_LT(parsed->nodes.free_count, (u32)kExprPoolCapacity);  // the tree is in the request's own pool
  EXPECT_EQ(broken->nodes.free_count, (u32)kExprPoolCapacity);  // a failed parse gives its nodes back
  EXPECT_EQ(EngineRun(t), 0);
  Seen seen;
  SeenEvent stop = WaitStopped(t, seen);
  EXPECT_EQ(stop.event.stopped.reason, (u32)kStopProgramBreakpoint);
  EXPECT_EQ(stop.module_name, "eng_target.exe");
  EXPECT_EQ((int)stop.event.stopped.location.line, MarkerLine("INT3_LINE"));
  u64 stop_address = stop.event.stopped.address;

  // At the stop, after the stop itself: each request's result, in the order they were added; the
  // unparsed one's is its parse error, the parsed one's the evaluator's row.
  PopInto(t, seen, kLeaveStopped);
  ASSERT_EQ(seen.Count(kEventEvaluation), 2);
  EXPECT_LT(seen.First(kEventStopped), seen.First(kEventEvaluation));
  const EngineEvent &result = seen.First(kEventEvaluation)->event;
  EXPECT_EQ(result.evaluation.request, (void *)parsed);
  EXPECT_EQ(result.evaluation.parse_failed, 0);
  ASSERT_TRUE(EngineLockModel(t));
  EXPECT_EQ(parsed->row.failed, 1);
  EXPECT_STREQ(parsed->row.value_text, "Identifier \"counter\" not found");
  EngineUnlockModel(t);
  // Added while stopped: a refresh re-evaluates every request, the new one included.
  size_t mark = seen.events.size();
  ASSERT_EQ(EngineAddEvaluationRequest(t, "((", (void *)3, &late), 0);
  std::set<void *> evaluated;
  for (int at = (int)mark - 1, n = 0; n < 3; n++) {
    at = WaitForKind(t, seen, kEventEvaluation, at + 1);
    ASSERT_GE(at, 0);
    evaluated.insert(seen.events[at].event.evaluation.request);
    if (seen.events[at].event.evaluation.request == broken) {
      EXPECT_EQ(seen.events[at].event.evaluation.cookie, broken->cookie);
      EXPECT_EQ(seen.events[at].event.evaluation.parse_failed, 1);
    }
  }
  EXPECT_EQ(evaluated, (std::set<void *>{parsed, broken, late}));
  EXPECT_EQ(late->cookie, (void *)3);
  ASSERT_EQ(EngineWaitStopped(t, 10000), 0);
  for (EvaluationRequest *request : {parsed, broken, late}) EXPECT_EQ(EngineRemoveEvaluationRequest(t, request), 0);
  EXPECT_EQ(t->evaluation_requests->first, nullptr);

  TargetThread *main = t->threads, *idle = main ? main->next : nullptr;
  ASSERT_NE(idle, nullptr);
  EXPECT_EQ(t->current_thread, main);
  EXPECT_STREQ(main->name, "Main Thread");
  bool idle_named = false;
  for (TargetThread *th = t->threads; th; th = th->next) idle_named |= !strcmp(th->name, "eng_target.exe!IdleThread");
  EXPECT_TRUE(idle_named);
  const StackFrame *frames = nullptr;
  ASSERT_GT(EngineThreadStack(t, main, &frames), 0u);
  EXPECT_EQ(frames[0].module, t->main_module);
  EXPECT_EQ(frames[0].ip, stop_address);
  ASSERT_NE(frames[0].procedure, nullptr);
  EXPECT_STREQ(PdbProcName(frames[0].procedure), "main");
  // Each operation, the stop reason it reports, and what it leaves behind.
  struct Step {
    std::function<int()> operation;
    u32 reason;
    std::function<bool()> after;
  } steps[] = {
      // Freeze the idle thread: the engine suspends it and reports the new thread states.
      {[&] { return EngineToggleFreeze(t, idle); }, kStopThreadStates, [&] { return idle->suspended_by_engine == 1; }},
      {[&] { return EngineToggleFreeze(t, idle); }, kStopThreadStates, [&] { return idle->suspended_by_engine == 0; }},
      // Solo on the main thread holds every other thread.
      {[&] { return EngineToggleSolo(t, main); }, kStopThreadStates,
       [&] { return idle->suspended_by_engine == 1 && main->suspended_by_engine == 0; }},
      {[&] { return EngineToggleSolo(t, main); }, kStopThreadStates, [&] { return idle->suspended_by_engine == 0; }},
      // Selecting a thread makes it current, reported as new thread states at its frame 0.
      {[&] { return EngineSelectThread(t, idle->id); }, kStopThreadStates, [&] { return t->current_thread == idle; }},
      {[&] { return EngineSelectThread(t, main->id); }, kStopThreadStates, [&] { return t->current_thread == main; }},
      {[&] { return EngineSelectFrame(t, 0); }, kStopFrameSelected, [&] { return true; }},
      // Collapsing of stack-overflow frames: stored, the current thread's stack rebuilt at frame 0.
      {[&] { return EngineSetStackOverflowCollapsing(t, 1); }, kStopFrameSelected,
       [&] { return t->collapse_stack_overflow == 1; }},
      // The instruction pointer, set to where it is, changes nothing for the program; registers
      // changed are reported as new thread states.
      {[&] { return EngineSetInstructionPointer(t, stop_address); }, kStopThreadStates, [&] { return true; }},
  };
  for (size_t i = 0; i < sizeof steps / sizeof steps[0]; i++) {
    SeenEvent e = StopAfter(t, seen, steps[i].operation);
    EXPECT_EQ(e.event.stopped.reason, steps[i].reason) << "step " << i;
    if (t->current_thread == main) EXPECT_EQ(e.event.stopped.address, stop_address) << "step " << i;
    EXPECT_EQ(e.event.stopped.frame, 0) << "step " << i;
    EXPECT_TRUE(steps[i].after()) << "step " << i;
  }
  // A frame past the last does not exist and changes nothing.
  mark = seen.events.size();
  EXPECT_EQ(EngineSelectFrame(t, (s32)kMaxStackFrames + 5), 0);
  Sleep(200);
  PopInto(t, seen, kLeaveStopped);
  EXPECT_EQ(seen.events.size(), mark);
  // The next statement: only a line with code in a known file; past the debug string, the program
  // returns without printing it.
  EXPECT_EQ(EngineSetNextStatement(t, "no_such_file.cpp", 10), 23);
  EXPECT_EQ(EngineSetNextStatement(t, kTargetSource, 0x7FFFFFF0), 23);
  int line = MarkerLine("INT3_RETURN_LINE");
  SeenEvent e = StopAfter(t, seen, [&] { return EngineSetNextStatement(t, kTargetSource, (u32)line); });
  EXPECT_EQ((int)e.event.stopped.location.line, line);
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.debug_strings.size(), 0u);
  EXPECT_EQ(seen.exit_code, 3u);
}

// Symbols picked by hand for a loaded module: a wrong PDB (taken unchecked) leaves the module's
// function breakpoint pending, the right one binds it again where it was.
TEST(EngineCommands, ReloadingAModulesSymbolsFromAPickedPdb) {
  Target *t = Launch("int3", false);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(EngineRun(t), 0);
  Seen seen;
  WaitStopped(t, seen);
  BreakpointWanted wanted = {};
  wanted.kind = kBreakpointFunction;
  wanted.place = "BreakWork";
  BreakpointLocation *bp = nullptr;
  ASSERT_EQ(EngineAddBreakpoint(t, &wanted, &bp), 0);
  ASSERT_EQ(bp->pending, 0);
  u64 bound_at = bp->address;
  TargetModule *module = t->main_module;
  std::string right = module->symbols.pdb_path;
  EXPECT_EQ(EngineReloadModuleSymbols(t, module, TargetPath("values_mingw.pdb").c_str()), 0);
  EXPECT_EQ(module->symbols.status, (u32)kSymbolsLoaded);  // taken as picked, without the GUID check
  EXPECT_EQ(bp->pending, 1);
  EXPECT_EQ(EngineFunctionAddress(t, "BreakWork"), 0u);
  EXPECT_EQ(EngineReloadModuleSymbols(t, module, right.c_str()), 0);
  EXPECT_EQ(bp->pending, 0);
  EXPECT_EQ(bp->address, bound_at);
  EXPECT_EQ(EngineReloadModuleSymbols(t, nullptr, right.c_str()), kEngineNoTarget);
  EXPECT_EQ(EngineTerminate(t, 0), 0);
  DriveToEnd(t, seen);
}

// A thousand watches of one shape, each in its own request with its own nodes, evaluate at one
// stop: every one reports its own element of the program's array.
TEST(EngineCommands, AThousandWatchesEvaluateAtOneStop) {
  Target *t = Launch("int3", false);
  ASSERT_NE(t, nullptr);
  const char name[] = ".?AVparse_error@ktrn@@";  // g_type.name, as the program has it
  const u32 length = sizeof name - 1;
  std::vector<EvaluationRequest *> requests(1000);
  for (u32 i = 0; i < requests.size(); i++) {
    std::string text = "g_type.name[" + std::to_string(i % length) + "]";
    ASSERT_EQ(EngineAddEvaluationRequest(t, text.c_str(), (void *)(uintptr_t)(i + 1), &requests[i]), 0) << i;
  }
  EXPECT_EQ(EngineRun(t), 0);
  Seen seen;
  WaitStopped(t, seen);
  std::set<void *> answered;
  for (int at = -1; answered.size() < requests.size();) {
    at = WaitForKind(t, seen, kEventEvaluation, at + 1);
    ASSERT_GE(at, 0) << answered.size() << " answered";
    answered.insert(seen.events[at].event.evaluation.request);
  }
  ASSERT_TRUE(EngineLockModel(t));
  for (u32 i = 0; i < requests.size(); i++) {
    char expected[32];
    snprintf(expected, sizeof expected, "%d '%c'", name[i % length], name[i % length]);
    EXPECT_STREQ(requests[i]->row.value_text, expected) << requests[i]->text;
  }
  EngineUnlockModel(t);
  for (EvaluationRequest *r : requests) EXPECT_EQ(EngineRemoveEvaluationRequest(t, r), 0);
  EXPECT_EQ(EngineTerminate(t, 0), 0);
  DriveToEnd(t, seen);
}

TEST(EngineCommands, RequestsQueuedWhileRunningAreServedWithoutAVisibleStop) {
  Target *t = Launch("spin");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_GE(WaitForKind(t, seen, kEventText), 0);
  ASSERT_TRUE(WaitRunning(t));
  EngineRequest request = {};
  request.kind = 1;
  EXPECT_EQ(EngineQueueRequest(t, &request), 0);
  for (int i = 0; i < 1000 && t->requests_served < 1; i++) Sleep(10);
  EXPECT_EQ(t->requests_served, 1u);
  EXPECT_TRUE(WaitRunning(t));  // the silent break-in was resumed
  EXPECT_EQ(EngineTerminate(t, 0), 0);
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.Count(kEventStopped), 0);
  EXPECT_EQ(seen.exit_code, 0u);
}

TEST(EngineProcesses, ListingFindsARunningProgramAndReattachByName) {
  FreeProcess p;
  ASSERT_TRUE(p.Start("spin"));
  static ProcessList list;
  ASSERT_EQ(ProcessListRefresh(&list), 0);
  const ProcessEntry *found = nullptr;
  for (u32 i = 0; i < list.count; i++)
    if (list.entries[i].id == p.Id()) found = &list.entries[i];
  ASSERT_NE(found, nullptr);
  EXPECT_STREQ(found->name, "eng_target.exe");
  EXPECT_TRUE(ProcessListMatches(found, ""));
  EXPECT_TRUE(ProcessListMatches(found, "ENGtarg"));
  EXPECT_FALSE(ProcessListMatches(found, "notepad"));
  ProcessListSort(&list, kSortById);
  for (u32 i = 1; i < list.count; i++) EXPECT_LT(list.entries[i - 1].id, list.entries[i].id);
  ProcessListSort(&list, kSortByName);
  for (u32 i = 1; i < list.count; i++) EXPECT_LE(_stricmp(list.entries[i - 1].name, list.entries[i].name), 0);

  // The first process of that name, ignoring case (another test's program may be running too).
  u32 by_name = ProcessFindByName("ENG_TARGET.EXE");
  ASSERT_NE(by_name, 0u);
  ASSERT_EQ(ProcessListRefresh(&list), 0);
  for (u32 i = 0; i < list.count; i++)
    if (list.entries[i].id == by_name) EXPECT_STREQ(list.entries[i].name, "eng_target.exe");
  EXPECT_EQ(ProcessFindByName("no_such_program.exe"), 0u);
}

TEST(EnginePending, AttachWhileDebuggingTerminatesFirstAndAttachesAfterTheExit) {
  Target *t = Launch("spin");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_GE(WaitForKind(t, seen, kEventText), 0);
  PendingAction pending = {}, due = {};
  ASSERT_EQ(PendingActionEndRunThen(&pending, t, kPendingAttach, 4321, 1, nullptr), 0);
  EXPECT_EQ(pending.kind, (u32)kPendingAttach);
  EXPECT_FALSE(PendingActionTake(&pending, kEventText, &due));
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.exit_code, 0u);
  ASSERT_TRUE(PendingActionTake(&pending, seen.events.back().event.kind, &due));
  EXPECT_EQ(due.kind, (u32)kPendingAttach);
  EXPECT_EQ(due.process_id, 4321u);
  EXPECT_EQ(due.continue_after, 1);
  EXPECT_EQ(pending.kind, (u32)kPendingNone);
  EXPECT_FALSE(PendingActionTake(&pending, kEventProcessExited, &due));
  // A process that has exited, its exit event not yet popped: the action waits for that event.
  t = Launch("unknown");
  ASSERT_NE(t, nullptr);
  for (ULONGLONG start = GetTickCount64(); !*(volatile u8 *)&t->exited && GetTickCount64() - start < 20000;) Sleep(5);
  ASSERT_TRUE(t->exited);
  ASSERT_EQ(PendingActionEndRunThen(&pending, t, kPendingRelaunch, 0, 0, nullptr), 0);
  EXPECT_EQ(pending.kind, (u32)kPendingRelaunch);
  Seen exited;
  DriveToEnd(t, exited);
  ASSERT_TRUE(PendingActionTake(&pending, exited.events.back().event.kind, &due));
  EXPECT_EQ(due.kind, (u32)kPendingRelaunch);
  // Without a process nothing is parked.
  EXPECT_EQ(PendingActionEndRunThen(&pending, nullptr, kPendingRelaunch, 0, 0, nullptr), 1);
  EXPECT_EQ(pending.kind, (u32)kPendingNone);
  EXPECT_EQ(PendingActionSet(&pending, kPendingOpenSession, 0, 0, std::string(2000, 'a').c_str()), 33);
}
