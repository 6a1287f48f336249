#include "app/debugging.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "engine/engine.h"
#include "ui/engine_event_text.h"
#include "ui/main_frame.h"
#include "ui/stop_reason.h"
#include "ui/watch_model.h"

enum { kTerminateExitCode = 0x7E57, kEnvironmentPairsMax = 512, kEventTextCapacity = 4096 };

static bool g_awaiting_first_run;
static bool g_first_run_to_entry;  // the launch was begun by a step: its first run halts at the entry
// An attach stops first at its break-in; that stop is the attach's own, not one of the user's.
static bool g_awaiting_break_in;
static bool g_continue_after_break_in;

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
  g_awaiting_first_run = true;
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
}

// The session's breakpoints given to the engine as the run starts: each binds where a loaded
// module has its place, or stays pending until one loads. Processor breakpoints wait for the
// evaluator (their address is an expression); disabled ones are not given.
static void BindSessionBreakpoints(AppState *app) {
  Session *session = &app->session;
  for (u32 i = 0; i < session->breakpoint_count; i++) {
    Breakpoint *b = session->breakpoints[i];
    if (!b->enabled || b->kind == kBreakpointProcessor || b->runtime.location) continue;
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
      continue;
    }
    b->runtime.location = location;
    b->runtime.state = location->module ? kBreakpointStateBound : kBreakpointStatePending;
    if (result == kEngineParseError)
      snprintf(b->runtime.condition_error, sizeof b->runtime.condition_error, "%s", "The condition does not parse");
  }
}

bool DebuggingDrainEvents(AppState *app) {
  if (!app->target) return false;
  // The engine holds a new launch at its start; let it run once it serves commands.
  if (g_awaiting_first_run && EngineStoppedState(app->target) == 0) {
    BindSessionBreakpoints(app);
    const TargetCommand *command = SessionCurrentTarget(&app->session);
    bool nominal = !command || command->halt_at_nominal_entry;
    EngineResult first = g_first_run_to_entry ? EngineRunToEntry(app->target, nominal) : EngineRun(app->target);
    if (first == kEngineOk) g_awaiting_first_run = g_first_run_to_entry = false;
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
      case kEventEvaluation:
        WatchPanesResultArrived(e.evaluation.cookie, e.generation);
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

void DebuggingCarryOutTargetRequests(AppState *app, const TargetWindowRequests *r) {
  if (!app->target || app->debug_state != kDebugSuspended) return;
  // Results other than 0 only say the stop ended meanwhile: the windows show the next stop's state.
  if (r->select_thread) (void)EngineSelectThread(app->target, r->select_thread);
  if (r->select_frame >= 0) (void)EngineSelectFrame(app->target, r->select_frame);
  if (r->toggle_freeze) (void)EngineToggleFreeze(app->target, r->toggle_freeze);
  if (r->toggle_solo) (void)EngineToggleSolo(app->target, r->toggle_solo);
  if (r->collapse_repeated >= 0) (void)EngineSetStackOverflowCollapsing(app->target, (u8)r->collapse_repeated);
}
