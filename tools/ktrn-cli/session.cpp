// The debugging run as ktrn-cli sees it: the engine's events popped and printed (the output
// window's lines, and one line per stop), the run limits, and where an address lies.
//
// [SECTION] Places and the stopped target
// [SECTION] Errors
// [SECTION] Events and stops
// [SECTION] Running
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "cli.h"
#include "symbols/scope_lookup.h"
#include "ui/stop_reason.h"

// [SECTION] Places and the stopped target

static void FileLineText(const TargetModule *module, const u8 *file, u32 line, CliPlace *out) {
  if (!file || line == 0) return;
  PdbLineEntry entry;  // the file's name is found through a line entry that names it
  memset(&entry, 0, sizeof entry);
  entry.file = file;
  const char *name = PdbStringAt(&module->symbols.pdb.strings, PdbLineFileOffset(&entry));
  if (name && name[0]) snprintf(out->file_line, sizeof out->file_line, "%s:%u", name, line);
}

static const TargetModule *SymbolsAt(Cli *cli, u64 address, ScopeAtAddress *scope) {
  memset(scope, 0, sizeof *scope);
  const TargetModule *module = TargetFindModule(cli->target, address);
  if (!module || module->symbols.status != kSymbolsLoaded) return nullptr;
  FindScopeAtAddress(&module->symbols, nullptr, address, kScopeProcedureOnly, scope);
  return module;
}

void CliPlaceOfAddress(Cli *cli, u64 address, CliPlace *out) {
  strcpy(out->function, "?");
  strcpy(out->file_line, "?");
  ScopeAtAddress scope;
  const TargetModule *module = SymbolsAt(cli, address, &scope);
  if (!module) return;
  if (scope.procedure) snprintf(out->function, sizeof out->function, "%s", PdbProcName(scope.procedure));
  if (scope.line_entry) FileLineText(module, scope.line_entry->file, scope.line, out);
}

void CliPlaceOfFrame(const StackFrame *frame, CliPlace *out) {
  strcpy(out->function, "?");
  strcpy(out->file_line, "?");
  const TargetModule *module = frame->module;
  if (!module || module->symbols.status != kSymbolsLoaded) return;
  char inlined[sizeof out->function];
  if (frame->procedure)
    snprintf(out->function, sizeof out->function, "%s%s", StackFrameFunctionName(frame, inlined, sizeof inlined),
             frame->inline_site ? " [inlined]" : "");
  if (frame->file) FileLineText(module, frame->file, frame->line, out);
}

void CliPrintFrame(const char *prefix, u32 index, const StackFrame *frame) {
  if (frame->collapsed) {
    printf("%s%u | Collapsed %u frames (possible stack-overflow)\n", prefix, index, frame->collapsed_count);
    return;
  }
  CliPlace place;
  CliPlaceOfFrame(frame, &place);
  printf("%s%u | %s | %s | 0x%016llx\n", prefix, index, place.function, place.file_line, (unsigned long long)frame->ip);
}

// The place an event names: its line as the engine found it (for a return address, the call's
// line), the function at the address the engine looked up.
static void PlaceOfLocation(Cli *cli, const EngineSourceLocation *location, u64 address, CliPlace *out) {
  const TargetModule *module = location->module;
  if (!module || module->symbols.status != kSymbolsLoaded) {
    CliPlaceOfAddress(cli, address, out);
    return;
  }
  const PeImage *image = &module->symbols.image;
  if (location->section != 0 && location->section <= image->section_count)
    address = TargetModuleBase(module) + image->sections[location->section - 1].virtual_address + location->offset;
  CliPlaceOfAddress(cli, address, out);
  if (location->file && location->line) FileLineText(module, location->file, location->line, out);
}

TargetThread *CliStopThread(Cli *cli) {
  if (cli->stop_thread_id) {
    TargetThread *thread = TargetFindThread(cli->target, cli->stop_thread_id);
    if (thread) return thread;
  }
  return cli->target->current_thread;
}

const CONTEXT *CliThreadContext(Cli *cli, TargetThread *thread) { return EngineThreadContext(cli->target, thread); }

bool CliReadMemory(Cli *cli, u64 address, void *buffer, u32 size) {
  return EngineReadMemory(cli->target, address, buffer, size) == kEngineOk;
}

void CliPrintBreakpoint(Cli *cli, const BreakpointLocation *bp) {
  u32 number = 0;
  for (u32 i = 0; i < cli->breakpoint_count && !number; i++)
    if (cli->breakpoints[i] == bp) number = i + 1;
  if (!number) return;
  CliPlace place = {"?", "?"};
  char address[24] = "?";
  if (bp->pending) {
    // What was asked for, until a module has it.
    if (bp->kind == kBreakpointFunction) snprintf(place.function, sizeof place.function, "%s", bp->place);
    if (bp->kind == kBreakpointSourceLine) snprintf(place.file_line, sizeof place.file_line, "%s:%u", bp->place, bp->line);
    if (bp->kind == kBreakpointAddress) snprintf(address, sizeof address, "0x%016llx", (unsigned long long)bp->requested_address);
  } else {
    PlaceOfLocation(cli, &bp->location, bp->address, &place);
    snprintf(address, sizeof address, "0x%016llx", (unsigned long long)bp->address);
  }
  printf("breakpoint %u | %s | %s | %s | %s\n", number, bp->pending ? "pending" : "bound", place.function,
         place.file_line, address);
}

// [SECTION] Errors

void CliError(Cli *cli, const char *format, ...) {
  char message[kCliTextCapacity];
  va_list args;
  va_start(args, format);
  vsnprintf(message, sizeof message, format, args);
  va_end(args);
  if (cli->command)
    printf("error: %s: %s\n", cli->command, message);
  else
    printf("error: %s\n", message);
}

const char *CliResultText(int result) {
  switch (result) {
    case kEngineOk: return "done";
    case kEngineNoTarget: return "no target, or an argument is missing";
    case kEngineNoProcess: return "no process";
    case kEngineUnknownBreakpoint: return "no such breakpoint";
    case kEngineBreakpointExists: return "a breakpoint is already at that address";
    case kEngineParseError: return "Parse error";
    case kEngineNoLineCode: return "no code at that line";
    case kEngineNotSuspended: return "the target is not suspended";
    case kEngineNoCurrentThread: return "no current thread";
    case kEngineTextTooLong: return "text too long";
    case kEngineSystemCallFailed: return "a system call failed, or the target is in the wrong state";
  }
  return EngineStartResultText(result);
}

// [SECTION] Events and stops

// One line per stop; FILE:LINE stays last so that a path with " | " in it cannot shift a column.
static PumpResult ReportStop(Cli *cli, const char *reason, u32 thread_id, const EngineSourceLocation *location,
                             u64 address) {
  cli->stopped = 1;
  cli->stop_thread_id = thread_id;
  CliPlace place;
  PlaceOfLocation(cli, location, address, &place);
  char thread[16] = "?";
  if (thread_id) snprintf(thread, sizeof thread, "%u", thread_id);
  printf("stopped | %s | thread %s | %s | %s\n", reason, thread, place.function, place.file_line);
  return kPumpStopped;
}

// The thread of a stop whose event names none (exceptions): the engine's current thread, the one
// whose event it holds.
static u32 HeldThreadId(Cli *cli) {
  TargetThread *current = cli->target->current_thread;
  return current ? current->id : 0;
}

static const char *EngineStopText(Cli *cli, u32 engine_reason) {
  u32 code = StopReasonOfEngineStop(engine_reason, cli->started_by);
  if (code != kStopReasonNone) return StopReasonStoppedText(code, cli->started_by);
  if (engine_reason == kStopBreak) return "Program stopped because the debugger broke in";
  return "Program stopped";
}

static bool IsRefresh(const EngineEvent *e) {
  return e->kind == kEventStopped &&
         (e->stopped.reason == kStopThreadStates || e->stopped.reason == kStopFrameSelected);
}

// Prints the event; returns what it means for a pump, or -1 when nothing a pump waits for.
static int HandleEvent(Cli *cli, const EngineEvent *e) {
  char text[kCliTextCapacity];
  u32 length = EngineEventText(e, &cli->options, cli->process_id, text, sizeof text);
  if (length) fputs(text, stdout);
  switch (e->kind) {
    case kEventStopped:
      if (IsRefresh(e)) return kPumpRefreshed;
      return ReportStop(cli, EngineStopText(cli, e->stopped.reason), e->stopped.thread_id, &e->stopped.location,
                        e->stopped.address);
    case kEventException:
      // The exception line (just printed) is the stop's reason.
      while (length && (text[length - 1] == '\n' || text[length - 1] == '\r')) text[--length] = 0;
      return ReportStop(cli, length ? text : "exception", HeldThreadId(cli), &e->exception.location,
                        e->exception.address);
    case kEventBreakpointHit: {
      const BreakpointLocation *bp = (const BreakpointLocation *)e->breakpoint.location_record;
      u32 code = bp && bp->kind == kBreakpointProcessor ? kStopReasonProcessorBreakpoint : kStopReasonUserBreakpoint;
      int meaning = ReportStop(cli, StopReasonStoppedText(code, cli->started_by), e->breakpoint.thread_id,
                               &e->breakpoint.location, e->breakpoint.address);
      // A condition that gave no answer stops; its message says why.
      if (e->breakpoint.condition_error) printf("condition: %s\n", e->breakpoint.condition_error);
      return meaning;
    }
    case kEventBreakpointBound:
    case kEventBreakpointLost:
      CliPrintBreakpoint(cli, (const BreakpointLocation *)e->breakpoint.location_record);
      break;
    case kEventProcessorBreakpointHit:
      return ReportStop(cli, StopReasonStoppedText(kStopReasonProcessorBreakpoint, cli->started_by),
                        HeldThreadId(cli), &e->processor_breakpoint.location, e->processor_breakpoint.address);
    case kEventEvaluation:
      if (cli->awaited_evaluation && e->evaluation.cookie == cli->awaited_evaluation) return kPumpEvaluated;
      break;
    case kEventModuleUnloaded:
      TargetModuleRelease(cli->target, e->module.module);
      break;
    case kEventProcessExited:
      cli->exit_code = e->process.exit_code;
      cli->ended = 1;
      cli->stopped = 0;
      return kPumpEnded;
    case kEventDetached:
      cli->ended = 1;
      cli->stopped = 0;
      return kPumpEnded;
  }
  return -1;
}

static void TakeLimits(Cli *cli) {
  if (cli->limit_taken || cli->ended) return;
  double elapsed = (double)(GetTickCount64() - cli->started_ms) / 1000.0;
  if (cli->terminate_after_seconds > 0 && elapsed >= cli->terminate_after_seconds) {
    cli->limit_taken = 1;
    printf("Terminating (result %d)\n", EngineTerminate(cli->target, kCliTerminateExitCode));
  } else if (cli->detach_after_seconds > 0 && elapsed >= cli->detach_after_seconds) {
    cli->limit_taken = 1;
    printf("Stopping debugging (result %d)\n", EngineStopDebugging(cli->target));
  }
}

PumpResult CliPump(Cli *cli, bool want_refresh, u32 timeout_ms) {
  ULONGLONG begin = GetTickCount64();
  for (;;) {
    EngineEvent event;
    while (EnginePopEvent(cli->target, &event) == 0 && event.kind != kEventNone) {
      int meaning = HandleEvent(cli, &event);
      if (meaning == kPumpStopped || meaning == kPumpEnded) return (PumpResult)meaning;
      if ((meaning == kPumpRefreshed || meaning == kPumpEvaluated) && want_refresh) return (PumpResult)meaning;
    }
    if (cli->ended) return kPumpEnded;
    TakeLimits(cli);
    if (timeout_ms != INFINITE && GetTickCount64() - begin >= timeout_ms) return kPumpTimedOut;
    (void)EngineWaitForEvent(cli->target, 50);
  }
}

void CliDrain(Cli *cli) {
  EngineEvent event;
  while (!cli->ended && EnginePopEvent(cli->target, &event) == 0 && event.kind != kEventNone) HandleEvent(cli, &event);
}

// [SECTION] Running

static int Run(Cli *cli) {
  // The stop event is posted once the engine serves commands, so this wait is normally over at once.
  if (EngineWaitStopped(cli->target, 10000) != 0) return kEngineNotSuspended;
  int result = EngineRun(cli->target);
  if (result == kEngineOk) {
    cli->stopped = 0;
    cli->held = 0;
  }
  return result;
}

void CliRunToEnd(Cli *cli) {
  if (cli->ended) return;
  if ((cli->stopped || cli->held) && Run(cli) != kEngineOk) {
    // The engine would not run the program: nothing more will happen than the limits allow.
    CliError(cli, "the program could not be run on");
  }
  while (!cli->ended) {
    if (CliPump(cli, false, INFINITE) == kPumpStopped) Run(cli);
  }
}

bool CliRunBy(Cli *cli, u32 started_by, EngineResult (*start)(Cli *cli, const void *argument), const void *argument) {
  if (EngineWaitStopped(cli->target, 10000) != 0) {
    CliError(cli, "%s", CliResultText(kEngineNotSuspended));
    return false;
  }
  EngineResult result = start(cli, argument);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  cli->started_by = started_by;
  cli->stopped = 0;
  cli->held = 0;
  if (CliPump(cli, false, cli->stop_timeout_ms) != kPumpTimedOut) return true;
  CliError(cli, "no stop within %g s (the program still runs)", cli->stop_timeout_ms / 1000.0);
  return false;
}

PumpResult CliContinue(Cli *cli) {
  cli->started_by = kStopReasonContinueCommand;
  int result = Run(cli);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return kPumpTimedOut;
  }
  PumpResult r = CliPump(cli, false, cli->stop_timeout_ms);
  if (r == kPumpTimedOut) CliError(cli, "no stop within %g s (the program still runs)", cli->stop_timeout_ms / 1000.0);
  return r;
}
