// The session's dialogs: "Application and Parameters" (the target commands) and "Attach to
// Process" (the running processes). They edit the model directly; file dialogs, the process list
// and the attach itself are left as requests for the program.
#pragma once
#include "ui/main_frame.h"

void DrawTargetCommandEditor(AppState *app, MainFrameState *state);
void DrawAttachDialog(AppState *app, MainFrameState *state);
