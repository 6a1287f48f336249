// The program's side of the source view: tabs opened and closed with the session's list of open
// files, each tab's folder watched for changes, the checksum of each file checked against the
// symbols of the stopped target, and the place where the target stands. UI thread only.
#pragma once
#include "app/app_state.h"
#include "ui/source_view.h"

// Opens the file in a tab (adding it to the session's open files when it is new) and asks the view
// to bring line (1-based; 0 for none) into view and focus the tab. False (and "Unable to open %s\n"
// in the output window) when the file cannot be read.
bool SourceFilesOpen(AppState *app, const char *path, u32 line);
// Closes the tab of the file, if any, and drops it from the session.
void SourceFilesClose(AppState *app, const char *path);
// The session reader's hook: opens the tab when it is not open yet; false when it cannot be read.
bool SourceFilesOpenForSession(void *app, const char *path);

// Each frame: the tabs follow the session's list (a session opened or reset), changed files are
// reloaded, and at a stop the place of the selected frame is found (opening its file at a new
// place) and the checksums are checked.
void SourceFilesEachFrame(AppState *app);
// What the source view asked for in the frame (breakpoints, run control, tabs, watches), after it.
// The file dialog of Source File > Open is the caller's.
void SourceFilesCarryOut(AppState *app, const SourceViewRequests *requests, void (*wake)(void *), void *wake_user);
// Closes every watch (at exit).
void SourceFilesCloseAll(AppState *app);
