// The debugger thread's loop: every debug event, the stop sequence, the commands served while the
// target is stopped, resuming and detaching.
//
// [SECTION] Debug events
// [SECTION] Commands while stopped
// [SECTION] Stop, resume, detach
// [SECTION] The loop
#include <string.h>

#include "engine/engine_internal.h"
#include "symbols/pdb_raw.h"
#include "symbols/scope_lookup.h"

// [SECTION] Debug events

static void HandleDebugString(Target *target, const OUTPUT_DEBUG_STRING_INFO *info) {
  u32 length = info->nDebugStringLength;
  if (length == 0) return;
  char *raw = EngineTakeText(target, (u64)length + 2);
  if (!raw) return;
  if (TargetReadMemoryDirect(target, (u64)(uintptr_t)info->lpDebugStringData, raw, length) != 0) return;
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
  // The thread that DebugBreakProcess or an attach creates only raises the break; never modelled.
  if (target->break_in_address && start == target->break_in_address) return;
  TargetThread *thread =
      TargetThreadCreate(target, info->hThread, thread_id, start, (u64)(uintptr_t)info->lpThreadLocalBase);
  if (!thread) return;
  EngineNameThread(target, thread, false);
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
  TargetThread *thread = TargetFindThread(target, thread_id);
  if (!thread) return;
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
    case LOAD_DLL_DEBUG_EVENT:
      if (ev->u.LoadDll.hFile) {
        EngineLoadModule(target, ev->u.LoadDll.hFile, (u64)(uintptr_t)ev->u.LoadDll.lpBaseOfDll, nullptr);
        CloseHandle(ev->u.LoadDll.hFile);
      }
      return kOutcomeContinue;
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

static void DrainRequests(Target *target) {
  EngineRequest request;
  while (EngineRingPopRequest(target, &request) == 0) {
    // Processor-breakpoint requests are carried out here once the slots exist; until then a
    // request is taken off the ring and counted.
    target->requests_served++;
  }
}

u32 EngineWaitCommand(Target *target) {
  HANDLE *w = target->wait_objects;
  HANDLE order[7] = {w[kWaitRun],          w[kWaitStopDebugging], w[kWaitRefresh],       w[kWaitThreadStates],
                     w[kWaitSelectFrame],  w[kWaitContextChanged], w[kWaitRebuildStack]};
  static const u32 codes[7] = {kCommandRun,         kCommandStopDebugging, kCommandRefresh,     kCommandThreadStates,
                               kCommandSelectFrame, kCommandThreadStates,  kCommandRebuildStack};
  SetEvent(w[kWaitEngineWaiting]);
  if (target->stop_event_held) {
    target->stop_event_held = 0;
    EnginePostEvent(target, &target->held_stop_event);
  }
  DWORD r = WaitForMultipleObjects(7, order, FALSE, INFINITE);
  u32 code = kCommandFailed;
  if (r < WAIT_OBJECT_0 + 7) {
    u32 i = r - WAIT_OBJECT_0;
    code = codes[i];
    if (i == 5) target->continue_status = DBG_CONTINUE;  // registers were written: the exception is handled
  }
  if (code == kCommandRun || code == kCommandStopDebugging) {
    // Commands signalled together with the run (registers written just before it, say) are taken
    // now, so that none carries over into the next stop: written registers still make the pending
    // exception handled, the rest have nothing left to do. One call when none is waiting.
    HANDLE rest[5] = {w[kWaitRefresh], w[kWaitThreadStates], w[kWaitSelectFrame], w[kWaitContextChanged],
                      w[kWaitRebuildStack]};
    for (;;) {
      DWORD taken = WaitForMultipleObjects(5, rest, FALSE, 0);
      if (taken >= WAIT_OBJECT_0 + 5) break;
      if (rest[taken - WAIT_OBJECT_0] == w[kWaitContextChanged]) target->continue_status = DBG_CONTINUE;
    }
  }
  if (code == kCommandRun || code == kCommandStopDebugging || code == kCommandFailed) ResetEvent(w[kWaitEngineWaiting]);
  DrainRequests(target);
  return code;
}

static u64 CurrentIp(TargetThread *thread) {
  if (!thread) return 0;
  CONTEXT *context = ThreadContextGet(thread);
  return context ? context->Rip : 0;
}

static void RefreshThreadSnapshot(Target *target, TargetThread *thread);

// Thread states changed (also after registers were written or another thread was selected): the
// views and the requests are brought up to date before the threads are held or let go.
static void ApplyThreadStates(Target *target) {
  for (TargetThread *t = target->threads; t; t = t->next) RefreshThreadSnapshot(target, t);
  EngineEvaluateRequests(target, true);
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
  EnginePostStopped(target, target->current_thread, kStopThreadStates, CurrentIp(target->current_thread), 0);
}

u32 EngineServeCommands(Target *target, bool held) {
  for (;;) {
    u32 command = EngineWaitCommand(target);
    switch (command) {
      case kCommandFailed:
      case kCommandRun:
      case kCommandStopDebugging:
        return command;
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
        if (index < 0 || (u32)index >= t->frame_count) {  // out of range: the requests only
          EngineEvaluateRequests(target, true);
          break;
        }
        t->selected_frame = index;
        // Frame 0 is the instruction pointer; deeper frames come with the call-stack builder.
        EnginePostStopped(target, t, kStopFrameSelected, CurrentIp(t), index);
        break;
      }
      case kCommandRebuildStack: {
        TargetThread *t = target->current_thread;
        if (held || !t) break;
        t->selected_frame = 0;
        EnginePostStopped(target, t, kStopFrameSelected, CurrentIp(t), 0);
        break;
      }
    }
  }
}

// [SECTION] Stop, resume, detach

// The threads window's view of each thread: the module and function at its instruction pointer,
// kept while the pointer stays inside that function.
static void RefreshThreadSnapshot(Target *target, TargetThread *thread) {
  CONTEXT *context = ThreadContextGet(thread);
  if (!context) {
    thread->frame_count = 0;
    return;
  }
  thread->frame_count = 1;
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

static void StopSequence(Target *target) {
  target->cache_index ^= 1;
  MemoryCacheInvalidate(TargetCache(target));
  for (TargetThread *t = target->threads; t; t = t->next) {
    t->selected_frame = 0;
    RefreshThreadSnapshot(target, t);
  }
  EngineEvaluateRequests(target, true);
}

// Prepares the current thread before the target runs on: an int3 of the program's own under the
// instruction pointer is stepped over instead of being executed again.
static void StepPastProgramInt3(Target *target, TargetThread *t, CONTEXT *context) {
  u8 byte = 0;
  bool own_int3 = t->int3_at_stop && context->Rip == t->int3_at_stop;
  t->int3_at_stop = 0;
  if (own_int3 || (TargetReadMemory(target, context->Rip, &byte, 1) == 0 && byte == 0xCC)) {
    context->Rip += 1;
    if (t->context_dirty == 2 && context->Rip == t->rip_as_read) t->context_dirty = 0;  // as the thread has it
    else t->context_dirty = 1;
  }
}

static void ResumeCurrentThread(Target *target) {
  for (TargetThread *t = target->threads; t; t = t->next) t->selected_frame = 0;
  TargetThread *t = target->current_thread;
  target->current_thread = nullptr;
  if (!t) return;
  CONTEXT *context = t->context_read[t->context_index] ? t->context[t->context_index] : nullptr;
  if (!context) return;
  StepPastProgramInt3(target, t, context);
  ThreadContextFlush(t);
}

// Threads that the engine holds (frozen, or not the solo one) are let go first: a detached
// program must not be left with threads nobody will resume. At the program's own int3 the
// stopped thread goes on past it, as a resume would, instead of meeting it again undebugged.
void EngineDetach(Target *target, bool event_pending) {
  for (TargetThread *h = target->threads; h; h = h->next)
    if (h->suspended_by_engine && ResumeThread(h->handle) != (DWORD)-1) h->suspended_by_engine = 0;
  TargetThread *t = target->current_thread;
  if (t) {
    CONTEXT *context = ThreadContextGet(t);
    if (context) {
      StepPastProgramInt3(target, t, context);
      if (context->EFlags & 0x100) {
        context->EFlags &= ~0x100u;
        t->context_dirty = 1;
      }
      ThreadContextFlush(t);
    }
  }
  // The held event is let go before the detach, as the program would have seen it.
  if (event_pending) ContinueDebugEvent(target->event.dwProcessId, target->event.dwThreadId, target->continue_status);
  if (DebugSetProcessKillOnExit(FALSE)) DebugActiveProcessStop(target->process_id);
  target->detached = 1;
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kEventDetached;
  event.process.process_id = target->process_id;
  EnginePostEvent(target, &event);
}

// [SECTION] The loop

void EngineRunLoop(Target *target) {
  DEBUG_EVENT *ev = &target->event;
  for (;;) {
    if (!target->wait_for_debug_event(ev, INFINITE)) return;
    target->debug_events++;
    u32 outcome = HandleEvent(target, ev);
    if (outcome == kOutcomeEnd) return;
    if (outcome == kOutcomeStop) {
      StopSequence(target);
      u32 command = EngineServeCommands(target, false);
      if (command == kCommandStopDebugging) {
        EngineDetach(target, true);
        return;
      }
      if (command == kCommandFailed) return;
      ResumeCurrentThread(target);
      ContinueDebugEvent(ev->dwProcessId, ev->dwThreadId, target->continue_status);
      target->continue_status = DBG_CONTINUE;
      ThreadContextsFlip(target);
      continue;
    }
    target->current_thread = nullptr;  // while the target runs there is no current thread
    ContinueDebugEvent(ev->dwProcessId, ev->dwThreadId, target->continue_status);
    target->continue_status = DBG_CONTINUE;
  }
}
