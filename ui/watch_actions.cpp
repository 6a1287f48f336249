#include "ui/watch_actions.h"

#include <imgui.h>
#include <stdio.h>
#include <string.h>

#include "expr/expr_row.h"

enum { kExpressionCapacity = kWatchRowBufferSize, kCopyCapacity = 64 * 1024 };

s32 WatchRowIndex(const WatchList *list, u32 id) {
  for (u32 r = 0; r < list->count; r++)
    if (list->rows[r]->id == id) return (s32)r;
  return -1;
}

void WatchFormatAs(const char *expression, const char *specifier, char *out, u32 capacity) {
  const char *comma = strrchr(expression, ',');
  u64 length = comma ? (u64)(comma - expression) : strlen(expression);
  while (length && (expression[length - 1] == ' ' || expression[length - 1] == '\t')) length--;
  snprintf(out, capacity, "%.*s, %s", (int)length, expression, specifier);
}

// Whether an expression can take a member access or an index without parentheses.
static bool IsPostfixOperand(const char *text) {
  for (const char *c = text; *c; c++) {
    bool plain = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || (*c >= '0' && *c <= '9') || *c == '_' ||
                 *c == '.' || *c == '[' || *c == ']';
    if (plain) continue;
    if (c[0] == '-' && c[1] == '>') {
      c++;
      continue;
    }
    return false;
  }
  return true;
}

// An expression that names a row: a top-level row's own text without its specifier; a child's
// made from its parent's (a member, an element or the pointee's member), else the child's name.
static bool RowExpression(WatchPane *pane, AppState *app, WatchRef ref, char *out, u32 capacity, u32 depth) {
  if (!ref.parent) {
    const WatchList *list = &app->session.watches[pane->number];
    s32 r = WatchRowIndex(list, (u32)ref.index);
    if (r < 0) return false;
    const char *text = list->rows[r]->expression;
    const char *comma = strrchr(text, ',');
    snprintf(out, capacity, "%.*s", (int)(comma ? comma - text : (long long)strlen(text)), text);
    return true;
  }
  const WatchCell *cell = WatchPaneChildCell(pane, ref.parent, ref.index);
  const WatchNode *parent = WatchPaneNode(pane, ref.parent);
  const WatchCell *parent_cell = parent ? WatchPaneNodeCell(pane, parent->key) : nullptr;
  if (!cell || !parent) return false;
  char base[kExpressionCapacity];
  WatchRef parent_ref = {parent->parent, 0, parent->parent ? parent->index : parent->row_id};
  bool group = pane->number == kWatchLocalsPane && !parent->parent;
  if (group || !parent_cell || depth > kWatchPathCapacity ||
      !RowExpression(pane, app, parent_ref, base, sizeof base, depth + 1)) {
    snprintf(out, capacity, "%s", cell->name);
    return true;
  }
  const char *open = IsPostfixOperand(base) ? "" : "(", *close = open[0] ? ")" : "";
  switch (parent_cell->view) {
    case kExprRowAggregate: snprintf(out, capacity, "%s%s%s.%s", open, base, close, cell->name); break;
    case kExprRowArray: snprintf(out, capacity, "%s%s%s[%llu]", open, base, close, (unsigned long long)ref.index); break;
    case kExprRowPointee:
      if (parent_cell->child_count == 1) snprintf(out, capacity, "*%s%s%s", open, base, close);
      else snprintf(out, capacity, "%s%s%s->%s", open, base, close, cell->name);
      break;
    default: snprintf(out, capacity, "%s", cell->name); break;
  }
  return true;
}

// The three texts of a selected row (the name of a top-level row is its expression).
static bool RowTexts(WatchPane *pane, AppState *app, WatchRef ref, const char **name, const WatchCell **cell) {
  *cell = nullptr;
  if (!ref.parent) {
    const WatchList *list = &app->session.watches[pane->number];
    s32 r = WatchRowIndex(list, (u32)ref.index);
    if (r < 0) return false;
    *name = list->rows[r]->expression;
    const WatchNode *node = nullptr;
    for (u32 i = 0; i < pane->node_count && !node; i++)
      if (pane->nodes[i].key && !pane->nodes[i].parent && pane->nodes[i].row_id == ref.index) node = &pane->nodes[i];
    if (node) *cell = WatchPaneNodeCell(pane, node->key);
    return true;
  }
  *cell = WatchPaneChildCell(pane, ref.parent, ref.index);
  *name = *cell ? (*cell)->name : "";
  return *cell != nullptr;
}

// "Copy": the selected rows as "name;value;type" lines; "Copy Value": the values, one a line.
void WatchCopySelection(WatchPane *pane, AppState *app, bool value_only) {
  static char text[kCopyCapacity];
  u32 length = 0;
  text[0] = 0;
  for (u32 i = 0; i < pane->selection_count && length < sizeof text - 1; i++) {
    const char *name;
    const WatchCell *cell;
    if (!RowTexts(pane, app, pane->selection[i], &name, &cell)) continue;
    const char *value = cell ? cell->value : "", *type = cell ? cell->type : "";
    int n = value_only ? snprintf(text + length, sizeof text - length, "%s\n", value)
                       : snprintf(text + length, sizeof text - length, "%s;%s;%s\n", name, value, type);
    if (n > 0) length += (u32)n < sizeof text - length ? (u32)n : (u32)(sizeof text - 1 - length);
  }
  if (length) ImGui::SetClipboardText(text);
}

void WatchDeleteSelectedRows(WatchPane *pane, AppState *app) {
  WatchList *list = &app->session.watches[pane->number];
  for (u32 i = 0; i < pane->selection_count; i++) {
    if (pane->selection[i].parent) continue;
    s32 r = WatchRowIndex(list, (u32)pane->selection[i].index);
    if (r >= 0) (void)SessionRemoveWatchRow(&app->session, pane->number, (u32)r);
  }
  WatchPaneClearSelection(pane);
}

// Each selected top-level row one place up (or down); a row already at the end stays, and so do
// the selected rows stacked against it.
void WatchMoveSelectedRows(WatchPane *pane, AppState *app, bool up) {
  WatchList *list = &app->session.watches[pane->number];
  if (!list->count) return;
  for (u32 step = 0; step < list->count; step++) {
    u32 r = up ? step : list->count - 1 - step;
    WatchRef ref = {0, 0, list->rows[r]->id};
    if (!WatchPaneIsSelected(pane, ref)) continue;
    u32 to = up ? r - 1 : r + 1;
    if ((up && r == 0) || (!up && r + 1 >= list->count)) continue;
    WatchRef other = {0, 0, list->rows[to]->id};
    if (WatchPaneIsSelected(pane, other)) continue;
    (void)SessionMoveWatchRow(&app->session, pane->number, r, to);
  }
}

void WatchFormatSelectedRows(WatchPane *pane, AppState *app, const char *specifier) {
  WatchList *list = &app->session.watches[pane->number];
  for (u32 i = 0; i < pane->selection_count; i++) {
    if (pane->selection[i].parent) continue;
    s32 r = WatchRowIndex(list, (u32)pane->selection[i].index);
    if (r < 0) continue;
    char text[kWatchRowBufferSize], comment[kWatchRowBufferSize];
    WatchFormatAs(list->rows[r]->expression, specifier, text, sizeof text);
    snprintf(comment, sizeof comment, "%s", list->rows[r]->comment);
    (void)SessionSetWatchRow(&app->session, pane->number, (u32)r, text, comment);
  }
}

// "Add Watch": each selected row's expression as a new row of this window (the locals window's
// go to "Watch 1").
void WatchAddSelectedAsWatches(WatchPane *pane, AppState *app) {
  u32 target = pane->number == kWatchLocalsPane ? 0 : pane->number;
  u32 count = pane->selection_count;
  WatchRef refs[kWatchSelectionCapacity];
  memcpy(refs, pane->selection, sizeof(WatchRef) * count);
  for (u32 i = 0; i < count; i++) {
    char text[kWatchRowBufferSize];
    if (RowExpression(pane, app, refs[i], text, sizeof text, 0) && text[0])
      (void)SessionAddWatchRow(&app->session, target, text, "");
  }
}


WatchSelectionKinds WatchKindsOfSelection(WatchPane *pane, AppState *app) {
  WatchSelectionKinds kinds = {false, false, false};
  for (u32 i = 0; i < pane->selection_count; i++) {
    WatchRef ref = pane->selection[i];
    if (ref.parent) continue;
    kinds.top_level = true;
    const char *name;
    const WatchCell *cell;
    if (!RowTexts(pane, app, ref, &name, &cell) || !cell || cell->failed) {
      kinds.address = kinds.vector = true;  // not known yet: everything is offered
      continue;
    }
    u64 length = strlen(cell->type);
    char last = length ? cell->type[length - 1] : 0;
    kinds.address |= last == '*' || last == ']' || cell->view == kExprRowArray || cell->view == kExprRowString ||
                     cell->view == kExprRowMemory || cell->view == kExprRowMatrix;
    kinds.vector |= cell->view == kExprRowVector || cell->view == kExprRowAggregate || cell->view == kExprRowArray ||
                    strncmp(cell->type, "u128", 4) == 0 || strncmp(cell->type, "u256", 4) == 0 ||
                    strncmp(cell->type, "u512", 4) == 0 || strstr(cell->type, "__m") != nullptr;
  }
  return kinds;
}
