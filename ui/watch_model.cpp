// [SECTION] Panes and nodes
// [SECTION] Slots and requests
// [SECTION] Results
// [SECTION] Layout
// [SECTION] Selection
#include "ui/watch_model.h"

#include <stdlib.h>
#include <string.h>

#include "engine/engine.h"
#include "expr/format_spec.h"

static_assert(kWatchBlockRows == kEvaluationChildRows, "one slot is one request's children");
static_assert(kWatchPathCapacity == kEvaluationPathCapacity, "a node's path fits a view");

// The locals window's top-level rows: never drawn themselves, their children are its rows.
static const char *const kLocalsGroups[] = {"__params", "__locals"};

static WatchPane g_panes[kWatchPaneCount];
static u32 g_frame = 1;
static u32 g_cookies;  // a fresh cookie per request: a late answer to an earlier one is not taken
static u32 g_serials;

WatchPane *WatchPaneGet(u32 number) {
  if (number >= kWatchPaneCount) return nullptr;
  WatchPane *pane = &g_panes[number];
  pane->number = number;
  return pane;
}

static void CopyText(char *out, u32 capacity, const char *text) {
  u64 length = strnlen(text, capacity - 1);
  memcpy(out, text, length);
  out[length] = 0;
}

// [SECTION] Panes and nodes

WatchNode *WatchPaneNode(WatchPane *pane, u32 key) {
  if (!key) return nullptr;
  for (u32 i = 0; i < pane->node_count; i++)
    if (pane->nodes[i].key == key) return &pane->nodes[i];
  return nullptr;
}

static WatchNode *FindChild(WatchPane *pane, u32 parent, u64 index) {
  for (u32 i = 0; i < pane->node_count; i++) {
    WatchNode *n = &pane->nodes[i];
    if (n->key && n->parent == parent && n->index == index) return n;
  }
  return nullptr;
}

static WatchNode *FindRoot(WatchPane *pane, u32 row_id) {
  for (u32 i = 0; i < pane->node_count; i++) {
    WatchNode *n = &pane->nodes[i];
    if (n->key && !n->parent && n->row_id == row_id) return n;
  }
  return nullptr;
}

// A new node (null when out of memory); pointers to other nodes may move.
static WatchNode *NewNode(WatchPane *pane) {
  for (u32 i = 0; i < pane->node_count; i++)
    if (!pane->nodes[i].key) {
      memset(&pane->nodes[i], 0, sizeof(WatchNode));
      pane->nodes[i].key = ++pane->next_key;
      return &pane->nodes[i];
    }
  if (pane->node_count == pane->node_capacity) {
    u32 capacity = pane->node_capacity ? pane->node_capacity * 2 : 64;
    WatchNode *grown = (WatchNode *)realloc(pane->nodes, sizeof(WatchNode) * capacity);
    if (!grown) return nullptr;
    pane->nodes = grown;
    pane->node_capacity = capacity;
  }
  WatchNode *n = &pane->nodes[pane->node_count++];
  memset(n, 0, sizeof *n);
  n->key = ++pane->next_key;
  return n;
}

// Drops every node of a top-level row: its expression changed or it left the list. Its slots
// lose their node and are taken by others in time; their requests go back at the frame's end.
static void ForgetRow(WatchPane *pane, u32 row_id) {
  for (u32 i = 0; i < pane->node_count; i++) {
    WatchNode *n = &pane->nodes[i];
    if (!n->key || n->row_id != row_id) continue;
    free(n->text);
    memset(n, 0, sizeof *n);
  }
}

static WatchNode *RootOf(WatchPane *pane, const WatchNode *node) {
  return node->parent ? FindRoot(pane, node->row_id) : (WatchNode *)node;
}

// [SECTION] Slots and requests

static WatchSlot *FindSlot(WatchPane *pane, u32 node, u64 block) {
  for (u32 i = 0; i < kWatchSlotCapacity; i++) {
    WatchSlot *s = pane->slots[i];
    if (s && s->node == node && s->block == block) return s;
  }
  return nullptr;
}

static void GiveBack(WatchPane *pane, WatchSlot *slot) {
  if (slot->request && pane->target) (void)EngineRemoveEvaluationRequest(pane->target, slot->request);
  slot->request = nullptr;
  slot->cookie = nullptr;
  slot->pending = 0;
}

// A slot for the node's block: its own, else a free one, else the one drawn from longest ago
// that was not drawn from in this frame. Null when every slot serves this frame.
static WatchSlot *TakeSlot(WatchPane *pane, u32 node, u64 block) {
  WatchSlot *slot = FindSlot(pane, node, block);
  if (slot) return slot;
  WatchSlot *oldest = nullptr;
  for (u32 i = 0; i < kWatchSlotCapacity && !slot; i++) {
    WatchSlot *s = pane->slots[i];
    if (!s) {
      s = pane->slots[i] = (WatchSlot *)calloc(1, sizeof(WatchSlot));
      if (s) slot = s;
      break;
    }
    if (!WatchPaneNode(pane, s->node)) slot = s;  // its node is gone
    else if (s->used_frame != g_frame && (!oldest || s->used_frame < oldest->used_frame)) oldest = s;
  }
  if (!slot) slot = oldest;
  if (!slot) return nullptr;
  GiveBack(pane, slot);
  memset(slot, 0, sizeof *slot);
  slot->node = node;
  slot->block = block;
  return slot;
}

// Keeps the slot's request asked for what is drawn: added when missing, its view set again when
// the window's flags or the children wanted changed.
static void AskEngine(WatchPane *pane, AppState *app, WatchSlot *slot, const WatchNode *node, u32 wanted) {
  if (!app->target || pane->target != app->target) return;
  if (!slot->request) {
    const WatchNode *root = RootOf(pane, node);
    if (!root || !root->text) return;
    void *cookie = (void *)(uintptr_t)(0x10000 + ++g_cookies);
    EvaluationRequest *request = nullptr;
    if (EngineAddEvaluationRequest(app->target, root->text, cookie, &request) != kEngineOk) {
      if (!slot->has_result && strnlen(root->text, kEvaluationTextCapacity) >= kEvaluationTextCapacity) {
        slot->has_result = 1;  // refused for good: say why instead of an empty value
        slot->row.failed = 1;
        CopyText(slot->row.value, sizeof slot->row.value, "Expression too long");
      }
      return;
    }
    slot->request = request;
    slot->cookie = cookie;
    slot->serial = 0;
  }
  if (slot->serial && slot->flags == pane->display_flags && slot->wanted == wanted) return;
  EvaluationView view;
  memset(&view, 0, sizeof view);
  view.display_flags = pane->display_flags;
  view.path_length = node->depth;
  memcpy(view.path, node->path, sizeof(u64) * node->depth);
  view.children_first = slot->block * kWatchBlockRows;
  view.children_wanted = wanted;
  view.serial = ++g_serials;
  if (EngineSetEvaluationView(app->target, slot->request, &view) != kEngineOk) return;
  slot->serial = view.serial;
  slot->flags = pane->display_flags;
  slot->wanted = wanted;
}

// The slot that holds a node's row (block 0) or a block of its children, asked for in this frame.
static WatchSlot *DrawFrom(WatchPane *pane, AppState *app, WatchNode *node, u64 block) {
  u32 key = node->key;
  WatchSlot *slot = TakeSlot(pane, key, block);
  if (!slot) return nullptr;
  slot->used_frame = g_frame;
  u32 wanted = node->expanded || block ? kWatchBlockRows : 0;
  AskEngine(pane, app, slot, node, wanted);
  return slot;
}

void WatchPanesResultArrived(void *cookie, u32 stop) {
  if (!cookie) return;
  for (u32 p = 0; p < kWatchPaneCount; p++)
    for (u32 i = 0; i < kWatchSlotCapacity; i++) {
      WatchSlot *s = g_panes[p].slots[i];
      if (s && s->request && s->cookie == cookie) {
        s->pending = 1;
        s->pending_stop = stop;
        return;
      }
    }
}

void WatchPanesEndFrame(AppState *app) {
  (void)app;
  for (u32 p = 0; p < kWatchPaneCount; p++)
    for (u32 i = 0; i < kWatchSlotCapacity; i++) {
      WatchSlot *s = g_panes[p].slots[i];
      if (s && s->request && s->used_frame != g_frame) GiveBack(&g_panes[p], s);
    }
  g_frame++;
}

// [SECTION] Results

// A cell from a result; at a new stop it is marked when its value text changed (at the same stop
// the mark stays as it was: a view asked again is no change of the program's).
static void CopyCell(WatchCell *out, const ExprRow *row, bool new_stop) {
  if (new_stop) out->changed = out->name[0] && strcmp(out->value, row->value_text) != 0;
  out->child_count = row->child_count;
  out->view = row->view;
  out->failed = row->failed;
  CopyText(out->name, sizeof out->name, row->name);
  CopyText(out->value, sizeof out->value, row->value_text);
  CopyText(out->type, sizeof out->type, row->type_text);
}

// Copies the request's results when they answer the slot's view (under the model lock).
static void TakeResults(WatchPane *pane, WatchSlot *slot) {
  const EvaluationRequest *r = slot->request;
  slot->pending = 0;
  if (r->parse_failed) {
    memset(&slot->row, 0, sizeof slot->row);
    slot->row.failed = 1;
    CopyText(slot->row.value, sizeof slot->row.value, r->result);
    slot->child_rows = 0;
    slot->has_result = 1;
    return;
  }
  if (r->result_serial != slot->serial) return;  // an answer to a view since replaced
  bool new_stop = slot->has_result && slot->result_stop != slot->pending_stop;
  CopyCell(&slot->row, &r->row, new_stop);
  u32 rows = r->child_rows < kWatchBlockRows ? r->child_rows : kWatchBlockRows;
  for (u32 i = slot->child_rows; i < rows; i++) slot->children[i].name[0] = 0;  // nothing to compare with
  slot->child_rows = rows;
  for (u32 i = 0; i < slot->child_rows; i++) CopyCell(&slot->children[i], &r->children[i], new_stop);
  slot->has_result = 1;
  slot->result_stop = slot->pending_stop;
  // The node's children and the expanded children's own counts follow the value's shape.
  WatchNode *node = WatchPaneNode(pane, slot->node);
  if (node) node->child_count = slot->row.child_count;
  for (u32 i = 0; i < slot->child_rows; i++) {
    WatchNode *child = FindChild(pane, slot->node, slot->block * kWatchBlockRows + i);
    if (child) child->child_count = slot->children[i].child_count;
  }
}

void WatchPanesBeginFrame(AppState *app) {
  bool any_pending = false;
  for (u32 p = 0; p < kWatchPaneCount; p++) {
    WatchPane *pane = WatchPaneGet(p);
    pane->display_flags = 0;
    const WatchWindowSettings *options = p == kWatchLocalsPane ? &app->settings.locals : &app->settings.watch[p];
    if (options->hexadecimal) pane->display_flags |= kDisplayFlagHexLower;
    if (options->column_major) pane->display_flags |= kDisplayFlagColumnMajor;
    if (pane->target != app->target) {
      // A run ended (its requests went with its target) or began: the texts stay, the requests
      // are asked for again by what is drawn.
      for (u32 i = 0; i < kWatchSlotCapacity; i++)
        if (pane->slots[i]) pane->slots[i]->request = nullptr, pane->slots[i]->pending = 0;
      pane->target = app->target;
    }
    for (u32 i = 0; i < kWatchSlotCapacity; i++) any_pending |= pane->slots[i] && pane->slots[i]->pending;
  }
  if (!any_pending || app->debug_state != kDebugSuspended || !EngineLockModel(app->target)) return;
  for (u32 p = 0; p < kWatchPaneCount; p++)
    for (u32 i = 0; i < kWatchSlotCapacity; i++) {
      WatchSlot *s = g_panes[p].slots[i];
      if (s && s->pending && s->request) TakeResults(&g_panes[p], s);
    }
  EngineUnlockModel(app->target);
}

// [SECTION] Layout

static WatchRun *AddRun(WatchPane *pane, u32 parent, u64 first, u64 count, u32 depth) {
  if (!count) return nullptr;
  if (pane->run_count == pane->run_capacity) {
    u32 capacity = pane->run_capacity ? pane->run_capacity * 2 : 64;
    WatchRun *grown = (WatchRun *)realloc(pane->runs, sizeof(WatchRun) * capacity);
    if (!grown) return nullptr;
    pane->runs = grown;
    pane->run_capacity = capacity;
  }
  WatchRun *run = &pane->runs[pane->run_count++];
  run->start = pane->row_total;
  run->count = count;
  run->first = first;
  run->parent = parent;
  run->depth = depth;
  pane->row_total += count;
  return run;
}

typedef struct ExpandedChild {
  u64 index;
  u64 child_count;
  u32 key;
} ExpandedChild;

static int CompareIndex(const void *a, const void *b) {
  u64 x = ((const ExpandedChild *)a)->index, y = ((const ExpandedChild *)b)->index;
  return x < y ? -1 : x > y;
}

// The children of an expanded node, with the expanded ones among them followed by their own.
static void AddChildren(WatchPane *pane, u32 key, u64 child_count, u32 depth) {
  // The expanded children, in index order, copied out (adding runs does not move nodes, but the
  // recursion reads them again).
  enum { kExpandedMax = 128 };
  ExpandedChild expanded[kExpandedMax];
  u32 count = 0;
  for (u32 i = 0; i < pane->node_count && count < kExpandedMax; i++) {
    const WatchNode *n = &pane->nodes[i];
    if (n->key && n->parent == key && n->expanded && n->index < child_count)
      expanded[count++] = {n->index, n->child_count, n->key};
  }
  qsort(expanded, count, sizeof(ExpandedChild), CompareIndex);
  u64 next = 0;
  for (u32 i = 0; i < count; i++) {
    AddRun(pane, key, next, expanded[i].index - next, depth);
    AddRun(pane, key, expanded[i].index, 1, depth);
    if (depth < 64) AddChildren(pane, expanded[i].key, expanded[i].child_count, depth + 1);
    next = expanded[i].index + 1;
  }
  AddRun(pane, key, next, child_count - next, depth);
}

// The top-level node of a row, made (or made again when its text changed).
static WatchNode *RootFor(WatchPane *pane, u32 row_id, const char *text, bool expanded) {
  WatchNode *root = FindRoot(pane, row_id);
  if (root && root->text && strcmp(root->text, text) == 0) return root;
  if (root) {
    // A new text (an edit, "Format As"): the row stays open, its children's state goes.
    expanded = root->expanded;
    ForgetRow(pane, row_id);
  }
  root = NewNode(pane);
  if (!root) return nullptr;
  root->row_id = row_id;
  root->expanded = expanded;
  u64 length = strlen(text);
  root->text = (char *)malloc(length + 1);
  if (root->text) memcpy(root->text, text, length + 1);
  return root;
}

void WatchPaneLayout(WatchPane *pane, AppState *app) {
  Session *session = &app->session;
  pane->run_count = 0;
  pane->row_total = 0;
  for (u32 i = 0; i < pane->node_count; i++) pane->nodes[i].live = 0;
  if (pane->number == kWatchLocalsPane) {
    for (u32 g = 0; g < KTRN_ARRAY_COUNT(kLocalsGroups); g++) {
      WatchNode *root = RootFor(pane, g + 1, kLocalsGroups[g], true);
      if (!root) continue;
      root->live = 1;
      root->index = g;
      // Never drawn itself, the group is asked for every frame: its count makes the rows.
      (void)DrawFrom(pane, app, root, 0);
      AddChildren(pane, root->key, root->child_count, 0);
    }
  } else {
    const WatchList *list = &session->watches[pane->number];
    for (u32 r = 0; r < list->count; r++) {
      WatchNode *root = RootFor(pane, list->rows[r]->id, list->rows[r]->expression, false);
      if (!root) continue;
      root->live = 1;
      root->index = r;
      u32 key = root->key;
      bool expanded = root->expanded;
      u64 children = root->child_count;
      AddRun(pane, 0, r, 1, 0);
      if (expanded) AddChildren(pane, key, children, 1);
    }
  }
  // Rows gone from the list take their nodes with them.
  for (u32 i = 0; i < pane->node_count; i++) {
    WatchNode *n = &pane->nodes[i];
    if (n->key && !n->parent && !n->live) ForgetRow(pane, n->row_id);
  }
}

const WatchCell *WatchPaneNodeCell(WatchPane *pane, u32 key) {
  for (u32 i = 0; i < kWatchSlotCapacity; i++) {
    const WatchSlot *s = pane->slots[i];
    if (s && s->node == key && s->has_result) return &s->row;
  }
  return nullptr;
}

const WatchCell *WatchPaneChildCell(WatchPane *pane, u32 key, u64 index) {
  const WatchSlot *s = FindSlot(pane, key, index / kWatchBlockRows);
  u32 at = (u32)(index % kWatchBlockRows);
  return s && s->has_result && at < s->child_rows ? &s->children[at] : nullptr;
}

bool WatchPaneRow(WatchPane *pane, AppState *app, u64 flat, WatchRowView *out) {
  memset(out, 0, sizeof *out);
  // The run that holds the row: the last one starting at or before it.
  u32 low = 0, high = pane->run_count;
  while (high - low > 1) {
    u32 middle = (low + high) / 2;
    if (pane->runs[middle].start <= flat) low = middle;
    else high = middle;
  }
  if (low >= pane->run_count || flat - pane->runs[low].start >= pane->runs[low].count) return false;
  const WatchRun *run = &pane->runs[low];
  u64 index = run->first + (flat - run->start);
  out->depth = run->depth;
  if (!run->parent) {
    const WatchList *list = &app->session.watches[pane->number];
    if (index >= list->count) return false;
    out->ref.index = list->rows[index]->id;
    out->expression = list->rows[index]->expression;
    out->node = FindRoot(pane, list->rows[index]->id);
    if (!out->node) return true;
    WatchSlot *slot = DrawFrom(pane, app, out->node, 0);
    if (slot && slot->has_result) out->cell = &slot->row;
    return true;
  }
  out->ref.parent = run->parent;
  out->ref.index = index;
  WatchNode *parent = WatchPaneNode(pane, run->parent);
  if (!parent) return false;
  WatchSlot *slot = DrawFrom(pane, app, parent, index / kWatchBlockRows);
  u32 at = (u32)(index % kWatchBlockRows);
  if (slot && slot->has_result && at < slot->child_rows) out->cell = &slot->children[at];
  out->node = FindChild(pane, run->parent, index);
  return true;
}

void WatchPaneSetExpanded(WatchPane *pane, const WatchRowView *row, bool expanded) {
  if (row->node) {
    row->node->expanded = expanded;
    return;
  }
  if (!expanded || !row->ref.parent) return;
  WatchNode *parent = WatchPaneNode(pane, row->ref.parent);
  if (!parent || parent->depth >= kWatchPathCapacity) return;  // deeper rows are not shown
  WatchNode copy = *parent;
  WatchNode *child = NewNode(pane);
  if (!child) return;
  child->row_id = copy.row_id;
  child->parent = copy.key;
  child->index = row->ref.index;
  child->depth = copy.depth + 1;
  memcpy(child->path, copy.path, sizeof(u64) * copy.depth);
  child->path[copy.depth] = row->ref.index;
  child->child_count = row->cell ? row->cell->child_count : 0;
  child->expanded = 1;
}

// [SECTION] Selection

static bool SameRef(WatchRef a, WatchRef b) { return a.parent == b.parent && a.index == b.index; }

bool WatchPaneIsSelected(const WatchPane *pane, WatchRef ref) {
  for (u32 i = 0; i < pane->selection_count; i++)
    if (SameRef(pane->selection[i], ref)) return true;
  return false;
}

void WatchPaneSelect(WatchPane *pane, WatchRef ref, bool add) {
  if (!add) pane->selection_count = 0;
  for (u32 i = 0; i < pane->selection_count; i++)
    if (SameRef(pane->selection[i], ref)) {
      pane->selection[i] = pane->selection[--pane->selection_count];
      return;
    }
  if (pane->selection_count < kWatchSelectionCapacity) pane->selection[pane->selection_count++] = ref;
}

void WatchPaneClearSelection(WatchPane *pane) { pane->selection_count = 0; }
