// Software breakpoints against real programs under Wine: the three kinds in the executable, a DLL
// loaded later (pending, bound, lost at its unload, bound again at its reload), the program's own
// bytes shown over the int3s, a program that checksums its own code, conditions kept as text and
// parse state, breakpoints added and removed while the target runs, and detaches with breakpoints
// set.
#include <gtest/gtest.h>

#include <fstream>

#include "tests/win/engine_harness.h"

static BreakpointLocation *Add(Target *t, u32 kind, const char *place, u32 line, u64 address = 0,
                               const char *condition = nullptr) {
  BreakpointSpec spec = {};
  spec.kind = kind;
  spec.place = place;
  spec.line = line;
  spec.address = address;
  spec.condition = condition;
  BreakpointLocation *bp = nullptr;
  EXPECT_EQ(EngineAddBreakpoint(t, &spec, &bp), 0) << (place ? place : "address");
  return bp;
}

// The bytes of the module's image file that the loader mapped at [address, address + size).
static std::vector<u8> FileBytes(const TargetModule *module, u64 address, u32 size) {
  const ModuleSymbols *symbols = &module->symbols;
  u64 rva = address - symbols->load_base;
  for (u32 i = 0; i < symbols->image.section_count; i++) {
    const PeSectionHeader *s = &symbols->image.sections[i];
    if (rva < s->virtual_address || rva + size > (u64)s->virtual_address + s->raw_size) continue;
    std::ifstream file(symbols->image_path, std::ios::binary);
    file.seekg((std::streamoff)(s->raw_offset + (rva - s->virtual_address)));
    std::vector<u8> bytes(size);
    file.read((char *)bytes.data(), size);
    return file ? bytes : std::vector<u8>();
  }
  return {};
}

// What a read at a stop shows around a breakpoint: the program's own bytes, as its image file has
// them, though the int3 is in memory.
static void ExpectProgramBytes(Target *t, const BreakpointLocation *bp) {
  std::vector<u8> shown(32);
  ASSERT_EQ(EngineReadMemory(t, bp->address - 8, shown.data(), 32), 0);
  EXPECT_EQ(shown, FileBytes(bp->module, bp->address - 8, 32)) << "around " << bp->place;
  if (bp->armed) {
    u8 raw = 0;
    ASSERT_TRUE(ReadProcessMemory(t->process, (void *)(uintptr_t)bp->address, &raw, 1, nullptr));
    EXPECT_EQ(raw, 0xCC);
  }
}

// A function, a source line and an address breakpoint in BreakWork, set at the program's first
// int3; three calls stop at each of them in turn, each time with the program's own bytes shown.
// Taken out at the program's second int3, they leave its code as it was: its own checksum agrees.
TEST(EngineBreakpoints, ThreeKindsInTheExecutable) {
  Target *t = Launch("bp 3");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopProgramBreakpoint);
  int work_line = MarkerLine("WORK_LINE"), total_line = MarkerLine("WORK_TOTAL_LINE");
  BreakpointLocation *function = Add(t, kBreakpointFunction, "BreakWork", 0);
  BreakpointLocation *line = Add(t, kBreakpointLine, kTargetSource, (u32)total_line);
  // The address of WORK_LINE, through a line breakpoint taken out again.
  BreakpointLocation *probe = Add(t, kBreakpointLine, kTargetSource, (u32)work_line);
  ASSERT_TRUE(function && line && probe);
  u64 work_line_address = probe->address;
  EXPECT_EQ(EngineRemoveBreakpoint(t, probe), 0);
  EXPECT_EQ(EngineRemoveBreakpoint(t, probe), 18);
  BreakpointLocation *address = Add(t, kBreakpointAddress, nullptr, 0, work_line_address);
  ASSERT_NE(address, nullptr);
  for (const BreakpointLocation *bp : {function, line, address}) {
    EXPECT_EQ(bp->pending, 0);
    EXPECT_EQ(bp->module, t->main_module);
    EXPECT_EQ(bp->armed, 1);
    ExpectProgramBytes(t, bp);
  }
  EXPECT_EQ((int)function->location.line, MarkerLine("WORK_FUNCTION_LINE"));
  EXPECT_EQ((int)line->location.line, total_line);
  EXPECT_EQ((int)address->location.line, work_line);
  // Two breakpoints never share an int3; an address outside every module makes nothing.
  BreakpointSpec spec = {kBreakpointLine, kTargetSource, (u32)total_line};
  BreakpointLocation *existing = nullptr;
  EXPECT_EQ(EngineAddBreakpoint(t, &spec, &existing), 20);
  EXPECT_EQ(existing, line);
  spec = {kBreakpointAddress, nullptr, 0, 0, 0x10000};
  EXPECT_EQ(EngineAddBreakpoint(t, &spec, &existing), 37);

  std::vector<const BreakpointLocation *> hits;
  int own = 0;
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen, [&](Target *target, const SeenEvent &e) {
    ASSERT_EQ(EngineWaitStopped(target, 10000), 0);
    if (e.event.kind == kEventBreakpointHit) {
      const BreakpointLocation *bp = (const BreakpointLocation *)e.event.breakpoint.location_record;
      hits.push_back(bp);
      EXPECT_EQ(e.event.breakpoint.address, bp->address);
      EXPECT_EQ(e.event.breakpoint.thread_id, t->threads->id);
      EXPECT_EQ(e.module_name, "eng_target.exe");
      const CONTEXT *context = EngineThreadContext(target, t->threads);
      ASSERT_NE(context, nullptr);
      EXPECT_EQ(context->Rip, bp->address);  // shown on the breakpoint, not one past its int3
      for (const BreakpointLocation *any : {function, line, address}) ExpectProgramBytes(target, any);
    } else if (e.event.kind == kEventStopped && ++own == 1) {  // the program's second int3
      for (BreakpointLocation *bp : {function, line, address}) EXPECT_EQ(EngineRemoveBreakpoint(target, bp), 0);
    }
    EXPECT_EQ(EngineRun(target), 0);
  });
  std::vector<const BreakpointLocation *> expected;
  for (int call = 0; call < 3; call++) expected.insert(expected.end(), {function, address, line});
  EXPECT_EQ(hits, expected);
  EXPECT_EQ(seen.debug_strings, std::vector<std::string>{"checksum kept\n"});
  EXPECT_EQ(seen.exit_code, 6u);  // 0 + 2 + 4, the code as it was
}

// Breakpoints in a DLL the program loads, frees, loads and frees again. Set before it loads they
// are pending; its load binds them (kind 8); its unload makes them pending again (kind 9); its
// reload binds them again by name and line. An address breakpoint has neither: once lost it stays
// pending.
TEST(EngineBreakpoints, PendingInADllLoadedLater) {
  Target *t = Launch("dll2", false);
  ASSERT_NE(t, nullptr);
  int twice_line = MarkerLine("PLUGIN_TWICE_LINE", kPluginSource);
  BreakpointLocation *function = Add(t, kBreakpointFunction, "PluginTwice", 0);
  BreakpointLocation *line = Add(t, kBreakpointLine, kPluginSource, (u32)twice_line);
  BreakpointLocation *address = nullptr;
  ASSERT_TRUE(function && line);
  EXPECT_EQ(function->pending, 1);
  EXPECT_EQ(line->pending, 1);
  // Each breakpoint event in order: its kind and record (the address one is made at the first hit).
  std::vector<std::pair<u32, const void *>> order;
  Seen seen;
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen, [&](Target *target, const SeenEvent &e) {
    ASSERT_EQ(EngineWaitStopped(target, 10000), 0);
    if (e.event.kind == kEventBreakpointHit && e.event.breakpoint.location_record == function && !address) {
      EXPECT_EQ(e.module_name, "eng_plugin.dll");
      // The line's place by address instead: the line breakpoint goes, an address one comes.
      u64 at = line->address;
      EXPECT_EQ(EngineRemoveBreakpoint(target, line), 0);
      address = Add(target, kBreakpointAddress, nullptr, 0, at);
      ASSERT_NE(address, nullptr);
      EXPECT_EQ((int)address->location.line, twice_line);
    }
    EXPECT_EQ(EngineRun(target), 0);
  });
  for (const SeenEvent &e : seen.events)
    if (e.event.kind >= kEventBreakpointHit && e.event.kind <= kEventBreakpointLost)
      order.push_back({e.event.kind, e.event.breakpoint.location_record});
  std::vector<std::pair<u32, const void *>> expected = {
      {kEventBreakpointBound, line},       {kEventBreakpointBound, function},  // the first load
      {kEventBreakpointHit, function},     {kEventBreakpointHit, address},
      {kEventBreakpointLost, address},     {kEventBreakpointLost, function},   // the first unload
      {kEventBreakpointBound, function},                                       // the reload
      {kEventBreakpointHit, function},     {kEventBreakpointLost, function},   // the second unload
  };
  EXPECT_EQ(order, expected);
  EXPECT_EQ(seen.exit_code, 42u);
}

// Conditions are kept as text and parse state; evaluated they are not yet, so every hit of a
// conditioned breakpoint stops (as one whose condition could not be evaluated does) and is counted.
// A disabled breakpoint keeps its binding and its place but no int3.
TEST(EngineBreakpoints, ConditionsAndEnabling) {
  Target *t = Launch("bp 3");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopProgramBreakpoint);
  BreakpointLocation *conditioned = Add(t, kBreakpointFunction, "BreakWork", 0, 0, "n > 0");
  BreakpointLocation *disabled = Add(t, kBreakpointLine, kTargetSource, (u32)MarkerLine("WORK_TOTAL_LINE"));
  ASSERT_TRUE(conditioned && disabled);
  EXPECT_EQ(conditioned->condition_parse_failed, 0);
  EXPECT_NE(conditioned->condition_tree, nullptr);
  EXPECT_EQ(EngineSetBreakpointCondition(t, disabled, "1 +* )"), 24);
  EXPECT_STREQ(disabled->condition, "1 +* )");
  EXPECT_EQ(disabled->condition_parse_failed, 1);
  EXPECT_EQ(EngineSetBreakpointCondition(t, disabled, std::string(300, 'x').c_str()), 33);
  EXPECT_EQ(EngineSetBreakpointCondition(t, disabled, ""), 0);
  EXPECT_EQ(disabled->condition_parse_failed, 0);
  EXPECT_EQ(EngineEnableBreakpoint(t, disabled, 0), 0);
  EXPECT_EQ(disabled->armed, 0);
  EXPECT_EQ(disabled->pending, 0);
  ExpectProgramBytes(t, disabled);
  int hits = 0;
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen, [&](Target *target, const SeenEvent &e) {
    ASSERT_EQ(EngineWaitStopped(target, 10000), 0);
    if (e.event.kind == kEventBreakpointHit) {
      EXPECT_EQ(e.event.breakpoint.location_record, conditioned);
      EXPECT_EQ(conditioned->hit_count, (u32)++hits);
    }
    if (e.event.kind == kEventStopped)  // the program's second int3
      for (BreakpointLocation *bp : {conditioned, disabled}) EXPECT_EQ(EngineRemoveBreakpoint(target, bp), 0);
    EXPECT_EQ(EngineRun(target), 0);
  });
  EXPECT_EQ(hits, 3);
  EXPECT_EQ(seen.exit_code, 6u);
}

// Added while the program runs, a breakpoint goes through the request ring and a silent break-in:
// it reports its binding (kind 8), stops the program, and, removed while it runs again, stops it
// no more.
TEST(EngineBreakpoints, AddedAndRemovedWhileRunning) {
  Target *t = Launch("bpspin");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_GE(WaitForKind(t, seen, kEventText), 0);
  ASSERT_TRUE(WaitRunning(t));
  BreakpointLocation *bp = Add(t, kBreakpointFunction, "BreakWork", 0);
  ASSERT_NE(bp, nullptr);
  ASSERT_GE(WaitForKind(t, seen, kEventBreakpointBound), 0);
  SeenEvent hit = WaitStopped(t, seen, kEventBreakpointHit);
  EXPECT_EQ(hit.event.breakpoint.location_record, bp);
  EXPECT_EQ(EngineRun(t), 0);
  ASSERT_TRUE(WaitRunning(t, 2000) || WaitStopped(t, seen, kEventBreakpointHit, seen.events.size()).event.kind);
  if (EngineStoppedState(t) == 0) EXPECT_EQ(EngineRun(t), 0);  // a second hit came first
  // Removed while running (or at the stop the target is in): no hit after it is served.
  ASSERT_EQ(EngineRemoveBreakpoint(t, bp), 0);
  for (int i = 0; i < 200 && bp->in_use; i++) {
    Sleep(10);
    PopInto(t, seen, nullptr);  // hits on the way are answered: the next command serves the ring
  }
  EXPECT_EQ(bp->in_use, 0);
  Sleep(100);
  PopInto(t, seen, nullptr);  // hits reported before the removal was served
  size_t mark = seen.events.size();
  Sleep(300);
  PopInto(t, seen, nullptr);
  EXPECT_EQ(seen.Count(kEventBreakpointHit, mark), 0);
  EXPECT_EQ(EngineTerminate(t, 0), 0);
  DriveToEnd(t, seen);
}

// Stop debugging with breakpoints set: every int3 is taken out and the threads that met one on the
// way are put back on the program's byte, so the detached program finishes with its own code and
// the right sum (its exit code), also with two more threads calling into the breakpoints.
TEST(EngineBreakpoints, DetachWithBreakpointsSet) {
  struct Case {
    const char *mode;
    bool at_first_hit;  // else at the program's second int3, the breakpoints still set
    u32 exit_code;
  } cases[] = {
      {"bp 3", true, 6},
      {"bp 3", false, 6},
      {"bpthreads 200", true, 104},  // 3 threads x (0 + 2 + ... + 398), the low byte
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.mode << (c.at_first_hit ? " at the first hit" : " at the end"));
    u32 pid = 0;
    Target *t = Launch(c.mode, true, &pid);
    ASSERT_NE(t, nullptr);
    HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, pid);
    Seen seen;
    ASSERT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopProgramBreakpoint);
    ASSERT_NE(Add(t, kBreakpointFunction, "BreakWork", 0), nullptr);
    ASSERT_NE(Add(t, kBreakpointLine, kTargetSource, (u32)MarkerLine("WORK_TOTAL_LINE")), nullptr);
    EXPECT_EQ(EngineRun(t), 0);
    bool asked = false;
    DriveToEnd(t, seen, [&](Target *target, const SeenEvent &e) {
      ASSERT_EQ(EngineWaitStopped(target, 10000), 0);
      if (asked) return;
      if (c.at_first_hit ? e.event.kind == kEventBreakpointHit : e.event.kind == kEventStopped) {
        asked = true;
        EXPECT_EQ(EngineStopDebugging(target), 0);
        return;
      }
      EXPECT_EQ(EngineRun(target), 0);
    });
    EXPECT_TRUE(asked);
    // Detached, or (a short program) ended while the last events were drained.
    u32 last = seen.events.back().event.kind;
    EXPECT_TRUE(last == kEventDetached || last == kEventProcessExited) << last;
    EXPECT_EQ(WaitForSingleObject(process, 20000), (DWORD)WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(process, &code));
    EXPECT_EQ(code, c.exit_code);
    CloseHandle(process);
  }
}
