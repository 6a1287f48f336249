// ktrn-cli's state and the pieces its files share: the event pump that prints what the engine
// reports, the stop line, where an address lies, and the script commands.
//
// Files: main.cpp (options, start, the run without a script), session.cpp (the event pump, stops,
// places), script.cpp (script lines and the command table), registers.cpp (the register table).
#pragma once
#include <windows.h>

#include <stdio.h>

#include "engine/engine.h"
#include "ui/engine_event_text.h"

enum : u32 {
  kCliTextCapacity = 4096,
  kCliTerminateExitCode = 0x7E57,  // what --terminate-after and kill give the program
};

typedef struct Cli {
  Target *target;
  u32 process_id;
  OutputOptions options;
  u32 started_by;      // StopReason of the run under way: the code the stop texts are chosen by
  u8 held;             // launched and never run: the program has not reached its first instruction
  u8 stopped;          // a stop was reported and the target has not been run since
  u8 ended;            // the process exited or was detached
  u8 limit_taken;      // --seconds or --terminate-after has been carried out
  u32 exit_code;       // the program's, once it exited
  u32 stop_thread_id;  // the thread of the last stop, 0 when it named none
  u32 stop_timeout_ms; // how long a command waits for a stop or for the run's end
  ULONGLONG started_ms;
  double detach_after_seconds;     // --seconds; 0: never
  double terminate_after_seconds;  // --terminate-after; 0: never
  const char *command;  // the script command being carried out, named in its error lines
  // The script's breakpoints, numbered from 1 in the order they were made; null once deleted.
  BreakpointLocation *breakpoints[256];
  u32 breakpoint_count;
  void *awaited_evaluation;  // the cookie of the evaluation request a command waits for
} Cli;

// [SECTION] Events (session.cpp)
enum PumpResult {
  kPumpStopped = 0,   // a stop was reported (its line printed)
  kPumpEnded = 1,     // the process exited or was detached
  kPumpRefreshed = 2, // the engine answered a command that changed thread states or registers
  kPumpTimedOut = 3,
  kPumpEvaluated = 4, // (with want_refresh) the awaited evaluation request has a result
};
// Pops and prints events until a stop, the end of the run, or (with want_refresh) the engine's
// answer to a thread-state command, or until timeout_ms passes. The --seconds and
// --terminate-after limits are carried out on the way.
PumpResult CliPump(Cli *cli, bool want_refresh, u32 timeout_ms);
// Pops and prints what is queued without waiting.
void CliDrain(Cli *cli);
// Lets the program run to its end, every stop printed and continued (the run without a script,
// and what follows the script's last line).
void CliRunToEnd(Cli *cli);
// Runs the stopped target (the run command) and waits for the next stop or the end.
PumpResult CliContinue(Cli *cli);
// The same for a run that an engine operation starts (a step, a run to a line): started_by is the
// StopReason that the operation's stop texts are chosen by; false (and an error line) when the
// engine refused it.
bool CliRunBy(Cli *cli, u32 started_by, EngineResult (*start)(Cli *cli, const void *argument), const void *argument);

// Prints "error: COMMAND: MESSAGE" (or "error: MESSAGE" outside a command) on one line.
void CliError(Cli *cli, const char *format, ...) __attribute__((format(printf, 2, 3)));
// A short text for an engine result code.
const char *CliResultText(int result);

// Where an address lies: "FUNCTION" and "FILE:LINE", "?" for what the symbols do not know.
typedef struct CliPlace {
  char function[512];
  char file_line[1100];
} CliPlace;
void CliPlaceOfAddress(Cli *cli, u64 address, CliPlace *out);
// The same for a call-stack frame, from the symbols its build found (a return address at its call).
void CliPlaceOfFrame(const StackFrame *frame, CliPlace *out);
// "#N | FUNCTION | FILE:LINE | 0xADDRESS" (prefix "#" or "frame "); a marker row as the call stack
// window shows it: "#N | Collapsed %d frames (possible stack-overflow)".
void CliPrintFrame(const char *prefix, u32 index, const StackFrame *frame);

// The thread the registers and the thread commands act on: the thread of the last stop.
TargetThread *CliStopThread(Cli *cli);

// "breakpoint N | bound|pending | FUNCTION | FILE:LINE | 0xADDRESS" for the script's breakpoint
// record (nothing for one the script did not make).
void CliPrintBreakpoint(Cli *cli, const BreakpointLocation *bp);

// The stopped target's registers and memory: the only places that read them from the engine.
// The thread's registers at this stop, null when they cannot be read.
const CONTEXT *CliThreadContext(Cli *cli, TargetThread *thread);
// True when all size bytes were read (the program's own bytes, as the engine shows memory).
bool CliReadMemory(Cli *cli, u64 address, void *buffer, u32 size);

// [SECTION] Registers (registers.cpp)
enum RegisterGroup : u8 { kRegsGeneral = 0, kRegsAvx = 1, kRegsAvx512 = 2 };
// Prints the group's registers of the thread, one "name = 0x..." line each. False (and an error
// line) when the thread's context lacks the group.
bool CliPrintRegisters(Cli *cli, TargetThread *thread, u32 group);
// The value of a general register of the thread by name (rax, eax is not one). False when there is
// no such register.
bool CliRegisterValue(Cli *cli, TargetThread *thread, const char *name, u64 *out);
bool CliIsGeneralRegister(const char *name);
// Writes a general register of the stopped thread (the engine writes the thread's context back).
bool CliSetRegister(Cli *cli, TargetThread *thread, const char *name, u64 value);
// ymm0 to ymm15: written from "0x" and up to 64 hexadecimal digits, printed as regs avx does.
bool CliIsVectorRegister(const char *name);
bool CliSetVectorRegister(Cli *cli, TargetThread *thread, const char *name, const char *hex);
void CliPrintVectorRegister(Cli *cli, TargetThread *thread, const char *name);

// [SECTION] Evaluation (evaluate.cpp)
// eval EXPR: prints "EXPR | VALUE | TYPE", the three texts of a watch row.
bool CliEvaluate(Cli *cli, const char *text);
// expand EXPR [DEPTH]: the expression's row, then its child rows down to depth levels, each
// indented by two spaces a level.
bool CliExpand(Cli *cli, const char *text, u32 depth);

// [SECTION] Script (script.cpp)
// Reads the script line by line and carries out each command.
void CliRunScript(Cli *cli, FILE *file);
