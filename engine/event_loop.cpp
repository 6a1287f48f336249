// The debugger thread's loop: every debug event, the stop sequence, the commands served while the
// target is stopped, resuming and detaching.
//
// The model while commands are served: the engine's state reads serving from the end of the stop
// sequence until the engine takes run or stop debugging. While it does, the engine changes
// the model (threads, registers, memory, breakpoints) only while it holds the model lock, which it
// takes for each command it serves; the user interface takes the same lock to read or change the
// model (EngineLockModel), so it never reads records the engine is rewriting.
//
// [SECTION] Debug events
// [SECTION] Commands while stopped
// [SECTION] Stop, resume, detach
// [SECTION] The loop
#include <string.h>

#include "engine/call_stack.h"
#include "engine/engine_internal.h"
#include "symbols/pdb_raw.h"
#include "symbols/scope_lookup.h"

// [SECTION] Debug events

static void HandleDebugString(Target *target, const OUTPUT_DEBUG_STRING_INFO *info) {
  u32 length = info->nDebugStringLength;
  if (length == 0) return;
  char *raw = EngineTakeText(target, (u64)length + 2);
  if (!raw) return;
  if (!TargetReadMemoryDirect(target, (u64)(uintptr_t)info->lpDebugStringData, raw, length)) return;
  raw[length] = 0;
  raw[length + 1] = 0;
  const char *text = raw;
  u32 text_length = (u32)strnlen(raw, length);
  if (info->fUnicode) {
    u32 units = length / 2;
    u32 capacity = units * 3 + 1;
    char *converted = EngineTakeText(target, capacity);
    if (converted) {
      int n = WideCharToMultiByte(CP_UTF8, 0, (const wchar_t *)raw, (int)units, converted, (int)capacity - 1, nullptr,
                                  nullptr);
      if (n > 0) {
        converted[n] = 0;
        text = converted;
        text_length = (u32)strnlen(converted, (u32)n);  // UTF-8 may be longer than the UTF-16 was
      }
    }
  }
  EnginePostText(target, text, text_length);
}

static void HandleCreateThread(Target *target, const CREATE_THREAD_DEBUG_INFO *info, u32 thread_id) {
  u64 start = (u64)(uintptr_t)info->lpStartAddress;
  // The thread that DebugBreakProcess or an attach creates only raises the break; never modelled,
  // but known, so that its breakpoint is told from the program's.
  if (target->break_in_address && start == target->break_in_address) {
    if (target->break_in_thread_count < kBreakInThreadCapacity)
      target->break_in_threads[target->break_in_thread_count++] = thread_id;
    return;
  }
  TargetThread *thread =
      TargetThreadCreate(target, info->hThread, thread_id, start, (u64)(uintptr_t)info->lpThreadLocalBase);
  if (!thread) return;
  EngineNameThread(target, thread, false);
  EngineArmSlotsInNewThread(target, thread);
  // While a thread is solo, only solo threads run: a new one is held from its start.
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->solo) {
      if (SuspendThread(thread->handle) != (DWORD)-1) thread->suspended_by_engine = 1;
      break;
    }
  EnginePostThreadStarted(target, thread);
}

void EnginePostThreadStarted(Target *target, const TargetThread *thread) {
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kEventListUpdate;
  event.list_update.selector = kListThreads;
  event.list_update.words[0] = thread->id;
  event.list_update.words[1] = thread->start_address;
  EnginePostEvent(target, &event);
}

static void HandleExitThread(Target *target, u32 thread_id, u32 exit_code) {
  for (u32 i = 0; i < target->break_in_thread_count; i++)
    if (target->break_in_threads[i] == thread_id) {
      target->break_in_threads[i] = target->break_in_threads[--target->break_in_thread_count];
      return;
    }
  TargetThread *thread = TargetFindThread(target, thread_id);
  if (!thread) return;
  EngineRearmAfterStep(target, thread);  // its single step over a breakpoint will not come
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kEventThreadExited;
  event.thread_exit.handle = (u64)(uintptr_t)thread->handle;
  event.thread_exit.exit_code = exit_code;
  event.thread_exit.thread_id = thread_id;
  EnginePostEvent(target, &event);
  TargetThreadDestroy(target, thread);
}

static u32 HandleEvent(Target *target, DEBUG_EVENT *ev) {
  target->continue_status = DBG_CONTINUE;
  switch (ev->dwDebugEventCode) {
    case EXCEPTION_DEBUG_EVENT:
      return EngineHandleException(target, &ev->u.Exception);
    case CREATE_THREAD_DEBUG_EVENT:
      HandleCreateThread(target, &ev->u.CreateThread, ev->dwThreadId);
      return kOutcomeContinue;
    case EXIT_THREAD_DEBUG_EVENT:
      HandleExitThread(target, ev->dwThreadId, ev->u.ExitThread.dwExitCode);
      return kOutcomeContinue;
    case EXIT_PROCESS_DEBUG_EVENT: {
      target->exit_code = ev->u.ExitProcess.dwExitCode;
      target->exited = 1;
      EngineEvent event;
      memset(&event, 0, sizeof event);
      event.kind = kEventProcessExited;
      event.process.exit_code = ev->u.ExitProcess.dwExitCode;
      event.process.process_id = target->process_id;
      EnginePostEvent(target, &event);
      return kOutcomeEnd;
    }
    case LOAD_DLL_DEBUG_EVENT: {
      TargetModule *module = nullptr;
      // The loader may still relocate the image after this event: nothing read of it now is kept.
      target->loading_base = (u64)(uintptr_t)ev->u.LoadDll.lpBaseOfDll;
      EngineLoadModule(target, ev->u.LoadDll.hFile, target->loading_base, &module);
      if (ev->u.LoadDll.hFile) CloseHandle(ev->u.LoadDll.hFile);
      if (module) BreakpointsOnModuleLoad(target, module);
      target->loading_base = 0;
      return kOutcomeContinue;
    }
    case UNLOAD_DLL_DEBUG_EVENT:
      EngineUnloadModule(target, (u64)(uintptr_t)ev->u.UnloadDll.lpBaseOfDll);
      return kOutcomeContinue;
    case OUTPUT_DEBUG_STRING_EVENT:
      HandleDebugString(target, &ev->u.DebugString);
      return kOutcomeContinue;
    case CREATE_PROCESS_DEBUG_EVENT:
      if (ev->u.CreateProcessInfo.hFile) CloseHandle(ev->u.CreateProcessInfo.hFile);
      return kOutcomeContinue;
    default:  // RIP and anything newer
      return kOutcomeContinue;
  }
}

// [SECTION] Commands while stopped

void EngineServeRequests(Target *target) {
  EngineRequest request;
  while (EngineRingPopRequest(target, &request)) {
    switch (request.kind) {
      case kRequestArmSlot:
      case kRequestDisarmSlot:
        EngineServeProcessorRequest(target, &request);
        break;
      case kRequestAddBreakpoint:
      case kRequestRemoveBreakpoint:
      case kRequestEnableBreakpoint:
        EngineServeBreakpointRequest(target, &request);
        break;
    }
    // Requests of a kind the engine does not know are taken off the ring and counted like the rest.
    target->requests_served++;
  }
}

// Holds the threads that must not run (frozen ones, or every one but the solo ones) and lets go
// of those the engine held that may run now.
static void ApplySuspensions(Target *target) {
  bool any_solo = false;
  for (TargetThread *t = target->threads; t; t = t->next) any_solo |= t->solo != 0;
  for (TargetThread *t = target->threads; t; t = t->next) {
    bool hold = any_solo ? !t->solo : t->frozen != 0;
    if (hold && !t->suspended_by_engine) {
      if (SuspendThread(t->handle) != (DWORD)-1) t->suspended_by_engine = 1;
    } else if (!hold && t->suspended_by_engine) {
      if (ResumeThread(t->handle) != (DWORD)-1) t->suspended_by_engine = 0;
    }
  }
}

// The selected frame's place: a return address is shown at its call.
static void PostFrameSelected(Target *target, TargetThread *thread, s32 index) {
  u64 address = EngineThreadIp(thread);
  bool return_address = false;
  const StackFrame *frames = nullptr;
  u32 count = CallStackOfThread(target, thread, &frames);
  if ((u32)index < count) {
    address = frames[index].ip;
    return_address = frames[index].return_address != 0;
  }
  EngineEvent event;
  EngineMakeStopped(target, thread, kStopFrameSelected, address, index, &event);
  if (return_address) EngineLocate(target, address, &event.stopped.location, true);
  // An inlined function's frame is at its own line, in its own file.
  if ((u32)index < count && frames[index].inline_site) {
    event.stopped.location.file = frames[index].file;
    event.stopped.location.line = frames[index].line;
  }
  event.generation = target->stop_generation;
  EnginePostEvent(target, &event);
}

// Thread states changed (also after registers were written or another thread was selected): the
// threads are held or let go; the stop event comes before the evaluation results. Registers may
// have changed: every stack is built again when next asked for.
static void ApplyThreadStates(Target *target) {
  CallStackForgetAll(target);
  ApplySuspensions(target);
  EnginePostStopped(target, target->current_thread, kStopThreadStates, EngineThreadIp(target->current_thread), 0);
  EngineEvaluateRequests(target, true);
}
u32 EngineServeCommands(Target *target, bool held) {
  for (;;) {
    // Each command comes with the model lock held. Run and stop debugging end the serving: the
    // state reads working, so the model is the engine's alone again; the others are served under
    // the lock.
    u32 command = EngineWaitCommand(target);
    if (command == kCommandRun || command == kCommandStopDebugging) {
      ReleaseSRWLockExclusive(&target->model_lock);
      return command;
    }
    switch (command) {
      case kCommandRefresh:
        if (!held) EngineEvaluateRequests(target, true);
        break;
      case kCommandThreadStates:
        if (!held) ApplyThreadStates(target);
        break;
      case kCommandSelectFrame: {
        TargetThread *t = target->current_thread;
        s32 index = target->requested_frame;
        if (held || !t) break;
        const StackFrame *frames = nullptr;
        if (index < 0 || (u32)index >= CallStackOfThread(target, t, &frames)) {  // out of range: the requests only
          EngineEvaluateRequests(target, true);
          break;
        }
        if (frames[index].collapsed) {  // a marker row is no frame to look at
          EngineEvaluateRequests(target, true);
          break;
        }
        t->selected_frame = index;
        PostFrameSelected(target, t, index);
        EngineEvaluateRequests(target, true);  // the watches and locals now read that frame
        break;
      }
      case kCommandRebuildStack: {
        TargetThread *t = target->current_thread;
        if (held || !t) break;
        CallStackForgetAll(target);  // the collapsing switch may have changed
        (void)CallStackBuild(target, t);
        PostFrameSelected(target, t, 0);
        break;
      }
    }
    ReleaseSRWLockExclusive(&target->model_lock);
  }
}

// [SECTION] Stop, resume, detach

// The function at the thread's instruction pointer, kept while the pointer stays inside it.
void EngineRefreshIpFunction(Target *target, TargetThread *thread) {
  CONTEXT *context = ThreadContextGet(thread);
  if (!context) return;
  u64 ip = context->Rip;
  if (thread->ip_module && thread->ip_function_start <= ip && ip < thread->ip_function_end) return;
  thread->ip_module = TargetFindModule(target, ip);
  thread->ip_function = nullptr;
  thread->ip_function_start = thread->ip_function_end = 0;
  if (!thread->ip_module) return;
  ScopeAtAddress scope;
  FindScopeAtAddress(&thread->ip_module->symbols, nullptr, ip, kScopeProcedureOnly, &scope);
  if (!scope.procedure) return;
  thread->ip_function = scope.procedure;
  const PeImage *image = &thread->ip_module->symbols.image;
  if (scope.section == 0 || scope.section > image->section_count) return;
  const u8 *record = (const u8 *)scope.procedure->record;
  u32 length = 0, offset = 0;
  memcpy(&length, record + kProcSymLength, 4);
  memcpy(&offset, record + kProcSymOffset, 4);
  u64 start = thread->ip_module->symbols.load_base + image->sections[scope.section - 1].virtual_address + offset;
  if (start <= ip && ip < start + length) {
    thread->ip_function_start = start;
    thread->ip_function_end = start + length;
  }
}

// A visible stop: the model is made current (the engine's state still working), then the stop is reported and the
// evaluation requests after it. Nothing is asked of the system here: a thread's registers, its
// call stack and its priority are read when something first asks for them in this stop (a window,
// a step, an evaluation; see CallStackOfThread), so a stop that the user answers at once costs
// what the raw debug loop costs plus the hand-off to the user interface.
static void StopSequence(Target *target) {
  EngineRunControlClear(target);
  target->stop_generation++;
  target->previous_stop_generation = target->stop_target_generation;
  target->stop_target_generation = target->generation;
  EngineServeRequests(target);  // queued while the target ran on to this stop
  target->cache_index ^= 1;
  MemoryCacheNewGeneration(TargetCache(target));
  for (TargetThread *t = target->threads; t; t = t->next) t->selected_frame = 0;
  if (target->stop_event_held) {
    target->stop_event_held = 0;
    target->held_stop_event.generation = target->stop_generation;
    EnginePostEvent(target, &target->held_stop_event);
  }
  EngineEvaluateRequests(target, true);
}

// An exception other than an int3 held at an address where an int3 of the engine's sits (a
// breakpoint's instruction that faulted while it was stepped over): the thread would meet the int3
// when its handler lets it go on there.
static bool HeldOnArmedBreakpoint(Target *target) {
  const DEBUG_EVENT *ev = &target->event;
  if (ev->dwDebugEventCode != EXCEPTION_DEBUG_EVENT || ev->u.Exception.ExceptionRecord.ExceptionCode == 0x80000003)
    return false;
  BreakpointLocation *bp = BreakpointAt(target, (u64)(uintptr_t)ev->u.Exception.ExceptionRecord.ExceptionAddress);
  return bp && bp->armed;
}

// Prepares the thread whose event is held before it runs on: an int3 of the program's own under
// its instruction pointer is stepped over instead of being executed again. A thread whose
// registers were not read (nobody moved it) goes on as the event left it, unless it sits on an
// int3 of the engine's.
static void PrepareHeldThread(Target *target) {
  TargetThread *t = target->event_thread;
  if (!t) return;
  ThreadContextSlot *slot = ThreadContextIfRead(t);
  u64 own_int3 = t->int3_at_stop;
  t->int3_at_stop = 0;
  if (!slot && HeldOnArmedBreakpoint(target) && ThreadContextGet(t)) slot = ThreadContextIfRead(t);
  if (!slot) return;
  CONTEXT *context = slot->context;
  u64 p = context->Rip;
  // A breakpoint of the engine's under the instruction pointer: its int3 is lifted and the thread
  // steps over the program's own instruction; the single step puts the int3 back.
  BreakpointLocation *bp = BreakpointAt(target, p);
  if (bp && bp->armed) {
    BreakpointDisarm(target, bp);
    if (!bp->armed) {
      t->rearm_address = p;
      context->EFlags |= kTrapFlag;
      ThreadContextMarkDirty(t, kContextDirty);
    }
    return;
  }
  u8 byte = 0;
  if ((own_int3 && p == own_int3) || (!bp && TargetReadMemory(target, p, &byte, 1) && byte == 0xCC)) {
    context->Rip += 1;
    ThreadContextMarkDirty(t, kContextIpOnly);
  }
}

// Under Wine a thread let go from an int3 it was held at goes with the trap flag, unless it has it
// already (a step, a step over a breakpoint): see trap_steps_in_flight. Registers not read at this
// event are not read whole for it: the control registers alone cost the system far less.
static void SettleHeldThread(Target *target) {
  TargetThread *held = target->event_thread;
  const DEBUG_EVENT *ev = &target->event;
  if (!target->settle_after_int3 || !held || held->suspended_by_engine || ev->dwDebugEventCode != EXCEPTION_DEBUG_EVENT ||
      ev->u.Exception.ExceptionRecord.ExceptionCode != 0x80000003 || target->continue_status != DBG_CONTINUE)
    return;
  if (ThreadContextSlot *slot = ThreadContextIfRead(held)) {
    if (slot->context->EFlags & kTrapFlag) return;
    slot->context->EFlags |= kTrapFlag;
    ThreadContextMarkDirty(held, kContextControl);
    held->settle_step = 1;
    return;
  }
  CONTEXT control;
  control.ContextFlags = kControlContextFlags;
  if (!GetThreadContext(held->handle, &control) || (control.EFlags & kTrapFlag)) return;
  control.EFlags |= kTrapFlag;
  if (!SetThreadContext(held->handle, &control)) return;
  held->settle_step = 1;
  held->trap_in_flight = 1;
}

bool EngineBreakIn(Target *target) {
  if (__atomic_load_n(&target->break_ins_outstanding, __ATOMIC_SEQ_CST) != 0) return true;
  __atomic_fetch_add(&target->break_ins_outstanding, 1, __ATOMIC_SEQ_CST);
  if (DebugBreakProcess(target->process)) return true;
  __atomic_fetch_sub(&target->break_ins_outstanding, 1, __ATOMIC_SEQ_CST);
  return false;
}

static bool SomethingWaits(Target *target);

// The one way the target runs on after an event: after a visible stop the held thread is prepared
// and the threads held or let go as the user set them; every changed context is written back; the
// event is continued, which ends the generation of everything read.
static void Resume(Target *target, bool after_stop) {
  if (after_stop) {
    for (TargetThread *t = target->threads; t; t = t->next) t->selected_frame = 0;
    PrepareHeldThread(target);
    EngineRunControlBegin(target);
    ApplySuspensions(target);
  }
  SettleHeldThread(target);
  s32 trap_steps = 0;
  for (TargetThread *t = target->threads; t; t = t->next) {
    (void)ThreadContextFlush(t);
    ThreadContextSlot *slot = ThreadContextIfRead(t);
    if (slot && (slot->context->EFlags & kTrapFlag)) t->trap_in_flight = 1;
    trap_steps += t->trap_in_flight;
  }
  // Published before the look below for what waits: a break-in the user interface held back for
  // these steps is then either seen there or taken at the step's event.
  __atomic_store_n(&target->trap_steps_in_flight, trap_steps, __ATOMIC_SEQ_CST);
  if (target->event_thread) target->event_thread->int3_at_stop = 0;
  target->event_thread = nullptr;
  target->current_thread = nullptr;  // while the target runs there is no current thread
  ContinueDebugEvent(target->event.dwProcessId, target->event.dwThreadId, target->continue_status);
  TargetEndGeneration(target);
  target->continue_status = DBG_CONTINUE;
  if (after_stop) ThreadContextsFlip(target);
  // Running from here on. A break, request or detach asked for while the target sat at the event,
  // too late for the look before continuing, is carried by a break-in now.
  __atomic_store_n(&target->target_running, 1, __ATOMIC_SEQ_CST);
  bool waits = SomethingWaits(target);
  if (waits && trap_steps == 0) (void)EngineBreakIn(target);
}

// True when a break, a request or a detach waits for the engine.
static bool SomethingWaits(Target *target) {
  return __atomic_load_n(&target->user_break_requested, __ATOMIC_SEQ_CST) ||
         __atomic_load_n(&target->ending, __ATOMIC_SEQ_CST) == kEndingDetach || EngineRingHasRequests(target);
}

// An event that would be continued silently first takes what the user interface asked for while
// the target ran: a detach, a break (shown at this event, reason 4), queued requests.
static u32 TakeWhatWaits(Target *target) {
  u8 ending = __atomic_load_n(&target->ending, __ATOMIC_SEQ_CST);
  if (ending == kEndingDetach) {
    target->current_thread = nullptr;
    return kOutcomeSilentStop;
  }
  if (ending) return kOutcomeContinue;
  if (__atomic_load_n(&target->user_break_requested, __ATOMIC_SEQ_CST)) return EngineStopForUserBreak(target);
  EngineServeRequests(target);
  return kOutcomeContinue;
}

static void ClearTrapFlag(TargetThread *t) {
  CONTEXT *context = ThreadContextGet(t);
  if (!context || !(context->EFlags & kTrapFlag)) return;
  context->EFlags &= ~kTrapFlag;
  ThreadContextMarkDirty(t, kContextDirty);
}

// Events that were already on their way when the int3s were taken out: a thread that met one
// is put back on the program's byte, a single step the engine asked for is swallowed, the rest
// goes on as the program would see it without a debugger. Under Wine a thread that has executed an
// int3 reaches the debugger only after some microseconds, and a detach continues what has not
// reached it as if handled (the thread then runs from the middle of an instruction): so the drain
// lasts until the events pause for 50 ms (at most a second). True when the process exited.
static bool DrainQueuedEvents(Target *target, u32 stepping_threads[], u32 stepping_count) {
  DEBUG_EVENT ev;
  ULONGLONG deadline = GetTickCount64() + 1000;
  while (GetTickCount64() < deadline && target->wait_for_debug_event(&ev, 50)) {
    DWORD status = DBG_CONTINUE;
    switch (ev.dwDebugEventCode) {
      case EXIT_PROCESS_DEBUG_EVENT:
        target->exit_code = ev.u.ExitProcess.dwExitCode;
        return true;
      case CREATE_PROCESS_DEBUG_EVENT:
        if (ev.u.CreateProcessInfo.hFile) CloseHandle(ev.u.CreateProcessInfo.hFile);
        break;
      case LOAD_DLL_DEBUG_EVENT:
        if (ev.u.LoadDll.hFile) CloseHandle(ev.u.LoadDll.hFile);
        break;
      case EXCEPTION_DEBUG_EVENT: {
        const EXCEPTION_RECORD *record = &ev.u.Exception.ExceptionRecord;
        u64 at = (u64)(uintptr_t)record->ExceptionAddress;
        TargetThread *t = TargetFindThread(target, ev.dwThreadId);
        bool stepping = false;
        for (u32 i = 0; i < stepping_count; i++) stepping |= stepping_threads[i] == ev.dwThreadId;
        u8 byte = 0;
        if (record->ExceptionCode == 0x80000003 && t && TargetReadMemoryDirect(target, at, &byte, 1) && byte != 0xCC) {
          CONTEXT *context = ThreadContextGet(t);
          if (context && context->Rip == at + 1) {
            context->Rip = at;
            ThreadContextMarkDirty(t, kContextDirty);
            (void)ThreadContextFlush(t);
          }
        } else if (record->ExceptionCode == 0x80000004 && stepping) {
          // the step the engine asked for: nothing of the program's
        } else if (record->ExceptionCode != 0x80000003 && ev.u.Exception.dwFirstChance) {
          status = DBG_EXCEPTION_NOT_HANDLED;
        }
        break;
      }
    }
    ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
    TargetEndGeneration(target);
  }
  return false;
}

// Threads that the engine holds (frozen, or not the solo one) are let go first: a detached
// program must not be left with threads nobody will resume. Every int3 of the engine's is taken
// out and every trap flag it set cleared; the held thread goes on past the program's own int3, as
// a resume would, or runs the program's byte under a breakpoint; events already queued are drained
// the same way, so the detached program runs on correctly.
void EngineDetach(Target *target, bool event_pending) {
  for (TargetThread *h = target->threads; h; h = h->next)
    if (h->suspended_by_engine && ResumeThread(h->handle) != (DWORD)-1) h->suspended_by_engine = 0;
  u32 stepping[64];
  u32 stepping_count = 0;
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->rearm_address || t->settle_step) {
      ClearTrapFlag(t);
      if (stepping_count < KTRN_ARRAY_COUNT(stepping)) stepping[stepping_count++] = t->id;
    }
  // Only int3s and steps of the engine's leave events to drain: without any, nothing more of the
  // program is seen after the held event.
  bool drain = stepping_count > 0;
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next) drain |= b->armed != 0;
  BreakpointsDisarmAll(target);
  EngineRunControlClear(target);
  EngineDisarmAllSlots(target);
  PrepareHeldThread(target);
  if (TargetThread *t = target->event_thread) ClearTrapFlag(t);
  for (TargetThread *t = target->threads; t; t = t->next) (void)ThreadContextFlush(t);
  // The held event is let go before the detach, as the program would have seen it.
  if (event_pending) {
    ContinueDebugEvent(target->event.dwProcessId, target->event.dwThreadId, target->continue_status);
    TargetEndGeneration(target);
  }
  if (drain && DrainQueuedEvents(target, stepping, stepping_count)) {
    target->exited = 1;
    EngineEvent event;
    memset(&event, 0, sizeof event);
    event.kind = kEventProcessExited;
    event.process.exit_code = target->exit_code;
    event.process.process_id = target->process_id;
    EnginePostEvent(target, &event);
    return;
  }
  if (DebugSetProcessKillOnExit(FALSE)) DebugActiveProcessStop(target->process_id);
  target->detached = 1;
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kEventDetached;
  event.process.process_id = target->process_id;
  EnginePostEvent(target, &event);
}

// [SECTION] The loop

// How long the engine waits for a single step before it asks for a break-in that waits.
static const DWORD kStepWaitMs = 50;

void EngineRunLoop(Target *target) {
  DEBUG_EVENT *ev = &target->event;
  for (;;) {
    // With single steps on their way the wait is short: a step that does not come (its instruction
    // waits in the system) must not hold back a break-in the user interface left to the engine.
    bool stepping = __atomic_load_n(&target->trap_steps_in_flight, __ATOMIC_SEQ_CST) != 0;
    if (!target->wait_for_debug_event(ev, stepping ? kStepWaitMs : INFINITE)) {
      if (!stepping || GetLastError() != ERROR_SEM_TIMEOUT) return;
      if (SomethingWaits(target)) (void)EngineBreakIn(target);
      continue;
    }
    __atomic_store_n(&target->target_running, 0, __ATOMIC_SEQ_CST);
    target->debug_events++;
    u32 outcome = HandleEvent(target, ev);
    if (outcome == kOutcomeEnd) return;
    if (outcome == kOutcomeContinue) outcome = TakeWhatWaits(target);
    bool stopped = outcome == kOutcomeStop || outcome == kOutcomeSilentStop;
    if (outcome == kOutcomeStop) StopSequence(target);
    if (stopped) {
      u32 command = EngineServeCommands(target, false);
      if (command == kCommandStopDebugging) {
        EngineDetach(target, true);
        return;
      }
    }
    Resume(target, outcome == kOutcomeStop);
  }
}
