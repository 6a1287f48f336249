// Hover evaluation in the source view: the identifier the mouse rests on is one evaluation request
// of the engine's, made again when the identifier or the stop changes; its value text (or the
// evaluator's message) is what the tool-tip shows. The user-interface thread's alone.
#pragma once
#include "app/app_state.h"

// Called once a frame after the source view was drawn, with the identifier it asks about ("" for
// none): starts, keeps or drops the request.
void HoverEvaluate(AppState *app, const char *expression);
// An evaluation result arrived (kind 3): taken when it is the hover's.
void HoverResultArrived(void *cookie);
// The value to show for the identifier asked about last; null while there is none (yet).
const char *HoverValue(void);
