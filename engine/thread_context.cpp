// Thread registers: two buffers per thread that alternate at every stop, each read from the system
// at most once per stop and written back only when the engine changed it.
#include "engine/target.h"

static const DWORD64 kXStateAvxMask = 4;  // XSTATE_MASK_AVX

CONTEXT *ThreadContextGet(TargetThread *thread) {
  u32 index = thread->context_index;
  CONTEXT *context = thread->context[index];
  if (thread->context_read[index]) return context;
  Target *target = thread->target;
  context->ContextFlags = target->context_flags;
  if (target->context_flags == kFullContextFlags && target->set_xstate_features_mask)
    target->set_xstate_features_mask(context, kXStateAvxMask);
  if (!GetThreadContext(thread->handle, context)) {
    // Some systems refuse the extended state for some threads: the plain registers will do.
    context->ContextFlags = kPlainContextFlags;
    if (!GetThreadContext(thread->handle, context)) return nullptr;
  }
  thread->context_read[index] = 1;
  thread->context_dirty = 0;
  thread->rip_as_read = context->Rip;
  return context;
}

int ThreadContextFlush(TargetThread *thread) {
  if (!thread->context_dirty) return 0;
  CONTEXT *context = thread->context[thread->context_index];
  thread->context_dirty = 0;
  thread->rip_as_read = context->Rip;
  return SetThreadContext(thread->handle, context) ? 0 : 37;
}

void ThreadContextsFlip(Target *target) {
  for (TargetThread *t = target->threads; t; t = t->next) {
    t->context_index ^= 1;
    t->context_read[t->context_index] = 0;
    t->context_dirty = 0;
  }
}
