// The operations of the user-interface thread. Each checks the target's state, writes what the
// engine needs into the Target, and wakes the engine with one of its commands; none waits
// for the engine's answer, which comes back as events.
//
// [SECTION] Starting and ending a run
// [SECTION] State
// [SECTION] Operations
// [SECTION] Reading the stopped target
#include <string.h>

#include "base/os.h"
#include "engine/engine.h"
#include "engine/engine_internal.h"
#include "engine/engine_start.h"
#include "symbols/pdb_raw.h"

enum : u32 { kPathCapacity = 4096 };

const char *EngineStartResultText(int result) {
  switch (result) {
    case kEngineExecutableNotFound: return "executable not found";
    case kEngineBadWorkingDirectory: return "working directory not valid";
    case kEngineAccessDenied: return "access denied";
    case kEngineTimeout: return "timeout expired";
    case kEngineInitFailed: return "initialization failed";
    case kEngine32Bit: return "32-bit processes are not supported";
    case kEngineBadPeHeader: return "PE header is invalid";
    case kEngineMachineMismatch: return "CreateProcess failed with error 216 (ERROR_EXE_MACHINE_TYPE_MISMATCH)";
    case kEngineSystemCallFailed: return "attach refused by the system";
  }
  return "unknown reason";
}

// [SECTION] Starting and ending a run

// The one target of the program: cleared and rebuilt by every run, cleared again at its release,
// never freed, so that a user interface that asks after the release finds no target.
static Target g_target;

// What a launch hands to the debugger thread, kept beside the target for the same reason.
static struct LaunchPaths {
  char executable[kPathCapacity];
  char directory[kPathCapacity];
} g_launch_paths;

static bool RunActive(void) { return g_target.engine_thread != nullptr; }

EngineResult EngineStartAttach(u32 process_id, EngineWakeFn wake, void *wake_user, Target **out_target) {
  if (!out_target || process_id == 0) return kEngineNoTarget;
  *out_target = nullptr;
  if (RunActive()) return kEngineSystemCallFailed;
  EngineStart start;
  memset(&start, 0, sizeof start);
  start.target = &g_target;
  start.attach_process_id = process_id;
  start.wake = wake;
  start.wake_user = wake_user;
  EngineResult result = EngineStartThread(&start);
  if (result != kEngineOk) return result;
  *out_target = &g_target;
  return kEngineOk;
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

EngineResult EngineStartLaunch(const LaunchDescription *launch, EngineWakeFn wake, void *wake_user,
                               Target **out_target, u32 *out_process_id) {
  if (!out_target) return kEngineNoTarget;
  *out_target = nullptr;
  if (!launch || !launch->executable || !launch->executable[0]) return kEngineNoTarget;
  if (RunActive()) return kEngineSystemCallFailed;
  LaunchPaths *paths = &g_launch_paths;
  if (!CopyPath(paths->executable, launch->executable)) return kEngineExecutableNotFound;
  const char *dir = launch->working_directory && launch->working_directory[0] ? launch->working_directory
                                                                              : launch->default_directory;
  if (!CopyPath(paths->directory, dir)) return kEngineBadWorkingDirectory;
  if (!OsFileExists(paths->executable) || OsDirectoryExists(paths->executable)) return kEngineExecutableNotFound;
  if (paths->directory[0] && !OsDirectoryExists(paths->directory)) return kEngineBadWorkingDirectory;

  LaunchDescription checked = *launch;
  checked.executable = paths->executable;
  checked.working_directory = paths->directory;
  EngineStart start;
  memset(&start, 0, sizeof start);
  start.target = &g_target;
  start.launch = &checked;
  start.wake = wake;
  start.wake_user = wake_user;
  EngineResult result = EngineStartThread(&start);
  if (result != kEngineOk) return result;
  *out_target = &g_target;
  if (out_process_id) *out_process_id = start.process_id;
  return kEngineOk;
}

void EngineRelease(Target *target) {
  if (!target || !target->engine_thread) return;
  EngineEndRun(target);
}

// [SECTION] State

static bool HasProcess(const Target *target) { return target->process && !target->exited && !target->detached; }

// The state an operation that needs a stopped target answers with when it is not stopped.
static EngineResult NotStopped(EngineResult state) {
  return state == kEngineNotSuspended || state == kEngineNoTarget ? state : kEngineSystemCallFailed;
}

// Takes the model lock for an operation at a stop: kEngineOk with the lock held, else why not.
EngineResult EngineLockStopped(Target *target) {
  if (!target) return kEngineNoTarget;
  EngineResult state = EngineStoppedState(target);
  if (state != kEngineOk) return state;
  AcquireSRWLockExclusive(&target->model_lock);
  state = EngineStoppedState(target);  // the engine may have taken run meanwhile
  if (state != kEngineOk) ReleaseSRWLockExclusive(&target->model_lock);
  return state;
}

static void Unlock(Target *target) { ReleaseSRWLockExclusive(&target->model_lock); }

// Asks for a break-in while the target runs, unless one is on its way (the engine counts it down when
// it arrives). While the target sits at an event, or a single step is on its way to one, nothing goes
// out: the engine takes what waits at the event (and asks for the break-in itself right after
// continuing, should it have just missed it).
static bool BreakInIfRunning(Target *target) {
  if (!__atomic_load_n(&target->target_running, __ATOMIC_SEQ_CST)) return true;
  // A single step on its way is an event: the engine takes what waits there (or, should the step
  // not come soon, breaks in itself).
  if (__atomic_load_n(&target->trap_steps_in_flight, __ATOMIC_SEQ_CST)) return true;
  return EngineBreakIn(target);
}

// [SECTION] Operations

EngineResult EngineBreak(Target *target) {
  if (!target || target->engine_state == kEngineStateNone) return kEngineNoTarget;
  if (!HasProcess(target)) return kEngineNoProcess;
  if (EngineStoppedState(target) != kEngineNotSuspended) return kEngineSystemCallFailed;
  __atomic_store_n(&target->user_break_requested, 1, __ATOMIC_SEQ_CST);
  if (!BreakInIfRunning(target)) {
    target->user_break_requested = 0;
    return kEngineSystemCallFailed;
  }
  return kEngineOk;
}

EngineResult EngineRun(Target *target) {
  if (!target) return kEngineNoTarget;
  EngineResult state = EngineStoppedState(target);
  if (state != kEngineOk) return NotStopped(state);
  EngineSignal(target, kWaitRun);
  return kEngineOk;
}

EngineResult EngineStopDebugging(Target *target) {
  if (!target || target->engine_state == kEngineStateNone) return kEngineNoTarget;
  if (!HasProcess(target)) return kEngineNoProcess;
  bool stopped = EngineStoppedState(target) == kEngineOk;
  u8 was_ending = target->ending;
  __atomic_store_n(&target->ending, (u8)kEndingDetach, __ATOMIC_SEQ_CST);
  // While running, the engine stops silently at the break-in (or at the next event) and detaches
  // at its first command wait.
  if (!stopped && !BreakInIfRunning(target)) {
    target->ending = was_ending;
    return kEngineSystemCallFailed;
  }
  EngineSignal(target, kWaitStopDebugging, stopped ? 0 : kAnyStop);
  return kEngineOk;
}

EngineResult EngineTerminate(Target *target, u32 exit_code) {
  if (!target || target->engine_state == kEngineStateNone) return kEngineNoTarget;
  if (!HasProcess(target)) return kEngineNoProcess;
  u8 was_ending = target->ending;
  target->ending = kEndingTerminate;
  if (!TerminateProcess(target->process, exit_code)) {
    target->ending = was_ending;
    return kEngineSystemCallFailed;
  }
  // Run is signalled whether the engine is stopped or not: a break already on its way (the user's,
  // or an attach's break-in) still arrives after the terminate and stops silently, and this run lets
  // it go on to the exit instead of waiting for a command that never comes.
  EngineSignal(target, kWaitRun, kAnyStop);
  return kEngineOk;
}

EngineResult EngineSelectThread(Target *target, u32 thread_id) {
  EngineResult state = EngineLockStopped(target);
  if (state == kEngineNotSuspended) return kEngineOk;
  if (state != kEngineOk) return NotStopped(state);
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->id == thread_id) target->current_thread = t;
  EngineSignal(target, kWaitThreadStates);
  Unlock(target);
  return kEngineOk;
}

static EngineResult ToggleFlag(Target *target, TargetThread *thread, bool solo) {
  EngineResult state = EngineLockStopped(target);
  if (state != kEngineOk) return NotStopped(state);
  if (thread) {
    if (solo)
      thread->solo ^= 1;
    else
      thread->frozen ^= 1;
    EngineSignal(target, kWaitThreadStates);
  }
  Unlock(target);
  return thread ? kEngineOk : kEngineNoTarget;
}

EngineResult EngineToggleFreeze(Target *target, TargetThread *thread) { return ToggleFlag(target, thread, false); }
EngineResult EngineToggleSolo(Target *target, TargetThread *thread) { return ToggleFlag(target, thread, true); }

EngineResult EngineSelectFrame(Target *target, s32 frame_index) {
  if (!target) return kEngineNoTarget;
  EngineResult state = EngineStoppedState(target);
  if (state == kEngineNoTarget) return state;
  if (state != kEngineOk) return kEngineOk;
  target->requested_frame = frame_index;
  EngineSignal(target, kWaitSelectFrame);
  return kEngineOk;
}

EngineResult EngineSetStackOverflowCollapsing(Target *target, u8 on) {
  if (!target) return kEngineNoTarget;
  EngineResult state = EngineStoppedState(target);
  if (state == kEngineNoTarget) return state;
  if (state != kEngineOk) return kEngineOk;
  target->collapse_stack_overflow = on ? 1 : 0;
  EngineSignal(target, kWaitRebuildStack);
  return kEngineOk;
}

EngineResult EngineSetPdbOverride(Target *target, const char *path) {
  if (!target || !path) return kEngineNoTarget;
  return PdbPathOverrideSet(&target->pdb_pick, path) ? kEngineOk : kEngineTextTooLong;
}

// With the model lock held: the current thread's instruction pointer, written to the thread.
static EngineResult SetInstructionPointerLocked(Target *target, u64 address) {
  TargetThread *t = target->current_thread;
  if (!t) return kEngineSystemCallFailed;
  CONTEXT *context = ThreadContextGet(t);
  if (!context) return kEngineSystemCallFailed;
  context->Rip = address;
  ThreadContextMarkDirty(t, kContextDirty);
  if (ThreadContextFlush(t) != kEngineOk) return kEngineSystemCallFailed;
  EngineSignal(target, kWaitContextChanged);
  return kEngineOk;
}

EngineResult EngineSetInstructionPointer(Target *target, u64 address) {
  EngineResult state = EngineLockStopped(target);
  if (state == kEngineNoTarget) return state;
  if (state != kEngineOk) return kEngineNotSuspended;
  EngineResult result = SetInstructionPointerLocked(target, address);
  Unlock(target);
  return result;
}

static EngineResult NextStatementLocked(Target *target, const char *path, u32 line);

EngineResult EngineSetNextStatement(Target *target, const char *path, u32 line) {
  if (!target || !path) return kEngineNoTarget;
  EngineResult state = EngineLockStopped(target);
  if (state == kEngineNoTarget) return state;
  if (state != kEngineOk) return kEngineNotSuspended;
  EngineResult result = NextStatementLocked(target, path, line);
  Unlock(target);
  return result;
}

// The first of lines line..line+9 of the file that has code, in the first loaded module that has
// one; 0 when none.
static u64 LineAddress(Target *target, const char *path, u32 line) {
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
  return address;
}

static EngineResult NextStatementLocked(Target *target, const char *path, u32 line) {
  if (!target->current_thread) return kEngineSystemCallFailed;
  u64 address = LineAddress(target, path, line);
  if (!address) return kEngineNoLineCode;
  return SetInstructionPointerLocked(target, address);
}

// [SECTION] Run control

// With the model lock held: the request for the resume, then the run.
static EngineResult RunWith(Target *target, u8 request, u64 address) {
  target->run_request = request;
  target->run_to_address = address;
  EngineSignal(target, kWaitRun);
  Unlock(target);
  return kEngineOk;
}

EngineResult EngineStep(Target *target, u32 request) {
  if (request != kRunStepOver && request != kRunStepInto && request != kRunStepOut && request != kRunStepInstruction &&
      request != kRunStepOverInstruction)
    return kEngineNoTarget;
  EngineResult state = EngineLockStopped(target);
  if (state == kEngineNotSuspended && request == kRunStepOut) return kEngineOk;  // nothing to step out of
  if (state != kEngineOk) return NotStopped(state);
  if (!target->current_thread) {
    Unlock(target);
    return kEngineNoCurrentThread;
  }
  return RunWith(target, (u8)request, 0);
}

EngineResult EngineRunToLine(Target *target, const char *path, u32 line) {
  if (!path) return kEngineNoTarget;
  EngineResult state = EngineLockStopped(target);
  if (state != kEngineOk) return NotStopped(state);
  u64 address = LineAddress(target, path, line);
  if (!address) {
    Unlock(target);
    return kEngineNoLineCode;
  }
  return RunWith(target, kRunToAddress, address);
}

u64 EngineFunctionAddress(Target *target, const char *name) {
  for (TargetModule *m = target->modules; m; m = m->next) {
    const ModuleSymbols *symbols = &m->symbols;
    if (symbols->status != kSymbolsLoaded) continue;
    const PdbProcScope *procedure = PdbFindProcedure(&symbols->pdb.scopes, name, nullptr);
    if (!procedure) continue;
    u32 offset = 0;
    u16 section = 0;
    memcpy(&offset, procedure->record + kProcSymOffset, 4);
    memcpy(&section, procedure->record + kProcSymSection, 2);
    if (section == 0 || section > symbols->image.section_count) continue;
    return symbols->load_base + symbols->image.sections[section - 1].virtual_address + offset;
  }
  return 0;
}

EngineResult EngineRunToEntry(Target *target, bool nominal_entry) {
  static const char *const kNominalEntries[] = {"WinMain",           "main",
                                                "wWinMain",          "wmain",
                                                "WinMainCRTStartup", "wWinMainCRTStartup"};
  EngineResult state = EngineLockStopped(target);
  if (state != kEngineOk) return NotStopped(state);
  u64 address = 0;
  for (u32 i = 0; nominal_entry && i < KTRN_ARRAY_COUNT(kNominalEntries) && !address; i++)
    address = EngineFunctionAddress(target, kNominalEntries[i]);
  if (!address && target->main_module && target->main_module->symbols.image.entry_rva)
    address = target->main_image_base + target->main_module->symbols.image.entry_rva;
  if (!address) {
    Unlock(target);
    return kEngineNoLineCode;
  }
  return RunWith(target, kRunToAddress, address);
}

EngineResult EngineQueueRequest(Target *target, const EngineRequest *request) {
  if (!target || !request || target->engine_state == kEngineStateNone) return kEngineNoTarget;
  if (!HasProcess(target)) return kEngineNoProcess;
  EngineResult result = EngineRingPushRequest(target, request);
  if (result != kEngineOk) return result;
  // Queued first: the stop the target is in (after every command wait the engine serves the ring)
  // or a break-in already on its way carries it; otherwise a silent one is asked for. The engine
  // counts a break-in down before it serves the ring, so a request seen as carried is served.
  if (EngineStoppedState(target) == kEngineOk) return kEngineOk;
  return BreakInIfRunning(target) ? kEngineOk : kEngineSystemCallFailed;
}

// [SECTION] Reading the stopped target

const CONTEXT *EngineThreadContext(Target *target, TargetThread *thread) {
  if (!thread || EngineLockStopped(target) != kEngineOk) return nullptr;
  const CONTEXT *context = ThreadContextGet(thread);
  Unlock(target);
  return context;
}

u32 EngineThreadStack(Target *target, TargetThread *thread, const StackFrame **out_frames) {
  *out_frames = nullptr;
  if (!thread || EngineLockStopped(target) != kEngineOk) return 0;
  // Built here, on the user-interface thread, while the engine waits for a command and the model
  // lock keeps it from working: a build never runs beside another.
  u32 count = CallStackOfThread(target, thread, out_frames);
  Unlock(target);
  return count;
}

s32 EngineThreadPriority(Target *target, TargetThread *thread) {
  u32 stop = target->stop_generation + 1;  // a held launch (stop 0) counts as a stop too
  if (thread->priority_stop != stop) {
    thread->priority = GetThreadPriority(thread->handle);
    thread->priority_stop = stop;
  }
  return thread->priority;
}

EngineResult EngineReadMemory(Target *target, u64 address, void *buffer, u32 size) {
  if (!buffer) return kEngineNoTarget;
  EngineResult state = EngineLockStopped(target);
  if (state != kEngineOk) return NotStopped(state);
  bool read = TargetReadProgramMemory(target, address, buffer, size);
  Unlock(target);
  return read ? kEngineOk : kEngineSystemCallFailed;
}

ThreadContextSlot *EngineThreadRegisters(Target *target, TargetThread *thread) {
  if (!thread || EngineLockStopped(target) != kEngineOk) return nullptr;
  ThreadContextSlot *slot = ThreadContextGet(thread) ? ThreadContextIfRead(thread) : nullptr;
  Unlock(target);
  return slot;
}

const ThreadContextSlot *EngineThreadPreviousRegisters(Target *target, TargetThread *thread) {
  if (!thread || EngineLockStopped(target) != kEngineOk) return nullptr;
  const ThreadContextSlot *slot = &thread->slots[thread->context_index ^ 1];
  bool read = slot->generation != 0 && target->previous_stop_generation != 0 &&
              slot->generation == target->previous_stop_generation;
  Unlock(target);
  return read ? slot : nullptr;
}

EngineResult EngineWriteRegisters(Target *target, TargetThread *thread) {
  if (!thread) return kEngineNoTarget;
  EngineResult state = EngineLockStopped(target);
  if (state != kEngineOk) return NotStopped(state);
  EngineResult result = kEngineSystemCallFailed;
  if (ThreadContextIfRead(thread)) {
    ThreadContextMarkDirty(thread, kContextDirty);
    result = ThreadContextFlush(thread);
    if (result == kEngineOk) EngineSignal(target, kWaitContextChanged);
  }
  Unlock(target);
  return result;
}

bool EngineLockModel(Target *target) { return EngineLockStopped(target) == kEngineOk; }

bool EngineTryLockModel(Target *target) {
  if (!target || EngineStoppedState(target) != kEngineOk) return false;
  if (!TryAcquireSRWLockExclusive(&target->model_lock)) return false;
  if (EngineStoppedState(target) == kEngineOk) return true;
  Unlock(target);
  return false;
}

void EngineUnlockModel(Target *target) {
  if (target) Unlock(target);
}
