// The call stack against the program's own view of it: each mode of the stack programs prints its
// return-address chain (RtlCaptureStackBackTrace) just before it stops, and the engine's frames at
// the stop must be that chain, frame for frame, below the frame of the function that printed it.
// Three builds: mingw -O0, mingw -O2 (no frame pointers) and clang-cl /O2 (MSVC ABI).
#include <gtest/gtest.h>

#include <stdlib.h>

#include <sstream>

#include "engine/instruction_class.h"
#include "symbols/scope_lookup.h"
#include "tests/win/engine_harness.h"

// The last "chain" debug string, up to its first 0: Wine's backtrace goes on past the end of the
// stack with whatever it finds there.
static std::vector<u64> PrintedChain(const Seen &seen) {
  std::vector<u64> chain;
  for (const std::string &text : seen.debug_strings)
    if (text.rfind("chain", 0) == 0) {
      chain.clear();
      std::istringstream in(text.substr(5));
      for (std::string word; in >> word;) {
        u64 address = strtoull(word.c_str(), nullptr, 16);
        if (address == 0) break;
        chain.push_back(address);
      }
    }
  return chain;
}

static const PdbProcScope *ProcedureOfReturnAddress(Target *t, u64 address) {
  TargetModule *module = TargetFindModule(t, address);
  if (!module) return nullptr;
  ScopeAtAddress scope;
  FindScopeAtAddress(&module->symbols, nullptr, address, kScopeReturnAddress, &scope);
  return scope.procedure;
}

// The frames the machine has: the frames of inlined functions (the program's own chain and the
// system's unwinder know nothing of them) taken out.
static u32 MachineFrames(const StackFrame *frames, u32 count, std::vector<StackFrame> *out, const StackFrame **start) {
  out->clear();
  for (u32 i = 0; i < count; i++)
    if (!frames[i].inline_site) out->push_back(frames[i]);
  *start = out->data();
  return (u32)out->size();
}

static std::string Describe(const StackFrame *frames, u32 count) {
  std::ostringstream out;
  for (u32 i = 0; i < count; i++)
    out << "#" << i << " " << std::hex << frames[i].ip << " rsp " << frames[i].rsp << " rbp " << frames[i].rbp << std::dec << " "
        << (frames[i].procedure ? PdbProcName(frames[i].procedure) : frames[i].collapsed ? "(collapsed)" : "?") << "\n";
  return out.str();
}

// The printer's frame is the first in the printing function, at an index in [first_min, first_max];
// every frame below it is the chain's next address, and the stack ends where the chain ends.
static void ExpectAgrees(Target *t, const StackFrame *frames, u32 count, const std::vector<u64> &chain, u32 first_min,
                         u32 first_max) {
  ASSERT_FALSE(chain.empty()) << "the program printed no chain";
  const PdbProcScope *printer = ProcedureOfReturnAddress(t, chain[0]);
  ASSERT_NE(printer, nullptr);
  u32 k = 0;
  while (k < count && frames[k].procedure != printer) k++;
  ASSERT_LT(k, count) << "no frame in " << PdbProcName(printer) << "\n" << Describe(frames, count);
  EXPECT_GE(k, first_min) << Describe(frames, count);
  EXPECT_LE(k, first_max) << Describe(frames, count);
  EXPECT_EQ(count, k + chain.size()) << Describe(frames, count);
  for (size_t i = 1; i < chain.size() && k + i < count; i++)
    EXPECT_EQ(frames[k + i].ip, chain[i]) << "frame " << k + i << "\n" << Describe(frames, count);
}

static void EndRun(Target *t, Seen &seen) {
  EXPECT_EQ(EngineTerminate(t, 0), 0);
  DriveToEnd(t, seen);
}

TEST(EngineStack, AgreesWithTheProgramsOwnChain) {
  const struct {
    const char *program, *mode;
    u32 stop_kind;
    u32 first_min, first_max;  // where the printing function's frame lies
  } cases[] = {
      {"stack_o0.exe", "recurse", kEventStopped, 0, 0},  {"stack_o2.exe", "recurse", kEventStopped, 0, 0},
      {"stack_msvc.exe", "recurse", kEventStopped, 0, 0},
      // The stop is in a function one call above the printer; at -O2 it has no unwind data.
      {"stack_o0.exe", "leaf", kEventStopped, 1, 1},     {"stack_o2.exe", "leaf", kEventStopped, 1, 1},
      {"stack_msvc.exe", "leaf", kEventStopped, 1, 1},
      // In the vectored handler: the system's dispatch frames lie between it and the raiser.
      {"stack_o0.exe", "exception", kEventStopped, 2, 8}, {"stack_o2.exe", "exception", kEventStopped, 2, 8},
      {"stack_msvc.exe", "exception", kEventStopped, 2, 8},
      {"stack_msvc.exe", "handler", kEventStopped, 0, 0},
      // Through a function of stack_dll.dll and back.
      {"stack_o0.exe", "callback", kEventStopped, 0, 0}, {"stack_o2.exe", "callback", kEventStopped, 0, 0},
      // Stopped at instruction address 0: the caller is frame 0.
      {"stack_o0.exe", "nullcall", kEventException, 0, 0}, {"stack_o2.exe", "nullcall", kEventException, 0, 0},
      {"stack_msvc.exe", "nullcall", kEventException, 0, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.program) + " " + c.mode);
    Target *t = Launch(c.mode, true, nullptr, c.program);
    ASSERT_NE(t, nullptr);
    Seen seen;
    SeenEvent stop = WaitStopped(t, seen, c.stop_kind);
    ASSERT_EQ(stop.event.kind, c.stop_kind);
    const StackFrame *frames = nullptr;
    u32 count = EngineThreadStack(t, t->current_thread, &frames);
    std::vector<StackFrame> machine;
    count = MachineFrames(frames, count, &machine, &frames);
    ExpectAgrees(t, frames, count, PrintedChain(seen), c.first_min, c.first_max);
    if (count) EXPECT_EQ(frames[0].return_address, strcmp(c.mode, "nullcall") == 0 ? 1 : 0);
    EndRun(t, seen);
  }
}

// A stack overflow: 1023 frames without collapsing; with it, the deepest frame, the first repeated
// one, one marker row for the rest of the recursion, then the chain that the first level printed.
TEST(EngineStack, StackOverflowCollapsesAndTheSwitchWorks) {
  for (const char *program : {"stack_o0.exe", "stack_o2.exe", "stack_msvc.exe"}) {
    SCOPED_TRACE(program);
    Target *t = Launch("overflow", true, nullptr, program);
    ASSERT_NE(t, nullptr);
    Seen seen;
    SeenEvent stop = WaitStopped(t, seen, kEventException);
    ASSERT_EQ(stop.event.exception.code, 0xC00000FDu);
    std::vector<u64> chain = PrintedChain(seen);
    ASSERT_GE(chain.size(), 2u);
    const PdbProcScope *overflow = ProcedureOfReturnAddress(t, chain[0]);
    const StackFrame *frames = nullptr;
    EXPECT_EQ(EngineThreadStack(t, t->current_thread, &frames), (u32)kMaxStackFrames);
    for (u8 on : {1, 0, 1}) {
      SeenEvent selected = StopAfter(t, seen, [&] { return EngineSetStackOverflowCollapsing(t, on); });
      EXPECT_EQ(selected.event.stopped.frame, 0);
      u32 count = EngineThreadStack(t, t->current_thread, &frames);
      std::vector<StackFrame> machine;
      count = MachineFrames(frames, count, &machine, &frames);
      if (!on) {
        EXPECT_EQ(count, (u32)kMaxStackFrames);
        continue;
      }
      ASSERT_EQ(count, 3 + chain.size() - 1) << Describe(frames, count);
      EXPECT_EQ(frames[0].procedure, overflow);
      EXPECT_EQ(frames[1].procedure, overflow);
      EXPECT_FALSE(frames[0].collapsed || frames[1].collapsed);
      EXPECT_TRUE(frames[2].collapsed);
      EXPECT_GT(frames[2].collapsed_count, 1000u);
      EXPECT_EQ(frames[2].ip, 0u);
      for (size_t i = 1; i < chain.size(); i++) EXPECT_EQ(frames[2 + i].ip, chain[i]) << Describe(frames, count);
    }
    EndRun(t, seen);
  }
}

// Every frame's registers as the system's own unwinder gives them: stack_oNN registers prints, from
// the stopped function, each caller's rip, rsp and non-volatile registers after RtlVirtualUnwind
// ("frame RIP RSP RBP RBX RSI RDI R12 R13 R14 R15"); at -O2 the recursion keeps its values in
// non-volatile registers, so each frame's come from a different save slot.
TEST(EngineStack, RegistersOfEveryFrameAgreeWithTheSystemUnwinder) {
  for (const char *program : {"stack_o0.exe", "stack_o2.exe"}) {
    SCOPED_TRACE(program);
    Target *t = Launch("registers", true, nullptr, program);
    ASSERT_NE(t, nullptr);
    Seen seen;
    ASSERT_EQ(WaitStopped(t, seen).event.kind, (u32)kEventStopped);
    std::vector<std::vector<u64>> printed;
    for (const std::string &text : seen.debug_strings) {
      if (text.rfind("frame ", 0) != 0) continue;
      std::istringstream in(text.substr(6));
      std::vector<u64> values;
      for (std::string word; in >> word;) values.push_back(strtoull(word.c_str(), nullptr, 16));
      if (values.size() == 10 && values[0]) printed.push_back(values);
    }
    const StackFrame *frames = nullptr;
    u32 count = EngineThreadStack(t, t->current_thread, &frames);
    std::vector<StackFrame> machine;
    count = MachineFrames(frames, count, &machine, &frames);
    ASSERT_GE(printed.size(), 9u);  // Mix 7 times, main, the runtime's start
    EXPECT_EQ(count, printed.size()) << Describe(frames, count);
    for (u32 i = 0; i < count && i < printed.size(); i++) {
      const StackFrame &f = frames[i];
      const u64 ours[10] = {f.ip, f.rsp, f.rbp, f.rbx, f.rsi, f.rdi, f.r12, f.r13, f.r14, f.r15};
      for (u32 r = 0; r < 10; r++)
        EXPECT_EQ(ours[r], printed[i][r]) << "frame " << i << " value " << r << " (rip rsp rbp rbx rsi rdi r12-r15)";
    }
    EndRun(t, seen);
  }
}

// No stack is built at the stop; each thread's when it is asked for, in the same stop: eng_target
// int3 stops in main while a second thread waits in IdleThread.
TEST(EngineStack, StacksAreBuiltWhenAsked) {
  Target *t = Launch("int3");
  ASSERT_NE(t, nullptr);
  Seen seen;
  ASSERT_EQ(WaitStopped(t, seen).event.stopped.reason, (u32)kStopProgramBreakpoint);
  TargetThread *idle = nullptr;
  for (TargetThread *thread = t->threads; thread; thread = thread->next)
    if (thread != t->current_thread) idle = thread;
  ASSERT_NE(idle, nullptr);
  EXPECT_NE(t->current_thread->stack_stop, t->stop_generation);
  EXPECT_NE(idle->stack_stop, t->stop_generation);
  auto HasProcedure = [](const StackFrame *frames, u32 count, const char *name) {
    for (u32 i = 0; i < count; i++)
      if (frames[i].procedure && strcmp(PdbProcName(frames[i].procedure), name) == 0) return true;
    return false;
  };
  const StackFrame *frames = nullptr;
  u32 count = EngineThreadStack(t, idle, &frames);
  EXPECT_TRUE(HasProcedure(frames, count, "IdleThread")) << Describe(frames, count);
  EXPECT_EQ(idle->stack_stop, t->stop_generation);
  count = EngineThreadStack(t, t->current_thread, &frames);
  ASSERT_GT(count, 0u);
  EXPECT_STREQ(PdbProcName(frames[0].procedure), "main");
  EndRun(t, seen);
}

// Code inlined two levels deep: a breakpoint where Scale's inlined SumPair has inlined Clamp (the
// -O2 build of the frames program) stops with a frame for each inlined function, innermost first,
// then Scale's own frame at the same address, then main.
TEST(EngineStack, InlinedFunctionsHaveFramesOfTheirOwn) {
  Target *t = Launch("", false, nullptr, "frames_o2.exe");
  ASSERT_NE(t, nullptr);
  ASSERT_TRUE(EngineLockModel(t));
  u64 scale = EngineFunctionAddress(t, "Scale");
  TargetModule *module = TargetFindModule(t, scale);
  EngineUnlockModel(t);
  ASSERT_NE(module, nullptr);
  const PdbFile *pdb = &module->symbols.pdb;
  ScopeAtAddress at;
  FindScopeAtAddress(&module->symbols, nullptr, scale, kScopeExact, &at);
  ASSERT_NE(at.procedure, nullptr);
  u32 length = 0;
  memcpy(&length, at.procedure->record + kProcSymLength, 4);
  // An instruction inside Clamp's code past its first (at its first the thread is shown at the
  // call): the instruction after the first address with both sites, decoded from the program.
  u64 inner = 0;
  for (u32 i = 0; i < length && !inner; i++) {
    ScopeChain chain;
    PdbScopeChainAt(pdb, at.procedure, at.offset + i, kScopeExact, &chain);
    if (chain.inline_count != 2) continue;
    u8 code[kMaxInstructionBytes];
    ASSERT_EQ(EngineReadMemory(t, scale + i, code, sizeof code), 0);
    u32 next = i + ClassifyInstruction(code, sizeof code).length;
    PdbScopeChainAt(pdb, at.procedure, at.offset + next, kScopeExact, &chain);
    ASSERT_EQ(chain.inline_count, 2u) << "Clamp's code is one instruction";
    inner = scale + next;
  }
  ASSERT_NE(inner, 0u) << "no code of Clamp inlined through SumPair into Scale past its first instruction";
  BreakpointWanted wanted = {};
  wanted.kind = kBreakpointAddress;
  wanted.address = inner;
  BreakpointLocation *bp = nullptr;
  ASSERT_EQ(EngineAddBreakpoint(t, &wanted, &bp), 0);
  EXPECT_EQ(EngineRun(t), 0);
  Seen seen;
  ASSERT_EQ(WaitStopped(t, seen, kEventBreakpointHit).event.kind, (u32)kEventBreakpointHit);
  const StackFrame *frames = nullptr;
  u32 count = EngineThreadStack(t, t->current_thread, &frames);
  ASSERT_GE(count, 4u);
  char name[256];
  const char *expected[4] = {"frames::Clamp", "frames::SumPair", "Scale", "main"};
  for (u32 i = 0; i < 4; i++) {
    EXPECT_STREQ(StackFrameFunctionName(&frames[i], name, sizeof name), expected[i]) << Describe(frames, count);
    EXPECT_EQ(frames[i].inline_site != nullptr, i < 2) << i;
    if (i < 3) EXPECT_EQ(frames[i].ip, inner);
    EXPECT_NE(frames[i].line, 0u) << i;
  }
  EndRun(t, seen);
}
