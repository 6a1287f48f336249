// The engine as the user-interface thread sees it: start a debugging run by launch or attach, then
// drive it with operations that return at once with a result code, and pop the engine's events.
// Every operation takes the Target first. After an event of kind 13 (detached) or 14 (process
// exited) the run is over: call EngineRelease.
#pragma once
#include "engine/evaluation_request.h"
#include "engine/launch.h"
#include "engine/target.h"

// Result codes of the operations.
enum EngineResult {
  kEngineOk = 0,
  kEngineNoTarget = 1,          // no target, or a missing argument
  kEngineNoProcess = 3,
  kEngineUnknownReason = 4,
  kEngineExecutableNotFound = 5,
  kEngineBadWorkingDirectory = 6,
  kEngineAccessDenied = 7,
  kEngineTimeout = 8,
  kEngineInitFailed = 9,
  kEngine32Bit = 10,
  kEngineBadPeHeader = 11,
  kEngineMachineMismatch = 12,
  kEngineNoLineCode = 23,       // no module, file or line with code for a set-next-statement
  kEngineNotSuspended = 26,
  kEngineNoCurrentThread = 27,
  kEngineTextTooLong = 33,
  kEngineSystemCallFailed = 37,  // also: the target is in the wrong state
};

// The text of a start result, as "Unable to debug process: %s\n" shows it.
const char *EngineStartResultText(int result);

// [SECTION] Starting a run
int EngineStartAttach(u32 process_id, EngineWakeFn wake, void *wake_user, Target **out_target);
int EngineStartLaunch(const LaunchDescription *launch, EngineWakeFn wake, void *wake_user, Target **out_target,
                      u32 *out_process_id);
// Waits for the engine thread to end and frees everything the run owned.
void EngineRelease(Target *target);

// [SECTION] State
// 0 stopped (the engine serves commands), 26 running, 37 the wait failed, 1 no target.
int EngineStoppedState(Target *target);
// Waits up to timeout_ms for the engine to serve commands (the events of a stop are posted before
// the engine starts waiting for a command). 0 when stopped, else as EngineStoppedState.
int EngineWaitStopped(Target *target, u32 timeout_ms);

// [SECTION] Operations
int EngineBreak(Target *target);
int EngineRun(Target *target);
int EngineStopDebugging(Target *target);
int EngineTerminate(Target *target, u32 exit_code);
int EngineSelectThread(Target *target, u32 thread_id);
int EngineToggleFreeze(Target *target, TargetThread *thread);
int EngineToggleSolo(Target *target, TargetThread *thread);
int EngineSelectFrame(Target *target, s32 frame_index);
int EngineSetStackOverflowCollapsing(Target *target, u8 on);
// The PDB the next module load reads, whatever its GUID (the user picked it); that load clears it.
// 33 for a path too long to keep.
int EngineSetPdbOverride(Target *target, const char *path);
int EngineSetInstructionPointer(Target *target, u64 address);
// Moves the current thread to the first of lines line..line+9 of the source file that has code.
int EngineSetNextStatement(Target *target, const char *path, u32 line);
// Adds an expression evaluated at every stop; its results come as events of kind 3. 33 for a text
// of 256 characters or more, 37 when every request is taken.
int EngineAddEvaluationRequest(Target *target, const char *text, void *cookie, EvaluationRequest **out);
int EngineRemoveEvaluationRequest(Target *target, EvaluationRequest *request);
// Carries a request to the engine although the target runs (a silent break-in while it is queued).
int EngineQueueRequest(Target *target, const EngineRequest *request);
