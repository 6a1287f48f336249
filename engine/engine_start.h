// What the starter hands to the debugger thread and gets back before the start-finished event.
#pragma once
#include "engine/launch.h"
#include "engine/target.h"

typedef struct EngineStart {
  Target *target;
  u32 attach_process_id;  // non-zero: attach
  const LaunchDescription *launch;
  EngineWakeFn wake;
  void *wake_user;
  HANDLE finished;
  EngineResult result;
  u32 process_id;
} EngineStart;

// Creates the debugger thread and waits until its start-up has a result. 0 or a start result.
[[nodiscard]] EngineResult EngineStartThread(EngineStart *start);
// Waits for the debugger thread to end, then releases the run's objects and memory.
void EngineEndRun(Target *target);
