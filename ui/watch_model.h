// What the watch windows and the locals window show, without Dear ImGui: the tree of expanded rows
// of each pane, the flattened list of rows the table scrolls through, and the engine's evaluation
// requests that fill them.
//
// Only what is drawn is asked for. A row's children are asked for in blocks of kWatchBlockRows,
// one evaluation request per block ("slot"); a slot that was not drawn in a frame gives its request
// back at the end of that frame, so a million-element array costs the handful of blocks on screen
// and scrolling never runs the engine's request pool dry. A slot keeps the texts of its last
// results after its request is gone (they are drawn as they were while the target runs or after it
// ended, and until the next stop answers again).
#pragma once
#include "app/app_state.h"

struct EvaluationRequest;
struct Target;

enum {
  kWatchPaneCount = 9,      // "Watch 1" .. "Watch 8", then the locals window
  kWatchLocalsPane = 8,
  kWatchBlockRows = 32,     // children one request reports (the engine's kEvaluationChildRows)
  kWatchPathCapacity = 16,  // the engine's kEvaluationPathCapacity
  kWatchSlotCapacity = 96,  // requests one pane holds at most (the engine has 512 in all)
  kWatchSelectionCapacity = 256,
  kWatchNameCapacity = 160,
  kWatchValueCapacity = 320,
  kWatchTypeCapacity = 160,
};

// One row's texts as the last result gave them.
typedef struct WatchCell {
  u64 child_count;  // 0: cannot be expanded
  u32 view;         // ExprRowView
  u8 failed;        // value holds why there is no value
  u8 changed;       // the value differs from the one the previous stop showed
  u8 padding[2];
  char name[kWatchNameCapacity];
  char value[kWatchValueCapacity];
  char type[kWatchTypeCapacity];
} WatchCell;

// A top-level row, or a child row that is (or was) expanded. Keys are never reused in a pane.
typedef struct WatchNode {
  u32 key;          // 0: free
  u32 row_id;       // the session row (the locals window: 1 "__params", 2 "__locals")
  u32 parent;       // the parent's key; 0 for a top-level row
  u32 depth;        // length of path
  u64 index;        // the row's index among its parent's children (top-level: in the list)
  u64 path[kWatchPathCapacity];
  u64 child_count;  // as last reported
  char *text;       // top-level rows: the expression the requests carry (owned)
  u8 expanded;
  u8 live;          // top-level rows: still in the list at the last layout
} WatchNode;

// One evaluation request: the row of a node and a block of its children.
typedef struct WatchSlot {
  u32 node;         // the node's key; 0: free
  u32 used_frame;   // the last frame that drew from it
  u64 block;        // children block * kWatchBlockRows onwards
  struct EvaluationRequest *request;  // null when given back (or when not debugging)
  void *cookie;
  u32 serial;       // of the view last set
  u32 flags;        // display flags of that view
  u32 wanted;       // children asked for in that view
  u8 pending;       // an answer was announced, not copied yet
  u8 has_result;
  u8 padding[2];
  u32 pending_stop;  // the stop the announced answer belongs to
  u32 result_stop;   // the stop of the results held
  u32 child_rows;
  WatchCell row;
  WatchCell children[kWatchBlockRows];
} WatchSlot;

// A stretch of the flattened rows: count children of a node from first on, depth levels in.
typedef struct WatchRun {
  u64 start;   // flattened index of its first row
  u64 count;
  u64 first;
  u32 parent;  // the node whose children these are; 0: the list's own top-level rows
  u32 depth;
} WatchRun;

// A row as selection and menus name it: a top-level row by its session id, a child by its place.
typedef struct WatchRef {
  u32 parent;  // 0: top-level
  u32 padding;
  u64 index;   // top-level: the session row's id; else the child's index
} WatchRef;

typedef struct WatchPane {
  u32 number;  // 0..7 the watch windows, kWatchLocalsPane the locals window
  struct Target *target;  // the run the slots' requests belong to
  WatchNode *nodes;
  u32 node_count, node_capacity;
  u32 next_key;
  u32 display_flags;  // the window's (hexadecimal display, column major display)
  WatchSlot *slots[kWatchSlotCapacity];
  WatchRun *runs;
  u32 run_count, run_capacity;
  u64 row_total;      // flattened rows (without the line for a new row)
  WatchRef selection[kWatchSelectionCapacity];
  u32 selection_count;
} WatchPane;

// The panes of the program (UI thread only).
WatchPane *WatchPaneGet(u32 number);

// Brings the slots in line with the run (requests of a run that ended are forgotten, not given
// back) and copies announced results, under the model lock, into the slots. Once per frame,
// before drawing.
void WatchPanesBeginFrame(AppState *app);
// Gives back the request of every slot no window drew from in this frame.
void WatchPanesEndFrame(AppState *app);
// An evaluation result was announced for cookie (the engine's event of kind 3) at a stop.
void WatchPanesResultArrived(void *cookie, u32 stop);

// Rebuilds the pane's flattened rows from the session list (or the locals groups).
void WatchPaneLayout(WatchPane *pane, AppState *app);
// The row at a flattened index: its reference, depth, node (null when it has none) and cell (null
// while no result is known). Asks the engine for the block the row is in.
typedef struct WatchRowView {
  WatchRef ref;
  u32 depth;
  WatchNode *node;
  const WatchCell *cell;
  const char *expression;  // top-level rows: the session text
} WatchRowView;
bool WatchPaneRow(WatchPane *pane, AppState *app, u64 flat, WatchRowView *out);

WatchNode *WatchPaneNode(WatchPane *pane, u32 key);
// Expands or collapses a row (a child gets a node when first expanded).
void WatchPaneSetExpanded(WatchPane *pane, const WatchRowView *row, bool expanded);
// The cell of a node's own row, and of the index-th child of a node, as last known (null when
// none); neither asks the engine for anything.
const WatchCell *WatchPaneNodeCell(WatchPane *pane, u32 key);
const WatchCell *WatchPaneChildCell(WatchPane *pane, u32 key, u64 index);

bool WatchPaneIsSelected(const WatchPane *pane, WatchRef ref);
void WatchPaneSelect(WatchPane *pane, WatchRef ref, bool add);  // add: toggle it in the selection
void WatchPaneClearSelection(WatchPane *pane);
