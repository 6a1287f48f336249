// What line stepping needs to know of one x86-64 instruction: whether it is a call, a repeated
// string instruction (both run to their end under a temporary breakpoint behind them), or the
// unconditional branch of an import thunk that step into passes through at a callee's entry, or
// a return (which ends a step out).
// Pure decoding, no target: the host tests feed it real instruction bytes.
#pragma once
#include "base/types.h"

enum : u32 { kMaxInstructionBytes = 15 };

enum InstructionClass : u8 {
  kInstructionUndecodable = 0,
  kInstructionOther = 1,
  kInstructionCall = 2,
  kInstructionRepString = 3,     // REP/REPE/REPNE with CMPS, SCAS, INS, LODS, MOVS, OUTS or STOS
  kInstructionUncondBranch = 4,  // jmp of any form
  kInstructionReturn = 5,        // ret of any form
};

typedef struct DecodedClass {
  u8 kind;    // InstructionClass
  u8 length;  // bytes; 0 when undecodable
} DecodedClass;

// Decodes the first instruction of bytes[0, size) in 64-bit mode.
DecodedClass ClassifyInstruction(const u8 *bytes, u32 size);
