// Declarations shared by the files of the debugger thread; the user-interface side uses
// engine/engine.h.
#pragma once
#include "engine/target.h"

enum : u32 { kTrapFlag = 0x100, kResumeFlag = 0x10000 };

// What the handling of one debug event decided.
enum EventOutcome : u32 {
  kOutcomeContinue = 0,    // continue the event with the target's continue status
  kOutcomeStop = 1,        // a visible stop: rebuild the model, report, serve commands
  kOutcomeEnd = 2,         // the run is over (process exited): end without continuing
  kOutcomeSilentStop = 3,  // serve commands without a stop (the run is ending)
};

// [SECTION] Modules (module_events.cpp)
// Loads the image at base from the event's file handle (null: found through the process); posts
// kind 10. A PeResult.
int EngineLoadModule(Target *target, HANDLE file, u64 base, TargetModule **out_module);
// Loads the image at base from the target's memory alone (its headers and CodeView record where
// the loader put them); path, when known, names it. A PeResult.
int EngineLoadModuleFromMemory(Target *target, u64 base, const char *path, TargetModule **out_module);
// Unlinks the module at base and posts kind 11; nothing when none is there.
void EngineUnloadModule(Target *target, u64 base);

// [SECTION] Threads (thread_naming.cpp, event_loop.cpp)
void EngineNameThread(Target *target, TargetThread *thread, bool main_thread);
// Posts kind 2 for the threads list: the thread's id and start address.
void EnginePostThreadStarted(Target *target, const TargetThread *thread);
// The function at the thread's instruction pointer (ip_module, ip_function and its range), looked
// up again only when the pointer has left the function held.
void EngineRefreshIpFunction(Target *target, TargetThread *thread);

// [SECTION] Locations (source_location.cpp)
// return_address: the address follows a call, so its line is the call's (looked up at address - 1).
void EngineLocate(Target *target, u64 address, EngineSourceLocation *out, bool return_address = false);

// [SECTION] Exceptions (exceptions.cpp)
u32 EngineHandleException(Target *target, const EXCEPTION_DEBUG_INFO *info);
bool EngineIsBreakInThread(const Target *target, u32 thread_id);
// The thread's instruction pointer from its context (0 when it cannot be read).
u64 EngineThreadIp(TargetThread *thread);
// The stop a user's break asked for, shown on the thread a break shows (kind 1, reason 4).
u32 EngineStopForUserBreak(Target *target);
// Asks for a break-in unless one is already on its way (it carries whatever waits); either thread
// calls it. False when the system refused.
bool EngineBreakIn(Target *target);
// The thread shown for a break: the first solo thread, else the first one not frozen, else none.
TargetThread *EngineThreadToShow(Target *target);
void EngineMakeStopped(Target *target, TargetThread *thread, u32 reason, u64 address, s32 frame, EngineEvent *event);
// Posts a stop event of the current stop at once (the commands served at a stop report this way).
void EnginePostStopped(Target *target, TargetThread *thread, u32 reason, u64 address, s32 frame);
// Keeps the event that says why the target stops, posted once the stop's model is rebuilt.
void EngineHoldStopEvent(Target *target, const EngineEvent *event);

// [SECTION] Breakpoints (breakpoints.cpp)
// The bound software breakpoint at an address (armed, lifted or disabled), or null.
BreakpointLocation *BreakpointAt(Target *target, u64 address);
void BreakpointArm(Target *target, BreakpointLocation *bp);
void BreakpointDisarm(Target *target, BreakpointLocation *bp);
// Every int3 out of target memory (detach): the records stay, unarmed.
void BreakpointsDisarmAll(Target *target);
// Puts the program's own bytes over the int3s in bytes read at address.
void BreakpointShowProgramBytes(Target *target, u64 address, u8 *bytes, u32 size);
// Reads target memory as the program has it (no int3 of the engine's in it).
bool TargetReadProgramMemory(Target *target, u64 address, void *buffer, u32 size);
void BreakpointsOnModuleLoad(Target *target, TargetModule *module);
void BreakpointsOnModuleUnload(Target *target, TargetModule *module);
void EngineServeBreakpointRequest(Target *target, const EngineRequest *request);
// A record from the pool (zero-filled, pending, enabled), or null when every one is taken; linked
// at the head of the live list.
BreakpointLocation *EngineTakeBreakpoint(Target *target);
void EngineLinkBreakpoint(Target *target, BreakpointLocation *bp);

// [SECTION] Run control (run_control.cpp)
// The code of the source line at address, [start, end); false when no line has it.
bool EngineLineRange(Target *target, u64 address, u64 *start, u64 *end);
// Takes the run request at the resume that starts a run: a step's first decision, the temporary
// breakpoint of a run to an address or a step out. After the held thread is prepared.
void EngineRunControlBegin(Target *target);
// A single step of the thread (after its breakpoint re-arm): claimed when run control asked for it.
u32 EngineRunControlSingleStep(Target *target, TargetThread *thread, bool *claimed);
// A breakpoint exception at no user breakpoint: true (and the outcome) when it is the temporary one.
bool EngineRunControlBreakpoint(Target *target, TargetThread *thread, u64 at, u32 *outcome);
// The temporary breakpoint out of target memory and forgotten.
void EngineDropTemporary(Target *target);
// Step state and temporary breakpoint cleared (every visible stop, a detach).
void EngineRunControlClear(Target *target);

// [SECTION] Processor breakpoints (processor_breakpoints.cpp)
// Arms (kind 1) or disarms and frees (kind 2) a slot in every thread.
void EngineServeProcessorRequest(Target *target, const EngineRequest *request);
void EngineArmSlotsInNewThread(Target *target, TargetThread *thread);
// Every armed slot out of every thread (detach).
void EngineDisarmAllSlots(Target *target);
// The hit test of a single step: claimed when DR6 names a slot; a visible stop when that slot is
// in use and the run is not ending.
u32 EngineProcessorHit(Target *target, TargetThread *thread, bool *claimed);
// Lets a slot go: its owner forgotten now, its registers cleared at the engine's next request pass.
void EngineReleaseProcessorSlot(Target *target, u32 slot);

// Puts back the int3 a thread stepped over (its single step came, or will not come).
void EngineRearmAfterStep(Target *target, TargetThread *thread);

// [SECTION] Operations' helpers (engine_command.cpp, user-interface thread)
// Takes the model lock for an operation at a stop: kEngineOk with the lock held, else why not.
EngineResult EngineLockStopped(Target *target);

// [SECTION] Evaluation requests (evaluation_request.cpp)
// Reports the requests due (all of them when mark_all, as at a stop) with kind 3.
void EngineEvaluateRequests(Target *target, bool mark_all);

// [SECTION] Event loop (event_loop.cpp)
// Runs the debug-event loop until the process exits, the engine detaches or a wait fails.
void EngineRunLoop(Target *target);
// Serves commands at a stop (or while a launch is held); returns the command that ends the wait.
u32 EngineServeCommands(Target *target, bool held);
// Carries out every request queued on the command ring.
void EngineServeRequests(Target *target);
// Detaches from the process (the event held at the stop, if any, is continued first); posts 13.
void EngineDetach(Target *target, bool event_pending);
// Waits for one command; the engine's state reads serving while it waits, working once it takes
// run or stop debugging.
u32 EngineWaitCommand(Target *target);
