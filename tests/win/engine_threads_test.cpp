// Threads under the user's control and their registers: freeze and solo seen through threads that
// count, a thread created while another is solo, and images found without a file handle.
#include <gtest/gtest.h>

#include "engine/engine_internal.h"
#include "tests/win/engine_harness.h"

#include <psapi.h>
#include <stdio.h>

#include <algorithm>

// The counters of eng_target's "count" mode at this stop.
static std::vector<LONG> Counts(Target *t, u64 address) {
  LONG counts[3] = {};
  EXPECT_EQ(EngineReadMemory(t, address, counts, sizeof counts), 0);
  return std::vector<LONG>(counts, counts + 3);
}

// Five stops of a program whose threads count, each in its own slot. Frozen, a thread counts no
// more; with the main thread solo no other thread runs, not even one created meanwhile; let go,
// every thread counts again; frozen just before a run, a thread is held from that run on.
TEST(EngineThreads, FreezeAndSoloSeenThroughCountingThreads) {
  Target *t = Launch("count");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_GE(WaitForKind(t, seen, kEventText), 0);
  unsigned long long address = 0;
  ASSERT_EQ(sscanf(seen.debug_strings[0].c_str(), "counts at %llx", &address), 1);
  auto counter = [&](int slot) {  // the counting thread of a slot, by the id the program told
    for (const std::string &text : seen.debug_strings) {
      int told = -1;
      unsigned long id = 0;
      if (sscanf(text.c_str(), "counter %d is thread %lu", &told, &id) == 2 && told == slot)
        return TargetFindThread(t, (u32)id);
    }
    return (TargetThread *)nullptr;
  };
  std::vector<LONG> before;
  for (int stop = 0; stop < 5; stop++) {
    SCOPED_TRACE(testing::Message() << "stop " << stop);
    // The next int3 (a thread-states stop that the last freeze reported may come first).
    u32 reason = kStopThreadStates;
    for (size_t from = seen.events.size(); reason == kStopThreadStates; from = seen.events.size())
      reason = WaitStopped(t, seen, kEventStopped, from).event.stopped.reason;
    ASSERT_EQ(reason, (u32)kStopProgramBreakpoint);
    std::vector<LONG> now = Counts(t, (u64)address);
    TargetThread *main = t->threads;
    switch (stop) {
      case 0:  // both counters run; the first is frozen
        EXPECT_GT(now[0], 0);
        EXPECT_GT(now[1], 0);
        StopAfter(t, seen, [&] { return EngineToggleFreeze(t, counter(0)); });
        EXPECT_EQ(counter(0)->suspended_by_engine, 1);
        break;
      case 1:  // the frozen one stood still; it is thawed and the main thread made solo
        EXPECT_EQ(now[0], before[0]);
        EXPECT_GT(now[1], before[1]);
        StopAfter(t, seen, [&] { return EngineToggleFreeze(t, counter(0)); });
        StopAfter(t, seen, [&] { return EngineToggleSolo(t, main); });
        EXPECT_EQ(counter(0)->suspended_by_engine, 1);
        EXPECT_EQ(counter(1)->suspended_by_engine, 1);
        break;
      case 2:  // nothing but the main thread ran, and the thread made meanwhile was held from its start
        EXPECT_EQ(now[0], before[0]);
        EXPECT_EQ(now[1], before[1]);
        EXPECT_EQ(now[2], 0);
        ASSERT_NE(counter(2), nullptr);
        EXPECT_EQ(counter(2)->suspended_by_engine, 1);
        StopAfter(t, seen, [&] { return EngineToggleSolo(t, main); });
        break;
      case 3:  // every thread ran again; the last is frozen and the run asked for at once
        EXPECT_GT(now[0], before[0]);
        EXPECT_GT(now[1], before[1]);
        EXPECT_GT(now[2], 0);
        EXPECT_EQ(EngineToggleFreeze(t, counter(2)), 0);
        break;
      case 4:  // the freeze was applied at the resume
        EXPECT_GT(now[0], before[0]);
        EXPECT_EQ(now[2], before[2]);
        break;
    }
    before = now;  // the process stands still while it is stopped
    EXPECT_EQ(EngineRun(t), 0);
  }
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.exit_code, 0u);
}

// An image whose load event brings no file handle is found by the path the process gives, and
// without one from the target's memory alone: the same module, symbols and extent either way.
TEST(EngineThreads, ImagesWithoutAFileHandle) {
  FreeProcess p;
  ASSERT_TRUE(p.Start("spin"));
  static Target target;
  ASSERT_EQ(TargetInit(&target), 0);
  target.process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, p.Id());
  ASSERT_NE(target.process, nullptr);
  HMODULE first = nullptr;
  DWORD needed = 0;
  ASSERT_TRUE(K32EnumProcessModules(target.process, &first, sizeof first, &needed));
  target.main_image_base = (u64)(uintptr_t)first;
  TargetModule *by_path = nullptr, *from_memory = nullptr;
  ASSERT_EQ(EngineLoadModule(&target, nullptr, target.main_image_base, &by_path), 0);
  ASSERT_EQ(EngineLoadModuleFromMemory(&target, target.main_image_base, nullptr, &from_memory), 0);
  ASSERT_NE(by_path, nullptr);
  ASSERT_NE(from_memory, nullptr);
  EXPECT_STREQ(by_path->symbols.name, "eng_target.exe");
  EXPECT_EQ(by_path->symbols.status, (u32)kSymbolsLoaded);
  EXPECT_EQ(from_memory->symbols.status, (u32)kSymbolsLoaded);  // the PDB named in the image's memory
  EXPECT_EQ(TargetModuleEnd(from_memory), TargetModuleEnd(by_path));
  EXPECT_EQ(from_memory->symbols.image.section_count, by_path->symbols.image.section_count);
  EXPECT_STREQ(from_memory->symbols.pdb_path, by_path->symbols.pdb_path);
  CloseHandle(target.process);
  TargetRelease(&target);
}

// YMM0-3 hold known values at the program's own int3: read back through the located features (the
// lower halves in the legacy area, the upper halves in the AVX feature), one of them written, and
// the program prints what its registers held after the int3. (Wine 8 offers no AVX-512 state even
// on a processor that has it: those features are then not located, and the views show none.)
TEST(EngineThreads, YmmRegistersReadAndWritten) {
  Target *t = Launch("ymm");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopProgramBreakpoint);
  ThreadContextSlot *slot = EngineThreadRegisters(t, t->threads);
  ASSERT_NE(slot, nullptr);
  ASSERT_NE(slot->features[kFeatureAvx], nullptr) << "no AVX state offered";
  ASSERT_GE(slot->feature_bytes[kFeatureAvx], 16u * 16);
  u8 *lower = slot->features[kFeatureSse] ? slot->features[kFeatureSse] : (u8 *)&slot->context->FltSave.XmmRegisters[0];
  u8 *upper = slot->features[kFeatureAvx];
  EXPECT_EQ(EngineThreadRegisters(t, t->threads), slot);  // read once at this stop
  for (int r = 0; r < 4; r++) {
    u64 lanes[4];
    memcpy(lanes, lower + 16 * r, 16);
    memcpy(lanes + 2, upper + 16 * r, 16);
    for (int lane = 0; lane < 4; lane++) EXPECT_EQ(lanes[lane], 0x1000000000000000ull * (r + 1) + lane) << r << " " << lane;
  }
  const u64 written[4] = {0xA1A1A1A1A1A1A1A1ull, 0xB2B2B2B2B2B2B2B2ull, 0xC3C3C3C3C3C3C3C3ull, 0xD4D4D4D4D4D4D4D4ull};
  memcpy(lower + 32, written, 16);
  memcpy(upper + 32, written + 2, 16);
  EXPECT_EQ(StopAfter(t, seen, [&] { return EngineWriteRegisters(t, t->threads); }).event.stopped.reason,
            (u32)kStopThreadStates);
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.debug_strings,
            (std::vector<std::string>{"ymm0 1000000000000000 1000000000000001 1000000000000002 1000000000000003\n",
                                      "ymm1 2000000000000000 2000000000000001 2000000000000002 2000000000000003\n",
                                      "ymm2 a1a1a1a1a1a1a1a1 b2b2b2b2b2b2b2b2 c3c3c3c3c3c3c3c3 d4d4d4d4d4d4d4d4\n",
                                      "ymm3 4000000000000000 4000000000000001 4000000000000002 4000000000000003\n"}));
  EXPECT_EQ(seen.exit_code, 0u);
}

// The threads window's names of the priorities the program gave its threads.
TEST(EngineThreads, PriorityNamesOfTheProgramsThreads) {
  Target *t = Launch("priorities");
  ASSERT_NE(t, nullptr);
  Seen seen;
  WaitStopped(t, seen);
  ASSERT_TRUE(EngineLockModel(t));
  std::vector<std::string> names;
  for (TargetThread *th = t->threads; th; th = th->next) names.push_back(EngineThreadPriorityName(EngineThreadPriority(t, th)));
  EngineUnlockModel(t);
  std::sort(names.begin(), names.end());  // the threads start in no fixed order
  EXPECT_EQ(names, (std::vector<std::string>{"Above Normal", "Below Normal", "Highest", "Idle", "Lowest", "Normal",
                                             "Time Critical"}));
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen);
}
