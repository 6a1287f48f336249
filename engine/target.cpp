// The target model: building and releasing a run's target, the thread pool, the module pool and
// the lookups over both lists.
#include "engine/target.h"

#include "engine/evaluation_request.h"
#include "engine/call_stack.h"
#include "engine/unwind.h"

#include <string.h>

// [SECTION] Building and releasing

static void *TakeBlock(Target *target, u64 size) {
  // Every region starts on a 64-byte boundary (contexts need 16, rings like whole cache lines).
  return SymbolArenaAllocate(&target->arena, AlignUp(size, 64));
}

static bool ReadTargetMemory(void *context, u64 address, void *buffer, u32 size) {
  Target *target = (Target *)context;
  SIZE_T got = 0;
  if (!ReadProcessMemory(target->process, (const void *)(uintptr_t)address, buffer, size, &got)) return false;
  return got == size;
}

// A page of a loaded image's section that is not writable: the program's code and read-only data
// (unwind information, function tables) do not change, so their lines are read once, not at
// every stop. The engine's own int3s go through the caches as writes.
static bool IsReadOnlyImagePage(void *context, u64 line_address) {
  Target *target = (Target *)context;
  u64 line_end = line_address + kMemoryCacheLineBytes;
  for (TargetModule *m = target->modules; m; m = m->next) {
    if (line_address < TargetModuleBase(m) || line_end > TargetModuleEnd(m)) continue;
    if (TargetModuleBase(m) == target->loading_base) return false;
    const PeImage *image = &m->symbols.image;
    u64 rva = line_address - TargetModuleBase(m);
    for (u32 i = 0; i < image->section_count; i++) {
      const PeSectionHeader *section = &image->sections[i];
      if (rva >= section->virtual_address && rva + kMemoryCacheLineBytes <= (u64)section->virtual_address + section->virtual_size)
        return !(section->characteristics & kPeSectionMemWrite);
    }
    return false;
  }
  return false;
}

EngineResult TargetInit(Target *target) {
  memset(target, 0, sizeof *target);
  // Everything the run needs comes from the target's arena now; the pages of the pools are
  // committed but stay untouched (and cost nothing) until a record is first used.
  HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
  target->initialize_context = (InitializeContextFn)(void *)GetProcAddress(kernel32, "InitializeContext");
  target->set_xstate_features_mask = (SetXStateFeaturesMaskFn)(void *)GetProcAddress(kernel32, "SetXStateFeaturesMask");
  target->locate_xstate_feature = (LocateXStateFeatureFn)(void *)GetProcAddress(kernel32, "LocateXStateFeature");
  target->context_flags = kPlainContextFlags;
  target->context_size = sizeof(CONTEXT) + 16;
  if (target->initialize_context) {
    DWORD size = 0;
    target->initialize_context(nullptr, kFullContextFlags, nullptr, &size);
    if (size >= sizeof(CONTEXT)) {
      target->context_size = size;
      target->context_flags = kFullContextFlags;
    } else {
      target->initialize_context = nullptr;
    }
  }
  u64 context_bytes = AlignUp(target->context_size, 64);

  target->event_ring = (u8 *)TakeBlock(target, kEventRingBytes);
  target->text_ring = (u8 *)TakeBlock(target, kTextRingBytes);
  target->command_ring = (u8 *)TakeBlock(target, kCommandRingBytes);
  TargetThread *threads = (TargetThread *)TakeBlock(target, sizeof(TargetThread) * kThreadPoolCount);
  TargetModule *modules = (TargetModule *)TakeBlock(target, sizeof(TargetModule) * kModulePoolCount);
  u8 *contexts = (u8 *)TakeBlock(target, context_bytes * 2 * kThreadPoolCount);
  target->caches[0] = (MemoryCache *)TakeBlock(target, sizeof(MemoryCache));
  target->caches[1] = (MemoryCache *)TakeBlock(target, sizeof(MemoryCache));
  target->evaluation_requests = (EvaluationRequests *)TakeBlock(target, sizeof(EvaluationRequests));
  BreakpointLocation *breakpoints = (BreakpointLocation *)TakeBlock(target, sizeof(BreakpointLocation) * kBreakpointPoolCount);
  if (!target->event_ring || !target->text_ring || !target->command_ring || !threads || !modules || !contexts ||
      !target->caches[0] || !target->caches[1] || !target->evaluation_requests || !breakpoints) {
    SymbolArenaRelease(&target->arena);
    memset(target, 0, sizeof *target);
    return kEngineInitFailed;
  }
  target->event_size = kEventRingBytes;
  target->text_size = kTextRingBytes;
  target->command_size = kCommandRingBytes;

  // Thread records chained into the free list in pool order; each gets its two context buffers
  // now, so taking a record never allocates.
  for (u32 i = 0; i < kThreadPoolCount; i++) {
    TargetThread *t = &threads[i];
    t->next = i + 1 < kThreadPoolCount ? &threads[i + 1] : nullptr;
    for (u32 b = 0; b < 2; b++) {
      u8 *buffer = contexts + (u64)(2 * i + b) * context_bytes;
      CONTEXT *context = nullptr;
      DWORD size = (DWORD)context_bytes;
      if (target->initialize_context) {
        if (!target->initialize_context(buffer, kFullContextFlags, &context, &size)) context = nullptr;
      }
      if (!context) {
        context = (CONTEXT *)buffer;
        context->ContextFlags = kPlainContextFlags;
      }
      t->slots[b].context = context;
    }
  }
  target->free_threads = &threads[0];
  target->thread_pool = threads;
  for (u32 i = 0; i < kModulePoolCount; i++) modules[i].next = i + 1 < kModulePoolCount ? &modules[i + 1] : nullptr;
  target->free_modules = &modules[0];
  target->module_pool = modules;
  for (u32 i = 0; i < kBreakpointPoolCount; i++)
    breakpoints[i].next = i + 1 < kBreakpointPoolCount ? &breakpoints[i + 1] : nullptr;
  target->free_breakpoints = &breakpoints[0];
  target->breakpoint_pool = breakpoints;

  EvaluationRequestsInit(target->evaluation_requests);
  MemoryCacheInit(target->caches[0], ReadTargetMemory, target);
  MemoryCacheInit(target->caches[1], ReadTargetMemory, target);
  for (u32 i = 0; i < 2; i++) MemoryCacheSetKeep(target->caches[i], IsReadOnlyImagePage, target);
  target->continue_status = DBG_CONTINUE;
  target->generation = 1;
  return kEngineOk;
}

void TargetRelease(Target *target) {
  for (TargetThread *t = target->threads; t; t = t->next) SymbolArenaRelease(&t->arena);
  CallStackRelease(target);
  // Loaded modules, and unloaded ones that the UI has not given back (their events may have been
  // lost when it fell behind), still own their symbols.
  if (target->module_pool)
    for (u32 i = 0; i < kModulePoolCount; i++) {
      if (target->module_pool[i].symbols.arena.newest) UnloadModuleSymbols(&target->module_pool[i].symbols);
      UnwindReleaseModule(&target->module_pool[i]);
    }
  SymbolArenaRelease(&target->arena);
  memset(target, 0, sizeof *target);
}

// [SECTION] Threads

TargetThread *TargetThreadCreate(Target *target, HANDLE handle, u32 id, u64 start_address, u64 tls_base) {
  TargetThread *t = target->free_threads;
  if (!t) {
    target->threads_not_modelled++;
    return nullptr;
  }
  target->free_threads = t->next;
  memset(t, 0, offsetof(TargetThread, slots));
  for (ThreadContextSlot &slot : t->slots) {
    CONTEXT *kept = slot.context;
    memset(&slot, 0, sizeof slot);
    slot.context = kept;
  }
  t->target = target;
  t->handle = handle;
  t->id = id;
  t->start_address = start_address;
  t->tls_base = tls_base;
  t->previous = target->last_thread;
  if (target->last_thread)
    target->last_thread->next = t;
  else
    target->threads = t;
  target->last_thread = t;
  target->thread_count++;
  return t;
}

void TargetThreadDestroy(Target *target, TargetThread *t) {
  if (t->previous)
    t->previous->next = t->next;
  else
    target->threads = t->next;
  if (t->next)
    t->next->previous = t->previous;
  else
    target->last_thread = t->previous;
  if (target->current_thread == t) target->current_thread = nullptr;
  if (target->last_event_thread == t) target->last_event_thread = nullptr;
  SymbolArenaRelease(&t->arena);
  CallStackReleaseThread(target, t);
  t->next = target->free_threads;
  t->previous = nullptr;
  target->free_threads = t;
  target->thread_count--;
}

TargetThread *TargetFindThread(Target *target, u32 thread_id) {
  TargetThread *cached = target->last_event_thread;
  if (cached && cached->id == thread_id) return cached;
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->id == thread_id) {
      target->last_event_thread = t;
      return t;
    }
  return nullptr;
}

// [SECTION] Modules

TargetModule *TargetModuleTake(Target *target) {
  TicketLockAcquire(&target->lock);
  TargetModule *m = target->free_modules;
  if (m) target->free_modules = m->next;
  TicketLockRelease(&target->lock);
  if (!m) return nullptr;
  memset(m, 0, sizeof *m);
  m->in_use = 1;  // until given back: a second release of the same record does nothing
  return m;
}

void TargetModuleLink(Target *target, TargetModule *m) {
  m->in_use = 1;
  m->next = nullptr;
  m->previous = target->last_module;
  if (target->last_module)
    target->last_module->next = m;
  else
    target->modules = m;
  target->last_module = m;
}

void TargetModuleUnlink(Target *target, TargetModule *m) {
  if (m->previous)
    m->previous->next = m->next;
  else
    target->modules = m->next;
  if (m->next)
    m->next->previous = m->previous;
  else
    target->last_module = m->previous;
  m->next = m->previous = nullptr;
}

void TargetModuleRelease(Target *target, TargetModule *m) {
  if (!target || !m || !target->module_pool) return;
  if (m < target->module_pool || m >= target->module_pool + kModulePoolCount || !m->in_use) return;
  UnloadModuleSymbols(&m->symbols);
  UnwindReleaseModule(m);
  m->in_use = 0;
  TicketLockAcquire(&target->lock);
  m->next = target->free_modules;
  target->free_modules = m;
  TicketLockRelease(&target->lock);
}

TargetModule *TargetFindModule(Target *target, u64 address) {
  for (TargetModule *m = target->modules; m; m = m->next)
    if (TargetModuleBase(m) <= address && address < TargetModuleEnd(m)) return m;
  return nullptr;
}

TargetModule *TargetFindModuleByBase(Target *target, u64 base) {
  for (TargetModule *m = target->modules; m; m = m->next)
    if (TargetModuleBase(m) == base) return m;
  return nullptr;
}

// [SECTION] Memory

bool TargetReadMemory(Target *target, u64 address, void *buffer, u32 size) {
  return MemoryCacheRead(TargetCache(target), address, buffer, size);
}

bool TargetReadMemoryDirect(Target *target, u64 address, void *buffer, u32 size) {
  return ReadTargetMemory(target, address, buffer, size);
}

bool TargetWriteMemory(Target *target, u64 address, const void *bytes, u32 size) {
  SIZE_T written = 0;
  bool ok = WriteProcessMemory(target->process, (void *)(uintptr_t)address, bytes, size, &written) && written == size;
  FlushInstructionCache(target->process, (const void *)(uintptr_t)address, size);
  // Both caches: the previous stop's copy must not show a byte the engine put there itself.
  if (ok)
    for (MemoryCache *cache : target->caches) MemoryCacheNoteWrite(cache, address, bytes, size);
  return ok;
}

void TargetEndGeneration(Target *target) {
  target->generation++;
  MemoryCacheNewGeneration(TargetCache(target));
}
