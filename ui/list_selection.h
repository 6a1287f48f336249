// The selected rows of a list window (threads, modules): several at once, by clicks and keys.
// Rows are named by a key of their own (a thread's id, a module's base), not by their place, so a
// selection stays on its threads and modules when others end or load between two stops. The window
// hands in its rows' keys in the order it shows them.
#pragma once
#include "base/types.h"

enum : u32 { kListSelectionCapacity = 2048 };  // as many threads as the engine keeps

struct ListSelection {
  u64 keys[kListSelectionCapacity];  // the selected rows' keys, ascending
  u32 count;
  u64 last;  // the row last clicked or moved to (where Shift+click and the keys start); 0 for none
};

enum ListKeyAction { kListKeyNone, kListKeyCopy, kListKeyActivate };

bool ListSelected(const ListSelection *s, u64 key);
// Drops the selected keys no row has any more (a thread that ended, a module unloaded).
void ListSelectionKeepRows(ListSelection *s, const u64 *rows, u32 row_count);
// A click on rows[row]: on an unselected row the selection becomes that row, a selected row leaves
// it as it is; Ctrl adds or removes the row, Shift selects the rows from the last clicked one to it.
void ListSelectionClick(ListSelection *s, const u64 *rows, u32 row_count, u32 row, bool ctrl, bool shift);
// The keys, while the window has the focus: Up, Down, Home, End, Page Up (Down) by page_rows move the
// selection (one row), Ctrl+A selects every row. *moved_to gets the row moved to (to scroll it into
// view), -1 when none. Ctrl+C asks for a copy, Enter for the window's action on its one row.
ListKeyAction ListSelectionKeys(ListSelection *s, const u64 *rows, u32 row_count, u32 page_rows, s32 *moved_to);
