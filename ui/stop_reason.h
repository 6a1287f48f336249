// StopReason: the one code the user interface keeps to say why the program runs or why it stopped.
// A run sets it to the code of the action that started it (the same action from the menu, a key,
// the toolbar or an external command has a code of its own); a stop replaces it with a stop code.
// The status bar, ktrn-cli and the tests read the texts from here. Needs no Dear ImGui.
#pragma once
#include "base/types.h"

// The codes that name something outside the text table itself (a stop, or a run the tools start).
enum StopReason : u32 {
  kStopReasonNone = 0,
  kStopReasonRunToCursorMenu = 1,
  kStopReasonRunToCursorKey = 2,
  kStopReasonEntryStepIntoMenu = 8,  // a launch run to the entry point by Control|Step Into (Line)
  kStopReasonStepIntoMenu = 18,
  kStopReasonStepInstructionMenu = 21,
  kStopReasonStepOutMenu = 24,
  kStopReasonStepOverMenu = 27,
  kStopReasonStepOverInstructionMenu = 30,
  kStopReasonContinueCommand = 36,   // the 'continue-execution' command (ktrn-cli's continue)
  kStopReasonAttached = 38,
  kStopReasonBreakMenu = 39,
  kStopReasonBreakKey = 40,
  kStopReasonBreakButton = 41,
  kStopReasonUserBreakpoint = 42,
  kStopReasonProcessorBreakpoint = 43,
  kStopReasonStepOver = 44,
  kStopReasonStepInto = 45,
  kStopReasonStepOut = 46,
  kStopReasonProgramBreakpoint = 47,  // a breakpoint instruction of the program's own
  kStopReasonEntryOrCursor = 48,      // a run to the entry point or to the cursor completed
  kStopReasonException = 49,          // no fixed text: the exception line is shown
  kStopReasonNextStatement = 50,
  kStopReasonNextStatementLine = 51,
};

// The status text while the program runs for code; "" for a code without one.
const char *StopReasonRunningText(u32 code);
// The status text of a stop for code; started_by is the code that started the run (it chooses
// code 48's text). "" for a code without one, code 49 included.
const char *StopReasonStoppedText(u32 code, u32 started_by);
// The StopReason of an engine stop (an EngineStopReason of event kind 1) in a run started by
// started_by; kStopReasonNone for the engine's refresh stops (thread states, frame selected) and
// for a break that no user action asked for (the attach break-in).
u32 StopReasonOfEngineStop(u32 engine_reason, u32 started_by);
