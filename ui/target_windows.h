// The call stack, threads and modules windows: lists of what the engine holds about the stopped
// target, read under the model lock in the frame they are drawn. What the user asks for (a frame,
// a thread, freeze, solo) is left in TargetWindowRequests; the program carries it out after the
// frame, when the lock is no longer held (the engine operations take it themselves).
#pragma once
#include "app/app_state.h"

struct TargetThread;

struct TargetWindowRequests {
  s32 select_frame;             // -1 for none
  u32 select_thread;            // thread id, 0 for none
  TargetThread *toggle_freeze;  // null for none
  TargetThread *toggle_solo;
  s32 collapse_repeated;        // -1 unchanged, else the new switch
  struct TargetModule *pick_symbols;  // "Load Symbols From...": the module whose PDB the user picks
};

void TargetWindowRequestsClear(TargetWindowRequests *requests);
// Each draws the body of its window (between Begin and End).
void DrawCallStackWindow(AppState *app, TargetWindowRequests *requests);
void DrawThreadsWindow(AppState *app, TargetWindowRequests *requests);
void DrawModulesWindow(AppState *app, TargetWindowRequests *requests);
