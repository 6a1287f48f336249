#include "app/debugging.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "engine/engine.h"
#include "ui/engine_event_text.h"
#include "ui/main_frame.h"
#include "ui/stop_reason.h"
#include "ui/hover_value.h"
#include "ui/watch_model.h"

enum { kTerminateExitCode = 0x7E57, kEnvironmentPairsMax = 512, kEventTextCapacity = 4096 };

static bool g_awaiting_first_run;
static bool g_first_run_to_entry;  // the launch was begun by a step: its first run halts at the entry
// An attach stops first at its break-in; that stop is the attach's own, not one of the user's.
static bool g_awaiting_break_in;
static bool g_continue_after_break_in;
// A run to a line asked for with nothing running: the launch's first run goes there.
static char g_first_run_to_path[kSessionPathCapacity];
static u32 g_first_run_to_line;

int DebuggingStart(AppState *app, u32 reason, void (*wake)(void *), void *wake_user) {
  TargetCommand *t = SessionCurrentTarget(&app->session);
  if (app->target || !t || !t->command || !t->command[0]) return kEngineNoTarget;
  if (app->settings.auto_clear_output_window) OutputClear(&app->output);

  // The environment text is split in place, so the launch gets a copy of its own.
  char *environment = TextDuplicateZ(t->environment);
  static EnvironmentPair pairs[kEnvironmentPairsMax];
  LaunchDescription launch = {};
  launch.executable = t->command;
  launch.arguments = t->arguments;
  launch.working_directory = t->working_directory;
  launch.environment = pairs;
  launch.environment_count = environment ? LaunchSplitEnvironment(environment, pairs, kEnvironmentPairsMax) : 0;
  launch.inherit_from_parent = t->inherit_from_parent;
  Target *target = nullptr;
  u32 process_id = 0;
  int result = EngineStartLaunch(&launch, wake, wake_user, &target, &process_id);
  free(environment);
  if (result != kEngineOk) {
    char line[512];
    snprintf(line, sizeof line, "Unable to debug process: %s\n", EngineStartResultText(result));
    OutputAppendZ(&app->output, line);
    return result;
  }
  app->target = target;
  app->process_id = process_id;
  app->attached = 0;
  app->debug_state = kDebugRunning;  // the menus of the next frame already show it running
  app->stop_reason = reason;
  app->run_started_by = reason;
  app->run_serial++;
  g_awaiting_first_run = true;
  g_first_run_to_line = 0;
  return kEngineOk;
}

int DebuggingAttach(AppState *app, u32 process_id, bool let_run, void (*wake)(void *), void *wake_user) {
  if (app->target) return kEngineSystemCallFailed;
  if (app->settings.auto_clear_output_window) OutputClear(&app->output);
  char line[96];
  snprintf(line, sizeof line, "Attaching to process ID %u...", process_id);
  OutputAppendZ(&app->output, line);
  Target *target = nullptr;
  int result = EngineStartAttach(process_id, wake, wake_user, &target);
  if (result != kEngineOk) {
    snprintf(line, sizeof line, "\nUnable to debug process: %s\n", EngineStartResultText(result));
    OutputAppendZ(&app->output, line);
    return result;
  }
  OutputAppendZ(&app->output, "[OK]\n");
  app->target = target;
  app->process_id = process_id;
  app->attached = 1;
  app->debug_state = kDebugRunning;
  app->stop_reason = kStopReasonAttached;
  app->run_started_by = kStopReasonAttached;
  g_awaiting_break_in = true;
  g_continue_after_break_in = let_run;
  return kEngineOk;
}

bool DebuggingAwaitingFirstRun(const AppState *app) { return app->target && g_awaiting_first_run; }

int DebuggingStep(AppState *app, u32 step, u32 reason, void (*wake)(void *), void *wake_user) {
  if (!app->target) {
    if (step != kAskStepIntoLine && step != kAskStepOverLine) return kEngineNoTarget;
    int result = DebuggingStart(app, reason, wake, wake_user);
    g_first_run_to_entry = result == kEngineOk;
    return result;
  }
  static const u32 kEngineSteps[] = {0, kRunStepInto, kRunStepInstruction, kRunStepOver, kRunStepOut,
                                     kRunStepOverInstruction};
  if (app->debug_state != kDebugSuspended) return kEngineNotSuspended;
  if (step == kAskStepNone || step >= KTRN_ARRAY_COUNT(kEngineSteps)) return kEngineNoTarget;
  int result = EngineStep(app->target, kEngineSteps[step]);
  if (result == kEngineOk) {
    app->debug_state = kDebugRunning;
    app->stop_reason = reason;
    app->run_started_by = reason;
  }
  return result;
}

int DebuggingContinue(AppState *app, u32 reason) {
  if (!app->target || app->debug_state != kDebugSuspended) return kEngineNotSuspended;
  int result = EngineRun(app->target);
  if (result == kEngineOk) {
    app->debug_state = kDebugRunning;
    app->stop_reason = reason;
    app->run_started_by = reason;
  }
  return result;
}

int DebuggingStop(AppState *app) {
  if (!app->target) return kEngineNoTarget;
  int result = app->attached ? EngineStopDebugging(app->target) : EngineTerminate(app->target, kTerminateExitCode);
  if (result != kEngineOk) {
    char line[96];
    snprintf(line, sizeof line, "Unable to stop debugging (result %d)\n", result);
    OutputAppendZ(&app->output, line);
  }
  return result;
}

int DebuggingBreak(AppState *app, u32 reason) {
  if (!app->target || app->debug_state != kDebugRunning) return kEngineSystemCallFailed;
  app->run_started_by = reason;
  return EngineBreak(app->target);
}

static void RunEnded(AppState *app, u32 exit_code) {
  EngineRelease(app->target);
  app->target = nullptr;
  app->debug_state = kDebugNone;
  app->has_run = 1;
  app->last_exit_code = exit_code;
  g_awaiting_first_run = false;
  g_first_run_to_entry = false;
  g_awaiting_break_in = false;
  SessionClearBreakpointRuntime(&app->session);
}

static void Stopped(AppState *app, u32 reason) {
  app->debug_state = kDebugSuspended;
  app->stop_reason = reason;
  app->stop_serial++;
}

// The engine's record was bound (or lost its binding) after it was given: the session's
// breakpoint that holds it shows the new state and the line it stops at.
static void BindingChanged(AppState *app, const EngineEvent *e, bool bound) {
  Session *session = &app->session;
  for (u32 i = 0; i < session->breakpoint_count; i++) {
    Breakpoint *b = session->breakpoints[i];
    if (!b->runtime.location || (void *)b->runtime.location != e->breakpoint.location_record) continue;
    b->runtime.state = bound ? kBreakpointStateBound : kBreakpointStatePending;
    b->runtime.bound_line = bound ? e->breakpoint.location.line : 0;
    b->runtime.bound_address = bound ? e->breakpoint.address : 0;
    return;
  }
}

// The session's breakpoints given to the engine as the run starts: each binds where a loaded
// module has its place, or stays pending until one loads. Processor breakpoints wait for the
// evaluator (their address is an expression); disabled ones are not given.
// One breakpoint of the session given to the engine. At a stop the engine binds it at once; while
// the target runs the request is queued and the binding reports itself (kind 8).
static void BindBreakpoint(AppState *app, Breakpoint *b, bool at_stop) {
  if (!b->enabled || b->kind == kBreakpointProcessor || b->runtime.location) return;
  BreakpointWanted wanted = {};
  wanted.kind = b->kind;
  wanted.place = b->place;
  wanted.line = b->line;
  wanted.address = b->address;
  wanted.condition = b->condition;
  BreakpointLocation *location = nullptr;
  EngineResult result = EngineAddBreakpoint(app->target, &wanted, &location);
  if ((result != kEngineOk && result != kEngineParseError) || !location) {
    char line[96];
    snprintf(line, sizeof line, "Unable to set breakpoint %u (result %d)\n", b->id, (int)result);
    OutputAppendZ(&app->output, line);
    return;
  }
  b->runtime.location = location;
  b->runtime.state = !at_stop ? kBreakpointStatePending : location->module ? kBreakpointStateBound : kBreakpointStatePending;
  if (at_stop && location->module) b->runtime.bound_line = location->location.line;
  b->runtime.condition_parse_failed = result == kEngineParseError;
  if (result == kEngineParseError)
    snprintf(b->runtime.condition_error, sizeof b->runtime.condition_error, "%s", "The condition does not parse");
}

static void BindSessionBreakpoints(AppState *app) {
  Session *session = &app->session;
  for (u32 i = 0; i < session->breakpoint_count; i++) BindBreakpoint(app, session->breakpoints[i], true);
}

void DebuggingAddLineBreakpoint(AppState *app, const char *path, u32 line) {
  Session *s = &app->session;
  u32 index;
  if (SessionFindSourceLineBreakpoint(s, path, line) >= 0) return;
  if (SessionAddBreakpoint(s, kBreakpointSourceLine, path, line, 0, &index) != kSessionOk) return;
  s->modified = 1;
  DebuggingBreakpointAdded(app, s->breakpoints[index]);
}

void DebuggingBreakpointAdded(AppState *app, Breakpoint *b) {
  if (app->target && !g_awaiting_first_run) BindBreakpoint(app, b, app->debug_state == kDebugSuspended);
}

void DebuggingRemoveBreakpoint(AppState *app, u32 id) {
  Session *s = &app->session;
  for (u32 i = 0; i < s->breakpoint_count; i++) {
    Breakpoint *b = s->breakpoints[i];
    if (b->id != id) continue;
    if (app->target && b->runtime.location) (void)EngineRemoveBreakpoint(app->target, b->runtime.location);
    if (SessionRemoveBreakpoint(s, i) == kSessionOk) s->modified = 1;
    return;
  }
}

int DebuggingRunToLine(AppState *app, const char *path, u32 line, u32 reason, void (*wake)(void *), void *wake_user) {
  if (!app->target) {
    int result = DebuggingStart(app, reason, wake, wake_user);
    if (result == kEngineOk) {
      snprintf(g_first_run_to_path, sizeof g_first_run_to_path, "%s", path);
      g_first_run_to_line = line;
    }
    return result;
  }
  if (app->debug_state != kDebugSuspended) return kEngineNotSuspended;
  int result = EngineRunToLine(app->target, path, line);
  if (result == kEngineOk) {
    app->debug_state = kDebugRunning;
    app->stop_reason = reason;
    app->run_started_by = reason;
  }
  return result;
}

int DebuggingSetNextStatement(AppState *app, const char *path, u32 line) {
  if (!app->target || app->debug_state != kDebugSuspended) return kEngineNotSuspended;
  int result = EngineSetNextStatement(app->target, path, line);
  if (result == kEngineOk) {
    app->stop_reason = kStopReasonNextStatement;
    app->stop_serial++;
  }
  return result;
}

bool DebuggingMaySleep(AppState *app) { return !app->target || EngineUiBlocking(app->target); }

bool DebuggingDrainEvents(AppState *app) {
  if (!app->target) return false;
  // The engine holds a new launch at its start; let it run once it serves commands.
  if (g_awaiting_first_run && EngineStoppedState(app->target) == 0) {
    BindSessionBreakpoints(app);
    const TargetCommand *command = SessionCurrentTarget(&app->session);
    bool nominal = !command || command->halt_at_nominal_entry;
    EngineResult first = kEngineNoLineCode;
    if (g_first_run_to_line) first = EngineRunToLine(app->target, g_first_run_to_path, g_first_run_to_line);
    if (first == kEngineNoLineCode)
      first = g_first_run_to_entry ? EngineRunToEntry(app->target, nominal) : EngineRun(app->target);
    if (first == kEngineOk) {
      g_awaiting_first_run = g_first_run_to_entry = false;
      g_first_run_to_line = 0;
    }
  }
  OutputOptions options = {app->settings.show_module_load, app->settings.show_module_unload,
                           app->settings.show_thread_exit, app->settings.show_process_exit};
  static char text[kEventTextCapacity];
  EngineEvent e;
  while (app->target && EnginePopEvent(app->target, &e) == 0 && e.kind != kEventNone) {
    u32 length = EngineEventText(&e, &options, app->process_id, text, sizeof text);
    if (length) OutputAppend(&app->output, text, length);
    switch (e.kind) {
      case kEventStopped: {
        if (g_awaiting_first_run) break;  // the hold of a new launch, not a stop of the user's
        if (g_awaiting_break_in) {
          g_awaiting_break_in = false;
          if (g_continue_after_break_in && EngineRun(app->target) == kEngineOk) {
            app->stop_reason = app->run_started_by = kStopReasonContinueCommand;
          } else {
            Stopped(app, kStopReasonAttached);
          }
          break;
        }
        u32 reason = StopReasonOfEngineStop(e.stopped.reason, app->run_started_by);
        if (reason != kStopReasonNone) Stopped(app, reason);
        else app->stop_serial++;  // a refresh (frame selected, registers written): the place may have moved
        break;
      }
      case kEventException:
        Stopped(app, kStopReasonException);
        break;
      case kEventBreakpointHit:
        Stopped(app, kStopReasonUserBreakpoint);
        break;
      case kEventProcessorBreakpointHit:
        Stopped(app, kStopReasonProcessorBreakpoint);
        break;
      case kEventBreakpointBound:
        BindingChanged(app, &e, true);
        break;
      case kEventBreakpointLost:
        BindingChanged(app, &e, false);
      case kEventEvaluation:
        WatchPanesResultArrived(e.evaluation.cookie, e.generation);
        HoverResultArrived(e.evaluation.cookie);
        break;
      case kEventModuleUnloaded:
        TargetModuleRelease(app->target, e.module.module);
        break;
      case kEventProcessExited:
        RunEnded(app, e.process.exit_code);
        return true;
      case kEventDetached:
        RunEnded(app, 0);
        return true;
    }
  }
  return false;
}

void DebuggingReloadSymbols(AppState *app, TargetModule *module, const char *pdb_path) {
  if (!app->target || app->debug_state != kDebugSuspended) return;
  // The modules window shows the status the reload left; a failure is one line in the output.
  EngineResult result = EngineReloadModuleSymbols(app->target, module, pdb_path);
  if (result != kEngineOk) {
    char line[kAppPathCapacity + 64];
    snprintf(line, sizeof line, "Cannot load symbols from %s\n", pdb_path);
    OutputAppendZ(&app->output, line);
  }
}

void DebuggingCarryOutTargetRequests(AppState *app, const TargetWindowRequests *r) {
  if (!app->target || app->debug_state != kDebugSuspended) return;
  // Results other than 0 only say the stop ended meanwhile: the windows show the next stop's state.
  if (r->select_thread) (void)EngineSelectThread(app->target, r->select_thread);
  if (r->select_frame >= 0) (void)EngineSelectFrame(app->target, r->select_frame);
  if (r->toggle_freeze) (void)EngineToggleFreeze(app->target, r->toggle_freeze);
  if (r->toggle_solo) (void)EngineToggleSolo(app->target, r->toggle_solo);
  if (r->collapse_repeated >= 0) (void)EngineSetStackOverflowCollapsing(app->target, (u8)r->collapse_repeated);
}
