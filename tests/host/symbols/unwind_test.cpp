// The x64 unwinder over crafted functions: prologues part run and fully run, frame pointers, saves,
// epilogues of both versions, chained and indirect information, machine frames, and hostile data.
// Each case is a function's code bytes, its unwind information and a stack, laid out in a fake
// address space; the expected caller registers are worked out by hand from the instructions.
#include <gtest/gtest.h>
#include <string.h>

#include <map>

#include "byte_writer.h"
#include "symbols/x64_unwind.h"

namespace {

const u64 kBase = 0x140000000ull;
const u32 kCodeRva = 0x1000, kInfoRva = 0x2000, kParentInfoRva = 0x2100, kParentEntryRva = 0x2200;
const u64 kStack = 0x7F000ull;  // the stack of every case starts here (its rsp)
const u64 kRet = 0x140001234ull;  // the return address the cases expect

// A sparse address space: regions of bytes; a read must fall wholly inside one.
struct FakeMemory {
  std::map<u64, Bytes> regions;
  void Put(u64 address, const Bytes &bytes) { regions[address] = bytes; }
  static bool Read(void *context, u64 address, void *buffer, u32 size) {
    for (auto &[at, bytes] : ((FakeMemory *)context)->regions)
      if (address >= at && address - at <= bytes.size() && size <= bytes.size() - (address - at)) {
        memcpy(buffer, bytes.data() + (address - at), size);
        return true;
      }
    return false;
  }
};

Bytes Codes(std::initializer_list<std::pair<u8, u8>> codes) {  // (prologue offset, op | info << 4)
  LeBytes b;
  for (auto c : codes) b.u8(c.first).u8(c.second);
  return b;
}
u8 Op(u32 op, u32 info) { return (u8)(op | info << 4); }
Bytes Header(u32 version, u32 flags, u32 prologue, u32 count, u32 frame_register, u32 frame_offset16) {
  return LeBytes().u8(version | flags << 3).u8(prologue).u8(count).u8(frame_register | frame_offset16 << 4);
}

struct Case {
  const char *what;
  Bytes code;             // at kBase + kCodeRva
  u32 rip_offset;         // where the thread stands in it
  Bytes info;             // at kInfoRva
  Bytes parent_info;      // at kParentInfoRva when not empty
  std::vector<u64> stack; // qwords from kStack
  std::map<u32, u64> before;  // registers set before the unwind (rsp is kStack unless given)
  UnwindResult result;
  u64 rip;                // expected after it (when kUnwindOk)
  u64 rsp;
  std::map<u32, u64> after;  // registers restored
  u32 code_end = 0x40;    // the function's end rva, from kCodeRva
};

// push rbp; push rbx; sub rsp, 0x20; (body) add rsp, 0x20; pop rbx; pop rbp; ret
const Bytes kPushPushSub = {0x55, 0x53, 0x48, 0x83, 0xEC, 0x20, 0x90, 0x90, 0x48, 0x83, 0xC4, 0x20, 0x5B, 0x5D, 0xC3};
// push rbp; sub rsp, 0x30; lea rbp, [rsp + 0x20]; (body) lea rsp, [rbp + 0x10]; pop rbp; ret
const Bytes kFramePointer = {0x55, 0x48, 0x83, 0xEC, 0x30, 0x48, 0x8D, 0x6C, 0x24, 0x20, 0x90,
                             0x48, 0x8D, 0x65, 0x10, 0x5D, 0xC3};

Bytes Cat(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(VirtualUnwind, UndoesWhatRanAndFinishesEpilogues) {
  const Bytes push_push_sub_info = Cat(Header(1, 0, 6, 3, 0, 0),
                                       Codes({{6, Op(2, 3)}, {2, Op(0, kUnwindRbx)}, {1, Op(0, kUnwindRbp)}}));
  const Bytes frame_info = Cat(Header(1, 0, 10, 3, kUnwindRbp, 2),
                               Codes({{10, Op(3, 0)}, {5, Op(2, 5)}, {1, Op(0, kUnwindRbp)}}));
  const u64 sp = kStack;
  const Case cases[] = {
      {"body: every code undone, then the return address", kPushPushSub, 6, push_push_sub_info, {},
       {0, 0, 0, 0, 0xB0, 0xB1, kRet}, {}, kUnwindOk, kRet, sp + 56, {{kUnwindRbx, 0xB0}, {kUnwindRbp, 0xB1}}},
      {"prologue after the first push only", kPushPushSub, 1, push_push_sub_info, {}, {0xB1, kRet}, {{kUnwindRbx, 7}},
       kUnwindOk, kRet, sp + 16, {{kUnwindRbp, 0xB1}, {kUnwindRbx, 7}}},
      {"at the first instruction: a plain return", kPushPushSub, 0, push_push_sub_info, {}, {kRet}, {}, kUnwindOk,
       kRet, sp + 8},
      {"epilogue after add rsp: only the pops and ret are left", kPushPushSub, 12, push_push_sub_info, {},
       {0xB0, 0xB1, kRet}, {}, kUnwindOk, kRet, sp + 24, {{kUnwindRbx, 0xB0}, {kUnwindRbp, 0xB1}}},
      {"epilogue at add rsp, imm8", kPushPushSub, 8, push_push_sub_info, {}, {0, 0, 0, 0, 0xB0, 0xB1, kRet}, {},
       kUnwindOk, kRet, sp + 56, {{kUnwindRbx, 0xB0}, {kUnwindRbp, 0xB1}}},
      {"at ret", kPushPushSub, 14, push_push_sub_info, {}, {kRet}, {}, kUnwindOk, kRet, sp + 8},
      {"frame pointer: rsp moved by the body, the frame found through rbp", kFramePointer, 10, frame_info, {},
       {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB1, kRet},
       {{kUnwindRsp, sp + 0x20}, {kUnwindRbp, sp + 0x60}}, kUnwindOk, kRet, sp + 0x80,
       {{kUnwindRbp, 0xB1}}},
      {"frame pointer not yet set: the stack pointer counts", kFramePointer, 5, frame_info, {},
       {0, 0, 0, 0, 0, 0, 0xB1, kRet}, {{kUnwindRbp, 0x999}}, kUnwindOk, kRet, sp + 64, {{kUnwindRbp, 0xB1}}},
      {"epilogue lea rsp, [rbp + 0x10]", kFramePointer, 11, frame_info, {}, {0, 0, 0, 0, 0xB1, kRet},
       {{kUnwindRbp, sp + 0x10}}, kUnwindOk, kRet, sp + 0x30, {{kUnwindRbp, 0xB1}}},
      {"save slots, far saves, XMM and large allocations",
       {0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90},
       16,
       Cat(Header(1, 0, 16, 9, 0, 0),
           Cat(Codes({{16, Op(4, kUnwindRsi)}, {2, 0}, {15, Op(5, kUnwindRdi)}, {24, 0}, {0, 0},
                      {14, Op(8, 6)}, {2, 0}, {13, Op(1, 0)}, {32, 0}}),
               Codes({{0, 0}}))),
       {}, [] {
         std::vector<u64> stack(33);
         stack[2] = 0xA5, stack[3] = 0xA6, stack[4] = 0xD1, stack[5] = 0xD2, stack[32] = kRet;
         return stack;
       }(),
       {}, kUnwindOk, kRet, sp + 32 * 8 + 8, {{kUnwindRsi, 0xA5}, {kUnwindRdi, 0xA6}}},
      {"alloc large with a 32-bit size", {0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90}, 8,
       Cat(Header(1, 0, 7, 3, 0, 0), Cat(Codes({{7, Op(1, 1)}, {0x10, 0}, {0, 0}}), Codes({{0, 0}}))), {},
       {0, 0, kRet}, {}, kUnwindOk, kRet, sp + 0x18},
      {"a jump inside the function is no epilogue", {0x48, 0x83, 0xEC, 0x08, 0x90, 0xEB, 0xFA, 0xC3}, 5,
       Cat(Header(1, 0, 4, 1, 0, 0), Codes({{4, Op(2, 0)}, {0, 0}})), {}, {0, kRet}, {}, kUnwindOk, kRet, sp + 16},
      {"a tail jump out of the function ends an epilogue",
       {0x48, 0x83, 0xEC, 0x08, 0x90, 0x48, 0x83, 0xC4, 0x08, 0xE9, 0x00, 0x10, 0x00, 0x00}, 5,
       Cat(Header(1, 0, 4, 1, 0, 0), Codes({{4, Op(2, 0)}, {0, 0}})), {}, {0, kRet}, {}, kUnwindOk, kRet, sp + 16},
      {"version 2: an epilogue listed at the end", kPushPushSub, 12,
       Cat(Header(2, 0, 6, 5, 0, 0),
           Cat(Codes({{7, Op(6, 1)}, {0, 0}, {6, Op(2, 3)}, {2, Op(0, kUnwindRbx)}, {1, Op(0, kUnwindRbp)}}),
               Codes({{0, 0}}))),
       {}, {0xB0, 0xB1, kRet}, {}, kUnwindOk, kRet, sp + 24, {{kUnwindRbx, 0xB0}, {kUnwindRbp, 0xB1}}, 15},
      {"version 2: the same bytes outside every listed epilogue run the codes", kPushPushSub, 12,
       Cat(Header(2, 0, 6, 5, 0, 0),
           Cat(Codes({{3, Op(6, 0)}, {0, 0}, {6, Op(2, 3)}, {2, Op(0, kUnwindRbx)}, {1, Op(0, kUnwindRbp)}}),
               Codes({{0, 0}}))),
       {}, {0, 0, 0, 0, 0xB0, 0xB1, kRet}, {}, kUnwindOk, kRet, sp + 56, {{kUnwindRbx, 0xB0}, {kUnwindRbp, 0xB1}}, 15},
      {"chained: the fragment's own codes, then all of its parent's", {0x90, 0x90, 0x90, 0x90}, 2,
       Cat(Cat(Header(1, kUnwindFlagChained, 0, 1, 0, 0), Codes({{0, Op(2, 1)}, {0, 0}})),
           LeBytes().u32(0x3000).u32(0x3040).u32(kParentInfoRva)),
       Cat(Header(1, 0, 2, 2, 0, 0), Codes({{2, Op(0, kUnwindR12)}, {1, Op(0, kUnwindR13)}})),
       {0, 0, 0xC12, 0xC13, kRet}, {}, kUnwindOk, kRet, sp + 40, {{kUnwindR12, 0xC12}, {kUnwindR13, 0xC13}}},
      {"machine frame: rip and rsp from the frame, no return address popped", {0x90, 0x90}, 1,
       Cat(Header(1, 0, 0, 1, 0, 0), Codes({{0, Op(10, 1)}, {0, 0}})), {},
       {0xEE, 0x140009999ull, 0x33, 0x246, 0x5000, 0x2B}, {}, kUnwindOk, 0x140009999ull, 0x5000},
      {"chain deeper than 32", {0x90}, 0,
       Cat(Cat(Header(1, kUnwindFlagChained, 0, 0, 0, 0), Bytes()), LeBytes().u32(0).u32(1).u32(kInfoRva)), {},
       {kRet}, {}, kUnwindChainTooDeep},
      {"unknown operation", {0x90, 0x90}, 1, Cat(Header(1, 0, 0, 1, 0, 0), Codes({{0, Op(11, 0)}, {0, 0}})), {},
       {kRet}, {}, kUnwindUnknownOperation},
      {"an operand slot past the code count", {0x90, 0x90}, 1, Cat(Header(1, 0, 1, 1, 0, 0), Codes({{1, Op(1, 0)}})),
       {}, {kRet}, {}, kUnwindUnknownOperation},
      {"unknown version", {0x90}, 0, Cat(Header(3, 0, 0, 0, 0, 0), Bytes()), {}, {kRet}, {}, kUnwindUnknownOperation},
      {"codes that run past readable memory", {0x90}, 0, Header(1, 0, 0, 8, 0, 0), {}, {kRet}, {}, kUnwindUnreadable},
      {"a saved register outside the stack", kPushPushSub, 6, push_push_sub_info, {}, {0, 0}, {},
       kUnwindUnreadable},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    FakeMemory memory;
    Bytes code = c.code;
    code.resize(code.size() + 96, 0xCC);  // int3 filler: a process maps code by whole pages
    memory.Put(kBase + kCodeRva, code);
    memory.Put(kBase + kInfoRva, c.info);
    if (!c.parent_info.empty()) memory.Put(kBase + kParentInfoRva, c.parent_info);
    LeBytes stack;
    for (u64 q : c.stack) stack.u64(q);
    memory.Put(kStack, stack);
    UnwindContext context;
    memset(&context, 0x5A, sizeof context);
    context.gpr[kUnwindRsp] = kStack;
    for (auto [r, v] : c.before) context.gpr[r] = v;
    context.rip = kBase + kCodeRva + c.rip_offset;
    const UnwindContext before = context;
    UnwindMemory reader = {FakeMemory::Read, &memory};
    FunctionEntry entry = {kCodeRva, kCodeRva + c.code_end, kInfoRva};
    UnwindResult result = VirtualUnwind(&reader, kBase, &entry, &context);
    ASSERT_EQ((u32)c.result, (u32)result);
    if (result != kUnwindOk) {
      EXPECT_EQ(0, memcmp(&before, &context, sizeof context)) << "a failed unwind leaves the context alone";
      continue;
    }
    EXPECT_EQ(c.rip, context.rip);
    EXPECT_EQ(c.rsp, context.gpr[kUnwindRsp]);
    for (u32 r = 0; r < kUnwindRegisterCount; r++) {
      if (r == kUnwindRsp) continue;
      auto it = c.after.find(r);
      EXPECT_EQ(it != c.after.end() ? it->second : before.gpr[r], context.gpr[r]) << "register " << r;
    }
  }
}

TEST(VirtualUnwind, RestoresSavedXmmAndFollowsIndirectEntries) {
  FakeMemory memory;
  Bytes xmm6(16);
  for (u32 i = 0; i < 16; i++) xmm6[i] = (u8)(0x60 + i);
  // An indirect entry (unwind rva with bit 0 set) names the entry that holds the information.
  memory.Put(kBase + kParentEntryRva, LeBytes().u32(kCodeRva).u32(kCodeRva + 8).u32(kInfoRva));
  memory.Put(kBase + kCodeRva, Cat(Bytes(8, 0x90), Bytes(96, 0xCC)));
  memory.Put(kBase + kInfoRva, Cat(Header(1, 0, 4, 3, 0, 0), Codes({{4, Op(8, 6)}, {1, 0}, {2, Op(2, 3)}})));
  memory.Put(kStack, Cat(Cat(Bytes(16, 0), xmm6), LeBytes().u64(0x140005555ull)));
  UnwindContext context = {};
  context.gpr[kUnwindRsp] = kStack;
  context.rip = kBase + kCodeRva + 5;
  UnwindMemory reader = {FakeMemory::Read, &memory};
  FunctionEntry entry = {kCodeRva, kCodeRva + 8, kParentEntryRva | 1};
  ASSERT_EQ((u32)kUnwindOk, (u32)VirtualUnwind(&reader, kBase, &entry, &context));
  EXPECT_EQ(0, memcmp(context.xmm[6], xmm6.data(), 16));
  EXPECT_EQ(0x140005555ull, context.rip);
  EXPECT_EQ(kStack + 40, context.gpr[kUnwindRsp]);
}

// A return address one past a function's end is still that function's; an instruction there is not
// (it may be the first byte of a leaf that has no entry).
TEST(FunctionEntrySearch, FindsTheEntryWithTheEndInclusiveForReturnAddresses) {
  const FunctionEntry table[] = {{0x1000, 0x1010, 1}, {0x1010, 0x1020, 2}, {0x1030, 0x1040, 3}};
  const struct { u32 rva; u32 as_return, as_instruction; } cases[] = {
      {0x0FFF, 0, 0}, {0x1000, 1, 1}, {0x100F, 1, 1}, {0x1010, 2, 2}, {0x1020, 2, 0},
      {0x1021, 0, 0}, {0x1035, 3, 3}, {0x1040, 3, 0}, {0x1041, 0, 0},
  };
  for (auto c : cases) {
    FunctionEntry out = {};
    bool found = FunctionEntrySearch(table, 3, c.rva, &out);
    EXPECT_EQ(c.as_return != 0, found) << std::hex << c.rva;
    if (found) EXPECT_EQ(c.as_return, out.unwind_info) << std::hex << c.rva;
    const FunctionEntry *exact = FunctionEntryAt(table, 3, c.rva, false);
    EXPECT_EQ(c.as_instruction, exact ? exact->unwind_info : 0u) << std::hex << c.rva;
  }
  FunctionEntry out;
  EXPECT_FALSE(FunctionEntrySearch(table, 0, 0x1000, &out));
}

TEST(UnwindFromContextRecord, TakesEveryRegisterFromTheRecord) {
  LeBytes record;
  record.zero32(kContextRecordGeneralOffset / 4);
  for (u32 r = 0; r < kUnwindRegisterCount; r++) record.u64(0x1000 + r);
  record.u64(0x140007777ull).zero32((kContextRecordXmmOffset - kContextRecordRipOffset - 8) / 4);
  for (u32 i = 0; i < 256; i++) record.u8(i);
  FakeMemory memory;
  memory.Put(kStack, record);
  UnwindMemory reader = {FakeMemory::Read, &memory};
  UnwindContext context = {};
  ASSERT_EQ((u32)kUnwindOk, (u32)UnwindFromContextRecord(&reader, kStack, &context));
  for (u32 r = 0; r < kUnwindRegisterCount; r++) EXPECT_EQ(0x1000u + r, context.gpr[r]);
  EXPECT_EQ(0x140007777ull, context.rip);
  EXPECT_EQ(7u, context.xmm[0][7]);
  EXPECT_EQ(255u, context.xmm[15][15]);
  EXPECT_EQ((u32)kUnwindUnreadable, (u32)UnwindFromContextRecord(&reader, kStack + 8, &context));
}

TEST(UnwindLeaf, PopsTheReturnAddressOrSaysUnreadable) {
  FakeMemory memory;
  memory.Put(kStack, LeBytes().u64(0x140002000ull));
  UnwindMemory reader = {FakeMemory::Read, &memory};
  UnwindContext context = {};
  context.gpr[kUnwindRsp] = kStack;
  ASSERT_EQ((u32)kUnwindOk, (u32)UnwindLeaf(&reader, &context));
  EXPECT_EQ(0x140002000ull, context.rip);
  EXPECT_EQ(kStack + 8, context.gpr[kUnwindRsp]);
  EXPECT_EQ((u32)kUnwindUnreadable, (u32)UnwindLeaf(&reader, &context));
}

}  // namespace
