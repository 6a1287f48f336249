// The kinds of user breakpoint and the accesses a processor breakpoint watches for: the session
// file stores these numbers and the engine binds by them, so both take them from here.
#pragma once
#include "base/types.h"

enum BreakpointKind : u32 {
  kBreakpointFunction = 0,
  kBreakpointSourceLine = 1,
  kBreakpointAddress = 2,
  kBreakpointProcessor = 3,
};

enum BreakpointAccess : u32 {
  kAccessWrite = 0,
  kAccessReadWrite = 1,
  kAccessExecute = 2,
};
