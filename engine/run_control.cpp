// Run control on the debugger thread: what a step, a run to an address or a step out does at the
// resume that starts it, at every single step and at the temporary breakpoint that ends it.
//
// The step state and the one temporary breakpoint live in the Target; both are cleared at every
// visible stop, whatever stopped the target (a user breakpoint hit during a step-over stops there).
// Nothing here allocates: this is the debug-event path.
//
// [SECTION] Lines and code
// [SECTION] The temporary breakpoint
// [SECTION] Stops
// [SECTION] Line stepping
// [SECTION] Entry points of the event loop
#include <stddef.h>
#include <string.h>

#include "engine/engine_internal.h"
#include "engine/instruction_class.h"
#include "engine/unwind.h"
#include "symbols/pdb_raw.h"
#include "symbols/scope_lookup.h"

static const u8 kInt3 = 0xCC;

// [SECTION] Lines and code

// The line-table entry that covers address, and where its code starts; null without one.
static const PdbLineEntry *LineEntryAt(Target *target, u64 address, u64 *start) {
  TargetModule *m = TargetFindModule(target, address);
  if (!m || m->symbols.status != kSymbolsLoaded) return nullptr;
  u64 rva = address - m->symbols.load_base;
  u32 section = 0, offset = 0;
  if (rva > 0xFFFFFFFFull || !PeSectionOffsetOfRva(&m->symbols.image, (u32)rva, &section, &offset)) return nullptr;
  const PdbLineEntry *entry = PdbLineAtAddress(&m->symbols.pdb.lines, section, offset);
  if (!entry || entry->length == 0 || entry->line == 0) return nullptr;
  *start = address - (offset - entry->offset);
  return entry;
}

bool EngineLineRange(Target *target, u64 address, u64 *start, u64 *end) {
  const PdbLineEntry *entry = LineEntryAt(target, address, start);
  if (!entry) return false;
  *end = *start + entry->length;
  return true;
}

// Up to kMaxInstructionBytes of the program's own code at address: from the line's copy when it
// holds them, else read (as the program has it, without the engine's int3s). 0 when unreadable.
static u32 CodeAt(Target *target, u64 address, u8 *out) {
  StepState *s = &target->step;
  u64 copy_end = s->range_start + s->code_size;
  if (address >= s->range_start && address < copy_end && (copy_end - address >= kMaxInstructionBytes || copy_end >= s->range_end)) {
    u32 n = (u32)MinU64(kMaxInstructionBytes, copy_end - address);
    memcpy(out, s->code + (address - s->range_start), n);
    return n;
  }
  // Near the end of a page the rest may be unreadable: the bytes up to the page end then suffice.
  u32 n = kMaxInstructionBytes;
  if (!TargetReadProgramMemory(target, address, out, n)) {
    n = (u32)MinU64(n, 0x1000 - (address & 0xFFF));
    if (!TargetReadProgramMemory(target, address, out, n)) return 0;
  }
  const TemporaryBreakpoint *t = &target->temporary;
  if (t->armed && t->address >= address && t->address - address < n) out[t->address - address] = t->saved_byte;
  return n;
}

static DecodedClass DecodeAt(Target *target, u64 address) {
  u8 bytes[kMaxInstructionBytes];
  u32 n = CodeAt(target, address, bytes);
  return ClassifyInstruction(bytes, n);
}

// The code of the step's range, read once (and again only when the range grows past the copy).
static void TakeRange(Target *target, u64 start, u64 end) {
  StepState *s = &target->step;
  bool copied = s->code_size && start >= s->range_start && end <= s->range_start + s->code_size;
  if (copied) {
    // The copy stays where it was read: only the range moves inside it.
    u64 copy_start = s->range_start;
    if (start != copy_start) {
      memmove(s->code, s->code + (start - copy_start), s->code_size - (u32)(start - copy_start));
      s->code_size -= (u32)(start - copy_start);
    }
    s->range_start = start;
    s->range_end = end;
    return;
  }
  s->range_start = start;
  s->range_end = end;
  u64 line_bytes = s->range_end - s->range_start;
  u32 size = (u32)MinU64(line_bytes + kMaxInstructionBytes, kStepCodeCapacity);
  if (!TargetReadProgramMemory(target, s->range_start, s->code, size)) {
    size = (u32)MinU64(line_bytes, kStepCodeCapacity);
    if (!TargetReadProgramMemory(target, s->range_start, s->code, size)) size = 0;
  }
  s->code_size = size;
}

// The line of the step: its range and its code.
static void TakeLine(Target *target, u64 p) {
  StepState *s = &target->step;
  u64 start = 0;
  const PdbLineEntry *entry = LineEntryAt(target, p, &start);
  s->line_file = entry ? entry->file : nullptr;
  s->line = entry ? entry->line : 0;
  s->code_size = 0;
  // No line: the step is one instruction (calls stepped over as in a line).
  if (entry)
    TakeRange(target, start, start + entry->length);
  else
    TakeRange(target, p, p + 1);
}

static void SetTrap(TargetThread *thread, CONTEXT *context) {
  if (context->EFlags & kTrapFlag) return;
  context->EFlags |= kTrapFlag;
  ThreadContextMarkDirty(thread, kContextControl);
}

static void ClearStep(Target *target) { memset(&target->step, 0, offsetof(StepState, code)); }

// [SECTION] The temporary breakpoint

// False when the int3 cannot be written, or a byte 0xCC is there already (a user breakpoint, or the
// program's own int3, will stop the target instead).
static bool PlaceTemporary(Target *target, u64 address, u64 sp, bool sp_bound) {
  TemporaryBreakpoint *t = &target->temporary;
  if (t->armed && t->address == address) {
    t->bound_sp = sp;
    t->sp_bound = sp_bound;
    return true;
  }
  EngineDropTemporary(target);
  u8 byte = 0;
  if (!TargetReadMemory(target, address, &byte, 1) || byte == kInt3) return false;
  if (!TargetWriteMemory(target, address, &kInt3, 1)) return false;
  t->address = address;
  t->bound_sp = sp;
  t->sp_bound = sp_bound ? 1 : 0;
  t->saved_byte = byte;
  t->armed = 1;
  return true;
}

// The program's byte back over the int3, which stays recorded (re-inserted after one instruction).
static void LiftTemporary(Target *target) {
  TemporaryBreakpoint *t = &target->temporary;
  if (t->armed && TargetWriteMemory(target, t->address, &t->saved_byte, 1)) t->armed = 0;
}

void EngineDropTemporary(Target *target) {
  LiftTemporary(target);
  memset(&target->temporary, 0, sizeof target->temporary);
  target->step.reinsert_temporary = 0;
}

// [SECTION] Stops

static u32 StepStop(Target *target, TargetThread *thread, u32 reason, u64 at) {
  ClearStep(target);
  EngineDropTemporary(target);
  if (target->ending) return kOutcomeContinue;
  target->user_break_requested = 0;  // this stop answers a break the user waits for
  target->current_thread = thread;
  EngineEvent event;
  EngineMakeStopped(target, thread, reason, at, 0, &event);
  EngineHoldStopEvent(target, &event);
  return kOutcomeStop;
}

static u32 CompletionReason(const StepState *s) {
  if (s->out_of_function) return kStopStepOut;
  return s->mode == kStepOver ? kStopStepOver : kStopStepInto;
}

// [SECTION] Line stepping

// A line may have several entries in the line table (a loop's test and its increment): code that
// leaves one entry for another of the same line in the same frame is still the line being stepped.
// Entries that touch the range join it, so that a loop on one line is read once.
static bool StillTheLine(Target *target, const CONTEXT *context, u64 p) {
  StepState *s = &target->step;
  if (!s->line_file || s->out_of_function || context->Rsp != s->start_sp) return false;
  u64 start = 0;
  const PdbLineEntry *entry = LineEntryAt(target, p, &start);
  if (!entry || entry->line != s->line || entry->file != s->line_file) return false;
  u64 end = start + entry->length;
  if (start <= s->range_end && end >= s->range_start)
    TakeRange(target, MinU64(start, s->range_start), end > s->range_end ? end : s->range_end);
  else
    TakeLine(target, p);
  return true;
}

// The step-over and step-into logic at p, the thread's next instruction: the step completes when p
// has left the line; inside it, a call (step over) or a repeated string instruction (both) runs to
// a temporary breakpoint behind it, anything else is single-stepped.
static u32 LineStepAt(Target *target, TargetThread *thread, CONTEXT *context, u64 p, bool beginning) {
  StepState *s = &target->step;
  // A recursive function returns into itself: the step out ends at the frame's return, wherever.
  if (s->returning) return StepStop(target, thread, kStopStepOut, p);
  if (!beginning && (p < s->range_start || p >= s->range_end)) {
    if (!StillTheLine(target, context, p)) return StepStop(target, thread, CompletionReason(s), p);
  }
  DecodedClass decoded = DecodeAt(target, p);
  if (decoded.kind == kInstructionUndecodable) {
    if (!beginning) return StepStop(target, thread, CompletionReason(s), p);
    SetTrap(thread, context);  // the first instruction runs whatever it is: it will fault or trap
    return kOutcomeContinue;
  }
  bool run_over = decoded.kind == kInstructionRepString || (s->mode == kStepOver && decoded.kind == kInstructionCall);
  if (run_over) {
    // Step over binds the breakpoint to the stack pointer: a recursive call that reaches the same
    // return address deeper in the stack runs on.
    if (PlaceTemporary(target, p + decoded.length, context->Rsp, s->mode == kStepOver))
      s->over_call = 1;
    else
      ClearStep(target);  // the run goes on to whatever stops it
    return kOutcomeContinue;
  }
  if (decoded.kind == kInstructionCall) s->entered_call = 1;
  if (decoded.kind == kInstructionReturn && s->out_of_function) s->returning = 1;
  SetTrap(thread, context);
  return kOutcomeContinue;
}

// Step into, at the first instruction of a callee: an import thunk's jump is stepped through; code
// without a line (a system or runtime function) runs to its return; anything else ends the step.
static u32 CalleeEntry(Target *target, TargetThread *thread, CONTEXT *context, u64 p) {
  StepState *s = &target->step;
  DecodedClass decoded = DecodeAt(target, p);
  if (decoded.kind == kInstructionUncondBranch) {
    SetTrap(thread, context);
    return kOutcomeContinue;
  }
  u64 start = 0, end = 0, return_address = 0;
  if (decoded.kind == kInstructionUndecodable || EngineLineRange(target, p, &start, &end) ||
      !TargetReadMemory(target, context->Rsp, &return_address, 8) || !return_address)
    return StepStop(target, thread, kStopStepInto, p);
  s->entered_call = 0;
  if (!PlaceTemporary(target, return_address, context->Rsp + 8, true)) return StepStop(target, thread, kStopStepInto, p);
  s->over_call = 1;
  return kOutcomeContinue;
}

// [SECTION] Entry points of the event loop

// Step out: one frame unwound over the function table gives the return address and the caller's
// stack pointer, to which the temporary breakpoint there is bound (a recursive call returning to
// the same address deeper in the stack runs on); a function without unwind data (a leaf) has its
// return address at the stack pointer, and no stack pointer is bound. A return address that holds
// an int3 already (a user breakpoint) makes this a plain run that the breakpoint ends.
// When the unwind fails, the rest of a function the symbols bound is stepped over (calls, recursive
// ones included, run under the stack-bound temporary breakpoint) until its return has run or the
// instruction pointer leaves it (a tail jump).
static void BeginStepOut(Target *target, TargetThread *thread, CONTEXT *context) {
  StepState *s = &target->step;
  u64 p = context->Rip;
  TargetModule *module = TargetFindModule(target, p);
  FunctionEntry entry;
  bool has_entry = module && FindFunctionEntry(target, module, p, &entry);
  UnwindContext frame;
  UnwindContextFromThread(context, &frame);
  if (UnwindOneFrameIn(target, module, &frame) == kUnwindOk && frame.rip) {
    if (PlaceTemporary(target, frame.rip, frame.gpr[kUnwindRsp], has_entry)) s->mode = kStepOut;
    return;
  }
  EngineRefreshIpFunction(target, thread);
  if (thread->ip_function_start <= p && p < thread->ip_function_end) {
    s->mode = kStepOver;
    s->out_of_function = 1;
    s->range_start = thread->ip_function_start;
    s->range_end = thread->ip_function_end;
    (void)LineStepAt(target, thread, context, p, true);
    return;
  }
  u64 return_address = 0;
  if (!TargetReadMemory(target, context->Rsp, &return_address, 8) || !return_address) return;
  // A return address that holds an int3 already (a user breakpoint) makes this a plain run.
  if (PlaceTemporary(target, return_address, 0, false)) s->mode = kStepOut;
}

void EngineRunControlBegin(Target *target) {
  u8 request = target->run_request;
  target->run_request = kRunPlain;
  ClearStep(target);
  if (request == kRunPlain) return;
  if (request == kRunToAddress) {
    if (target->run_to_address) (void)PlaceTemporary(target, target->run_to_address, 0, false);
    return;
  }
  TargetThread *thread = target->current_thread;
  CONTEXT *context = thread ? ThreadContextGet(thread) : nullptr;
  if (!context) return;
  StepState *s = &target->step;
  s->thread_id = thread->id;
  if (request == kRunStepOut) {
    BeginStepOut(target, thread, context);
    return;
  }
  if (request == kRunStepInstruction) {
    s->mode = kStepInstruction;
    SetTrap(thread, context);
    return;
  }
  if (request == kRunStepOverInstruction) {
    // A call or a repeated string instruction runs to its end under the temporary breakpoint behind
    // it, bound to the stack pointer (a recursion reaching it deeper runs on); anything else is one
    // single step.
    s->mode = kStepOverInstruction;
    DecodedClass decoded = DecodeAt(target, context->Rip);
    bool run_over = decoded.kind == kInstructionCall || decoded.kind == kInstructionRepString;
    if (run_over && PlaceTemporary(target, context->Rip + decoded.length, context->Rsp, true)) {
      s->over_call = 1;
      return;
    }
    SetTrap(thread, context);
    return;
  }
  s->mode = request == kRunStepOver ? kStepOver : kStepInto;
  s->start_sp = context->Rsp;
  TakeLine(target, context->Rip);
  (void)LineStepAt(target, thread, context, context->Rip, true);
}

u32 EngineRunControlSingleStep(Target *target, TargetThread *thread, bool *claimed) {
  *claimed = false;
  StepState *s = &target->step;
  if (s->reinsert_temporary) {
    // One instruction of a deeper frame ran past the lifted int3: it goes back, the run goes on.
    s->reinsert_temporary = 0;
    TemporaryBreakpoint *t = &target->temporary;
    if (t->address && !t->armed && TargetWriteMemory(target, t->address, &kInt3, 1)) t->armed = 1;
    *claimed = true;
    return kOutcomeContinue;
  }
  if (!thread || s->mode == kStepNone || s->mode == kStepOut || thread->id != s->thread_id) return kOutcomeContinue;
  *claimed = true;
  if (s->over_call) return kOutcomeContinue;  // the temporary breakpoint ends the call
  CONTEXT *context = ThreadContextGet(thread);
  if (!context) return StepStop(target, thread, kStopStepInto, 0);
  u64 p = context->Rip;
  if (s->mode == kStepInstruction) return StepStop(target, thread, kStopStepInto, p);
  if (s->mode == kStepOverInstruction) return StepStop(target, thread, kStopStepOver, p);
  if (s->entered_call) return CalleeEntry(target, thread, context, p);
  return LineStepAt(target, thread, context, p, false);
}

bool EngineRunControlBreakpoint(Target *target, TargetThread *thread, u64 at, u32 *outcome) {
  TemporaryBreakpoint *t = &target->temporary;
  if (!t->armed || t->address != at) return false;
  *outcome = kOutcomeContinue;
  CONTEXT *context = ThreadContextGet(thread);
  if (!context) return true;
  if (context->Rip == at + 1) {
    context->Rip = at;
    ThreadContextMarkDirty(thread, kContextControl);
  }
  StepState *s = &target->step;
  bool stepping_thread = s->mode != kStepNone && thread->id == s->thread_id;
  bool frame_matches = !t->sp_bound || context->Rsp == t->bound_sp;
  if (s->mode == kStepNone) {  // run to cursor or to the entry point: any thread ends it
    EngineDropTemporary(target);
    *outcome = StepStop(target, thread, kStopTemporaryBreakpoint, at);
    return true;
  }
  if (stepping_thread && frame_matches) {
    if (s->mode == kStepOut || s->mode == kStepOverInstruction) {
      *outcome = StepStop(target, thread, s->mode == kStepOut ? kStopStepOut : kStopStepOver, at);
      return true;
    }
    EngineDropTemporary(target);
    s->over_call = 0;
    s->entered_call = 0;
    *outcome = LineStepAt(target, thread, context, at, false);
    return true;
  }
  // Another thread, or the same code reached deeper in the stack (recursion): that thread runs the
  // program's instruction once and the int3 goes back behind it.
  LiftTemporary(target);
  s->reinsert_temporary = 1;
  SetTrap(thread, context);
  return true;
}

void EngineRunControlClear(Target *target) {
  ClearStep(target);
  EngineDropTemporary(target);
}
