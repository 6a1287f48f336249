// A breakpoint's condition at a hit: evaluated on the debugger thread in a scope made from the
// hitting thread's registers alone (its call stack is not built for it).
#pragma once
#include "engine/breakpoints.h"
#include "engine/target.h"

enum ConditionVerdict : u32 {
  kConditionTrue = 0,    // the hit stands
  kConditionFalse = 1,   // the hit is not reported: the thread runs on
  kConditionFailed = 2,  // the hit stands, with the message in the record's condition_error
};

// Counts the hit of a record with a condition and evaluates it; kConditionTrue without one.
[[nodiscard]] ConditionVerdict BreakpointConditionCheck(Target *target, TargetThread *thread, BreakpointLocation *bp);
// The record's condition message copied into the text ring, for the hit event; null when none.
const char *BreakpointConditionErrorText(Target *target, const BreakpointLocation *bp);
