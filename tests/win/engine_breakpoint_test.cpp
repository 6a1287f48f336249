// Software breakpoints against real programs under Wine: the three kinds in the executable, a DLL
// loaded later (pending, bound, lost at its unload, bound again at its reload), the program's own
// bytes shown over the int3s, a program that checksums its own code, conditions kept as text and
// parse state, breakpoints added and removed while the target runs, and detaches with breakpoints
// set.
#include <gtest/gtest.h>

#include <stdio.h>

#include <fstream>

#include "tests/win/engine_harness.h"

static BreakpointLocation *Add(Target *t, u32 kind, const char *place, u32 line, u64 address = 0,
                               const char *condition = nullptr) {
  BreakpointWanted wanted = {};
  wanted.kind = kind;
  wanted.place = place;
  wanted.line = line;
  wanted.address = address;
  wanted.condition = condition;
  BreakpointLocation *bp = nullptr;
  EXPECT_EQ(EngineAddBreakpoint(t, &wanted, &bp), 0) << (place ? place : "address");
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
  BreakpointLocation *line = Add(t, kBreakpointSourceLine, kTargetSource, (u32)total_line);
  // The address of WORK_LINE, through a line breakpoint taken out again.
  BreakpointLocation *probe = Add(t, kBreakpointSourceLine, kTargetSource, (u32)work_line);
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
  BreakpointWanted wanted = {kBreakpointSourceLine, kTargetSource, (u32)total_line};
  BreakpointLocation *existing = nullptr;
  EXPECT_EQ(EngineAddBreakpoint(t, &wanted, &existing), 20);
  EXPECT_EQ(existing, line);
  wanted = {kBreakpointAddress, nullptr, 0, 0, 0x10000};
  EXPECT_EQ(EngineAddBreakpoint(t, &wanted, &existing), 37);

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
  BreakpointLocation *line = Add(t, kBreakpointSourceLine, kPluginSource, (u32)twice_line);
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

// A line of a header compiled into the program and into its DLL binds in both: in the program at
// once, in the DLL when it loads (no event: the user's record is bound already). Every hit reports
// the user's record, with the place that was hit; the DLL's binding goes quietly with the DLL.
TEST(EngineBreakpoints, LineSharedByTheProgramAndItsDllBindsInBoth) {
  Target *t = Launch("shared", false);
  ASSERT_NE(t, nullptr);
  const std::string header = KTRN_SOURCE_DIR "/tests/targets/engine/eng_shared.h";
  int line = MarkerLine("SHARED_SCALE_LINE", header.c_str());
  BreakpointLocation *bp = Add(t, kBreakpointSourceLine, header.c_str(), (u32)line);
  ASSERT_NE(bp, nullptr);
  EXPECT_EQ(bp->pending, 0);
  Seen seen;
  std::vector<std::string> hit_modules;
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen, [&](Target *target, const SeenEvent &e) {
    ASSERT_EQ(EngineWaitStopped(target, 10000), 0);
    if (e.event.kind == kEventBreakpointHit) {
      EXPECT_EQ(e.event.breakpoint.location_record, bp);
      EXPECT_EQ((int)e.event.breakpoint.location.line, line);
      hit_modules.push_back(e.module_name);
    }
    EXPECT_EQ(EngineRun(target), 0);
  });
  EXPECT_EQ(hit_modules, (std::vector<std::string>{"eng_target.exe", "eng_plugin.dll", "eng_target.exe"}));
  EXPECT_EQ(seen.Count(kEventBreakpointBound) + seen.Count(kEventBreakpointLost), 0);
  EXPECT_EQ(seen.exit_code, 18u);  // 3 + 6 + 9: every call ran its own code
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
  BreakpointLocation *disabled = Add(t, kBreakpointSourceLine, kTargetSource, (u32)MarkerLine("WORK_TOTAL_LINE"));
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
    ASSERT_NE(Add(t, kBreakpointSourceLine, kTargetSource, (u32)MarkerLine("WORK_TOTAL_LINE")), nullptr);
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

// [SECTION] Processor breakpoints

// The DR7 fields of slot i in a thread's registers at this stop: read/write, length, local enable.
struct SlotFields {
  u32 read_write, length, enabled;
  bool operator==(const SlotFields &o) const {
    return read_write == o.read_write && length == o.length && enabled == o.enabled;
  }
};
static SlotFields FieldsOf(Target *t, TargetThread *thread, u32 i) {
  const CONTEXT *context = EngineThreadContext(t, thread);
  if (!context) return {9, 9, 9};
  u64 dr7 = context->Dr7;
  return {(u32)(dr7 >> (16 + 4 * i)) & 3, (u32)(dr7 >> (18 + 4 * i)) & 3, (u32)(dr7 >> (2 * i)) & 1};
}

// Whether this machine delivers debug-register traps at all (some virtual machines do not: a
// Linux program's own ptrace-set watchpoint does not fire on the one these tests were written on).
// The program probes it without any debugger: it gives a thread of its own a write breakpoint.
static bool MachineTrapsDebugRegisters() {
  static int answer = -1;
  if (answer < 0) {
    FreeProcess probe;
    answer = 0;
    DWORD code = 0;
    if (probe.Start("drprobe") && WaitForSingleObject(probe.pi.hProcess, 10000) == WAIT_OBJECT_0 &&
        GetExitCodeProcess(probe.pi.hProcess, &code))
      answer = code == 1;
  }
  return answer == 1;
}

static TargetThread *ThreadNamed(Target *t, const char *name) {
  for (TargetThread *th = t->threads; th; th = th->next)
    if (!strcmp(th->name, name)) return th;
  return nullptr;
}

// The address in the slot's debug register of a thread at this stop.
static u64 SlotAddress(Target *t, TargetThread *thread, u32 i) {
  const CONTEXT *context = EngineThreadContext(t, thread);
  if (!context) return 0;
  const DWORD64 registers[4] = {context->Dr0, context->Dr1, context->Dr2, context->Dr3};
  return registers[i & 3];
}

// A write breakpoint on a variable, then a one-byte read/write one in the same slot. Every thread
// has the slot armed, a thread made after the breakpoint was set included; the threads that had the
// write breakpoint carry the union of the old and new DR7 fields (kept on purpose), a thread made
// after the second has exactly its fields. Where the machine delivers the traps, each access stops
// on the thread that made it: the main thread's write and a later thread's, then the main thread's
// read and another later thread's.
TEST(EngineProcessorBreakpoints, WritesAndReadsByTheMainThreadAndLaterThreads) {
  bool traps = MachineTrapsDebugRegisters();
  Target *t = Launch("data");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_GE(WaitForKind(t, seen, kEventText), 0);
  unsigned long long watched = 0;
  ASSERT_EQ(sscanf(seen.debug_strings[0].c_str(), "watched at %llx", &watched), 1);
  ASSERT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopProgramBreakpoint);
  BreakpointLocation *write = nullptr, *read_write = nullptr;
  ASSERT_EQ(EngineAddDataBreakpoint(t, watched, 4, kAccessWrite, &write), 0);
  ASSERT_NE(write, nullptr);
  EXPECT_EQ(write->kind, (u32)kBreakpointProcessor);
  u32 slot = write->slot;
  TargetThread *main = t->threads;
  const u32 main_id = main->id;  // the record goes with the run; its id is checked after
  std::vector<std::pair<const void *, u32>> hits;  // record, thread
  std::vector<int> lines;
  int own = 0;
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen, [&](Target *target, const SeenEvent &e) {
    ASSERT_EQ(EngineWaitStopped(target, 10000), 0);
    if (e.event.kind == kEventBreakpointHit) {
      hits.push_back({e.event.breakpoint.location_record, e.event.breakpoint.thread_id});
      lines.push_back((int)e.event.breakpoint.location.line);
    } else if (e.event.kind == kEventStopped && ++own == 1) {  // the program's second int3
      TargetThread *writer = ThreadNamed(target, "eng_target.exe!DataWriter");
      ASSERT_NE(writer, nullptr);
      for (TargetThread *th : {main, writer}) {
        EXPECT_EQ(SlotAddress(target, th, slot), watched) << th->name;
        EXPECT_TRUE(FieldsOf(target, th, slot) == (SlotFields{1, 3, 1})) << th->name;
      }
      EXPECT_EQ(EngineRemoveBreakpoint(target, write), 0);
      EXPECT_EQ(EngineAddDataBreakpoint(target, watched, 1, kAccessReadWrite, &read_write), 0);
      EXPECT_EQ(read_write ? read_write->slot : 9, slot);  // the register is free again
    } else if (e.event.kind == kEventStopped && own == 2) {  // the third
      TargetThread *writer = ThreadNamed(target, "eng_target.exe!DataWriter");
      TargetThread *reader = ThreadNamed(target, "eng_target.exe!DataReader");
      ASSERT_TRUE(writer && reader);
      for (TargetThread *th : {main, writer}) EXPECT_TRUE(FieldsOf(target, th, slot) == (SlotFields{3, 3, 1})) << th->name;
      EXPECT_TRUE(FieldsOf(target, reader, slot) == (SlotFields{3, 0, 1}));
      EXPECT_EQ(EngineRemoveBreakpoint(target, read_write), 0);
    }
    EXPECT_EQ(EngineRun(target), 0);
  });
  EXPECT_EQ(seen.exit_code, 7u);  // 2 + 2 + 3: every access went through
  if (!traps) {
    EXPECT_TRUE(hits.empty());
    GTEST_SKIP() << "this machine delivers no debug-register traps: the hits were not seen";
  }
  ASSERT_EQ(hits.size(), 4u);
  EXPECT_EQ(hits[0], std::make_pair((const void *)write, main_id));
  EXPECT_EQ(hits[1].first, write);
  EXPECT_NE(hits[1].second, main_id);
  EXPECT_EQ(hits[2], std::make_pair((const void *)read_write, main_id));
  EXPECT_EQ(hits[3].first, read_write);
  // The stop is after the access: on the accessing line or the next.
  const char *markers[4] = {"WATCH_MAIN_LINE", "WATCH_THREAD_LINE", "WATCH_READ_LINE", "WATCH_READER_LINE"};
  for (int i = 0; i < 4; i++)
    EXPECT_TRUE(lines[i] == MarkerLine(markers[i]) || lines[i] == MarkerLine(markers[i]) + 1) << markers[i];
}

// A single step whose DR6 names an armed slot is that slot's hit: reported with the slot's record
// at the thread's instruction pointer, DR6 cleared and the resume flag set, and the program goes on.
// The program raises the single step itself, with DR6 written by the test, so this runs on machines
// without debug-register traps too; one whose DR6 names no slot stays the program's own.
TEST(EngineProcessorBreakpoints, ASingleStepNamingASlotIsItsHit) {
  Target *t = Launch("step");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopProgramBreakpoint);
  BreakpointLocation *bp = nullptr;
  ASSERT_EQ(EngineAddDataBreakpoint(t, 0x10000, 8, kAccessReadWrite, &bp), 0);
  EXPECT_EQ(EngineRun(t), 0);  // armed at this command
  ASSERT_EQ(WaitStopped(t, seen, kEventStopped, seen.events.size()).event.stopped.reason, (u32)kStopProgramBreakpoint);
  ThreadContextSlot *registers = EngineThreadRegisters(t, t->threads);
  ASSERT_NE(registers, nullptr);
  EXPECT_EQ(registers->context->Dr6, 0u);
  registers->context->Dr6 = 1ull << bp->slot;
  ASSERT_EQ(StopAfter(t, seen, [&] { return EngineWriteRegisters(t, t->threads); }).event.stopped.reason,
            (u32)kStopThreadStates);
  EXPECT_EQ(EngineRun(t), 0);
  SeenEvent hit = WaitStopped(t, seen, kEventBreakpointHit, seen.events.size());
  EXPECT_EQ(hit.event.breakpoint.location_record, bp);
  EXPECT_EQ(hit.event.breakpoint.thread_id, t->threads->id);
  const CONTEXT *context = EngineThreadContext(t, t->threads);
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(hit.event.breakpoint.address, context->Rip);
  EXPECT_EQ(context->Dr6, 0u);
  EXPECT_NE(context->EFlags & 0x10000, 0u);
  EXPECT_EQ(EngineRemoveBreakpoint(t, bp), 0);
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.exit_code, 5u);
}

// An execute breakpoint on a function's first instruction, and three more slots, one per size,
// each with its register aligned down to its size and its DR7 fields. Where the machine delivers the
// traps, every call stops at the function, and with the resume flag the instruction then runs.
TEST(EngineProcessorBreakpoints, ExecuteOnAFunctionAndEverySize) {
  bool traps = MachineTrapsDebugRegisters();
  Target *t = Launch("bp 3");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopProgramBreakpoint);
  BreakpointLocation *probe = Add(t, kBreakpointFunction, "BreakWork", 0);
  ASSERT_NE(probe, nullptr);
  u64 function = probe->address;
  EXPECT_EQ(EngineRemoveBreakpoint(t, probe), 0);
  BreakpointLocation *execute = nullptr, *sized[3] = {};
  ASSERT_EQ(EngineAddDataBreakpoint(t, function, 1, kAccessExecute, &execute), 0);
  // Bytes the program never touches, one size each, unaligned.
  u64 unused = function + 0x1003;
  const u32 sizes[3] = {2, 4, 8}, lengths[3] = {1, 3, 2};
  for (int i = 0; i < 3; i++) ASSERT_EQ(EngineAddDataBreakpoint(t, unused + 16 * i, sizes[i], kAccessWrite, &sized[i]), 0);
  BreakpointLocation *fifth = nullptr;
  EXPECT_EQ(EngineAddDataBreakpoint(t, unused, 4, kAccessWrite, &fifth), 37);  // four registers only
  int hits = 0, own = 0;
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen, [&](Target *target, const SeenEvent &e) {
    ASSERT_EQ(EngineWaitStopped(target, 10000), 0);
    if (e.event.kind == kEventBreakpointHit) {
      hits++;
      EXPECT_EQ(e.event.breakpoint.location_record, execute);
      EXPECT_EQ(e.event.breakpoint.address, function);
    } else if (e.event.kind == kEventStopped && ++own == 1) {  // the program's second int3
      TargetThread *main = t->threads;
      EXPECT_EQ(SlotAddress(target, main, execute->slot), function);
      EXPECT_TRUE(FieldsOf(target, main, execute->slot) == (SlotFields{0, 0, 1}));
      for (int i = 0; i < 3; i++) {
        EXPECT_EQ(SlotAddress(target, main, sized[i]->slot), (unused + 16 * i) & ~(u64)(sizes[i] - 1)) << sizes[i];
        EXPECT_TRUE(FieldsOf(target, main, sized[i]->slot) == (SlotFields{1, lengths[i], 1})) << sizes[i];
      }
      for (BreakpointLocation *bp : {execute, sized[0], sized[1], sized[2]}) EXPECT_EQ(EngineRemoveBreakpoint(target, bp), 0);
    }
    EXPECT_EQ(EngineRun(target), 0);
  });
  EXPECT_EQ(seen.exit_code, 6u);
  if (!traps) {
    EXPECT_EQ(hits, 0);
    GTEST_SKIP() << "this machine delivers no debug-register traps: the hits were not seen";
  }
  EXPECT_EQ(hits, 3);
}
