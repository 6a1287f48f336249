// The engine's result codes: 0 success, every other value a reason the user interface can show.
#pragma once

enum [[nodiscard]] EngineResult : int {
  kEngineOk = 0,
  kEngineNoTarget = 1,  // no target, or a missing argument
  kEngineNoProcess = 3,
  // Start results (shown as "Unable to debug process: %s\n").
  kEngineUnknownReason = 4,
  kEngineExecutableNotFound = 5,
  kEngineBadWorkingDirectory = 6,
  kEngineAccessDenied = 7,
  kEngineTimeout = 8,
  kEngineInitFailed = 9,
  kEngine32Bit = 10,
  kEngineBadPeHeader = 11,
  kEngineMachineMismatch = 12,
  // Operations.
  kEngineUnknownBreakpoint = 18,
  kEngineBreakpointExists = 20,  // a breakpoint already sits at that address
  kEngineNoLineCode = 23,        // no module, file or line with code
  kEngineParseError = 24,
  kEngineEvaluationFailed = 25,
  kEngineNotSuspended = 26,      // the operation needs a stopped target
  kEngineNoCurrentThread = 27,
  kEngineTextTooLong = 33,
  kEngineSystemCallFailed = 37,  // also: the target is in the wrong state
};
