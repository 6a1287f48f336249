// The engine's side of evaluation requests: the pool, and the operations of the user interface
// that add and remove requests.
#include "engine/evaluation_request.h"

#include <stddef.h>
#include <string.h>

#include "engine/engine.h"
#include "expr/expr_parser.h"

// A request added or removed while the target is stopped is evaluated at once.
static void RefreshWhenStopped(Target *target) {
  if (EngineStoppedState(target) == kEngineOk) EngineSignal(target, kWaitRefresh);
}

void EvaluationRequestsInit(EvaluationRequests *requests) {
  requests->first = requests->last = nullptr;
  for (u32 i = 0; i < kEvaluationRequestCapacity; i++)
    requests->pool[i].next = i + 1 < kEvaluationRequestCapacity ? &requests->pool[i + 1] : nullptr;
  requests->free_list = &requests->pool[0];
}

EngineResult EngineAddEvaluationRequest(Target *target, const char *text, void *cookie, EvaluationRequest **out) {
  if (out) *out = nullptr;
  if (!target || !target->evaluation_requests || !text || !out) return kEngineNoTarget;
  u64 length = strnlen(text, kEvaluationTextCapacity);
  if (length >= kEvaluationTextCapacity) return kEngineTextTooLong;
  EvaluationRequests *requests = target->evaluation_requests;
  TicketLockAcquire(&target->lock);
  EvaluationRequest *r = requests->free_list;
  if (r) requests->free_list = r->next;
  TicketLockRelease(&target->lock);
  if (!r) return kEngineSystemCallFailed;
  memset(r, 0, offsetof(EvaluationRequest, nodes));  // the pool is set up whole below
  InitExprPool(&r->nodes);
  r->cookie = cookie;
  memcpy(r->text, text, length + 1);
  // Parsed here, on the UI thread: the nodes keep pointers into the request's own copy of the text.
  ExprParseResult parsed;
  if (ExprParse(&r->nodes, r->text, &parsed)) {
    r->tree = parsed.tree;
    r->format = parsed.format;
  } else {
    r->parse_failed = 1;
    const char *why = ExprParseFailureText(parsed.failure);
    memcpy(r->result, why, strlen(why) + 1);
  }
  r->needs_evaluation = 1;
  TicketLockAcquire(&target->lock);
  r->previous = requests->last;
  if (requests->last)
    requests->last->next = r;
  else
    requests->first = r;
  requests->last = r;
  TicketLockRelease(&target->lock);
  *out = r;
  RefreshWhenStopped(target);
  return kEngineOk;
}

EngineResult EngineRemoveEvaluationRequest(Target *target, EvaluationRequest *r) {
  if (!target || !target->evaluation_requests || !r) return kEngineNoTarget;
  EvaluationRequests *requests = target->evaluation_requests;
  TicketLockAcquire(&target->lock);
  if (r->previous)
    r->previous->next = r->next;
  else
    requests->first = r->next;
  if (r->next)
    r->next->previous = r->previous;
  else
    requests->last = r->previous;
  // The request's nodes go with it: the next add sets its pool up afresh.
  memset(r, 0, offsetof(EvaluationRequest, nodes));
  r->next = requests->free_list;
  requests->free_list = r;
  TicketLockRelease(&target->lock);
  RefreshWhenStopped(target);
  return kEngineOk;
}

void EngineEvaluateRequests(Target *target, bool mark_all) {
  EvaluationRequests *requests = target->evaluation_requests;
  if (!requests) return;
  // The list is read under the lock (the UI adds and removes at any time); the events go out after.
  // What the results need is copied under the lock too: the UI may remove (and the pool reuse) a
  // request as soon as the lock is let go, and the events carry the cookie it had.
  struct Due {
    EvaluationRequest *request;
    void *cookie;
    u8 parse_failed;
  } due[kEvaluationRequestCapacity];
  u32 count = 0;
  TicketLockAcquire(&target->lock);
  for (EvaluationRequest *r = requests->first; r && count < kEvaluationRequestCapacity; r = r->next) {
    if (mark_all) r->needs_evaluation = 1;
    if (!r->needs_evaluation) continue;
    r->needs_evaluation = 0;
    due[count++] = {r, r->cookie, r->parse_failed};
  }
  TicketLockRelease(&target->lock);
  for (u32 i = 0; i < count; i++) {
    // Parsed expressions are evaluated here once the evaluator exists; an unparsed one's result
    // ("Parse error") is known already.
    if (!due[i].parse_failed) continue;
    EngineEvent event;
    memset(&event, 0, sizeof event);
    event.kind = kEventEvaluation;
    event.evaluation.request = due[i].request;
    event.evaluation.cookie = due[i].cookie;
    event.evaluation.parse_failed = 1;
    event.generation = target->stop_generation;
    EnginePostEvent(target, &event);
  }
}
