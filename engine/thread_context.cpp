// Thread registers: two buffers per thread, the current stop's and the previous stop's. The current
// one is read from the system at most once per generation (every ContinueDebugEvent ends one) and
// written back only when the engine or the user changed it.
#include <string.h>

#include "engine/target.h"

// The extended features asked for: x87, SSE, AVX, the AVX-512 opmask registers, the upper halves
// of ZMM0-15 and ZMM16-31 whole.
static const DWORD64 kXStateFeatureMask = 0xE7;
static const DWORD kFeatureIds[kFeatureCount] = {1, 2, 5, 6, 7};  // in ContextFeature order

static void LocateFeatures(Target *target, ThreadContextSlot *slot) {
  for (u32 f = 0; f < kFeatureCount; f++) {
    slot->features[f] = nullptr;
    slot->feature_bytes[f] = 0;
    if (!target->locate_xstate_feature || slot->context->ContextFlags != kFullContextFlags) continue;
    DWORD length = 0;
    void *at = target->locate_xstate_feature(slot->context, kFeatureIds[f], &length);
    if (at && length) {
      slot->features[f] = (u8 *)at;
      slot->feature_bytes[f] = length;
    }
  }
}

CONTEXT *ThreadContextGet(TargetThread *thread) {
  Target *target = thread->target;
  ThreadContextSlot *slot = &thread->slots[thread->context_index];
  if (slot->generation == target->generation) return slot->context;
  CONTEXT *context = slot->context;
  context->ContextFlags = target->context_flags;
  if (target->context_flags == kFullContextFlags && target->set_xstate_features_mask)
    target->set_xstate_features_mask(context, kXStateFeatureMask);
  if (!GetThreadContext(thread->handle, context)) {
    // Some systems refuse the extended state for some threads: the plain registers will do.
    context->ContextFlags = kPlainContextFlags;
    if (!GetThreadContext(thread->handle, context)) return nullptr;
  }
  LocateFeatures(target, slot);
  slot->generation = target->generation;
  slot->dirty = kContextClean;
  slot->ip_as_read = context->Rip;
  // A thread stopped at the program's own int3 is shown at the int3; the system has it one past.
  if (thread->int3_at_stop && context->Rip == thread->int3_at_stop + 1) {
    context->Rip = thread->int3_at_stop;
    slot->dirty = kContextIpOnly;
  }
  return context;
}

ThreadContextSlot *ThreadContextIfRead(TargetThread *thread) {
  ThreadContextSlot *slot = &thread->slots[thread->context_index];
  return slot->generation == thread->target->generation ? slot : nullptr;
}

void ThreadContextMarkDirty(TargetThread *thread, u8 how) {
  ThreadContextSlot *slot = &thread->slots[thread->context_index];
  if (how > slot->dirty) slot->dirty = how;
}

EngineResult ThreadContextFlush(TargetThread *thread) {
  ThreadContextSlot *slot = ThreadContextIfRead(thread);
  if (!slot || slot->dirty == kContextClean) return kEngineOk;
  // Only the instruction pointer moved, and it is back where the system has it: nothing to write.
  bool unchanged = slot->dirty == kContextIpOnly && slot->context->Rip == slot->ip_as_read;
  u8 dirty = slot->dirty;
  slot->dirty = kContextClean;
  if (unchanged) return kEngineOk;
  slot->ip_as_read = slot->context->Rip;
  // A moved instruction pointer or a step's trap flag changes the control registers alone: writing
  // only them spares the system the rest (under Wine, the extended state).
  CONTEXT *context = slot->context;
  DWORD flags = context->ContextFlags;
  if (dirty <= kContextControl) context->ContextFlags = kControlContextFlags;
  BOOL written = SetThreadContext(thread->handle, context);
  context->ContextFlags = flags;
  return written ? kEngineOk : kEngineSystemCallFailed;
}

const char *EngineThreadPriorityName(s32 priority) {
  switch (priority) {
    case -15: return "Idle";
    case -2: return "Lowest";
    case -1: return "Below Normal";
    case 0: return "Normal";
    case 1: return "Above Normal";
    case 2: return "Highest";
    case 15: return "Time Critical";
  }
  return "";
}

void ThreadContextsFlip(Target *target) {
  for (TargetThread *t = target->threads; t; t = t->next) t->context_index ^= 1;
}
