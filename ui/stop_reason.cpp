#include "ui/stop_reason.h"

#include "engine/engine_event.h"

typedef struct StopReasonRow {
  u32 code;
  const char *running;  // null: no running text
  const char *stopped;  // null: no stopped text
} StopReasonRow;

static const StopReasonRow kStopReasonRows[] = {
    {1, "Program is running to cursor because menu item was selected",
     "Program stopped because a run-to-cursor operation completed"},
    {2, "Program is running to cursor because Ctrl+F10 was hit",
     "Program stopped because a run-to-cursor operation completed"},
    {4, "Program is running to cursor because Ctrl+F10 was hit", nullptr},
    {5, "Program is running because Control|Start Debugging was clicked", nullptr},
    {6, "Program is running because Start Debugging was clicked", nullptr},
    {7, "Program is running because F5 was hit", nullptr},
    {8, "Program is running to entry point because Control|Step Into (Line) was clicked", nullptr},
    {9, "Program is running to entry point because Step Into was clicked", nullptr},
    {10, "Program is running to entry point because F11 was hit", nullptr},
    {11, "Program is running to entry point because Control|Step Over (Line) was clicked", nullptr},
    {12, "Program is running to entry point because Step Over was clicked", nullptr},
    {13, "Program is running to entry point because F10 was hit", nullptr},
    {14, "Program is running because the 'start-debugging' command was received", nullptr},
    {15, "Program is running because Session|Restart was clicked", nullptr},
    {16, "Program is running because Ctrl+Shift+F5 was hit", nullptr},
    {17, "Program is running because Restart was hit", nullptr},
    {18, "Program is running because Control|Step Into (Line) was clicked", nullptr},
    {19, "Program is running because Step Into was clicked", nullptr},
    {20, "Program is running because F11 (step into line) was hit", nullptr},
    {21, "Program is running because Control|Step Into (Instruction) was clicked", nullptr},
    {22, "Program is running because Step Into was clicked", nullptr},
    {23, "Program is running because F11 (step into instruction in disassembly window) was hit", nullptr},
    {24, "Program is running because Control|Step Out was clicked", nullptr},
    {25, "Program is running because Step Out was clicked", nullptr},
    {26, "Program is running because Shift+F11 (step out) was hit", nullptr},
    {27, "Program is running because Control|Step Over (Line) was clicked", nullptr},
    {28, "Program is running because Step Over was clicked", nullptr},
    {29, "Program is running because F10 (step over line) was hit", nullptr},
    {30, "Program is running because Control|Step Over (Instruction) was clicked", nullptr},
    {31, "Program is running because Step Over was clicked", nullptr},
    {32, "Program is running because F10 (step over instruction in disassembly window) was hit", nullptr},
    {33, "Program is running because Control|Continue was clicked", nullptr},
    {34, "Program is running because Continue was clicked", nullptr},
    {35, "Program is running because F5 was hit", nullptr},
    {36, "Program is running because the 'continue-execution' command was received", nullptr},
    {38, "Program is running because it has been attached to", nullptr},
    {39, "Program is running (waiting for process to halt from Control|Break)",
     "Program stopped because user clicked Control|Break"},
    {40, "Program is running (waiting for process to halt from Ctrl+Shift+X)",
     "Program stopped because user hit Ctrl+Shift+X"},
    {41, "Program is running (waiting for process to halt from Break)", nullptr},
    {42, nullptr, "Program stopped because a user breakpoint was hit"},
    {43, nullptr, "Program stopped because a processor breakpoint was hit"},
    {44, nullptr, "Program stopped because a step-over operation completed"},
    {45, nullptr, "Program stopped because a step-in operation completed"},
    {46, nullptr, "Program stopped because a step-out operation completed"},
    {47, nullptr, "Program stopped because of a non-user breakpoint instruction"},
    {48, nullptr, "Program stopped at entry point"},
    {50, nullptr, "Program stopped because a set-next-statement operation completed"},
    {51, nullptr, "Program stopped because a set-next-statement operation completed"},
};

static const StopReasonRow *FindRow(u32 code) {
  for (const StopReasonRow &row : kStopReasonRows)
    if (row.code == code) return &row;
  return nullptr;
}

const char *StopReasonRunningText(u32 code) {
  const StopReasonRow *row = FindRow(code);
  return row && row->running ? row->running : "";
}

const char *StopReasonStoppedText(u32 code, u32 started_by) {
  // A temporary breakpoint ends both a run to the entry point and a run to the cursor; the code
  // that started the run says which.
  if (code == kStopReasonEntryOrCursor &&
      (started_by == kStopReasonRunToCursorMenu || started_by == kStopReasonRunToCursorKey))
    return "Program stopped because a run-to-cursor completed";
  const StopReasonRow *row = FindRow(code);
  return row && row->stopped ? row->stopped : "";
}

u32 StopReasonOfEngineStop(u32 engine_reason, u32 started_by) {
  switch (engine_reason) {
    case kStopStepOver: return kStopReasonStepOver;
    case kStopStepInto: return kStopReasonStepInto;
    case kStopStepOut: return kStopReasonStepOut;
    case kStopProgramBreakpoint: return kStopReasonProgramBreakpoint;
    case kStopTemporaryBreakpoint: return kStopReasonEntryOrCursor;
    case kStopBreak:
      // The Break button's own code has no stop text: its stop reads as the menu's.
      if (started_by == kStopReasonBreakMenu || started_by == kStopReasonBreakButton) return kStopReasonBreakMenu;
      if (started_by == kStopReasonBreakKey) return kStopReasonBreakKey;
      return kStopReasonNone;
  }
  return kStopReasonNone;
}
