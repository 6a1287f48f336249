#include "engine/pending_action.h"

#include <string.h>

#include "engine/engine.h"

EngineResult PendingActionSet(PendingAction *pending, u32 kind, u32 process_id, u8 continue_after, const char *path) {
  u64 length = path ? strlen(path) : 0;
  if (length >= sizeof pending->path) return kEngineTextTooLong;
  memset(pending, 0, sizeof *pending);
  pending->kind = kind;
  pending->process_id = process_id;
  pending->continue_after = continue_after;
  if (path) memcpy(pending->path, path, length + 1);
  return kEngineOk;
}

bool PendingActionTake(PendingAction *pending, u32 event_kind, PendingAction *out) {
  if (pending->kind == kPendingNone) return false;
  if (event_kind != kEventProcessExited) return false;
  *out = *pending;
  memset(pending, 0, sizeof *pending);
  return true;
}

EngineResult PendingActionEndRunThen(PendingAction *pending, Target *target, u32 kind, u32 process_id,
                                     u8 continue_after, const char *path) {
  PendingAction next;
  EngineResult result = PendingActionSet(&next, kind, process_id, continue_after, path);
  if (result != kEngineOk) return result;
  result = EngineTerminate(target, 0);
  // The process may have exited already, its exit event not yet popped: that event still comes
  // and carries the action out.
  if (result == kEngineNoProcess && target->exited) result = kEngineOk;
  if (result != kEngineOk) return result;
  *pending = next;
  return kEngineOk;
}
