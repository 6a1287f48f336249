// The call stack of a stopped thread: its frames, innermost first, found by unwinding its registers
// over the target's memory (engine/unwind.h), each with the registers the evaluator needs and the
// symbols of its address; code inlined at an address adds a frame for each inlined function. With the collapsing switch on, a thread that has seen a stack overflow
// shows each long run of repeated frames as its first frame and one marker row.
//
// Frame lists live in one pool reserved for all threads (a thread's part is committed as its stack
// needs it); the collapse table is one 4 MiB block of the Target, taken at the first collapsing build.
// Builds run on the debugger thread, or on the user-interface thread under the model lock while the
// engine waits for commands: never two at once.
#pragma once
#include "engine/target.h"
#include "symbols/scope_lookup.h"

enum : u32 {
  kMaxStackFrames = 1023,          // a list is cut here; the entry after the last is zeroed
  kStackFrameBytes = 128,
  kFramePoolThreadBytes = (kMaxStackFrames + 1) * kStackFrameBytes,
  kCollapseTableSlots = 0x20000,   // distinct return addresses counted in collapsing mode
  kCollapseRepeatCount = 32,       // an address seen this often belongs to a repeated run
};

typedef struct StackFrame {
  u64 ip;  // the thread's instruction pointer in frame 0, a return address above it
  // The frame's registers after unwinding to it: the stack pointer and the non-volatile registers
  // that locals and parameters may live in (the volatile ones are not known above frame 0).
  u64 rsp, rbp, rbx, rsi, rdi, r12, r13, r14, r15;
  TargetModule *module;             // null only in a marker row
  const PdbProcScope *procedure;    // null: no symbols know the address
  // The frame of a function inlined at the address: its inline site (the frames of the sites come
  // before the frame of the procedure they lie in, innermost first, with the same registers). Null
  // for the procedure's own frame.
  const PdbInlineScope *inline_site;
  const u8 *file;                   // the line's file checksum record in the module's PDB, or null
  u32 line;                         // 0 when unknown (an inlined function's own line in its frame)
  u32 collapsed_count;              // marker row: the frames it stands for
  u8 collapsed;                     // 1: a marker row ("Collapsed %d frames (possible stack-overflow)")
  u8 return_address;                // 1: ip follows a call (its line is the call's)
  u8 padding[6];
} StackFrame;
static_assert(sizeof(StackFrame) == kStackFrameBytes, "one frame record");

// Builds the thread's frame list from its registers of this stop (thread->frames, frame_count);
// selects frame 0. kEngineSystemCallFailed when its registers or the pool cannot be had (the list
// is then empty).
[[nodiscard]] EngineResult CallStackBuild(Target *target, TargetThread *thread);
// The thread's frames at this stop, built now when they were not; 0 frames when none can be.
u32 CallStackOfThread(Target *target, TargetThread *thread, const StackFrame **out_frames);
// Every thread's list is out of date (registers written, the collapsing switch changed).
void CallStackForgetAll(Target *target);
// Gives back a thread's part of the pool (its record goes back to the free list).
void CallStackReleaseThread(Target *target, TargetThread *thread);
// Gives back the pool and the collapse table (target release).
void CallStackRelease(Target *target);
// A frame's function name: the procedure's, or the inlined function's (written into scratch).
const char *StackFrameFunctionName(const StackFrame *frame, char *scratch, u32 capacity);
