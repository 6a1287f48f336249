// Scripts: one command a line, each echoed as "> LINE" before its output; blank lines and lines
// that begin with '#' are skipped. A command that fails prints one "error:" line and the script
// goes on. Every command is one row of the table below and one function: a command is added by
// adding both (breakpoints, stepping, stack and evaluation come that way).
//
// [SECTION] Arguments
// [SECTION] Commands
// [SECTION] Run control
// [SECTION] Call stack
// [SECTION] Evaluation
// [SECTION] The command table
// [SECTION] Running a script
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cli.h"
#include "symbols/pdb_raw.h"
#include "symbols/scope_lookup.h"
#include "ui/stop_reason.h"

enum : u32 {
  kScriptMaxArguments = 16,
  kArgumentsRestOfLine = 0xFF,  // max_arguments of a command whose last argument is free text
  kReadMaxBytes = 4096,
  kRefreshTimeoutMs = 10000,
};

// What a command needs before it can run.
enum CommandNeeds : u8 {
  kNeedsProcess = 0,        // a process, running or stopped
  kNeedsStop = 1,           // a stopped target; the launched program held before its first run counts
  kNeedsStartedStop = 2,    // a stop after the program started (its threads have run)
};

typedef struct ScriptArguments {
  u32 count;                                // after the command's name
  const char *word[kScriptMaxArguments];    // each argument, zero-terminated
  const char *rest[kScriptMaxArguments];    // the line from that argument to its end, as written
} ScriptArguments;

typedef bool (*CommandFn)(Cli *cli, const ScriptArguments *args);

typedef struct ScriptCommand {
  const char *name;
  const char *usage;  // the arguments, for the error line of a wrong count
  u8 min_arguments;
  u8 max_arguments;   // kArgumentsRestOfLine: the last argument takes the rest of the line
  u8 needs;           // CommandNeeds
  CommandFn run;
} ScriptCommand;

// [SECTION] Arguments

// A decimal or 0x-prefixed hexadecimal number that fits 64 bits, and nothing else (no sign, no
// spaces).
static bool ParseNumber(const char *text, u64 *out) {
  if (!text) return false;
  bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char *digits = hex ? text + 2 : text;
  if (!(hex ? isxdigit((unsigned char)*digits) : isdigit((unsigned char)*digits))) return false;
  char *end = nullptr;
  errno = 0;
  unsigned long long value = strtoull(digits, &end, hex ? 16 : 10);
  if (*end || errno == ERANGE) return false;
  *out = value;
  return true;
}

// A thread: its id, or "#N" for the Nth thread of the threads list (from 1), which a script can
// name before it knows the ids.
static TargetThread *ThreadArgument(Cli *cli, const char *text) {
  bool by_position = text[0] == '#';
  u64 number = 0;
  if (!ParseNumber(text + (by_position ? 1 : 0), &number) || number > 0xFFFFFFFFull) {
    CliError(cli, "'%s' is not a thread id or #N", text);
    return nullptr;
  }
  TargetThread *thread = nullptr;
  if (by_position) {
    u64 position = 1;
    for (thread = cli->target->threads; thread && position < number; thread = thread->next) position++;
    if (number == 0) thread = nullptr;
  } else {
    thread = TargetFindThread(cli->target, (u32)number);
  }
  if (!thread) CliError(cli, "no thread %s", text);
  return thread;
}

// The start of a procedure named name in any loaded module's symbols.
static bool FunctionAddress(Cli *cli, const char *name, u64 *out) {
  *out = EngineFunctionAddress(cli->target, name);
  return *out != 0;
}

// An address: a number, a general register of the stopped thread, or a function's name.
static bool AddressArgument(Cli *cli, const char *text, u64 *out) {
  if (ParseNumber(text, out)) return true;
  if (CliIsGeneralRegister(text)) {
    if (cli->held) {
      CliError(cli, "registers are not read before the program starts");
      return false;
    }
    if (CliRegisterValue(cli, CliStopThread(cli), text, out)) return true;
    CliError(cli, "the registers of the stopped thread cannot be read");
    return false;
  }
  if (FunctionAddress(cli, text, out)) return true;
  CliError(cli, "'%s' is not an address, a register or a function", text);
  return false;
}

// Waits for the engine to answer a command that changed thread states or registers.
static bool AwaitRefresh(Cli *cli) {
  PumpResult r = CliPump(cli, true, kRefreshTimeoutMs);
  if (r == kPumpRefreshed) return true;
  if (r == kPumpTimedOut) CliError(cli, "the engine did not answer within %u s", kRefreshTimeoutMs / 1000);
  return false;
}

// [SECTION] Commands

static void PrintThread(Cli *cli, TargetThread *t) {
  char state[64] = "";
  const char *words[3] = {t == CliStopThread(cli) ? "current" : nullptr, t->frozen ? "frozen" : nullptr,
                          t->solo ? "solo" : nullptr};
  for (const char *w : words) {
    if (!w) continue;
    if (state[0]) strcat(state, ",");
    strcat(state, w);
  }
  CliPlace place = {"?", "?"};
  // Before the first run the registers are not read: the program has not started.
  const CONTEXT *context = cli->held ? nullptr : CliThreadContext(cli, t);
  if (context) CliPlaceOfAddress(cli, context->Rip, &place);
  printf("thread %u | %s | %s | %s | %s\n", t->id, t->name[0] ? t->name : "?", state[0] ? state : "-", place.function,
         place.file_line);
}

static bool CommandContinue(Cli *cli, const ScriptArguments *) { return CliContinue(cli) != kPumpTimedOut; }

static bool CommandThreads(Cli *cli, const ScriptArguments *) {
  for (TargetThread *t = cli->target->threads; t; t = t->next) PrintThread(cli, t);
  return true;
}

// freeze, thaw and solo: the engine toggles; the command asks for the state it names.
static bool SetThreadFlag(Cli *cli, const ScriptArguments *args, bool solo, bool wanted) {
  TargetThread *thread = ThreadArgument(cli, args->word[0]);
  if (!thread) return false;
  bool now = (solo ? thread->solo : thread->frozen) != 0;
  if (now != wanted) {
    int result = solo ? EngineToggleSolo(cli->target, thread) : EngineToggleFreeze(cli->target, thread);
    if (result != kEngineOk) {
      CliError(cli, "%s", CliResultText(result));
      return false;
    }
    if (!AwaitRefresh(cli)) return false;
  }
  PrintThread(cli, thread);
  return true;
}

static bool CommandFreeze(Cli *cli, const ScriptArguments *args) { return SetThreadFlag(cli, args, false, true); }
static bool CommandThaw(Cli *cli, const ScriptArguments *args) { return SetThreadFlag(cli, args, false, false); }
static bool CommandSolo(Cli *cli, const ScriptArguments *args) {
  // A second solo on the same thread takes it back, as the threads window's check mark does.
  TargetThread *thread = ThreadArgument(cli, args->word[0]);
  return thread && SetThreadFlag(cli, args, true, !thread->solo);
}

static bool CommandRegs(Cli *cli, const ScriptArguments *args) {
  static const char *const kGroups[] = {"general", "avx", "avx512"};  // in RegisterGroup order
  u32 group = kRegsGeneral;
  if (args->count) {
    for (group = 0; group < KTRN_ARRAY_COUNT(kGroups) && strcmp(args->word[0], kGroups[group]); group++) {
    }
    if (group == KTRN_ARRAY_COUNT(kGroups)) {
      CliError(cli, "no register group '%s' (general, avx or avx512)", args->word[0]);
      return false;
    }
  }
  return CliPrintRegisters(cli, CliStopThread(cli), group);
}

static bool CommandSetReg(Cli *cli, const ScriptArguments *args) {
  const char *name = args->word[0];
  u64 value = 0;
  if (CliIsVectorRegister(name)) {
    TargetThread *thread = CliStopThread(cli);
    if (!CliSetVectorRegister(cli, thread, name, args->word[1]) || !AwaitRefresh(cli)) return false;
    CliPrintVectorRegister(cli, thread, name);
    return true;
  }
  if (!CliIsGeneralRegister(name)) {
    CliError(cli, "no register '%s'", name);
    return false;
  }
  if (!ParseNumber(args->word[1], &value)) {
    CliError(cli, "'%s' is not a number", args->word[1]);
    return false;
  }
  TargetThread *thread = CliStopThread(cli);
  if (!CliSetRegister(cli, thread, name, value)) return false;
  if (!AwaitRefresh(cli)) return false;
  u64 now = 0;
  if (!CliRegisterValue(cli, thread, name, &now)) {
    CliError(cli, "the registers cannot be read back");
    return false;
  }
  printf("%s = 0x%016llx\n", name, (unsigned long long)now);
  return true;
}

// [SECTION] Breakpoints

// A breakpoint of the script by its number.
static BreakpointLocation *BreakpointArgument(Cli *cli, const char *text) {
  u64 number = 0;
  if (!ParseNumber(text, &number) || number == 0 || number > cli->breakpoint_count || !cli->breakpoints[number - 1]) {
    CliError(cli, "no breakpoint %s", text);
    return nullptr;
  }
  return cli->breakpoints[number - 1];
}

static bool Remember(Cli *cli, BreakpointLocation *bp) {
  if (cli->breakpoint_count == KTRN_ARRAY_COUNT(cli->breakpoints)) {
    CliError(cli, "no more than %u breakpoints in a script", (unsigned)KTRN_ARRAY_COUNT(cli->breakpoints));
    return false;
  }
  cli->breakpoints[cli->breakpoint_count++] = bp;
  return true;
}

// A breakpoint the engine made: numbered and printed; an error line otherwise.
static bool Added(Cli *cli, EngineResult result, BreakpointLocation *bp) {
  if (result == kEngineParseError && bp) {  // made, with its condition kept as text
    if (!Remember(cli, bp)) return false;
    CliPrintBreakpoint(cli, bp);
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  if (!Remember(cli, bp)) return false;
  CliPrintBreakpoint(cli, bp);
  return true;
}

// break FILE:LINE | FUNCTION | ADDRESS: a number is an address; a text whose last ':' is followed
// by digits only is a file and line (a path may hold ':' of its own); anything else names a function.
static bool CommandBreak(Cli *cli, const ScriptArguments *args) {
  // "break PLACE if CONDITION": the condition is the text after the first " if ".
  char place_text[kBreakpointPlaceCapacity];
  const char *place = args->rest[0];
  BreakpointWanted wanted = {};
  if (const char *when = strstr(place, " if ")) {
    if ((size_t)(when - place) >= sizeof place_text) {
      CliError(cli, "%s", CliResultText(kEngineTextTooLong));
      return false;
    }
    memcpy(place_text, place, when - place);
    place_text[when - place] = 0;
    place = place_text;
    wanted.condition = when + 4;
  }
  char file[kBreakpointPlaceCapacity];
  u64 number = 0;
  const char *colon = strrchr(place, ':');
  if (ParseNumber(place, &number)) {
    wanted.kind = kBreakpointAddress;
    wanted.address = number;
  } else if (colon && colon != place && ParseNumber(colon + 1, &number) && number > 0 && number <= 0xFFFFFFFFull) {
    if ((size_t)(colon - place) >= sizeof file) {
      CliError(cli, "%s", CliResultText(kEngineTextTooLong));
      return false;
    }
    memcpy(file, place, colon - place);
    file[colon - place] = 0;
    wanted.kind = kBreakpointSourceLine;
    wanted.place = file;
    wanted.line = (u32)number;
  } else {
    wanted.kind = kBreakpointFunction;
    wanted.place = place;
  }
  BreakpointLocation *bp = nullptr;
  EngineResult result = EngineAddBreakpoint(cli->target, &wanted, &bp);
  if (result == kEngineBreakpointExists) {
    CliError(cli, "%s", CliResultText(result));
    CliPrintBreakpoint(cli, bp);
    return false;
  }
  return Added(cli, result, bp);
}

// break-data ADDRESS SIZE r|w|x: r stands for read/write (the processor has no read-only kind).
static bool CommandBreakData(Cli *cli, const ScriptArguments *args) {
  u64 address = 0, size = 0;
  if (!AddressArgument(cli, args->word[0], &address)) return false;
  if (!ParseNumber(args->word[1], &size) || (size != 1 && size != 2 && size != 4 && size != 8)) {
    CliError(cli, "SIZE must be 1, 2, 4 or 8");
    return false;
  }
  const char *kinds = "wrx";  // in BreakpointAccess order
  const char *kind = strchr(kinds, args->word[2][0]);
  if (!kind || !args->word[2][0] || args->word[2][1]) {
    CliError(cli, "the access must be r, w or x");
    return false;
  }
  BreakpointLocation *bp = nullptr;
  EngineResult result = EngineAddDataBreakpoint(cli->target, address, (u32)size, (u32)(kind - kinds), &bp);
  return Added(cli, result, bp);
}

// condition N TEXT: kept as text whether or not it parses; one that does not is an error line.
static bool CommandCondition(Cli *cli, const ScriptArguments *args) {
  BreakpointLocation *bp = BreakpointArgument(cli, args->word[0]);
  if (!bp) return false;
  EngineResult result = EngineSetBreakpointCondition(cli->target, bp, args->count > 1 ? args->rest[1] : "");
  CliPrintBreakpoint(cli, bp);
  if (bp->condition[0]) printf("condition %s\n", bp->condition);
  if (result != kEngineOk) CliError(cli, "%s", CliResultText(result));
  return result == kEngineOk;
}

static bool SetEnabled(Cli *cli, const ScriptArguments *args, u8 enabled) {
  BreakpointLocation *bp = BreakpointArgument(cli, args->word[0]);
  if (!bp) return false;
  EngineResult result = EngineEnableBreakpoint(cli->target, bp, enabled);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  CliPrintBreakpoint(cli, bp);
  return true;
}

static bool CommandEnable(Cli *cli, const ScriptArguments *args) { return SetEnabled(cli, args, 1); }
static bool CommandDisable(Cli *cli, const ScriptArguments *args) { return SetEnabled(cli, args, 0); }

static bool CommandDelete(Cli *cli, const ScriptArguments *args) {
  BreakpointLocation *bp = BreakpointArgument(cli, args->word[0]);
  if (!bp) return false;
  EngineResult result = EngineRemoveBreakpoint(cli->target, bp);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  u64 number = 0;
  ParseNumber(args->word[0], &number);
  cli->breakpoints[number - 1] = nullptr;
  printf("deleted breakpoint %llu\n", (unsigned long long)number);
  return true;
}

static bool CommandBreakpoints(Cli *cli, const ScriptArguments *) {
  for (u32 i = 0; i < cli->breakpoint_count; i++)
    if (cli->breakpoints[i]) {
      const BreakpointLocation *bp = cli->breakpoints[i];
      CliPrintBreakpoint(cli, bp);
      if (!bp->enabled) printf("  disabled\n");
      if (bp->condition[0])
        printf("  when: %s%s\n", bp->condition, bp->condition_parse_failed ? " <-- Parse error" : "");
      if (bp->condition[0] || bp->hit_count) printf("  hits: %u\n", bp->hit_count);
    }
  return true;
}

static bool CommandRead(Cli *cli, const ScriptArguments *args) {
  u64 address = 0, count = 0;
  if (!AddressArgument(cli, args->word[0], &address)) return false;
  if (!ParseNumber(args->word[1], &count) || count == 0 || count > kReadMaxBytes) {
    CliError(cli, "COUNT must be a number from 1 to %u", kReadMaxBytes);
    return false;
  }
  for (u64 line = 0; line < count; line += 16) {
    u32 n = (u32)MinU64(16, count - line);
    u8 bytes[16];
    bool whole = CliReadMemory(cli, address + line, bytes, n);
    printf("0x%016llx:", (unsigned long long)(address + line));
    for (u32 i = 0; i < n; i++) {
      // A line that cannot be read whole is read a byte at a time: "??" marks the bytes that fail.
      if (whole || CliReadMemory(cli, address + line + i, bytes + i, 1))
        printf(" %02x", bytes[i]);
      else
        printf(" ??");
    }
    printf("\n");
  }
  return true;
}

static bool CommandModules(Cli *cli, const ScriptArguments *) {
  for (TargetModule *m = cli->target->modules; m; m = m->next) {
    const ModuleSymbols *s = &m->symbols;
    printf("module %s | 0x%016llx | 0x%016llx | %s | %s\n", s->name && s->name[0] ? s->name : "?",
           (unsigned long long)TargetModuleBase(m), (unsigned long long)TargetModuleEnd(m), SymbolStatusText(s->status),
           s->image_path[0] ? s->image_path : "?");
  }
  return true;
}

static bool AwaitEnd(Cli *cli) {
  PumpResult r;
  do r = CliPump(cli, false, cli->stop_timeout_ms);
  while (r == kPumpStopped);  // a stop on the way (a break already under way) is gone past
  if (r == kPumpEnded) return true;
  CliError(cli, "the run did not end within %g s", cli->stop_timeout_ms / 1000.0);
  return false;
}

static bool CommandDetach(Cli *cli, const ScriptArguments *) {
  int result = EngineStopDebugging(cli->target);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  return AwaitEnd(cli);
}

static bool CommandKill(Cli *cli, const ScriptArguments *args) {
  u64 code = kCliTerminateExitCode;
  if (args->count && (!ParseNumber(args->word[0], &code) || code > 0xFFFFFFFFull)) {
    CliError(cli, "'%s' is not an exit code", args->word[0]);
    return false;
  }
  int result = EngineTerminate(cli->target, (u32)code);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  return AwaitEnd(cli);
}

// [SECTION] Run control

// FILE:LINE, split at the last ':' (a path may hold ':' of its own).
static bool FileLineArgument(Cli *cli, const char *text, char *file, u32 file_capacity, u32 *line) {
  const char *colon = strrchr(text, ':');
  u64 number = 0;
  if (!colon || colon == text || !ParseNumber(colon + 1, &number) || number == 0 || number > 0xFFFFFFFFull) {
    CliError(cli, "'%s' is not FILE:LINE", text);
    return false;
  }
  if ((u64)(colon - text) >= file_capacity) {
    CliError(cli, "%s", CliResultText(kEngineTextTooLong));
    return false;
  }
  memcpy(file, text, colon - text);
  file[colon - text] = 0;
  *line = (u32)number;
  return true;
}

typedef struct FileLine {
  char file[kBreakpointPlaceCapacity];
  u32 line;
} FileLine;

static EngineResult StartStep(Cli *cli, const void *request) { return EngineStep(cli->target, *(const u32 *)request); }
static EngineResult StartRunToLine(Cli *cli, const void *place) {
  const FileLine *p = (const FileLine *)place;
  return EngineRunToLine(cli->target, p->file, p->line);
}
static EngineResult StartRunToEntry(Cli *cli, const void *nominal) {
  return EngineRunToEntry(cli->target, *(const bool *)nominal);
}

// step into|over|out: by source line (out: to the caller).
static bool CommandStep(Cli *cli, const ScriptArguments *args) {
  static const struct {
    const char *word;
    u32 request;
    u32 started_by;
  } kSteps[] = {{"into", kRunStepInto, kStopReasonStepIntoMenu},
                {"over", kRunStepOver, kStopReasonStepOverMenu},
                {"out", kRunStepOut, kStopReasonStepOutMenu}};
  for (const auto &s : kSteps)
    if (!strcmp(args->word[0], s.word)) return CliRunBy(cli, s.started_by, StartStep, &s.request);
  CliError(cli, "step into, over or out");
  return false;
}

// stepi [over]: one instruction; with "over" a call runs to its return.
static bool CommandStepInstruction(Cli *cli, const ScriptArguments *args) {
  static const u32 into = kRunStepInstruction, over = kRunStepOverInstruction;
  if (args->count == 1 && strcmp(args->word[0], "over")) {
    CliError(cli, "stepi [over]");
    return false;
  }
  if (args->count == 1) return CliRunBy(cli, kStopReasonStepOverInstructionMenu, StartStep, &over);
  return CliRunBy(cli, kStopReasonStepInstructionMenu, StartStep, &into);
}

static bool CommandRunTo(Cli *cli, const ScriptArguments *args) {
  FileLine place;
  if (!FileLineArgument(cli, args->rest[0], place.file, sizeof place.file, &place.line)) return false;
  return CliRunBy(cli, kStopReasonRunToCursorMenu, StartRunToLine, &place);
}

// launch-and-halt [entry]: the launched program, before its first run, runs to its nominal entry
// point (main, WinMain, ...), or with "entry" to the image's own entry point function.
static bool CommandLaunchAndHalt(Cli *cli, const ScriptArguments *args) {
  if (!cli->held) {
    CliError(cli, "the program has started already");
    return false;
  }
  static const bool kNominal = true, kImageEntry = false;
  if (args->count == 1 && strcmp(args->word[0], "entry")) {
    CliError(cli, "launch-and-halt [entry]");
    return false;
  }
  return CliRunBy(cli, kStopReasonEntryStepIntoMenu, StartRunToEntry, args->count == 1 ? &kImageEntry : &kNominal);
}

// set-next FILE:LINE: the stopped thread goes on at that line; the stop line shows where.
static bool CommandSetNext(Cli *cli, const ScriptArguments *args) {
  FileLine place;
  if (!FileLineArgument(cli, args->rest[0], place.file, sizeof place.file, &place.line)) return false;
  // The stop was reported just before the engine waits for commands: the move waits for that.
  EngineResult result = EngineWaitStopped(cli->target, kRefreshTimeoutMs);
  if (result == kEngineOk) result = EngineSetNextStatement(cli->target, place.file, place.line);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  if (!AwaitRefresh(cli)) return false;
  TargetThread *thread = CliStopThread(cli);
  const CONTEXT *context = CliThreadContext(cli, thread);
  CliPlace where = {"?", "?"};
  if (context) CliPlaceOfAddress(cli, context->Rip, &where);
  printf("stopped | %s | thread %u | %s | %s\n", StopReasonStoppedText(kStopReasonNextStatement, cli->started_by),
         thread ? thread->id : 0, where.function, where.file_line);
  return true;
}

// [SECTION] Call stack

// stack [THREAD]: the thread's frames, innermost first (the thread of the last stop by default).
static bool CommandStack(Cli *cli, const ScriptArguments *args) {
  TargetThread *thread = args->count ? ThreadArgument(cli, args->word[0]) : CliStopThread(cli);
  if (!thread) {
    if (!args->count) CliError(cli, "%s", CliResultText(kEngineNoCurrentThread));
    return false;
  }
  const StackFrame *frames = nullptr;
  // The stop's event comes a moment before the engine serves commands: the stack is read then.
  (void)EngineWaitStopped(cli->target, kRefreshTimeoutMs);
  u32 count = EngineThreadStack(cli->target, thread, &frames);
  if (count == 0) {
    CliError(cli, "no frames could be found for thread %u", thread->id);
    return false;
  }
  for (u32 i = 0; i < count; i++) CliPrintFrame("#", i, &frames[i]);
  return true;
}

// frame N: selects frame N of the current thread (the registers and locals follow it).
static bool CommandFrame(Cli *cli, const ScriptArguments *args) {
  TargetThread *thread = CliStopThread(cli);
  const StackFrame *frames = nullptr;
  (void)EngineWaitStopped(cli->target, kRefreshTimeoutMs);
  u32 count = thread ? EngineThreadStack(cli->target, thread, &frames) : 0;
  u64 index = 0;
  if (!ParseNumber(args->word[0], &index) || index >= count) {
    CliError(cli, "no frame %s (the stack has %u)", args->word[0], count);
    return false;
  }
  if (frames[index].collapsed) {
    CliError(cli, "frame %s is a row of collapsed frames", args->word[0]);
    return false;
  }
  EngineResult result = EngineSelectFrame(cli->target, (s32)index);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  if (!AwaitRefresh(cli)) return false;
  CliPrintFrame("frame ", (u32)index, &frames[index]);
  return true;
}

// [SECTION] Evaluation

// echo TEXT: prints the text (a heading in a transcript).
static bool CommandEcho(Cli *, const ScriptArguments *args) {
  printf("%s\n", args->count ? args->rest[0] : "");
  return true;
}

static bool CommandEval(Cli *cli, const ScriptArguments *args) { return CliEvaluate(cli, args->rest[0]); }

// expand EXPR [DEPTH]: a last word that is a number is the depth (1 when none is given).
static bool CommandExpand(Cli *cli, const ScriptArguments *args) {
  u64 depth = 1;
  char text[kEvaluationTextCapacity];
  u32 length = (u32)strlen(args->rest[0]);
  if (args->count > 1 && ParseNumber(args->word[args->count - 1], &depth)) {
    length = (u32)(args->rest[args->count - 1] - args->rest[0]);
    while (length && (args->rest[0][length - 1] == ' ' || args->rest[0][length - 1] == '\t')) length--;
  }
  if (length >= sizeof text) {
    CliError(cli, "%s", CliResultText(kEngineTextTooLong));
    return false;
  }
  if (depth < 1 || depth > kEvaluationPathCapacity) {
    CliError(cli, "DEPTH must be a number from 1 to %u", kEvaluationPathCapacity);
    return false;
  }
  memcpy(text, args->rest[0], length);
  text[length] = 0;
  return CliExpand(cli, text, (u32)depth);
}

// [SECTION] The command table

static const ScriptCommand kScriptCommands[] = {
    // name, arguments, min, max, needs, function
    {"continue", "", 0, 0, kNeedsStop, CommandContinue},
    {"step", "into|over|out", 1, 1, kNeedsStartedStop, CommandStep},
    {"stepi", "[over]", 0, 1, kNeedsStartedStop, CommandStepInstruction},
    {"run-to", "FILE:LINE", 1, kArgumentsRestOfLine, kNeedsStop, CommandRunTo},
    {"set-next", "FILE:LINE", 1, kArgumentsRestOfLine, kNeedsStartedStop, CommandSetNext},
    {"launch-and-halt", "[entry]", 0, 1, kNeedsStop, CommandLaunchAndHalt},
    {"threads", "", 0, 0, kNeedsStop, CommandThreads},
    {"freeze", "TID|#N", 1, 1, kNeedsStartedStop, CommandFreeze},
    {"thaw", "TID|#N", 1, 1, kNeedsStartedStop, CommandThaw},
    {"solo", "TID|#N", 1, 1, kNeedsStartedStop, CommandSolo},
    {"break", "FILE:LINE|FUNCTION|ADDRESS [if CONDITION]", 1, kArgumentsRestOfLine, kNeedsProcess, CommandBreak},
    {"break-data", "ADDRESS SIZE r|w|x", 3, 3, kNeedsStop, CommandBreakData},
    {"condition", "N [TEXT]", 1, kArgumentsRestOfLine, kNeedsStop, CommandCondition},
    {"enable", "N", 1, 1, kNeedsProcess, CommandEnable},
    {"disable", "N", 1, 1, kNeedsProcess, CommandDisable},
    {"delete", "N", 1, 1, kNeedsProcess, CommandDelete},
    {"breakpoints", "", 0, 0, kNeedsProcess, CommandBreakpoints},
    {"stack", "[TID|#N]", 0, 1, kNeedsStartedStop, CommandStack},
    {"frame", "N", 1, 1, kNeedsStartedStop, CommandFrame},
    {"regs", "[general|avx|avx512]", 0, 1, kNeedsStartedStop, CommandRegs},
    {"set-reg", "NAME VALUE", 2, 2, kNeedsStartedStop, CommandSetReg},  // general registers, ymm0-15
    {"read", "ADDRESS COUNT", 2, 2, kNeedsStop, CommandRead},
    {"modules", "", 0, 0, kNeedsStop, CommandModules},
    {"echo", "[TEXT]", 0, kArgumentsRestOfLine, kNeedsProcess, CommandEcho},
    {"eval", "EXPR", 1, kArgumentsRestOfLine, kNeedsStartedStop, CommandEval},
    {"expand", "EXPR [DEPTH]", 1, kArgumentsRestOfLine, kNeedsStartedStop, CommandExpand},
    {"detach", "", 0, 0, kNeedsProcess, CommandDetach},
    {"kill", "[EXIT_CODE]", 0, 1, kNeedsProcess, CommandKill},
};

static const ScriptCommand *FindCommand(const char *name) {
  for (const ScriptCommand &c : kScriptCommands)
    if (!strcmp(c.name, name)) return &c;
  return nullptr;
}

static bool NeedsMet(Cli *cli, u8 needs) {
  if (cli->ended) {
    CliError(cli, "no process");
    return false;
  }
  if (needs == kNeedsProcess) return true;
  if (!cli->stopped && !cli->held) {
    CliError(cli, "the program is running");
    return false;
  }
  if (needs == kNeedsStartedStop && cli->held) {
    CliError(cli, "the program has not started: continue to its first stop");
    return false;
  }
  return true;
}

// [SECTION] Running a script

// Splits line (modified) into the command's name and its arguments; original is the line as read.
static const char *SplitLine(char *line, const char *original, ScriptArguments *args) {
  memset(args, 0, sizeof *args);
  const char *name = nullptr;
  char *p = line;
  for (;;) {
    while (*p == ' ' || *p == '\t') p++;
    if (!*p) break;
    char *start = p;
    while (*p && *p != ' ' && *p != '\t') p++;
    if (*p) *p++ = 0;
    if (!name) {
      name = start;
    } else if (args->count < kScriptMaxArguments) {
      args->rest[args->count] = original + (start - line);
      args->word[args->count++] = start;
    } else {
      args->count = kScriptMaxArguments + 1;  // too many: no command takes them
      break;
    }
  }
  return name;
}

static void RunLine(Cli *cli, const char *text) {
  char line[kCliTextCapacity];
  snprintf(line, sizeof line, "%s", text);
  ScriptArguments args;
  const char *name = SplitLine(line, text, &args);
  const ScriptCommand *command = FindCommand(name);
  cli->command = nullptr;
  if (!command) {
    CliError(cli, "unknown command '%s'", name);
    return;
  }
  cli->command = command->name;
  bool rest_of_line = command->max_arguments == kArgumentsRestOfLine;
  if (args.count < command->min_arguments || (!rest_of_line && args.count > command->max_arguments)) {
    CliError(cli, "usage: %s%s%s", command->name, command->usage[0] ? " " : "", command->usage);
  } else if (NeedsMet(cli, command->needs)) {
    command->run(cli, &args);
  }
  cli->command = nullptr;
}

void CliRunScript(Cli *cli, FILE *file) {
  char line[kCliTextCapacity];
  while (fgets(line, sizeof line, file)) {
    size_t length = strlen(line);
    bool cut = length == sizeof line - 1 && line[length - 1] != '\n';
    while (length && (line[length - 1] == '\n' || line[length - 1] == '\r')) line[--length] = 0;
    if (cut) {  // the rest of an overlong line is dropped with it
      for (int c = fgetc(file); c != EOF && c != '\n'; c = fgetc(file)) {
      }
    }
    const char *text = line;
    while (*text == ' ' || *text == '\t') text++;
    if (!*text || *text == '#') continue;
    // Events that came after the previous command's output (a late stop, the program's strings)
    // are printed before the next command is echoed.
    CliDrain(cli);
    printf("> %s\n", text);
    if (cut)
      CliError(cli, "line longer than %u characters", kCliTextCapacity - 2);
    else
      RunLine(cli, text);
  }
}
