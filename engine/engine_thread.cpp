// The debugger thread: its start-up steps up to the first command, then the event loop.
#include <string.h>

#include "engine/engine_internal.h"
#include "engine/engine_start.h"

static EngineResult WaitFirstEvent(Target *target) {
  if (!target->wait_for_debug_event(&target->event, 10000))
    return GetLastError() == ERROR_SEM_TIMEOUT ? kEngineTimeout : kEngineInitFailed;
  if (target->event.dwDebugEventCode != CREATE_PROCESS_DEBUG_EVENT) return kEngineInitFailed;
  return kEngineOk;
}

// The process and its main image, from the first event.
static EngineResult TakeProcess(Target *target) {
  const CREATE_PROCESS_DEBUG_INFO *info = &target->event.u.CreateProcessInfo;
  target->process = info->hProcess;
  target->main_image_base = (u64)(uintptr_t)info->lpBaseOfImage;
  TargetThread *main = TargetThreadCreate(target, info->hThread, target->event.dwThreadId,
                                          (u64)(uintptr_t)info->lpStartAddress, (u64)(uintptr_t)info->lpThreadLocalBase);
  if (main) {
    EngineNameThread(target, main, true);
    EnginePostThreadStarted(target, main);
  }
  target->current_thread = main;
  HANDLE file = info->hFile;
  if (!file && target->launch) {
    wchar_t path[MAX_PATH * 4];
    if (MultiByteToWideChar(CP_UTF8, 0, target->launch->executable, -1, path, (int)KTRN_ARRAY_COUNT(path)) > 0)
      file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) file = nullptr;
  }
  // Without a file handle (an attach may bring none) the module is found through the process.
  int result = EngineLoadModule(target, file, target->main_image_base, &target->main_module);
  if (file) CloseHandle(file);
  if (result == kPe32Bit) return kEngine32Bit;
  if (result == kPeNotImage) return kEngineBadPeHeader;
  if (result != kPeOk) return kEngineInitFailed;
  if (!target->main_module) return kEngineInitFailed;
  bool continued = ContinueDebugEvent(target->event.dwProcessId, target->event.dwThreadId, DBG_CONTINUE);
  TargetEndGeneration(target);
  return continued ? kEngineOk : kEngineInitFailed;
}

// Steps 8 and 9, once the start has succeeded.
static void RunStarted(Target *target) {
  // 8. A launched process stays held until the first run (or a stop, which detaches it).
  if (!target->attached) {
    u32 command = EngineServeCommands(target, true);
    if (command == kCommandStopDebugging) {
      EngineDetach(target, false);
      return;
    }
    EngineRunControlBegin(target);  // a launch that halts at the entry point places its breakpoint
  }

  // 9. The loop.
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  target->break_in_address = (u64)(uintptr_t)(void *)GetProcAddress(ntdll, "DbgUiRemoteBreakin");
  target->loader_breakpoint_expected = target->attached ? 0 : 1;
  EngineRunLoop(target);
}

static DWORD WINAPI EngineThreadMain(void *parameter) {
  EngineStart *start = (EngineStart *)parameter;
  Target *target = start->target;
  HANDLE finished = start->finished;
  EngineWakeFn wake = start->wake;
  void *wake_user = start->wake_user;
  u32 attach_id = start->attach_process_id;

  // 1. A clean target, 2. the wait for debug events.
  EngineResult result = TargetInit(target);
  target->wake = wake;
  target->wake_user = wake_user;
  target->launch = start->launch;
  HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
  target->wait_for_debug_event = (WaitForDebugEventFn)(void *)GetProcAddress(kernel32, "WaitForDebugEventEx");
  if (!target->wait_for_debug_event) target->wait_for_debug_event = WaitForDebugEvent;
  // Wine makes a break-in's remote thread through a thread of the program (see
  // trap_steps_in_flight); Windows makes it in the kernel.
  target->settle_after_int3 = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;

  // 3. Attach or create the process, 4. its first event, 5. the main thread and image.
  bool process_made = false;
  if (result == 0) {
    if (attach_id) {
      if (DebugActiveProcess(attach_id)) {
        target->attached = 1;
        target->process_id = attach_id;
        process_made = true;
        // The attach's break-in is a break the user waits for: it stops with reason 4.
        target->user_break_requested = 1;
        target->break_ins_outstanding = 1;
      } else {
        result = kEngineSystemCallFailed;
      }
    } else {
      u32 id = 0;
      result = LaunchCreateProcess(&target->arena, start->launch, &id);
      if (result == 0) {
        target->process_id = id;
        process_made = true;
      }
    }
  }
  if (result == kEngineOk) result = WaitFirstEvent(target);
  if (result == kEngineOk) result = TakeProcess(target);
  target->launch = nullptr;  // the description belongs to the starter

  // 6. The result published.
  target->start_result = (u32)result;
  start->result = result;
  start->process_id = target->process_id;
  if (result != kEngineOk) {
    // 7. Nothing of the run stays.
    if (process_made) {
      if (target->attached) {
        DebugActiveProcessStop(attach_id);
      } else if (target->process) {
        TerminateProcess(target->process, 1);
      } else {
        HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, target->process_id);
        if (process) {
          TerminateProcess(process, 1);
          CloseHandle(process);
        }
      }
    }
    TargetRelease(target);
    SetEvent(finished);
    return (DWORD)result;
  }
  // A launched process is held, which the UI sees as stopped as soon as the start returns.
  EngineSetState(target, target->attached ? kEngineStateWorking : kEngineStateServing);
  SetEvent(finished);  // start is invalid from here on
  RunStarted(target);
  EngineSetState(target, kEngineStateEnded);
  return 0;
}

EngineResult EngineStartThread(EngineStart *start) {
  start->finished = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!start->finished) return kEngineInitFailed;
  HANDLE thread = CreateThread(nullptr, 0, EngineThreadMain, start, 0, nullptr);
  if (!thread) {
    CloseHandle(start->finished);
    return kEngineInitFailed;
  }
  WaitForSingleObject(start->finished, INFINITE);
  CloseHandle(start->finished);
  if (start->result != kEngineOk) {
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    return start->result;
  }
  start->target->engine_thread = thread;
  return kEngineOk;
}

void EngineEndRun(Target *target) {
  if (target->engine_thread) {
    WaitForSingleObject(target->engine_thread, INFINITE);
    CloseHandle(target->engine_thread);
    target->engine_thread = nullptr;
  }
  TargetRelease(target);
}
