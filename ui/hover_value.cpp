#include "ui/hover_value.h"

#include <stdio.h>
#include <string.h>

#include "engine/engine.h"
#include "ui/source_view.h"

typedef struct HoverState {
  EvaluationRequest *request;  // null when none is out
  Target *target;              // the run the request belongs to
  u32 stop;                    // the stop it was made at
  u8 arrived;                  // its result came and is not yet taken
  u8 ready;                    // value holds the answer
  char expression[kSourceHoverCapacity];
  char value[kExprRowValueCapacity];
} HoverState;

static HoverState g_hover;

static void Drop(void) {
  // A request of a run that ended went with its target.
  if (g_hover.request && g_hover.target) (void)EngineRemoveEvaluationRequest(g_hover.target, g_hover.request);
  g_hover.request = nullptr;
  g_hover.arrived = g_hover.ready = 0;
  g_hover.expression[0] = 0;
}

void HoverEvaluate(AppState *app, const char *expression) {
  if (g_hover.target != app->target) {  // another run (or none): its request is gone with it
    g_hover.request = nullptr;
    g_hover.target = app->target;
  }
  if (!app->target || app->debug_state != kDebugSuspended || !expression[0]) {
    Drop();
    return;
  }
  if (g_hover.request && g_hover.stop == app->stop_serial && strcmp(g_hover.expression, expression) == 0) {
    // The answer is read under the model lock, which the engine holds while it evaluates.
    if (g_hover.arrived && EngineTryLockModel(app->target)) {
      const ExprRow *row = &g_hover.request->row;
      snprintf(g_hover.value, sizeof g_hover.value, "%s", g_hover.request->parse_failed ? "Parse error" : row->value_text);
      EngineUnlockModel(app->target);
      g_hover.arrived = 0;
      g_hover.ready = 1;
    }
    return;
  }
  Drop();
  if (EngineAddEvaluationRequest(app->target, expression, &g_hover, &g_hover.request) != kEngineOk) {
    g_hover.request = nullptr;
    return;
  }
  g_hover.stop = app->stop_serial;
  snprintf(g_hover.expression, sizeof g_hover.expression, "%s", expression);
}

void HoverResultArrived(void *cookie) {
  if (cookie == &g_hover && g_hover.request) g_hover.arrived = 1;
}

const char *HoverValue(void) { return g_hover.ready ? g_hover.value : nullptr; }
