// What the user asked for while a program was being debugged, parked until the run has ended:
// relaunch, open a session, a new session, or attach to a remembered process.
#pragma once
#include "base/types.h"
#include "engine/engine_result.h"

enum PendingActionKind : u32 {
  kPendingNone = 0,
  kPendingRelaunch = 1,
  kPendingOpenSession = 2,
  kPendingNewSession = 3,
  kPendingAttach = 4,
};

typedef struct PendingAction {
  u32 kind;
  u32 process_id;        // kPendingAttach
  u8 continue_after;     // kPendingAttach: resume the first stop after attaching
  char path[1024];       // kPendingOpenSession
} PendingAction;

// Parks an action (replacing one already parked: the latest request wins). 33 when the path does
// not fit, else 0.
EngineResult PendingActionSet(PendingAction *pending, u32 kind, u32 process_id, u8 continue_after, const char *path);
// Called for every engine event the UI pops: when the process has exited (kind 14) the parked
// action is moved to out and cleared; returns true then. Other events leave it parked.
bool PendingActionTake(PendingAction *pending, u32 event_kind, PendingAction *out);

struct Target;
// The user asked for an action that needs the run to end first (and answered the question "Do you
// want to stop debugging?" with anything but No): terminates the target with exit code 0 and parks
// the action. The engine's terminate result (0, 1, 3 or 37); nothing is parked on failure.
EngineResult PendingActionEndRunThen(PendingAction *pending, struct Target *target, u32 kind, u32 process_id,
                                     u8 continue_after, const char *path);
