// The program's side of a debugging run: starting the session's target command through the engine,
// stopping it, and the per-frame drain of the engine's events into AppState and the output window.
// UI thread only.
#pragma once
#include "app/app_state.h"
#include "ui/target_windows.h"

// Launches the session's current target command; the result code of the engine (0 on success).
// A failure is written to the output window as "Unable to debug process: %s\n".
int DebuggingStart(AppState *app, u32 reason, void (*wake)(void *), void *wake_user);
// Attaches to a running process ("Attaching to process ID %u..." then "[OK]" in the output window).
// The run stops at its break-in, or with let_run is resumed there at once (reason 36).
int DebuggingAttach(AppState *app, u32 process_id, bool let_run, void (*wake)(void *), void *wake_user);
int DebuggingContinue(AppState *app, u32 reason);
// A step of the Control menu (StepRequest of ui/main_frame.h) at a stop. Not debugging, a line step
// launches the session's program and halts it at its entry point (the nominal entry functions or
// the image's entry, as the target command says).
int DebuggingStep(AppState *app, u32 step, u32 reason, void (*wake)(void *), void *wake_user);
// Detaches from an attached process, terminates a launched one.
int DebuggingStop(AppState *app);
int DebuggingBreak(AppState *app, u32 reason);
// Pops every queued engine event. True when the run ended during this call (the caller then
// carries out the pending action).
bool DebuggingDrainEvents(AppState *app);
// Just before the main loop sleeps: true when it may (the engine's next event will wake it through
// the wake-up callback), false when events are queued already.
bool DebuggingMaySleep(AppState *app);
// A launch is held by the engine at its start until the first run: true while that is so.
bool DebuggingAwaitingFirstRun(const AppState *app);
// The module's symbols from the PDB the user picked (at a stop).
void DebuggingReloadSymbols(AppState *app, struct TargetModule *module, const char *pdb_path);
// Source-line breakpoints from the source view and the command channel: added to the session and,
// while a target runs, given to the engine at once; removed from both.
void DebuggingAddLineBreakpoint(AppState *app, const char *path, u32 line);
void DebuggingRemoveBreakpoint(AppState *app, u32 id);
// A breakpoint just added to the session (complete, with its condition): given to the engine at
// once while a target runs (a launch not yet let run binds it with the others).
void DebuggingBreakpointAdded(AppState *app, Breakpoint *breakpoint);
// Runs the target to the first line with code at or after line (1-based) of the file; with nothing
// running, launches the session's program and runs it there (or plainly, when no module has the
// line when the launch first runs).
int DebuggingRunToLine(AppState *app, const char *path, u32 line, u32 reason, void (*wake)(void *), void *wake_user);
// Moves the current thread to the line at a stop.
int DebuggingSetNextStatement(AppState *app, const char *path, u32 line);
// Carries out what the call stack and threads windows asked for in the frame (at a stop; the
// engine's operations take the model lock themselves, so this runs after the frame).
void DebuggingCarryOutTargetRequests(AppState *app, const TargetWindowRequests *requests);
