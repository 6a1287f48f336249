// The published x64 unwind data layout: the function-table entry of an image's exception directory,
// the UNWIND_INFO header, the unwind codes, their operations and how many slots each one takes.
// The one place these facts live; the interpreter in x64_unwind.cpp reads through them.
// (Microsoft's "x64 exception handling" documentation: struct RUNTIME_FUNCTION, UNWIND_INFO,
// UNWIND_CODE, "Unwind operation code".)
#pragma once
#include "base/types.h"
#include "symbols/pe_image.h"

// One entry of the exception directory: three rvas from the image base. end is one past the last
// byte of the function's code.
typedef struct FunctionEntry {
  u32 begin;
  u32 end;
  u32 unwind_info;
} FunctionEntry;
static_assert(sizeof(FunctionEntry) == kPeExceptionEntryBytes, "exception directory entry");

// The 4-byte header at unwind_info.
typedef struct UnwindInfoHeader {
  u8 version_and_flags;  // version in bits 0-2, flags in bits 3-7
  u8 prologue_size;
  u8 code_count;         // 2-byte unwind codes that follow the header
  u8 frame;              // frame register in bits 0-3, its scaled offset (x 16) in bits 4-7
} UnwindInfoHeader;
static_assert(sizeof(UnwindInfoHeader) == 4, "unwind info header");

static inline u32 UnwindInfoVersion(const UnwindInfoHeader *h) { return h->version_and_flags & 7u; }
static inline u32 UnwindInfoFlags(const UnwindInfoHeader *h) { return h->version_and_flags >> 3; }
static inline u32 UnwindInfoFrameRegister(const UnwindInfoHeader *h) { return h->frame & 15u; }
static inline u32 UnwindInfoFrameOffset(const UnwindInfoHeader *h) { return (u32)(h->frame >> 4) * 16u; }

enum : u32 {
  kUnwindFlagExceptionHandler = 1,
  kUnwindFlagTerminationHandler = 2,
  kUnwindFlagChained = 4,  // a FunctionEntry follows the codes (their count rounded up to even)
  kUnwindMaxChainDepth = 32,
  kUnwindMaxCodes = 255,
};

// One 2-byte unwind code. The slots that follow some operations hold a 16-bit or 32-bit operand.
typedef struct UnwindCode {
  u8 prologue_offset;   // offset of the end of the prologue instruction; for kUnwindOpEpilogue
                        // the epilogue's size or its offset from the function's end (low bits)
  u8 operation_and_info;  // operation in bits 0-3, operation information in bits 4-7
} UnwindCode;
static_assert(sizeof(UnwindCode) == 2, "unwind code");

static inline u32 UnwindCodeOperation(UnwindCode c) { return c.operation_and_info & 15u; }
static inline u32 UnwindCodeInfo(UnwindCode c) { return c.operation_and_info >> 4; }

enum UnwindOperation : u32 {
  kUnwindOpPushNonvolatile = 0,     // info: register; rsp += 8
  kUnwindOpAllocLarge = 1,          // info 0: size / 8 in the next slot; info 1: 32-bit size in two
  kUnwindOpAllocSmall = 2,          // info * 8 + 8 bytes
  kUnwindOpSetFramePointer = 3,     // rsp = frame register - frame offset
  kUnwindOpSaveNonvolatile = 4,     // info: register, at frame + slot * 8
  kUnwindOpSaveNonvolatileFar = 5,  // info: register, at frame + 32-bit offset
  kUnwindOpEpilogue = 6,            // version 2: an epilogue's place (version 1: an old XMM save)
  kUnwindOpSpare = 7,
  kUnwindOpSaveXmm128 = 8,          // info: XMM register, at frame + slot * 16
  kUnwindOpSaveXmm128Far = 9,       // info: XMM register, at frame + 32-bit offset
  kUnwindOpPushMachineFrame = 10,   // info 1: an error code was pushed first
  kUnwindOpCount = 11,
};

// Extra slots each operation takes after its own (kUnwindOpAllocLarge with info != 0 takes one more).
static const u8 kUnwindOpExtraSlots[kUnwindOpCount] = {0, 1, 0, 0, 1, 2, 1, 2, 1, 2, 0};

// Register numbers as the unwind codes and the header's frame register give them.
enum UnwindRegister : u32 {
  kUnwindRax = 0, kUnwindRcx, kUnwindRdx, kUnwindRbx, kUnwindRsp, kUnwindRbp, kUnwindRsi, kUnwindRdi,
  kUnwindR8, kUnwindR9, kUnwindR10, kUnwindR11, kUnwindR12, kUnwindR13, kUnwindR14, kUnwindR15,
  kUnwindRegisterCount = 16,
};

// The x64 CONTEXT record (winnt.h) where the exception dispatcher's frame keeps the registers of the
// code that raised: the sixteen general registers in UnwindRegister order, then rip; XMM0-15.
enum : u32 {
  kContextRecordGeneralOffset = 0x78,  // Rax ... R15, 8 bytes each
  kContextRecordRipOffset = 0xF8,
  kContextRecordXmmOffset = 0x1A0,     // in the legacy save area at 0x100
};

// Bytes of an unwind information block at most: header, 256 code slots, a chained entry.
enum : u32 { kUnwindInfoMaxBytes = 4 + 256 * 2 + kPeExceptionEntryBytes };
