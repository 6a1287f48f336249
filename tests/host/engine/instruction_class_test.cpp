// The instruction classes that line stepping acts on, for encodings as the processor manuals give
// them and as compilers emit them (calls through import tables and registers, import thunks, the
// REP string forms, returns), beside look-alikes that must not count (mandatory F2/F3 prefixes of SSE, rep
// ret, pause) and byte runs that do not decode.
#include <gtest/gtest.h>

#include <vector>

#include "engine/instruction_class.h"

struct ClassCase {
  const char *what;
  std::vector<u8> bytes;
  u8 kind;
  u8 length;
};

static const ClassCase kCases[] = {
    {"call rel32", {0xE8, 0x10, 0x00, 0x00, 0x00, 0x90}, kInstructionCall, 5},
    {"call [rip+disp] (import table)", {0xFF, 0x15, 0x22, 0x33, 0x00, 0x00}, kInstructionCall, 6},
    {"call rax", {0xFF, 0xD0}, kInstructionCall, 2},
    {"call r11", {0x41, 0xFF, 0xD3}, kInstructionCall, 3},
    {"call [rax+8]", {0xFF, 0x50, 0x08}, kInstructionCall, 3},
    {"rep movsb", {0xF3, 0xA4}, kInstructionRepString, 2},
    {"rep movsq", {0xF3, 0x48, 0xA5}, kInstructionRepString, 3},
    {"rep stosq", {0xF3, 0x48, 0xAB}, kInstructionRepString, 3},
    {"rep stosd", {0xF3, 0xAB}, kInstructionRepString, 2},
    {"repe cmpsb", {0xF3, 0xA6}, kInstructionRepString, 2},
    {"repne scasb", {0xF2, 0xAE}, kInstructionRepString, 2},
    {"rep lodsb", {0xF3, 0xAC}, kInstructionRepString, 2},
    {"rep insb", {0xF3, 0x6C}, kInstructionRepString, 2},
    {"rep outsw", {0x66, 0xF3, 0x6F}, kInstructionRepString, 3},
    {"movsb without rep", {0xA4}, kInstructionOther, 1},
    {"stosq without rep", {0x48, 0xAB}, kInstructionOther, 2},
    {"movsd xmm0, xmm1 (F2 is mandatory)", {0xF2, 0x0F, 0x10, 0xC1}, kInstructionOther, 4},
    {"movss xmm0, xmm1 (F3 is mandatory)", {0xF3, 0x0F, 0x10, 0xC1}, kInstructionOther, 4},
    {"rep ret", {0xF3, 0xC3}, kInstructionReturn, 2},
    {"ret 8", {0xC2, 0x08, 0x00}, kInstructionReturn, 3},
    {"pause", {0xF3, 0x90}, kInstructionOther, 2},
    {"jmp [rip+disp] (import thunk)", {0xFF, 0x25, 0x00, 0x10, 0x00, 0x00}, kInstructionUncondBranch, 6},
    {"jmp rel32", {0xE9, 0x00, 0x01, 0x00, 0x00}, kInstructionUncondBranch, 5},
    {"jmp rel8", {0xEB, 0xFE}, kInstructionUncondBranch, 2},
    {"jmp rax", {0xFF, 0xE0}, kInstructionUncondBranch, 2},
    {"je rel8", {0x74, 0x02}, kInstructionOther, 2},
    {"ret", {0xC3}, kInstructionReturn, 1},
    {"int3", {0xCC}, kInstructionOther, 1},
    {"push rbp; mov rbp, rsp", {0x55, 0x48, 0x89, 0xE5}, kInstructionOther, 1},
    {"mov eax, [rbp-4]", {0x8B, 0x45, 0xFC}, kInstructionOther, 3},
    {"call rel32 cut short", {0xE8, 0x10, 0x00}, kInstructionUndecodable, 0},
    {"invalid opcode 0F 04", {0x0F, 0x04}, kInstructionUndecodable, 0},
    {"nothing", {}, kInstructionUndecodable, 0},
    // 15 operand-size prefixes and a nop: 16 bytes, longer than any instruction may be.
    {"over 15 bytes", {0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x90},
     kInstructionUndecodable, 0},
};

TEST(InstructionClass, EveryCase) {
  for (const ClassCase &c : kCases) {
    DecodedClass d = ClassifyInstruction(c.bytes.empty() ? nullptr : c.bytes.data(), (u32)c.bytes.size());
    EXPECT_EQ(d.kind, c.kind) << c.what;
    EXPECT_EQ(d.length, c.length) << c.what;
  }
}
