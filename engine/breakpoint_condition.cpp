// Breakpoint conditions at a hit.
#include "engine/breakpoint_condition.h"

#include <string.h>

#include "engine/engine_internal.h"
#include "engine/expression_host.h"

ConditionVerdict BreakpointConditionCheck(Target *target, TargetThread *thread, BreakpointLocation *bp) {
  bp->condition_error[0] = 0;
  if (!bp->condition[0]) return kConditionTrue;
  bp->hit_count++;
  if (bp->condition_parse_failed || !bp->condition_tree) {
    memcpy(bp->condition_error, "Parse error", sizeof "Parse error");
    return kConditionFailed;
  }
  ExpressionScope scope;
  ExpressionScopeAtRegisters(&scope, target, thread);
  ExprEvalHost host;
  ExpressionHostInit(&host, &scope);
  ExprEvalContext context;
  memset(&context, 0, sizeof context);
  context.host = &host;
  bool truth = false;
  if (ExprEvaluateToBoolean(&context, bp->condition_tree, &truth) != kExprEvalOk) {
    u32 length = (u32)strnlen(context.error, kConditionCapacity - 1);
    memcpy(bp->condition_error, context.error, length);
    bp->condition_error[length] = 0;
    return kConditionFailed;
  }
  return truth ? kConditionTrue : kConditionFalse;
}

const char *BreakpointConditionErrorText(Target *target, const BreakpointLocation *bp) {
  u32 length = (u32)strnlen(bp->condition_error, kConditionCapacity);
  if (!length) return nullptr;
  char *text = EngineTakeText(target, length + 1);
  if (!text) return nullptr;
  memcpy(text, bp->condition_error, length + 1);
  return text;
}
