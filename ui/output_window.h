// The output window: the text of the debugging run (module loads, debug strings, exits), with its
// context menu of message filters, copy and clear.
#pragma once
#include "app/app_state.h"

// Draws the window body (between Begin and End of the "Output" window).
void DrawOutputWindow(AppState *app);
