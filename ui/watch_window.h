// The watch windows ("Watch 1" .. "Watch 8") and the locals window: a table of rows with
// expandable children, edited in place, with the rows' context menu. Values come from the
// engine's evaluation requests (ui/watch_model.h).
#pragma once
#include "app/app_state.h"

// Draws the body of a watch window (0..7) or of the locals window (kWatchLocalsPane), between
// Begin and End.
void DrawWatchWindow(AppState *app, u32 pane);
