// Processor breakpoints: the four debug registers DR0-DR3 with DR7 in every thread of the target,
// threads created later included. Slots are filled by the user interface and armed or disarmed by
// the engine from the request ring (debug registers are written only with the thread stopped, and
// only by the debugger thread); a hit comes as a single step with DR6 naming the slot.
#include <string.h>

#include "engine/engine.h"
#include "engine/breakpoint_condition.h"
#include "engine/engine_internal.h"

enum : u32 {
  kDr6SlotBits = 0xF,
  kDr7ReadWriteShift = 16,  // + 4i: 1 write, 3 read/write, 0 execute
  kDr7LengthShift = 18,     // + 4i: 0 one byte, 1 two, 3 four, 2 eight
};

static u64 Dr7Fields(const ProcessorSlot *slot, u32 i) {
  u64 read_write = slot->access == kAccessWrite ? 1 : slot->access == kAccessReadWrite ? 3 : 0;
  u64 length = slot->size == 2 ? 1 : slot->size == 4 ? 3 : slot->size == 8 ? 2 : 0;
  return (read_write << (kDr7ReadWriteShift + 4 * i)) | (length << (kDr7LengthShift + 4 * i)) | (1ull << (2 * i));
}

static DWORD64 *DebugRegister(CONTEXT *context, u32 i) {
  DWORD64 *registers[kProcessorSlotCount] = {&context->Dr0, &context->Dr1, &context->Dr2, &context->Dr3};
  return registers[i];
}

// The slot in one thread: the register holds the address aligned down to the size, and the new DR7
// fields are OR-ed over what the thread has: a thread that had the slot armed before with another
// access or size keeps the union of both (the behaviour is kept on purpose).
static void ArmInThread(TargetThread *thread, const ProcessorSlot *slot, u32 i) {
  CONTEXT *context = ThreadContextGet(thread);
  if (!context) return;
  u64 size = slot->size ? slot->size : 1;
  *DebugRegister(context, i) = slot->address & ~(size - 1);
  context->Dr6 = 0;
  context->Dr7 |= Dr7Fields(slot, i);
  ThreadContextMarkDirty(thread, kContextDirty);
}

// Only the slot's local-enable bit goes; its access and length fields stay as they were.
static void DisarmInThread(TargetThread *thread, u32 i) {
  CONTEXT *context = ThreadContextGet(thread);
  if (!context) return;
  context->Dr6 = 0;
  context->Dr7 &= ~(1ull << (2 * i));
  ThreadContextMarkDirty(thread, kContextDirty);
}

void EngineServeProcessorRequest(Target *target, const EngineRequest *request) {
  u32 i = request->slot;
  if (i >= kProcessorSlotCount) return;
  ProcessorSlot *slot = &target->processor_slots[i];
  if (request->kind == kRequestArmSlot) {
    if (!slot->address) return;
    for (TargetThread *t = target->threads; t; t = t->next) ArmInThread(t, slot, i);
    slot->armed = 1;
    target->processor_slots_used = 1;
  } else if (request->kind == kRequestDisarmSlot) {
    // The slot was freed when its breakpoint was removed and may already be another's: only the
    // registers go (an arm request for the new one follows on the ring).
    for (TargetThread *t = target->threads; t; t = t->next) DisarmInThread(t, i);
    slot->armed = 0;
  }
}

void EngineArmSlotsInNewThread(Target *target, TargetThread *thread) {
  for (u32 i = 0; i < kProcessorSlotCount; i++)
    if (target->processor_slots[i].armed && target->processor_slots[i].address)
      ArmInThread(thread, &target->processor_slots[i], i);
}

void EngineDisarmAllSlots(Target *target) {
  for (u32 i = 0; i < kProcessorSlotCount; i++) {
    if (!target->processor_slots[i].armed) continue;
    for (TargetThread *t = target->threads; t; t = t->next) DisarmInThread(t, i);
    target->processor_slots[i].armed = 0;
  }
}

u32 EngineProcessorHit(Target *target, TargetThread *thread, bool *claimed) {
  *claimed = false;
  // No debug register of the engine's has been set in this run: DR6 can name none of its slots, and
  // a single step (over a breakpoint, say) needs no register read for it.
  if (!thread || !target->processor_slots_used) return kOutcomeContinue;
  CONTEXT *context = ThreadContextGet(thread);
  if (!context || !(context->Dr6 & kDr6SlotBits)) return kOutcomeContinue;
  *claimed = true;
  u32 i = 0;
  while (i < kProcessorSlotCount &&
         !((context->Dr6 >> i) & 1 && target->processor_slots[i].armed && target->processor_slots[i].address))
    i++;
  context->Dr6 = 0;
  ThreadContextMarkDirty(thread, kContextDirty);
  if (i == kProcessorSlotCount) return kOutcomeContinue;  // a slot no longer in use
  // An execute breakpoint would fire again on the same instruction without the resume flag.
  context->EFlags |= kResumeFlag;
  ProcessorSlot *slot = &target->processor_slots[i];
  BreakpointLocation *owner = slot->owner;
  if (target->ending) return kOutcomeContinue;
  ConditionVerdict verdict = owner ? BreakpointConditionCheck(target, thread, owner) : kConditionTrue;
  if (verdict == kConditionFalse) return kOutcomeContinue;
  target->user_break_requested = 0;
  target->current_thread = thread;
  EngineEvent event;
  memset(&event, 0, sizeof event);
  if (owner) {
    event.kind = kEventBreakpointHit;
    event.breakpoint.location_record = owner;
    event.breakpoint.address = context->Rip;
    event.breakpoint.thread_id = thread->id;
    EngineLocate(target, context->Rip, &event.breakpoint.location);
    if (verdict == kConditionFailed) event.breakpoint.condition_error = BreakpointConditionErrorText(target, owner);
  } else {
    event.kind = kEventProcessorBreakpointHit;
    event.processor_breakpoint.slot = i;
    event.processor_breakpoint.address = context->Rip;
    EngineLocate(target, context->Rip, &event.processor_breakpoint.location);
  }
  EngineHoldStopEvent(target, &event);
  return kOutcomeStop;
}

// [SECTION] Operations of the user interface

void EngineReleaseProcessorSlot(Target *target, u32 slot) {
  if (slot >= kProcessorSlotCount) return;
  target->processor_slots[slot].owner = nullptr;
  target->processor_slots[slot].address = 0;  // free for the next breakpoint
  EngineRequest request = {};
  request.kind = kRequestDisarmSlot;
  request.slot = (u8)slot;
  // Served at the engine's next command wait, or at the break-in a running target gets for it.
  (void)EngineQueueRequest(target, &request);
}

EngineResult EngineAddDataBreakpoint(Target *target, u64 address, u32 size, u32 access, BreakpointLocation **out) {
  if (out) *out = nullptr;
  if (!target || !out || !target->breakpoint_pool || target->engine_state == kEngineStateNone) return kEngineNoTarget;
  if (target->exited || target->detached) return kEngineNoProcess;
  if (!address || (size != 1 && size != 2 && size != 4 && size != 8) || access > kAccessExecute) return kEngineNoTarget;
  EngineResult state = EngineLockStopped(target);
  if (state != kEngineOk && state != kEngineNotSuspended) return state;
  bool stopped = state == kEngineOk;
  // A slot is free once its breakpoint was removed (its address is cleared then).
  u32 i = 0;
  while (i < kProcessorSlotCount && target->processor_slots[i].address) i++;
  BreakpointLocation *bp = i < kProcessorSlotCount ? EngineTakeBreakpoint(target) : nullptr;
  if (!bp) {
    if (stopped) EngineUnlockModel(target);
    return kEngineSystemCallFailed;
  }
  bp->kind = kBreakpointProcessor;
  bp->requested_address = address;
  bp->address = address;
  bp->size = size;
  bp->access = access;
  bp->slot = (u8)i;
  bp->pending = 0;
  ProcessorSlot *slot = &target->processor_slots[i];
  slot->size = size;
  slot->access = access;
  slot->owner = bp;
  slot->address = address;  // the slot is taken from here on
  EngineRequest request = {};
  request.slot = (u8)i;
  if (stopped) {
    EngineLocate(target, address, &bp->location);
    EngineLinkBreakpoint(target, bp);
    EngineUnlockModel(target);
    request.kind = kRequestArmSlot;  // carried out at the engine's next command wait
  } else {
    request.kind = kRequestAddBreakpoint;  // linked and armed at the break-in
    request.argument = (u64)(uintptr_t)bp;
  }
  EngineResult queued = EngineQueueRequest(target, &request);
  if (queued == kEngineOk) *out = bp;
  return queued;
}
