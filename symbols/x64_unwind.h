// Virtual unwinding of one x64 frame over a program's own function table and unwind codes, the way
// the documented x64 unwinding procedure undoes a prologue or finishes an epilogue. Portable: every
// byte of the target (unwind information, instruction bytes, stack) comes through a read callback,
// so the debugger reads the live target through its memory cache and the tests read crafted bytes.
#pragma once
#include "symbols/x64_unwind_raw.h"

// The registers that unwinding reads and restores. gpr is indexed by UnwindRegister.
typedef struct UnwindContext {
  u64 gpr[kUnwindRegisterCount];
  u64 rip;
  u8 xmm[16][16];  // XMM0-15, low 128 bits; only the saved non-volatile ones change
} UnwindContext;

// true only when all size bytes at address were read.
typedef bool (*UnwindReadFn)(void *context, u64 address, void *buffer, u32 size);
typedef struct UnwindMemory {
  UnwindReadFn read;
  void *context;
} UnwindMemory;

// Result codes as the system's own unwinder reports them.
enum [[nodiscard]] UnwindResult : u32 {
  kUnwindOk = 0,
  kUnwindUnreadable = 0x8007001E,        // unwind information, code bytes or a stack slot unreadable
  kUnwindChainTooDeep = 0x80004005,      // chained unwind information deeper than 32
  kUnwindUnknownOperation = 0x8000FFFF,  // an operation code above 10, or codes that run past the count
};

// The entry of a function table (sorted by begin, as images keep it) that holds a return address:
// begin <= rva <= end. The end is compared inclusively: an address one past a function's code is
// still taken as that function's (a call as its last instruction returns there). False when none
// holds it.
bool FunctionEntrySearch(const FunctionEntry *table, u32 count, u32 rva, FunctionEntry *out);
// The entry in the table itself; null when none holds rva. An instruction's own address (not
// return_address) is compared with the end exclusively: the first byte after a function is the
// next function's, which may be a leaf without an entry of its own.
const FunctionEntry *FunctionEntryAt(const FunctionEntry *table, u32 count, u32 rva, bool return_address);

// Unwinds the frame of the function that entry describes (image_base + its rvas), context->rip being
// inside it: on success the context holds the caller's registers, its rip the return address.
// On failure the context is left as it was.
UnwindResult VirtualUnwind(const UnwindMemory *memory, u64 image_base, const FunctionEntry *entry,
                           UnwindContext *context);
// The frame of the system's exception dispatcher, which runs on a CONTEXT record of the code that
// raised (at its stack pointer): the caller's registers are the record's, all of them.
UnwindResult UnwindFromContextRecord(const UnwindMemory *memory, u64 record, UnwindContext *context);
// A function without unwind data (a leaf): its return address is at rsp.
UnwindResult UnwindLeaf(const UnwindMemory *memory, UnwindContext *context);
