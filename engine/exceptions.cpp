// Exception events: the table that decides, per exception code, whether the target stops, how the
// event is continued and what the user is told.
//
// [SECTION] Stop helpers
// [SECTION] C++ exceptions
// [SECTION] Sanitizer shadow memory
// [SECTION] Reported exceptions
// [SECTION] Break-ins
// [SECTION] Breakpoint hits
// [SECTION] The exception table
#include <stdio.h>
#include <string.h>

#include "engine/cxx_type_name.h"
#include "engine/breakpoint_condition.h"
#include "engine/engine_internal.h"

static const u8 kInt3Byte = 0xCC;

enum : u32 {
  kCodeBreakpoint = 0x80000003,
  kCodeSingleStep = 0x80000004,
  kCodeCxx = 0xE06D7363,
  kCodeAccessViolation = 0xC0000005,
  kCodeStackOverflow = 0xC00000FD,
  kAccessViolationExecute = 8,
};

// [SECTION] Stop helpers

TargetThread *EngineThreadToShow(Target *target) {
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->solo) return t;
  for (TargetThread *t = target->threads; t; t = t->next)
    if (!t->frozen) return t;
  return nullptr;
}

void EngineMakeStopped(Target *target, TargetThread *thread, u32 reason, u64 address, s32 frame, EngineEvent *event) {
  memset(event, 0, sizeof *event);
  event->kind = kEventStopped;
  event->stopped.reason = reason;
  event->stopped.frame = frame;
  event->stopped.address = address;
  event->stopped.thread_id = thread ? thread->id : 0;
  EngineLocate(target, address, &event->stopped.location);
}

void EnginePostStopped(Target *target, TargetThread *thread, u32 reason, u64 address, s32 frame) {
  EngineEvent event;
  EngineMakeStopped(target, thread, reason, address, frame, &event);
  event.generation = target->stop_generation;
  EnginePostEvent(target, &event);
}

// The event that says why the target stopped is posted once the model of the stop is rebuilt
// (see the stop sequence), before the stop's evaluation results.
void EngineHoldStopEvent(Target *target, const EngineEvent *event) {
  target->held_stop_event = *event;
  target->stop_event_held = 1;
}

u64 EngineThreadIp(TargetThread *thread) {
  if (!thread) return 0;
  CONTEXT *context = ThreadContextGet(thread);
  return context ? context->Rip : 0;
}

u32 EngineStopForUserBreak(Target *target) {
  target->user_break_requested = 0;
  TargetThread *show = EngineThreadToShow(target);
  target->current_thread = show;
  EngineEvent event;
  EngineMakeStopped(target, show, kStopBreak, EngineThreadIp(show), 0, &event);
  EngineHoldStopEvent(target, &event);
  return kOutcomeStop;
}

// [SECTION] C++ exceptions

// "Exception thrown at ... Microsoft C++ exception: TYPE at memory location ..." from the throw
// information that the compiler emitted beside the thrown type. Any unreadable piece drops the line.
static void PostCxxExceptionLine(Target *target, const EXCEPTION_RECORD *record) {
  if (record->NumberParameters != 4) return;
  u64 object = record->ExceptionInformation[1];
  u64 throw_info = record->ExceptionInformation[2];
  u64 base = record->ExceptionInformation[3];
  u32 array_rva = 0, type_rva = 0, descriptor_rva = 0;
  if (!TargetReadMemoryDirect(target, throw_info + 12, &array_rva, 4)) return;
  if (!TargetReadMemoryDirect(target, base + array_rva + 4, &type_rva, 4)) return;
  if (!TargetReadMemoryDirect(target, base + type_rva + 4, &descriptor_rva, 4)) return;
  char decorated[1024];
  u64 name_address = base + descriptor_rva + 16;
  // The name may end closer than 1024 bytes before unreadable memory: read up to the page end first.
  u32 first = (u32)MinU64(sizeof decorated, 0x1000 - (name_address & 0xFFF));
  if (!TargetReadMemoryDirect(target, name_address, decorated, first)) return;
  if (first < sizeof decorated && !memchr(decorated, 0, first) &&
      !TargetReadMemoryDirect(target, name_address + first, decorated + first, sizeof decorated - first))
    return;
  decorated[sizeof decorated - 1] = 0;
  char type_name[512];
  CxxTypeNameFromDecorated(decorated, type_name, sizeof type_name);

  char *text = EngineTakeText(target, 1280);
  if (!text) return;
  TargetModule *module = TargetFindModule(target, base);
  u64 at = (u64)(uintptr_t)record->ExceptionAddress;
  // Pointers as %p prints them on Windows, whatever C runtime this was built with: 16 upper-case
  // hexadecimal digits, no prefix.
  int n;
  if (module)
    n = snprintf(text, 1280, "Exception thrown at %016llX in %s: Microsoft C++ exception: %s at memory location %016llX\n",
                 (unsigned long long)at, module->symbols.name, type_name, (unsigned long long)object);
  else
    n = snprintf(text, 1280, "Exception thrown at %016llX: Microsoft C++ exception: %s at memory location %016llX\n",
                 (unsigned long long)at, type_name, (unsigned long long)object);
  if (n < 0) return;
  EnginePostText(target, text, (u32)MinU64((u64)n, 1279));
}

// [SECTION] Sanitizer shadow memory

// Works out once per module where AddressSanitizer's shadow memory lies, from the module's symbol
// for the shadow base; faults inside it are the sanitizer's own page-ins and are passed silently.
static void LearnShadowBounds(Target *target, TargetModule *module) {
  module->shadow_state = 1;
  if (module->symbols.status != kSymbolsLoaded) return;
  const PdbDataEntry *entry = PdbFindData(&module->symbols.pdb.globals, "__asan_shadow_memory_dynamic_address", nullptr);
  if (!entry) return;
  u32 section = entry->section_minus_1;
  if (section >= module->symbols.image.section_count) return;
  u64 address = module->symbols.load_base + module->symbols.image.sections[section].virtual_address + entry->offset;
  u64 s = 0;
  if (!TargetReadMemoryDirect(target, address, &s, 8)) return;
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  u64 g = info.dwAllocationGranularity;
  u64 m = (u64)(uintptr_t)info.lpMaximumApplicationAddress;
  u64 e = (((g * 8 - 1) | m) >> 3) + s;
  module->shadow_base = s;
  module->shadow_low_begin = s;
  module->shadow_low_end = s + ((s - 1) >> 3);
  module->shadow_high_begin = ((e + 1) >> 3) + s;
  module->shadow_high_end = e;
  module->shadow_state = 2;
}

static bool IsShadowFault(Target *target, const EXCEPTION_RECORD *record) {
  if (record->ExceptionCode != kCodeAccessViolation || record->NumberParameters < 2) return false;
  TargetModule *module = TargetFindModule(target, (u64)(uintptr_t)record->ExceptionAddress);
  if (!module) return false;
  if (module->shadow_state == 0) LearnShadowBounds(target, module);
  if (module->shadow_state != 2) return false;
  u64 data = record->ExceptionInformation[1];
  return (module->shadow_low_begin <= data && data <= module->shadow_low_end) ||
         (module->shadow_high_begin <= data && data <= module->shadow_high_end);
}

// [SECTION] Reported exceptions

static bool IsReportedCode(u32 code) {
  switch (code) {
    case 0xC0000005: case 0x80000002: case 0xC0000006: case 0xC000001D:
    case 0xC00000FD: case 0xC0000409:
      return true;
  }
  return code >= 0xC000008C && code <= 0xC0000096;
}

static u32 ReportException(Target *target, TargetThread *thread, const EXCEPTION_DEBUG_INFO *info) {
  const EXCEPTION_RECORD *record = &info->ExceptionRecord;
  if (IsShadowFault(target, record)) {
    target->continue_status = DBG_EXCEPTION_NOT_HANDLED;
    return kOutcomeContinue;
  }
  if (record->ExceptionCode == kCodeStackOverflow && thread) thread->stack_overflow_seen = 1;
  bool continuable = record->ExceptionFlags != EXCEPTION_NONCONTINUABLE;
  target->continue_status = info->dwFirstChance && continuable ? DBG_EXCEPTION_NOT_HANDLED : DBG_CONTINUE;
  // While the run ends nobody would answer a stop: the exception goes on to the program.
  if (target->ending) return kOutcomeContinue;

  u64 shown = (u64)(uintptr_t)record->ExceptionAddress;
  bool after_call = false;
  u64 access = record->NumberParameters >= 1 ? record->ExceptionInformation[0] : 0;
  u64 data = record->NumberParameters >= 2 ? record->ExceptionInformation[1] : 0;
  if (record->ExceptionCode == kCodeAccessViolation && access == kAccessViolationExecute && shown == 0 && thread) {
    // A call through a null pointer: show the caller, whose return address is on top of the stack.
    CONTEXT *context = ThreadContextGet(thread);
    u64 return_address = 0;
    // Read past the memory cache: it still holds the previous stop's lines until this stop begins.
    if (context && context->Rip == 0 && TargetReadMemoryDirect(target, context->Rsp, &return_address, 8)) {
      shown = return_address;
      after_call = true;
    }
  }
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kEventException;
  event.exception.code = record->ExceptionCode;
  event.exception.first_chance = info->dwFirstChance ? 1 : 0;
  event.exception.continuable = continuable ? 1 : 0;
  event.exception.address = shown;
  event.exception.access_kind = access;
  event.exception.data_address = data;
  EngineLocate(target, shown, &event.exception.location, after_call);
  EngineHoldStopEvent(target, &event);
  return kOutcomeStop;
}

// [SECTION] Break-ins

bool EngineIsBreakInThread(const Target *target, u32 thread_id) {
  for (u32 i = 0; i < target->break_in_thread_count; i++)
    if (target->break_in_threads[i] == thread_id) return true;
  return false;
}

// The breakpoint of a thread that DebugBreakProcess (or an attach) made. It is "the break" only
// for a break the user is still waiting for; an internal break, or one whose user break was
// already answered by an earlier stop, serves the queued requests and continues silently.
static u32 HandleBreakIn(Target *target) {
  if (__atomic_load_n(&target->break_ins_outstanding, __ATOMIC_SEQ_CST) > 0)
    __atomic_fetch_sub(&target->break_ins_outstanding, 1, __ATOMIC_SEQ_CST);
  target->event_thread = nullptr;  // the break-in thread is not the program's: nothing to prepare
  if (target->ending) {
    // Stop debugging detaches at the first command wait; terminate has signalled run already.
    target->current_thread = nullptr;
    return kOutcomeSilentStop;
  }
  if (target->user_break_requested) return EngineStopForUserBreak(target);
  EngineServeRequests(target);
  return kOutcomeContinue;
}

// [SECTION] Breakpoint hits

// The thread's instruction pointer back on the int3 it executed (the system has it one past).
static void RewindToInt3(TargetThread *thread, u64 at) {
  CONTEXT *context = ThreadContextGet(thread);
  if (!context || context->Rip != at + 1) return;
  context->Rip = at;
  ThreadContextMarkDirty(thread, kContextIpOnly);
}

// A breakpoint of the user's was hit (the thread is back on its address). A condition that is
// false lets the thread run on: it steps over the breakpoint's instruction with the int3 lifted,
// and the single step puts it back. A step under way stays under way (a false condition is as if
// the breakpoint were not there).
static u32 BreakpointHit(Target *target, TargetThread *thread, BreakpointLocation *hit, u64 at) {
  BreakpointLocation *bp = hit->owner ? hit->owner : hit;  // a further binding reports the user's record
  ConditionVerdict verdict = BreakpointConditionCheck(target, thread, bp);
  if (verdict == kConditionFalse) {
    CONTEXT *context = ThreadContextGet(thread);
    BreakpointDisarm(target, hit);
    if (context && !hit->armed) {
      thread->rearm_address = at;
      context->EFlags |= kTrapFlag;
      ThreadContextMarkDirty(thread, kContextDirty);
    }
    return kOutcomeContinue;
  }
  target->user_break_requested = 0;  // this stop answers a break the user waits for
  target->current_thread = thread;
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kEventBreakpointHit;
  event.breakpoint.location_record = bp;
  event.breakpoint.address = at;
  event.breakpoint.thread_id = thread->id;
  event.breakpoint.location = hit->location;
  if (verdict == kConditionFailed) event.breakpoint.condition_error = BreakpointConditionErrorText(target, bp);
  EngineHoldStopEvent(target, &event);
  return kOutcomeStop;
}

// [SECTION] The exception table

// A breakpoint exception, by where it comes from: the loader's, a break-in thread's, or one of the
// program's threads (which also answers a break the user is waiting for).
static u32 HandleBreakpoint(Target *target, TargetThread *thread, const EXCEPTION_RECORD *record) {
  target->continue_status = DBG_CONTINUE;
  if (target->loader_breakpoint_expected) {
    target->loader_breakpoint_expected = 0;
    return kOutcomeContinue;
  }
  if (!thread || EngineIsBreakInThread(target, target->event.dwThreadId)) return HandleBreakIn(target);
  u64 at = (u64)(uintptr_t)record->ExceptionAddress;
  BreakpointLocation *bp = BreakpointAt(target, at);
  u32 temporary_outcome = kOutcomeContinue;
  if (!bp && EngineRunControlBreakpoint(target, thread, at, &temporary_outcome)) return temporary_outcome;
  u8 byte = 0;
  // An int3 of the engine's that the thread met before it was taken out (removed, disabled, or
  // lifted for another thread's step): the program's own byte is back, so the thread runs it.
  bool stale = !bp && TargetReadMemory(target, at, &byte, 1) && byte != kInt3Byte;
  if (bp || stale) {
    RewindToInt3(thread, at);
    // While the run ends (stop debugging or terminate asked for) nothing is reported: a detach
    // takes every int3 out, so the thread runs the program's byte. A thread the engine holds
    // meets the breakpoint again once it is let go.
    if (stale || target->ending || thread->suspended_by_engine || !bp->enabled) return kOutcomeContinue;
    return BreakpointHit(target, thread, bp, at);
  }
  // While the run ends the program's own int3 is not reported and the target runs on to the
  // break-in or the exit that ends the run; a thread the engine holds meets it again once let go.
  if (target->ending || thread->suspended_by_engine) return kOutcomeContinue;
  EngineRunControlClear(target);
  // The int3 is the program's own. The stop shows the int3 itself (the registers, when read, are
  // moved back to it); the resume steps past it.
  thread->int3_at_stop = at;
  target->user_break_requested = 0;
  target->current_thread = thread;
  EngineEvent event;
  EngineMakeStopped(target, thread, kStopProgramBreakpoint, at, 0, &event);
  EngineHoldStopEvent(target, &event);
  return kOutcomeStop;
}

// A single-step exception goes through one chain: the int3 this thread stepped over is put back,
// then a processor breakpoint may claim it, then run control (a step, the temporary breakpoint put
// back); what no link claims is the program's own.
static u32 HandleSingleStep(Target *target, TargetThread *thread, const EXCEPTION_DEBUG_INFO *info) {
  bool settle = thread && thread->settle_step;
  if (settle) thread->settle_step = 0;
  bool ours = false;
  if (thread && thread->rearm_address) {
    EngineRearmAfterStep(target, thread);
    ours = true;
  }
  bool processor = false;
  u32 outcome = EngineProcessorHit(target, thread, &processor);
  if (processor) {
    target->continue_status = DBG_CONTINUE;
    return outcome;
  }
  // The flag was the engine's alone: the step is no one else's (a temporary breakpoint lifted for
  // another thread must not be put back by it).
  if (settle) {
    target->continue_status = DBG_CONTINUE;
    return kOutcomeContinue;
  }
  bool stepped = false;
  outcome = EngineRunControlSingleStep(target, thread, &stepped);
  if (stepped) {
    target->continue_status = DBG_CONTINUE;
    return outcome;
  }
  if (ours) {
    target->continue_status = DBG_CONTINUE;
    return kOutcomeContinue;
  }
  target->continue_status = info->dwFirstChance ? DBG_EXCEPTION_NOT_HANDLED : DBG_CONTINUE;
  return kOutcomeContinue;
}

u32 EngineHandleException(Target *target, const EXCEPTION_DEBUG_INFO *info) {
  const EXCEPTION_RECORD *record = &info->ExceptionRecord;
  TargetThread *thread = TargetFindThread(target, target->event.dwThreadId);
  target->event_thread = thread;
  u32 code = record->ExceptionCode;
  if (thread) thread->trap_in_flight = 0;
  if (code == kCodeSingleStep) return HandleSingleStep(target, thread, info);
  // The instruction after an int3 raised an exception of its own before the engine's single step:
  // the trap flag it carries would reach the program as a single step after its handler.
  if (thread && thread->settle_step) {
    thread->settle_step = 0;
    if (CONTEXT *context = ThreadContextGet(thread)) {
      context->EFlags &= ~kTrapFlag;
      ThreadContextMarkDirty(thread, kContextControl);
    }
  }
  // Any other exception of a thread that was stepping over a breakpoint ends that step.
  if (thread && thread->rearm_address) EngineRearmAfterStep(target, thread);
  if (code == kCodeBreakpoint) return HandleBreakpoint(target, thread, record);
  if (IsReportedCode(code)) {
    // A thread without a record (one the engine never saw start) is shown on the thread a break
    // would show.
    target->current_thread = thread ? thread : EngineThreadToShow(target);
    return ReportException(target, thread, info);
  }
  if (code == kCodeCxx && info->dwFirstChance) PostCxxExceptionLine(target, record);
  // C++ exceptions and unknown codes belong to the program: first chance to its handlers, second
  // chance ends it.
  target->continue_status = info->dwFirstChance ? DBG_EXCEPTION_NOT_HANDLED : DBG_CONTINUE;
  return kOutcomeContinue;
}
