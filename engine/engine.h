// The engine as the user-interface thread sees it: start a debugging run by launch or attach, then
// drive it with operations that return at once with a result code, and pop the engine's events.
// Every operation takes the Target first. After an event of kind 13 (detached) or 14 (process
// exited) the run is over: call EngineRelease. There is one Target for the whole program, cleared
// at the release: operations on it between runs answer 1 (no target) or 3 (no process).
//
// The model (threads, modules, registers, memory) may be read while the engine is stopped
// (EngineStoppedState answers 0), under the model lock (see Reading the stopped target).
#pragma once
#include "engine/call_stack.h"
#include "engine/evaluation_request.h"
#include "engine/launch.h"
#include "engine/target.h"

// Every operation returns an EngineResult (engine/engine_result.h).

// The text of a start result, as "Unable to debug process: %s\n" shows it.
const char *EngineStartResultText(int result);

// [SECTION] Starting a run
// Both answer 37 while an earlier run has not been released.
EngineResult EngineStartAttach(u32 process_id, EngineWakeFn wake, void *wake_user, Target **out_target);
EngineResult EngineStartLaunch(const LaunchDescription *launch, EngineWakeFn wake, void *wake_user,
                               Target **out_target, u32 *out_process_id);
// Waits for the engine thread to end and frees everything the run owned.
void EngineRelease(Target *target);

// [SECTION] State
// 0 stopped (the engine waits for a command), 26 running (or handling an event), 1 no target.
EngineResult EngineStoppedState(Target *target);
// Waits up to timeout_ms for the engine to wait for a command (the events of a stop are posted
// before it does). 0 when stopped, 26 when the time ran out, 37 when the engine thread has ended.
EngineResult EngineWaitStopped(Target *target, u32 timeout_ms);

// [SECTION] Waiting for events
// The engine calls the wake-up callback given at the start only when the user interface has said
// that it is about to sleep: a user interface that draws frames and pops the events at each one
// is not woken for every event, and a stop it answers at once costs no wake-up.
// Says so just before sleeping (in GetMessage, say): true when nothing is queued, and the callback
// will be called for the next event; false when events wait (pop them instead of sleeping).
bool EngineUiBlocking(Target *target);
// For a user interface without a message loop: sleeps until an event is queued (true at once when
// one is) or timeout_ms pass (false). It needs no wake-up callback.
bool EngineWaitForEvent(Target *target, u32 timeout_ms);

// [SECTION] Operations
EngineResult EngineBreak(Target *target);
EngineResult EngineRun(Target *target);
EngineResult EngineStopDebugging(Target *target);
EngineResult EngineTerminate(Target *target, u32 exit_code);
EngineResult EngineSelectThread(Target *target, u32 thread_id);
EngineResult EngineToggleFreeze(Target *target, TargetThread *thread);
EngineResult EngineToggleSolo(Target *target, TargetThread *thread);
EngineResult EngineSelectFrame(Target *target, s32 frame_index);
EngineResult EngineSetStackOverflowCollapsing(Target *target, u8 on);
// The PDB the next module load reads, whatever its GUID (the user picked it); that load clears it.
// 33 for a path too long to keep.
EngineResult EngineSetPdbOverride(Target *target, const char *path);
// At a stop: a loaded module's symbols again from the PDB at path, taken without its GUID check
// (the user's pick); its breakpoints bound again through them. 37 when the image cannot be read
// (the module is then without symbols), 3 for a module not of this run.
EngineResult EngineReloadModuleSymbols(Target *target, struct TargetModule *module, const char *pdb_path);
EngineResult EngineSetInstructionPointer(Target *target, u64 address);
// Moves the current thread to the first of lines line..line+9 of the source file that has code.
EngineResult EngineSetNextStatement(Target *target, const char *path, u32 line);
// Run control, at a stop (26 while running). Each runs the target like EngineRun; its stop comes as
// kind 1 with the engine's reason (0 step over, 1 step into and instruction step, 2 step out,
// 5 temporary breakpoint reached), unless something else stops the target first.
// request: kRunStepOver, kRunStepInto, kRunStepOut, kRunStepInstruction or kRunStepOverInstruction
// (engine/target.h).
// 27 without a current thread. A step out asked for while the target runs answers 0 and does nothing.
EngineResult EngineStep(Target *target, u32 request);
// Runs to the first of lines line..line+9 of the file that has code (23 when none).
EngineResult EngineRunToLine(Target *target, const char *path, u32 line);
// Runs to the program's entry: with nominal_entry (the session's "Nominal entry point"), the first
// of the nominal entry functions that a loaded module has (WinMain, main, wWinMain, wmain,
// WinMainCRTStartup, wWinMainCRTStartup), else, and always without it, the main image's entry
// point. Made for the launched program before its first run.
EngineResult EngineRunToEntry(Target *target, bool nominal_entry);
// The start of the first procedure of that name in a loaded module's symbols (no prologue
// skipped); 0 when none. Reads the model: at a stop.
u64 EngineFunctionAddress(Target *target, const char *name);
// Adds an expression evaluated at every stop; its results come as events of kind 3. 33 for a text
// of 256 characters or more, 37 when every request is taken.
EngineResult EngineAddEvaluationRequest(Target *target, const char *text, void *cookie, EvaluationRequest **out);
EngineResult EngineRemoveEvaluationRequest(Target *target, EvaluationRequest *request);
// Evaluates every request again (kind 3 for each). 26 when the target is not stopped.
EngineResult EngineRefresh(Target *target);
// Chooses the row a request shows (the expression's, or a descendant's along a path of child
// indexes), the children reported with it and the display flags; evaluated again at once when
// stopped. Results are read under the model lock after the request's kind-3 event. Child rows come
// from a shared pool of pages: 37 when every page is taken (the view then shows the row alone).
EngineResult EngineSetEvaluationView(Target *target, EvaluationRequest *request, const EvaluationView *view);
// Carries a request to the engine although the target runs: queued, then served at a silent
// break-in (or at the stop the target is in); the operation does not wait for it.
EngineResult EngineQueueRequest(Target *target, const EngineRequest *request);

// [SECTION] Breakpoints (engine/breakpoints.h)
// Each works at a stop (under the model lock) or, while the target runs, through the request
// ring and a silent break-in: then the result says only that it was queued, and a breakpoint bound
// later reports itself with kind 8.
// Adds a function, line or address breakpoint: bound in the first loaded module that has the place
// (a line in every module that has it, the later ones as records of the engine's own that report
// through this one), else pending until one loads. 20 when a breakpoint sits at that address already (out names it),
// 37 for an address no module section holds, 24 for a condition that does not parse (the
// breakpoint is made, its condition kept as text with the parse error), 33 for a text too long.
EngineResult EngineAddBreakpoint(Target *target, const BreakpointWanted *wanted, BreakpointLocation **out);
// 18 for a record that is not a live breakpoint.
EngineResult EngineRemoveBreakpoint(Target *target, BreakpointLocation *bp);
EngineResult EngineEnableBreakpoint(Target *target, BreakpointLocation *bp, u8 enabled);
// A processor breakpoint on [address, address + size) (size 1, 2, 4 or 8; access a
// BreakpointAccess) in every thread, threads made later included: one of the four debug registers,
// armed at the engine's next command wait (at a stop) or at a silent break-in. 37 when all four are
// taken. Hits come as kind 6 with the record, at the instruction after the access (an execute
// breakpoint: at the instruction). Enabling does not apply to it: remove it and add it again.
EngineResult EngineAddDataBreakpoint(Target *target, u64 address, u32 size, u32 access, BreakpointLocation **out);
// At a stop only. An empty text removes the condition; 24 keeps a text that does not parse.
EngineResult EngineSetBreakpointCondition(Target *target, BreakpointLocation *bp, const char *text);

// [SECTION] Reading the stopped target
// The model (threads, modules, registers, memory, breakpoints) is read or changed at a stop under
// the model lock: the engine takes it for every command it serves, so what the user interface
// reads under it is never half rewritten. False when the target is not stopped (nothing is held).
bool EngineLockModel(Target *target);
bool EngineTryLockModel(Target *target);  // false also while the engine holds the lock
void EngineUnlockModel(Target *target);
// The thread's registers at this stop, read from the system on first use (under the model lock);
// null when not stopped or unreadable. Valid until the target runs.
const CONTEXT *EngineThreadContext(Target *target, TargetThread *thread);
// The same registers with the extended state located in them (SSE, AVX upper halves, opmask,
// ZMM parts; null where the system has none). The user interface may change them while the target
// is stopped and then write them to the thread with EngineWriteRegisters.
ThreadContextSlot *EngineThreadRegisters(Target *target, TargetThread *thread);
// The previous stop's registers of the thread (the registers window marks what changed); null
// when they were not read at that stop.
const ThreadContextSlot *EngineThreadPreviousRegisters(Target *target, TargetThread *thread);
// Writes the thread's registers of this stop, as changed, to the thread (SetThreadContext); the
// held exception then counts as handled. 26 when not stopped, 37 when the system refuses.
EngineResult EngineWriteRegisters(Target *target, TargetThread *thread);
// The threads window's name of a thread priority ("Normal", "Highest", ...); "" for a value
// without one.
const char *EngineThreadPriorityName(s32 priority);
// The thread's priority at this stop, asked of the system at the first call in the stop. Call it
// under the model lock (EngineLockModel).
s32 EngineThreadPriority(Target *target, TargetThread *thread);
// The thread's call stack at this stop, innermost first (marker rows included), and its count; 0
// when not stopped or nothing could be unwound. Built at its first request in the stop (the stop
// itself builds none). Valid until the target runs.
u32 EngineThreadStack(Target *target, TargetThread *thread, const StackFrame **out_frames);
// Reads target memory at a stop (the program's own bytes). 26 when not stopped, 37 unreadable.
EngineResult EngineReadMemory(Target *target, u64 address, void *buffer, u32 size);
