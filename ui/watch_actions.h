// What the watch windows' menu and keys do with the selected rows: the expressions and texts of
// rows, copying, deleting, moving, "Format As" and "Add Watch". Edits go to the session's lists.
#pragma once
#include "app/app_state.h"
#include "ui/watch_model.h"

// The index of the session row with that id in a list, or -1.
s32 WatchRowIndex(const WatchList *list, u32 id);
// "Format As": the expression cut at its last comma (if any) with ", " and the specifier appended.
void WatchFormatAs(const char *expression, const char *specifier, char *out, u32 capacity);

// "Copy": the selected rows as "name;value;type" lines; with value_only the values, one a line.
void WatchCopySelection(WatchPane *pane, AppState *app, bool value_only);
void WatchDeleteSelectedRows(WatchPane *pane, AppState *app);
void WatchMoveSelectedRows(WatchPane *pane, AppState *app, bool up);
void WatchFormatSelectedRows(WatchPane *pane, AppState *app, const char *specifier);
void WatchAddSelectedAsWatches(WatchPane *pane, AppState *app);

// What the selected rows are, for the submenus of "Format As" that apply to them.
typedef struct WatchSelectionKinds {
  bool top_level;  // a row with an expression of its own is selected
  bool address;    // a pointer or an array (strings, memory, matrices)
  bool vector;     // a vector-sized object
} WatchSelectionKinds;
WatchSelectionKinds WatchKindsOfSelection(WatchPane *pane, AppState *app);
