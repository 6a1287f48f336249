// The operations of the user-interface thread. Each checks the target's state, writes what the
// engine needs into the Target, and wakes the engine through one of its wait objects; none waits
// for the engine's answer, which comes back as events.
//
// [SECTION] Starting and ending a run
// [SECTION] State
// [SECTION] Operations
#include <string.h>

#include "base/os.h"
#include "engine/engine.h"
#include "engine/engine_start.h"

enum : u32 { kPathCapacity = 4096 };

const char *EngineStartResultText(int result) {
  switch (result) {
    case 5: return "executable not found";
    case 6: return "working directory not valid";
    case 7: return "access denied";
    case 8: return "timeout expired";
    case 9: return "initialization failed";
    case 10: return "32-bit processes are not supported";
    case 11: return "PE header is invalid";
    case 12: return "CreateProcess failed with error 216 (ERROR_EXE_MACHINE_TYPE_MISMATCH)";
  }
  return "unknown reason";
}

// [SECTION] Starting and ending a run

static Target *NewTarget(void) { return (Target *)OsMemoryAllocate(sizeof(Target)); }

int EngineStartAttach(u32 process_id, EngineWakeFn wake, void *wake_user, Target **out_target) {
  if (!out_target || process_id == 0) return 1;
  *out_target = nullptr;
  Target *target = NewTarget();
  if (!target) return 9;
  EngineStart start;
  memset(&start, 0, sizeof start);
  start.target = target;
  start.attach_process_id = process_id;
  start.wake = wake;
  start.wake_user = wake_user;
  int result = EngineStartThread(&start);
  if (result != 0) {
    OsMemoryRelease(target, sizeof(Target));
    return result;
  }
  *out_target = target;
  return 0;
}

static void Backslashes(char *path) {
  for (char *p = path; *p; p++)
    if (*p == '/') *p = '\\';
}

static bool CopyPath(char *out, const char *path) {
  u64 length = path ? strlen(path) : 0;
  if (length >= kPathCapacity) return false;
  memcpy(out, path ? path : "", length + 1);
  Backslashes(out);
  return true;
}

int EngineStartLaunch(const LaunchDescription *launch, EngineWakeFn wake, void *wake_user, Target **out_target,
                      u32 *out_process_id) {
  if (!out_target) return 1;
  *out_target = nullptr;
  if (!launch || !launch->executable || !launch->executable[0]) return 1;
  static char executable[kPathCapacity];  // the UI thread's own: one start at a time
  static char directory[kPathCapacity];
  if (!CopyPath(executable, launch->executable)) return 5;
  const char *dir = launch->working_directory && launch->working_directory[0] ? launch->working_directory
                                                                              : launch->default_directory;
  if (!CopyPath(directory, dir)) return 6;
  if (!OsFileExists(executable) || OsDirectoryExists(executable)) return 5;
  if (directory[0] && !OsDirectoryExists(directory)) return 6;

  LaunchDescription checked = *launch;
  checked.executable = executable;
  checked.working_directory = directory;
  Target *target = NewTarget();
  if (!target) return 9;
  EngineStart start;
  memset(&start, 0, sizeof start);
  start.target = target;
  start.launch = &checked;
  start.wake = wake;
  start.wake_user = wake_user;
  int result = EngineStartThread(&start);
  if (result != 0) {
    OsMemoryRelease(target, sizeof(Target));
    return result;
  }
  *out_target = target;
  if (out_process_id) *out_process_id = start.process_id;
  return 0;
}

void EngineRelease(Target *target) {
  if (!target) return;
  EngineEndRun(target);
  OsMemoryRelease(target, sizeof(Target));
}

// [SECTION] State

int EngineStoppedState(Target *target) {
  if (!target || !target->wait_objects[kWaitEngineWaiting]) return 1;
  DWORD r = WaitForSingleObject(target->wait_objects[kWaitEngineWaiting], 0);
  if (r == WAIT_OBJECT_0) return 0;
  if (r == WAIT_TIMEOUT) return 26;
  return 37;
}

int EngineWaitStopped(Target *target, u32 timeout_ms) {
  if (!target || !target->wait_objects[kWaitEngineWaiting]) return 1;
  HANDLE handles[2] = {target->wait_objects[kWaitEngineWaiting], target->engine_thread};
  DWORD r = WaitForMultipleObjects(target->engine_thread ? 2 : 1, handles, FALSE, timeout_ms);
  if (r == WAIT_OBJECT_0) return 0;
  if (r == WAIT_TIMEOUT) return 26;
  return 37;  // the engine thread ended
}

static bool HasProcess(const Target *target) { return target->process && !target->exited && !target->detached; }

static void Signal(Target *target, u32 object) { SetEvent(target->wait_objects[object]); }

// [SECTION] Operations

int EngineBreak(Target *target) {
  if (!target) return 1;
  if (!HasProcess(target)) return 3;
  if (EngineStoppedState(target) != 26) return 37;
  target->user_break_requested = 1;
  if (!DebugBreakProcess(target->process)) {
    target->user_break_requested = 0;
    return 37;
  }
  return 0;
}

int EngineRun(Target *target) {
  if (!target) return 1;
  int state = EngineStoppedState(target);
  if (state != 0) return state == 26 ? 26 : 37;
  Signal(target, kWaitRun);
  return 0;
}

int EngineStopDebugging(Target *target) {
  if (!target) return 1;
  if (!HasProcess(target)) return 3;
  u8 was_ending = target->ending;
  target->ending = 1;
  if (!DebugBreakProcess(target->process)) {
    target->ending = was_ending;
    return 37;
  }
  // Breakpoint bytes are taken out of target memory here once breakpoints exist.
  Signal(target, kWaitStopDebugging);
  return 0;
}

int EngineTerminate(Target *target, u32 exit_code) {
  if (!target) return 1;
  if (!HasProcess(target)) return 3;
  target->ending = 1;
  if (!TerminateProcess(target->process, exit_code)) return 37;
  // Run is signalled whether the engine is stopped or not: a break already on its way (the user's,
  // or an attach's break-in) still arrives after the terminate and stops silently, and this run lets
  // it go on to the exit instead of waiting for a command that never comes.
  Signal(target, kWaitRun);
  return 0;
}

int EngineSelectThread(Target *target, u32 thread_id) {
  if (!target) return 1;
  int state = EngineStoppedState(target);
  if (state == 26) return 0;
  if (state != 0) return 37;
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->id == thread_id) target->current_thread = t;
  Signal(target, kWaitThreadStates);
  return 0;
}

static int ToggleFlag(Target *target, TargetThread *thread, bool solo) {
  if (!target || !thread) return 1;
  int state = EngineStoppedState(target);
  if (state != 0) return state == 26 ? 26 : 37;
  if (solo)
    thread->solo ^= 1;
  else
    thread->frozen ^= 1;
  Signal(target, kWaitThreadStates);
  return 0;
}

int EngineToggleFreeze(Target *target, TargetThread *thread) { return ToggleFlag(target, thread, false); }
int EngineToggleSolo(Target *target, TargetThread *thread) { return ToggleFlag(target, thread, true); }

int EngineSelectFrame(Target *target, s32 frame_index) {
  if (!target) return 1;
  if (EngineStoppedState(target) != 0) return 0;
  target->requested_frame = frame_index;
  Signal(target, kWaitSelectFrame);
  return 0;
}

int EngineSetStackOverflowCollapsing(Target *target, u8 on) {
  if (!target) return 1;
  if (EngineStoppedState(target) != 0) return 0;
  target->collapse_stack_overflow = on ? 1 : 0;
  Signal(target, kWaitRebuildStack);
  return 0;
}

int EngineSetPdbOverride(Target *target, const char *path) {
  if (!target || !path) return 1;
  return PdbPathOverrideSet(&target->pdb_pick, path) ? 0 : 33;
}

int EngineSetInstructionPointer(Target *target, u64 address) {
  if (!target) return 1;
  if (EngineStoppedState(target) != 0) return 26;
  TargetThread *t = target->current_thread;
  if (!t) return 37;
  CONTEXT *context = ThreadContextGet(t);
  if (!context) return 37;
  context->Rip = address;
  t->context_dirty = 1;
  if (ThreadContextFlush(t) != 0) return 37;
  Signal(target, kWaitContextChanged);
  return 0;
}

int EngineSetNextStatement(Target *target, const char *path, u32 line) {
  if (!target || !path) return 1;
  if (EngineStoppedState(target) != 0) return 26;
  TargetThread *t = target->current_thread;
  if (!t) return 37;
  u64 address = 0;
  for (TargetModule *m = target->modules; m && !address; m = m->next) {
    const ModuleSymbols *symbols = &m->symbols;
    if (symbols->status != kSymbolsLoaded) continue;
    u32 file = PdbFindSourceFile(&symbols->pdb.source_files, path);
    if (!file) continue;
    const PdbLineEntry *entry = PdbAddressOfLine(&symbols->pdb.lines, file, line);
    if (!entry || entry->section == 0 || entry->section > symbols->image.section_count) continue;
    address = symbols->load_base + symbols->image.sections[entry->section - 1].virtual_address + entry->offset;
  }
  if (!address) return 23;
  return EngineSetInstructionPointer(target, address);
}

int EngineQueueRequest(Target *target, const EngineRequest *request) {
  if (!target || !request) return 1;
  if (!HasProcess(target)) return 3;
  bool running = EngineStoppedState(target) == 26;
  if (running) {
    target->internal_break_requested = 1;
    if (!DebugBreakProcess(target->process)) {
      target->internal_break_requested = 0;
      return 37;
    }
    WaitForSingleObject(target->wait_objects[kWaitEngineWaiting], 1000);
  }
  int result = EngineRingPushRequest(target, request);
  if (running) Signal(target, kWaitRun);
  return result;
}
