// Run control's operations in-process: what they answer when the target runs or the place has no
// code, and that a run to cursor interrupted by another stop leaves no int3 of the debugger's behind.
#include "tests/win/engine_harness.h"

TEST(EngineRunControl, ResultCodesAndNoInt3LeftBehind) {
  Target *t = Launch("spin");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_GE(WaitForKind(t, seen, kEventText), 0);  // "spinning": the program runs its loop
  // While the target runs: a step or a run to a line is refused (26); a step out does nothing (0).
  EXPECT_EQ(EngineStep(t, kRunStepOver), 26);
  EXPECT_EQ(EngineStep(t, kRunStepInto), 26);
  EXPECT_EQ(EngineStep(t, kRunStepOut), 0);
  EXPECT_EQ(EngineRunToLine(t, kTargetSource, MarkerLine("INT3_LINE")), 26);
  EXPECT_EQ(EngineStep(t, kRunToAddress), 1);  // not a step
  EXPECT_EQ(EngineStep(nullptr, kRunStepOver), 1);

  size_t before = seen.events.size();
  ASSERT_EQ(EngineBreak(t), 0);
  ASSERT_EQ(WaitStopped(t, seen, kEventStopped, before).event.stopped.reason, (u32)kStopBreak);
  EXPECT_EQ(EngineRunToLine(t, kTargetSource, 1000000), 23);  // no line with code
  EXPECT_EQ(EngineRunToLine(t, nullptr, 1), 1);

  // A run to a line the spinning program never reaches, ended by a break: the temporary int3 goes.
  u64 never = 0;
  ASSERT_TRUE(EngineLockModel(t));
  for (TargetModule *m = t->modules; m && !never; m = m->next) {
    u32 file = PdbFindSourceFile(&m->symbols.pdb.source_files, kTargetSource);
    const PdbLineEntry *entry = file ? PdbAddressOfLine(&m->symbols.pdb.lines, file, MarkerLine("INT3_LINE")) : nullptr;
    if (entry) never = TargetModuleBase(m) + m->symbols.image.sections[entry->section - 1].virtual_address + entry->offset;
  }
  EngineUnlockModel(t);
  ASSERT_NE(never, 0u);
  u8 program_byte = 0, now = 0;
  ASSERT_EQ(EngineReadMemory(t, never, &program_byte, 1), 0);
  ASSERT_EQ(EngineRunToLine(t, kTargetSource, MarkerLine("INT3_LINE")), 0);
  ASSERT_TRUE(WaitRunning(t));
  ASSERT_TRUE(ReadProcessMemory(t->process, (void *)never, &now, 1, nullptr));
  EXPECT_EQ(now, 0xCC);  // placed while the target runs to it
  before = seen.events.size();
  ASSERT_EQ(EngineBreak(t), 0);
  ASSERT_EQ(WaitStopped(t, seen, kEventStopped, before).event.stopped.reason, (u32)kStopBreak);
  ASSERT_TRUE(ReadProcessMemory(t->process, (void *)never, &now, 1, nullptr));
  EXPECT_EQ(now, program_byte);
  EXPECT_EQ(t->temporary.address, 0u);
  EXPECT_EQ(EngineTerminate(t, 3), 0);
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.exit_code, 3u);
}
