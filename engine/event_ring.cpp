// The three rings of the target: engine events (engine to UI), texts (storage for the events'
// strings) and requests (UI to engine while the target runs). All guarded by the target's ticket
// lock; none ever blocks the engine.
#include <string.h>

#include "engine/target.h"

// [SECTION] Engine events

void EnginePostEvent(Target *target, const EngineEvent *event) {
  EngineQueueEvent(target, event);
  EngineWakeUi(target);
}

void EngineQueueEvent(Target *target, const EngineEvent *event) {
  TicketLockAcquire(&target->lock);
  u64 at = target->event_write;
  if (at + kEventSlotBytes > target->event_size) at = 0;
  // The read cursor is not consulted: a UI that falls a whole ring behind loses its oldest events.
  if (at + kEventSlotBytes <= target->event_size) {
    memcpy(target->event_ring + at, event, kEventSlotBytes);
    at += kEventSlotBytes;
    if (at + kEventSlotBytes > target->event_size) at = 0;
    // When the writer laps the reader, the reader moves to the oldest event still in the ring.
    if (at == target->event_read) {
      u64 next = target->event_read + kEventSlotBytes;
      target->event_read = next + kEventSlotBytes > target->event_size ? 0 : next;
    }
    target->event_write = at;
    target->events_posted++;
  }
  TicketLockRelease(&target->lock);
}

EngineResult EnginePopEvent(Target *target, EngineEvent *out) {
  if (!target || !target->event_ring || !out) {
    if (out) out->kind = kEventNone;
    return kEngineNoTarget;
  }
  out->kind = kEventNone;
  TicketLockAcquire(&target->lock);
  if (target->event_read != target->event_write) {
    u8 *slot = target->event_ring + target->event_read;
    memcpy(out, slot, kEventSlotBytes);
    ((EngineEvent *)slot)->kind = kEventNone;
    u64 next = target->event_read + kEventSlotBytes;
    target->event_read = next + kEventSlotBytes > target->event_size ? 0 : next;
  }
  TicketLockRelease(&target->lock);
  return kEngineOk;
}

// [SECTION] Texts

char *EngineTakeText(Target *target, u64 size) {
  if (size == 0 || size > target->text_size) return nullptr;
  char *result = nullptr;
  TicketLockAcquire(&target->lock);
  u64 at = target->text_write;
  if (at + size <= target->text_size) {
    result = (char *)target->text_ring + at;
    target->text_write = at + size;
  } else if (size < at) {
    // Wraps to the base, over texts old enough that the UI has copied them (or lost them).
    result = (char *)target->text_ring;
    target->text_write = size;
  }
  TicketLockRelease(&target->lock);
  return result;
}

void EnginePostText(Target *target, const char *text, u32 length) {
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kEventText;
  event.text.text = text;
  event.text.length = length;
  EnginePostEvent(target, &event);
}

// [SECTION] Requests while running

EngineResult EngineRingPushRequest(Target *target, const EngineRequest *request) {
  EngineResult result = kEngineOk;
  TicketLockAcquire(&target->lock);
  u64 next = target->command_write + kCommandSlotBytes;
  if (next >= target->command_size) next = 0;
  if (next == target->command_read) {
    result = kEngineSystemCallFailed;  // full: the engine has not caught up with 8191 requests
  } else {
    memcpy(target->command_ring + target->command_write, request, kCommandSlotBytes);
    target->command_write = next;
  }
  TicketLockRelease(&target->lock);
  return result;
}

bool EngineRingHasRequests(Target *target) {
  TicketLockAcquire(&target->lock);
  bool any = target->command_read != target->command_write;
  TicketLockRelease(&target->lock);
  return any;
}

bool EngineRingPopRequest(Target *target, EngineRequest *out) {
  bool popped = false;
  TicketLockAcquire(&target->lock);
  if (target->command_read != target->command_write) {
    memcpy(out, target->command_ring + target->command_read, kCommandSlotBytes);
    u64 next = target->command_read + kCommandSlotBytes;
    target->command_read = next >= target->command_size ? 0 : next;
    popped = true;
  }
  TicketLockRelease(&target->lock);
  return popped;
}
