// One x64 frame unwound by hand: the function's epilogue is finished when the address sits in one,
// otherwise the prologue's unwind codes that have run are undone, then the return address popped.
//
// [SECTION] Function table search
// [SECTION] Reading unwind information
// [SECTION] Epilogues
// [SECTION] Unwind codes
// [SECTION] One frame
#include "symbols/x64_unwind.h"

#include <string.h>

static bool ReadBytes(const UnwindMemory *memory, u64 address, void *buffer, u32 size) {
  return memory->read(memory->context, address, buffer, size);
}

static bool ReadU64(const UnwindMemory *memory, u64 address, u64 *out) { return ReadBytes(memory, address, out, 8); }

// [SECTION] Function table search

const FunctionEntry *FunctionEntryAt(const FunctionEntry *table, u32 count, u32 rva, bool return_address) {
  u32 low = 0, high = count;  // find the first entry that begins after rva
  while (low < high) {
    u32 middle = low + (high - low) / 2;
    if (table[middle].begin > rva) high = middle;
    else low = middle + 1;
  }
  if (low == 0 || rva > table[low - 1].end || (rva == table[low - 1].end && !return_address)) return nullptr;
  return &table[low - 1];
}

bool FunctionEntrySearch(const FunctionEntry *table, u32 count, u32 rva, FunctionEntry *out) {
  const FunctionEntry *entry = FunctionEntryAt(table, count, rva, true);
  if (entry) *out = *entry;
  return entry != nullptr;
}

// [SECTION] Reading unwind information

typedef struct UnwindInfo {
  UnwindInfoHeader header;
  UnwindCode codes[kUnwindMaxCodes + 1];
  FunctionEntry chained;  // valid when the header has kUnwindFlagChained
} UnwindInfo;

static bool IsChained(const UnwindInfo *info) { return (UnwindInfoFlags(&info->header) & kUnwindFlagChained) != 0; }

static UnwindResult ReadUnwindInfo(const UnwindMemory *memory, u64 address, UnwindInfo *out) {
  if (!ReadBytes(memory, address, &out->header, sizeof out->header)) return kUnwindUnreadable;
  u32 version = UnwindInfoVersion(&out->header);
  if (version != 1 && version != 2) return kUnwindUnknownOperation;
  u32 count = out->header.code_count;
  bool chained = IsChained(out);
  u32 code_slots = chained ? (count + 1) & ~1u : count;
  u8 bytes[kUnwindInfoMaxBytes];
  u32 size = code_slots * 2 + (chained ? (u32)sizeof(FunctionEntry) : 0);
  if (size && !ReadBytes(memory, address + sizeof out->header, bytes, size)) return kUnwindUnreadable;
  memcpy(out->codes, bytes, count * 2);
  if (chained) memcpy(&out->chained, bytes + code_slots * 2, sizeof out->chained);
  return kUnwindOk;
}

// An entry whose unwind rva has bit 0 set points at another function-table entry that holds the
// real unwind information (some linkers share one entry among the pieces of a function).
static UnwindResult ResolveIndirectEntry(const UnwindMemory *memory, u64 image_base, FunctionEntry *entry) {
  for (u32 depth = 0; entry->unwind_info & 1u; depth++) {
    if (depth >= kUnwindMaxChainDepth) return kUnwindChainTooDeep;
    if (!ReadBytes(memory, image_base + (entry->unwind_info & ~1u), entry, sizeof *entry)) return kUnwindUnreadable;
  }
  return kUnwindOk;
}

static u32 CodeSlots(UnwindCode code) {
  u32 op = UnwindCodeOperation(code);
  u32 slots = 1 + kUnwindOpExtraSlots[op];
  if (op == kUnwindOpAllocLarge && UnwindCodeInfo(code) != 0) slots++;
  return slots;
}

static u32 SlotU16(const UnwindInfo *info, u32 i) {
  return (u32)info->codes[i].prologue_offset | (u32)info->codes[i].operation_and_info << 8;
}
static u32 SlotU32(const UnwindInfo *info, u32 i) { return SlotU16(info, i) | SlotU16(info, i + 1) << 16; }

// [SECTION] Epilogues

enum : u32 { kEpilogueBytes = 64 };  // the longest epilogue decoded: lea, eight pops, a jump

// The code bytes at address; fewer when the page after it cannot be read.
static u32 ReadCode(const UnwindMemory *memory, u64 address, u8 *bytes) {
  u32 in_page = 4096 - (u32)(address & 4095);
  u32 first = in_page < kEpilogueBytes ? in_page : kEpilogueBytes;
  if (!ReadBytes(memory, address, bytes, first)) return 0;
  if (first < kEpilogueBytes && ReadBytes(memory, address + first, bytes + first, kEpilogueBytes - first))
    return kEpilogueBytes;
  return first;
}

// Decodes the instructions at context->rip as the rest of an epilogue: an optional stack release
// (add rsp, imm / lea rsp, [frame register + disp]), register pops, then a return or a jump out of
// the function [begin, end). When they are one, *found is set and the epilogue is carried out on the
// context (the return address popped too).
static UnwindResult EmulateEpilogue(const UnwindMemory *memory, u64 begin, u64 end, u32 frame_register,
                                    UnwindContext *context, bool *found) {
  *found = false;
  u8 b[kEpilogueBytes + 8];
  memset(b, 0, sizeof b);  // bytes past those read decode as nothing that ends an epilogue
  u32 have = ReadCode(memory, context->rip, b);
  if (have == 0) return kUnwindUnreadable;
  u32 i = 0;
  u64 rsp = context->gpr[kUnwindRsp];
  if (b[0] == 0x48 && b[1] == 0x83 && b[2] == 0xC4) {  // add rsp, imm8
    rsp += (u64)(s64)(s8)b[3];
    i = 4;
  } else if (b[0] == 0x48 && b[1] == 0x81 && b[2] == 0xC4) {  // add rsp, imm32
    s32 imm;
    memcpy(&imm, b + 3, 4);
    rsp += (u64)(s64)imm;
    i = 7;
  } else if ((b[0] & 0xFE) == 0x48 && b[1] == 0x8D && frame_register != 0) {  // lea rsp, [reg + disp]
    u32 mod = b[2] >> 6, reg = (b[2] >> 3) & 7, base = (b[2] & 7) | (b[0] & 1) << 3;
    if (reg == kUnwindRsp && (b[2] & 7) != 4 && base == frame_register && (mod == 1 || mod == 2)) {
      s32 displacement = 0;
      if (mod == 1) {
        displacement = (s8)b[3];
        i = 4;
      } else {
        memcpy(&displacement, b + 3, 4);
        i = 7;
      }
      rsp = context->gpr[base] + (u64)(s64)displacement;
      }
  }
  u32 pops[16];
  u32 pop_count = 0;
  while (i + 1 < have && pop_count < 16) {
    if ((b[i] & 0xF8) == 0x58) {
      pops[pop_count++] = b[i] & 7u;
      i += 1;
    } else if (b[i] == 0x41 && (b[i + 1] & 0xF8) == 0x58) {
      pops[pop_count++] = 8 + (b[i + 1] & 7u);
      i += 2;
    } else {
      break;
    }
  }
  if (b[i] == 0xF2) i++;  // a branch prefix (bnd) before the return or jump
  if (i >= have) return kUnwindOk;
  u64 at = context->rip + i;
  bool ends = false;
  if (b[i] == 0xC3 || b[i] == 0xC2) {
    ends = true;  // ret, ret imm16
  } else if (b[i] == 0xF3 && b[i + 1] == 0xC3) {
    ends = true;  // rep ret
  } else if (b[i] == 0xEB || b[i] == 0xE9) {  // a tail jump, when it leaves the function
    s32 displacement;
    u32 length;
    if (b[i] == 0xEB) {
      displacement = (s8)b[i + 1];
      length = 2;
    } else {
      memcpy(&displacement, b + i + 1, 4);
      length = 5;
    }
    u64 target = at + length + (u64)(s64)displacement;
    ends = target < begin || target >= end || target == begin;
  } else if (b[i] == 0xFF && b[i + 1] == 0x25) {
    ends = true;  // jmp qword ptr [rip + disp32]
  } else if ((b[i] & 0xF8) == 0x48 && b[i + 1] == 0xFF && ((b[i + 2] >> 3) & 7) == 4) {
    ends = true;  // rex.w jmp r/m64
  }
  if (!ends) return kUnwindOk;

  UnwindContext work = *context;
  for (u32 p = 0; p < pop_count; p++) {
    if (!ReadU64(memory, rsp, &work.gpr[pops[p]])) return kUnwindUnreadable;
    rsp += 8;
  }
  if (!ReadU64(memory, rsp, &work.rip)) return kUnwindUnreadable;
  work.gpr[kUnwindRsp] = rsp + 8;
  *context = work;
  *found = true;
  return kUnwindOk;
}

// Version 2 lists the epilogues with kUnwindOpEpilogue codes: the first gives their size (and in bit 0
// of its information that one epilogue ends the function), the others their offset back from the end.
static bool InListedEpilogue(const UnwindInfo *info, u64 end, u64 address) {
  u32 size = 0;
  bool first = true;
  u32 count = info->header.code_count;
  for (u32 i = 0; i < count; i += CodeSlots(info->codes[i])) {
    UnwindCode code = info->codes[i];
    if (UnwindCodeOperation(code) >= kUnwindOpCount) return false;
    if (UnwindCodeOperation(code) != kUnwindOpEpilogue) continue;
    // The slot after an epilogue code may carry one more epilogue offset.
    for (u32 k = i; k < i + 2 && k < count; k++) {
      UnwindCode c = info->codes[k];
      if (UnwindCodeOperation(c) != kUnwindOpEpilogue) break;
      if (first) {
        first = false;
        size = c.prologue_offset;
        if ((UnwindCodeInfo(c) & 1) && address >= end - size && address < end) return true;
        continue;
      }
      u32 offset = c.prologue_offset | UnwindCodeInfo(c) << 8;
      if (offset && address >= end - offset && address < end - offset + size) return true;
    }
  }
  return false;
}

// [SECTION] Unwind codes

// Undoes the codes whose instruction has run (prologue offset <= offset; every code of chained
// information). frame_base: where the saves of non-volatile registers are counted from.
static UnwindResult ApplyCodes(const UnwindMemory *memory, const UnwindInfo *info, u32 offset, u64 frame_base,
                               UnwindContext *c, bool *machine_frame) {
  u32 count = info->header.code_count;
  for (u32 i = 0; i < count;) {
    UnwindCode code = info->codes[i];
    u32 op = UnwindCodeOperation(code), reg = UnwindCodeInfo(code);
    if (op >= kUnwindOpCount) return kUnwindUnknownOperation;
    u32 slots = CodeSlots(code);
    if (i + slots > count) return kUnwindUnknownOperation;  // an operand past the last code
    bool ran = code.prologue_offset <= offset;
    u64 value = 0;
    if (ran) switch (op) {
      case kUnwindOpPushNonvolatile:
        if (!ReadU64(memory, c->gpr[kUnwindRsp], &value)) return kUnwindUnreadable;
        c->gpr[kUnwindRsp] += 8;
        c->gpr[reg] = value;
        break;
      case kUnwindOpAllocLarge:
        c->gpr[kUnwindRsp] += reg == 0 ? (u64)SlotU16(info, i + 1) * 8 : (u64)SlotU32(info, i + 1);
        break;
      case kUnwindOpAllocSmall:
        c->gpr[kUnwindRsp] += (u64)reg * 8 + 8;
        break;
      case kUnwindOpSetFramePointer: {
        u32 frame_register = UnwindInfoFrameRegister(&info->header);
        if (frame_register == 0) return kUnwindUnknownOperation;
        c->gpr[kUnwindRsp] = c->gpr[frame_register] - UnwindInfoFrameOffset(&info->header);
        break;
      }
      case kUnwindOpSaveNonvolatile:
      case kUnwindOpSaveNonvolatileFar: {
        u64 at = frame_base + (op == kUnwindOpSaveNonvolatile ? (u64)SlotU16(info, i + 1) * 8 : SlotU32(info, i + 1));
        if (!ReadU64(memory, at, &c->gpr[reg])) return kUnwindUnreadable;
        break;
      }
      case kUnwindOpSaveXmm128:
      case kUnwindOpSaveXmm128Far: {
        u64 at = frame_base + (op == kUnwindOpSaveXmm128 ? (u64)SlotU16(info, i + 1) * 16 : SlotU32(info, i + 1));
        if (!ReadBytes(memory, at, c->xmm[reg], 16)) return kUnwindUnreadable;
        break;
      }
      case kUnwindOpPushMachineFrame: {
        u64 rsp = c->gpr[kUnwindRsp] + (reg ? 8 : 0);  // info 1: an error code lies above the frame
        u64 old_rsp = 0;
        if (!ReadU64(memory, rsp, &value) || !ReadU64(memory, rsp + 24, &old_rsp)) return kUnwindUnreadable;
        c->rip = value;
        c->gpr[kUnwindRsp] = old_rsp;
        *machine_frame = true;
        break;
      }
      default:  // epilogue descriptions and the spare code: nothing to undo
        break;
    }
    i += slots;
  }
  return kUnwindOk;
}

// [SECTION] One frame

UnwindResult UnwindLeaf(const UnwindMemory *memory, UnwindContext *context) {
  u64 return_address = 0;
  if (!ReadU64(memory, context->gpr[kUnwindRsp], &return_address)) return kUnwindUnreadable;
  context->rip = return_address;
  context->gpr[kUnwindRsp] += 8;
  return kUnwindOk;
}

UnwindResult UnwindFromContextRecord(const UnwindMemory *memory, u64 record, UnwindContext *context) {
  UnwindContext work = *context;
  if (!ReadBytes(memory, record + kContextRecordGeneralOffset, work.gpr, sizeof work.gpr) ||
      !ReadU64(memory, record + kContextRecordRipOffset, &work.rip) ||
      !ReadBytes(memory, record + kContextRecordXmmOffset, work.xmm, sizeof work.xmm))
    return kUnwindUnreadable;
  *context = work;
  return kUnwindOk;
}

UnwindResult VirtualUnwind(const UnwindMemory *memory, u64 image_base, const FunctionEntry *function,
                           UnwindContext *context) {
  FunctionEntry entry = *function;
  UnwindResult result = ResolveIndirectEntry(memory, image_base, &entry);
  if (result != kUnwindOk) return result;
  UnwindInfo info;
  result = ReadUnwindInfo(memory, image_base + entry.unwind_info, &info);
  if (result != kUnwindOk) return result;

  u64 begin = image_base + entry.begin, end = image_base + entry.end;
  u64 distance = context->rip >= begin ? context->rip - begin : 0;
  u32 offset = distance > 0xFFFFFFFFu ? 0xFFFFFFFFu : (u32)distance;
  u32 frame_register = UnwindInfoFrameRegister(&info.header);

  // An epilogue has undone part of the prologue already: finish it instead of applying the codes.
  if (offset >= info.header.prologue_size) {
    bool candidate = UnwindInfoVersion(&info.header) == 1 || InListedEpilogue(&info, end, context->rip);
    if (candidate) {
      bool found = false;
      result = EmulateEpilogue(memory, begin, end, frame_register, context, &found);
      if (result != kUnwindOk || found) return result;
    }
  }

  // The frame base: the stack pointer, or the frame register once the prologue has set it.
  u64 frame_base = context->gpr[kUnwindRsp];
  if (frame_register) {
    bool set = offset >= info.header.prologue_size || IsChained(&info);
    for (u32 i = 0; !set && i < info.header.code_count; i += CodeSlots(info.codes[i])) {
      if (UnwindCodeOperation(info.codes[i]) >= kUnwindOpCount) break;
      set = UnwindCodeOperation(info.codes[i]) == kUnwindOpSetFramePointer && info.codes[i].prologue_offset <= offset;
    }
    if (set) frame_base = context->gpr[frame_register] - UnwindInfoFrameOffset(&info.header);
  }

  UnwindContext work = *context;
  bool machine_frame = false;
  result = ApplyCodes(memory, &info, offset, frame_base, &work, &machine_frame);
  for (u32 depth = 0; result == kUnwindOk && IsChained(&info); depth++) {
    if (depth >= kUnwindMaxChainDepth) return kUnwindChainTooDeep;
    FunctionEntry parent = info.chained;
    result = ResolveIndirectEntry(memory, image_base, &parent);
    if (result != kUnwindOk) return result;
    result = ReadUnwindInfo(memory, image_base + parent.unwind_info, &info);
    if (result != kUnwindOk) return result;
    result = ApplyCodes(memory, &info, 0xFFFFFFFFu, frame_base, &work, &machine_frame);
  }
  if (result != kUnwindOk) return result;
  if (!machine_frame) {
    result = UnwindLeaf(memory, &work);
    if (result != kUnwindOk) return result;
  }
  *context = work;
  return kUnwindOk;
}
