// Instruction classes for line stepping, from Zydis's decoder without operands (the category, the
// attributes and the length are all that stepping reads). Not in the decoder's minimal mode: that
// mode leaves the REP prefix attributes unset.
#include "engine/instruction_class.h"

#include <Zydis/Zydis.h>

static bool IsStringMnemonic(ZydisMnemonic m) {
  switch (m) {
    case ZYDIS_MNEMONIC_CMPSB: case ZYDIS_MNEMONIC_CMPSW: case ZYDIS_MNEMONIC_CMPSD: case ZYDIS_MNEMONIC_CMPSQ:
    case ZYDIS_MNEMONIC_SCASB: case ZYDIS_MNEMONIC_SCASW: case ZYDIS_MNEMONIC_SCASD: case ZYDIS_MNEMONIC_SCASQ:
    case ZYDIS_MNEMONIC_INSB: case ZYDIS_MNEMONIC_INSW: case ZYDIS_MNEMONIC_INSD:
    case ZYDIS_MNEMONIC_LODSB: case ZYDIS_MNEMONIC_LODSW: case ZYDIS_MNEMONIC_LODSD: case ZYDIS_MNEMONIC_LODSQ:
    case ZYDIS_MNEMONIC_MOVSB: case ZYDIS_MNEMONIC_MOVSW: case ZYDIS_MNEMONIC_MOVSD: case ZYDIS_MNEMONIC_MOVSQ:
    case ZYDIS_MNEMONIC_OUTSB: case ZYDIS_MNEMONIC_OUTSW: case ZYDIS_MNEMONIC_OUTSD:
    case ZYDIS_MNEMONIC_STOSB: case ZYDIS_MNEMONIC_STOSW: case ZYDIS_MNEMONIC_STOSD: case ZYDIS_MNEMONIC_STOSQ:
      return true;
    default:
      return false;
  }
}

DecodedClass ClassifyInstruction(const u8 *bytes, u32 size) {
  DecodedClass out = {kInstructionUndecodable, 0};
  if (!bytes || size == 0) return out;
  // The decoder is a few bytes of settings: made on the stack, nothing kept between calls.
  ZydisDecoder decoder;
  if (ZYAN_FAILED(ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64))) return out;
  ZydisDecodedInstruction instruction;
  u32 length = size < kMaxInstructionBytes ? size : kMaxInstructionBytes;
  if (ZYAN_FAILED(ZydisDecoderDecodeInstruction(&decoder, nullptr, bytes, length, &instruction))) return out;
  out.length = instruction.length;
  const ZyanU64 repeated = ZYDIS_ATTRIB_HAS_REP | ZYDIS_ATTRIB_HAS_REPE | ZYDIS_ATTRIB_HAS_REPNE;
  if (instruction.meta.category == ZYDIS_CATEGORY_CALL)
    out.kind = kInstructionCall;
  else if ((instruction.attributes & repeated) && IsStringMnemonic(instruction.mnemonic))
    out.kind = kInstructionRepString;
  else if (instruction.meta.category == ZYDIS_CATEGORY_UNCOND_BR)
    out.kind = kInstructionUncondBranch;
  else if (instruction.meta.category == ZYDIS_CATEGORY_RET)
    out.kind = kInstructionReturn;
  else
    out.kind = kInstructionOther;
  return out;
}
