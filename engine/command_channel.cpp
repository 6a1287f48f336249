// The hand-off between the user-interface thread and the debugger thread: one state word that says
// whether the engine waits for a command, one word of command bits, and the user interface's word
// that says it is about to sleep. Under Wine every wait on or signal of a kernel object is a round
// trip through wineserver (13 to 27 us, more on a busy machine); these words are waited on with
// WaitOnAddress, which sleeps in the process itself and costs a signal only when the other side
// really sleeps. A stop that the user interface answers at once then costs about what the bare
// debug loop costs.
//
// [SECTION] The engine's state
// [SECTION] Commands
// [SECTION] Waking the user interface
#include "engine/engine_internal.h"

// [SECTION] The engine's state

void EngineSetState(Target *target, u32 state) {
  if (__atomic_load_n(&target->engine_state, __ATOMIC_RELAXED) == state) return;
  __atomic_store_n(&target->engine_state, state, __ATOMIC_SEQ_CST);
  WakeByAddressAll((void *)&target->engine_state);  // EngineWaitStopped; nothing to do when none waits
}

EngineResult EngineStoppedState(Target *target) {
  if (!target) return kEngineNoTarget;
  u32 state = __atomic_load_n(&target->engine_state, __ATOMIC_SEQ_CST);
  if (state == kEngineStateNone) return kEngineNoTarget;
  return state == kEngineStateServing ? kEngineOk : kEngineNotSuspended;
}

// Milliseconds left until deadline (INFINITE stays INFINITE).
static DWORD Remaining(ULONGLONG deadline, u32 timeout_ms) {
  if (timeout_ms == INFINITE) return INFINITE;
  ULONGLONG now = GetTickCount64();
  return now >= deadline ? 0 : (DWORD)(deadline - now);
}

EngineResult EngineWaitStopped(Target *target, u32 timeout_ms) {
  if (!target) return kEngineNoTarget;
  ULONGLONG deadline = GetTickCount64() + timeout_ms;
  for (;;) {
    u32 state = __atomic_load_n(&target->engine_state, __ATOMIC_SEQ_CST);
    if (state == kEngineStateNone) return kEngineNoTarget;
    if (state == kEngineStateServing) return kEngineOk;
    if (state == kEngineStateEnded) return kEngineSystemCallFailed;  // the engine thread ended
    DWORD left = Remaining(deadline, timeout_ms);
    if (left == 0) return kEngineNotSuspended;
    WaitOnAddress(&target->engine_state, &state, sizeof state, left);
  }
}

// [SECTION] Commands

void EngineSignal(Target *target, u32 command, u32 stop) {
  target->quoted_stop[command] = stop == kAnyStop ? kAnyStop : target->stop_generation;
  __atomic_fetch_or(&target->commands, 1u << command, __ATOMIC_SEQ_CST);
  WakeByAddressSingle((void *)&target->commands);  // nothing to do when the engine does not sleep
}

// The commands in the order the engine takes them when several wait, and the code of each.
static const u32 kCommandOrder[7] = {kWaitRun,          kWaitStopDebugging,  kWaitRefresh,     kWaitThreadStates,
                                     kWaitSelectFrame,  kWaitContextChanged, kWaitRebuildStack};
static const u32 kCommandCodes[7] = {kCommandRun,         kCommandStopDebugging, kCommandRefresh,     kCommandThreadStates,
                                     kCommandSelectFrame, kCommandThreadStates,  kCommandRebuildStack};
// What run and stop debugging take along: the commands that only matter while stopped.
static const u32 kStoppedOnlyCommands = 1u << kWaitRefresh | 1u << kWaitThreadStates | 1u << kWaitSelectFrame |
                                        1u << kWaitContextChanged | 1u << kWaitRebuildStack;

// Sleeps until a command is signalled; the bits waiting.
static u32 WaitForCommands(Target *target) {
  for (;;) {
    u32 bits = __atomic_load_n(&target->commands, __ATOMIC_SEQ_CST);
    if (bits) return bits;
    WaitOnAddress(&target->commands, &bits, sizeof bits, INFINITE);
  }
}

u32 EngineWaitCommand(Target *target) {
  for (;;) {
    EngineSetState(target, kEngineStateServing);
    u32 bits = WaitForCommands(target);
    u32 i = 0;
    while (!(bits & 1u << kCommandOrder[i])) i++;  // EngineSignal sets no other bits
    u32 command = kCommandOrder[i];
    __atomic_fetch_and(&target->commands, ~(1u << command), __ATOMIC_SEQ_CST);
    AcquireSRWLockExclusive(&target->model_lock);
    u32 quoted = target->quoted_stop[command];
    // A command signalled for an earlier stop (one that crossed a resume) is not this stop's.
    if (quoted != kAnyStop && quoted != target->stop_generation) {
      ReleaseSRWLockExclusive(&target->model_lock);
      continue;
    }
    u32 code = kCommandCodes[i];
    if (command == kWaitContextChanged) target->continue_status = DBG_CONTINUE;  // registers written: handled
    if (code == kCommandRun || code == kCommandStopDebugging) {
      EngineSetState(target, kEngineStateWorking);
      // Commands signalled together with the run (registers written just before it, say) are
      // taken now, so that none carries over into the next stop: written registers still make the
      // pending exception handled, the rest have nothing left to do.
      u32 rest = __atomic_fetch_and(&target->commands, ~kStoppedOnlyCommands, __ATOMIC_SEQ_CST);
      if (rest & 1u << kWaitContextChanged) target->continue_status = DBG_CONTINUE;
    }
    EngineServeRequests(target);
    return code;  // with the model lock held: EngineServeCommands lets it go
  }
}

// [SECTION] Waking the user interface

// After every event queued: the user interface is woken only when it said it would sleep.
void EngineWakeUi(Target *target) {
  if (!__atomic_exchange_n(&target->ui_blocking, 0, __ATOMIC_SEQ_CST)) return;
  WakeByAddressAll((void *)&target->ui_blocking);  // EngineWaitForEvent
  if (target->wake) target->wake(target->wake_user);
}

bool EngineUiBlocking(Target *target) {
  if (!target || !target->event_ring) return true;  // no run: no event will come
  __atomic_store_n(&target->ui_blocking, 1, __ATOMIC_SEQ_CST);
  // Said before looking at the ring: an event queued after the look sees the word and wakes.
  TicketLockAcquire(&target->lock);
  bool empty = target->event_read == target->event_write;
  TicketLockRelease(&target->lock);
  if (!empty) __atomic_store_n(&target->ui_blocking, 0, __ATOMIC_SEQ_CST);
  return empty;
}

bool EngineWaitForEvent(Target *target, u32 timeout_ms) {
  if (!target) return false;
  ULONGLONG deadline = GetTickCount64() + timeout_ms;
  for (;;) {
    if (!EngineUiBlocking(target)) return true;
    DWORD left = Remaining(deadline, timeout_ms);
    if (left == 0) break;
    u32 blocking = 1;
    WaitOnAddress(&target->ui_blocking, &blocking, sizeof blocking, left);
  }
  __atomic_store_n(&target->ui_blocking, 0, __ATOMIC_SEQ_CST);
  return false;
}
