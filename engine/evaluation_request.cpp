// The engine's side of evaluation requests: the pool, and the operations of the user interface
// that add and remove requests.
#include "engine/evaluation_request.h"

#include <stddef.h>
#include <string.h>

#include "engine/engine.h"
#include "engine/expression_host.h"
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
  for (u32 i = 0; i < kEvaluationChildPages; i++)
    requests->pages[i].next = i + 1 < kEvaluationChildPages ? &requests->pages[i + 1] : nullptr;
  requests->free_pages = &requests->pages[0];
}

// Waits (under the lock) until the engine is not evaluating r: its tree, text and rows stay put
// until that evaluation is over, which is short.
static void WaitNotEvaluating(Target *target, EvaluationRequest *r) {
  while (target->evaluation_requests->evaluating == r) {
    TicketLockRelease(&target->lock);
    SwitchToThread();
    TicketLockAcquire(&target->lock);
  }
}

// Gives the request's child page back (under the lock).
static void DropPage(EvaluationRequests *requests, EvaluationRequest *r) {
  if (!r->page) return;
  r->page->next = requests->free_pages;
  requests->free_pages = r->page;
  r->page = nullptr;
  r->children = nullptr;
  r->child_rows = 0;
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
  r->row.failed = 0;
  r->row.value_text[0] = r->row.type_text[0] = 0;
  r->child_rows = 0;
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
  WaitNotEvaluating(target, r);  // the engine may be evaluating it at a stop the UI has not seen
  DropPage(requests, r);
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

EngineResult EngineRefresh(Target *target) {
  if (!target || !target->evaluation_requests) return kEngineNoTarget;
  EngineResult state = EngineStoppedState(target);
  if (state != kEngineOk) return state;
  RefreshWhenStopped(target);
  return kEngineOk;
}

EngineResult EngineSetEvaluationView(Target *target, EvaluationRequest *r, const EvaluationView *view) {
  if (!target || !target->evaluation_requests || !r || !view) return kEngineNoTarget;
  if (view->path_length > kEvaluationPathCapacity || view->children_wanted > kEvaluationChildRows)
    return kEngineNoTarget;
  EvaluationRequests *requests = target->evaluation_requests;
  EngineResult result = kEngineOk;
  TicketLockAcquire(&target->lock);
  WaitNotEvaluating(target, r);
  r->view = *view;
  if (view->children_wanted && !r->page) {
    r->page = requests->free_pages;
    if (r->page) {
      requests->free_pages = r->page->next;
      r->children = r->page->rows;
    } else {
      r->view.children_wanted = 0;  // every page is taken: the row alone
      result = kEngineSystemCallFailed;
    }
  } else if (!view->children_wanted) {
    DropPage(requests, r);
  }
  r->needs_evaluation = 1;
  TicketLockRelease(&target->lock);
  RefreshWhenStopped(target);
  return result;
}

// The request's row (along its view's path) and the children its view asks for, in the current
// thread's selected frame.
static void EvaluateOne(ExpressionScope *scope, EvaluationRequest *r, const EvaluationView *view) {
  ExpressionScopeRestart(scope);  // each request starts in the frame's own module
  ExprEvalHost host;
  ExpressionHostInit(&host, scope);
  ExprEvalContext context;
  memset(&context, 0, sizeof context);
  context.host = &host;
  r->child_rows = 0;
  r->result_serial = view->serial;
  ExprEvaluateRow(&context, r->text, r->tree, r->format, view->display_flags, &r->row);
  for (u32 depth = 0; depth < view->path_length; depth++) {
    // The row's children are made from the parent's value: one spare row steps down the path.
    ExprRow child;
    if (!ExprRowChild(&context, &r->row, view->path[depth], &child)) {
      r->row.child_count = 0;  // the path no longer leads anywhere (the value changed shape)
      return;
    }
    memcpy(&r->row, &child, sizeof child);
  }
  for (u32 i = 0; r->children && i < view->children_wanted; i++) {
    if (!ExprRowChild(&context, &r->row, view->children_first + i, &r->children[i])) break;
    r->child_rows = i + 1;
  }
}

void EngineEvaluateRequests(Target *target, bool mark_all) {
  EvaluationRequests *requests = target->evaluation_requests;
  if (!requests) return;
  // The list is read under the lock (the UI adds and removes at any time); the events go out after.
  // What the results need is copied under the lock too: the UI may remove (and the pool reuse) a
  // request as soon as the lock is let go, and the events carry the cookie it had. The UI removes
  // and changes requests at a stop only under the model lock, which the engine holds while it
  // evaluates, so the trees and texts stay put.
  struct Due {
    EvaluationRequest *request;
    void *cookie;
    u8 parse_failed;
  };
  Due due[kEvaluationRequestCapacity];
  u32 count = 0;
  TicketLockAcquire(&target->lock);
  for (EvaluationRequest *r = requests->first; r && count < kEvaluationRequestCapacity; r = r->next) {
    if (mark_all) r->needs_evaluation = 1;
    if (!r->needs_evaluation) continue;
    r->needs_evaluation = 0;
    due[count].request = r;
    due[count].cookie = r->cookie;
    due[count].parse_failed = r->parse_failed;
    count++;
  }
  TicketLockRelease(&target->lock);
  // One scope for all of them: the frame's registers, its scopes and the last type's members are
  // looked up once, not once per request.
  ExpressionScope scope;
  bool scope_made = false;
  for (u32 i = 0; i < count; i++) {
    EvaluationRequest *r = due[i].request;
    if (!due[i].parse_failed) {
      // Still the same request (not removed, nor taken again, since the list was read)?
      // The view is taken now: the UI may have changed it since the list was read.
      EvaluationView view;
      TicketLockAcquire(&target->lock);
      bool live = r->cookie == due[i].cookie && (r->previous || requests->first == r);
      if (live) {
        requests->evaluating = r;
        view = r->view;
      }
      TicketLockRelease(&target->lock);
      if (!live) continue;
      if (!scope_made) {
        TargetThread *thread = target->current_thread;
        ExpressionScopeAtFrame(&scope, target, thread, thread ? (u32)thread->selected_frame : 0);
        scope_made = true;
      }
      EvaluateOne(&scope, r, &view);
      __atomic_store_n(&requests->evaluating, (EvaluationRequest *)nullptr, __ATOMIC_RELEASE);
    }
    EngineEvent event;
    memset(&event, 0, sizeof event);
    event.kind = kEventEvaluation;
    event.evaluation.request = due[i].request;
    event.evaluation.cookie = due[i].cookie;
    event.evaluation.parse_failed = due[i].parse_failed;
    event.generation = target->stop_generation;
    EngineQueueEvent(target, &event);  // the UI is woken once, for all of them
  }
  if (count) EngineWakeUi(target);
}
