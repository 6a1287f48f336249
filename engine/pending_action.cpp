#include "engine/pending_action.h"

#include <string.h>

#include "engine/engine.h"

int PendingActionSet(PendingAction *pending, u32 kind, u32 process_id, u8 continue_after, const char *path) {
  u64 length = path ? strlen(path) : 0;
  if (length >= sizeof pending->path) return 33;
  memset(pending, 0, sizeof *pending);
  pending->kind = kind;
  pending->process_id = process_id;
  pending->continue_after = continue_after;
  if (path) memcpy(pending->path, path, length + 1);
  return 0;
}

bool PendingActionTake(PendingAction *pending, u32 event_kind, PendingAction *out) {
  if (pending->kind == kPendingNone) return false;
  if (event_kind != kEventProcessExited) return false;
  *out = *pending;
  memset(pending, 0, sizeof *pending);
  return true;
}

int PendingActionEndRunThen(PendingAction *pending, Target *target, u32 kind, u32 process_id, u8 continue_after,
                            const char *path) {
  PendingAction next;
  int result = PendingActionSet(&next, kind, process_id, continue_after, path);
  if (result != 0) return result;
  result = EngineTerminate(target, 0);
  // The process may have exited already, its exit event not yet popped: that event still comes
  // and carries the action out.
  if (result == 3 && target->exited) result = 0;
  if (result != 0) return result;
  *pending = next;
  return 0;
}
