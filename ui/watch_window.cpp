// [SECTION] Editing
// [SECTION] Context menu
// [SECTION] Rows
// [SECTION] Window
#include "ui/watch_window.h"

#include <imgui.h>
#include <stdio.h>
#include <string.h>

#include "expr/expr_row.h"
#include "ui/text_capture.h"
#include "ui/watch_actions.h"
#include "ui/watch_model.h"

enum { kEditCapacity = kWatchRowBufferSize };

// The one text input open at a time: a row's expression ("##edtlbl"), its comment, or a new row.
typedef struct WatchEdit {
  s32 pane;       // -1: none
  u32 row_id;     // 0: a new row at the end
  u8 comment;     // the comment column
  u8 focus;       // the input takes the keyboard in its first frame
  u8 drawn;       // the input was drawn in this frame (a row scrolled away or gone ends its edit)
  int closed_frame;  // the frame the last edit ended in: its Enter is not a key of the window
  char text[kEditCapacity];
} WatchEdit;

static WatchEdit g_edit = {-1, 0, 0, 0, 0, -1, ""};
static bool g_capturing;  // the test hook's capture runs: the rows write their own lines

static WatchWindowSettings *Options(AppState *app, u32 pane) {
  return pane == kWatchLocalsPane ? &app->settings.locals : &app->settings.watch[pane];
}

static void EndEdit(void) {
  g_edit.pane = -1;
  g_edit.closed_frame = ImGui::GetFrameCount();
}


// [SECTION] Editing

static void BeginEdit(u32 pane, u32 row_id, bool comment, const char *text) {
  g_edit.pane = (s32)pane;
  g_edit.row_id = row_id;
  g_edit.comment = comment;
  g_edit.focus = 1;
  snprintf(g_edit.text, sizeof g_edit.text, "%s", text ? text : "");
}

// A committed edit: an emptied expression removes its row; a new row is added when not empty.
static void CommitEdit(AppState *app) {
  u32 window = (u32)g_edit.pane;
  EndEdit();
  Session *session = &app->session;
  WatchList *list = &session->watches[window];
  if (!g_edit.row_id) {
    if (g_edit.text[0] && !g_edit.comment) (void)SessionAddWatchRow(session, window, g_edit.text, "");
    return;
  }
  s32 r = WatchRowIndex(list, g_edit.row_id);
  if (r < 0) return;
  const WatchRow *row = list->rows[r];
  if (g_edit.comment) {
    if (strcmp(row->comment, g_edit.text) != 0) (void)SessionSetWatchRow(session, window, (u32)r, row->expression, g_edit.text);
  } else if (!g_edit.text[0]) {
    (void)SessionRemoveWatchRow(session, window, (u32)r);
  } else if (strcmp(row->expression, g_edit.text) != 0) {
    char comment[kWatchRowBufferSize];
    snprintf(comment, sizeof comment, "%s", row->comment);
    (void)SessionSetWatchRow(session, window, (u32)r, g_edit.text, comment);
  }
}

// The open text input in a cell; true while it stays open.
static void DrawEditInput(AppState *app, const char *id) {
  g_edit.drawn = 1;
  if (g_capturing) {
    char line[kEditCapacity + 16];
    snprintf(line, sizeof line, "| [edit] %s |", g_edit.text);
    TextCaptureLine(line);
  }
  if (g_edit.focus) ImGui::SetKeyboardFocusHere();
  ImGui::SetNextItemWidth(-1);
  bool entered = ImGui::InputText(id, g_edit.text, sizeof g_edit.text,
                                  ImGuiInputTextFlags_EnterReturnsTrue | ImGuiInputTextFlags_AutoSelectAll);
  bool first = g_edit.focus;
  g_edit.focus = 0;
  if (entered || ImGui::IsItemDeactivatedAfterEdit()) CommitEdit(app);
  else if (!first && !ImGui::IsItemActive()) EndEdit();  // Escape, or a click elsewhere without a change
}

static bool Editing(u32 pane, u32 row_id, bool comment) {
  return g_edit.pane == (s32)pane && g_edit.row_id == row_id && g_edit.comment == comment;
}


// [SECTION] Context menu

typedef struct SpecifierItem {
  const char *label;
  const char *specifier;
} SpecifierItem;

static void SpecifierItems(WatchPane *pane, AppState *app, const SpecifierItem *items, u32 count) {
  for (u32 i = 0; i < count; i++)
    if (ImGui::MenuItem(items[i].label, items[i].specifier)) WatchFormatSelectedRows(pane, app, items[i].specifier);
}


static void DrawFormatAsMenu(WatchPane *pane, AppState *app, WatchSelectionKinds kinds) {
  if (!ImGui::BeginMenu("Format As", kinds.top_level)) return;
  TextCaptureWindow("format menu");
  static const SpecifierItem kRadix[] = {{"Binary", "b"}, {"Decimal", "d"}, {"Hexadecimal (lower)", "x"},
                                         {"Hexadecimal (upper)", "X"}, {"HRESULT/Win32 message", "hr"}};
  SpecifierItems(pane, app, kRadix, KTRN_ARRAY_COUNT(kRadix));
  if (kinds.address) {
    static const SpecifierItem kStrings[] = {{"String View", "str"}, {"Wide String View", "wstr"}};
    SpecifierItems(pane, app, kStrings, KTRN_ARRAY_COUNT(kStrings));
  }
  if (kinds.vector && ImGui::BeginMenu("Vector")) {
    static const SpecifierItem kFloats[] = {{"Float", "ps"}, {"Double", "pd"}};
    SpecifierItems(pane, app, kFloats, KTRN_ARRAY_COUNT(kFloats));
    static const char *const kWidths[] = {"8-bit", "16-bit", "32-bit", "64-bit"};
    static const char *const kBits[] = {"8", "16", "32", "64"};
    for (u32 w = 0; w < 4; w++) {
      if (!ImGui::BeginMenu(kWidths[w])) continue;
      char names[4][16];
      snprintf(names[0], sizeof names[0], "epi%s", kBits[w]);
      snprintf(names[1], sizeof names[1], "epu%s", kBits[w]);
      snprintf(names[2], sizeof names[2], "epu%sx", kBits[w]);
      snprintf(names[3], sizeof names[3], "epu%sX", kBits[w]);
      const SpecifierItem lanes[] = {{"signed", names[0]}, {"unsigned", names[1]}, {"unsigned (hex lower)", names[2]},
                                     {"unsigned (hex upper)", names[3]}};
      SpecifierItems(pane, app, lanes, KTRN_ARRAY_COUNT(lanes));
      ImGui::EndMenu();
    }
    ImGui::EndMenu();
  }
  if (kinds.address && ImGui::BeginMenu("Memory")) {
    static const SpecifierItem kMemory[] = {
        {"Bytes w/ASCII", "db"}, {"Double-words w/ASCII", "dc"}, {"Double-words", "dd"}, {"Doubles", "dD"},
        {"Floats", "df"},        {"Quad-words", "dq"},           {"Words w/ASCII", "dW"}, {"Words", "dw"},
        {"Binary w/bytes", "dyb"}, {"Binary w/double-words", "dyd"}};
    SpecifierItems(pane, app, kMemory, KTRN_ARRAY_COUNT(kMemory));
    ImGui::EndMenu();
  }
  if (kinds.address && ImGui::BeginMenu("Matrix")) {
    static const SpecifierItem kMatrix[] = {{"4x4 matrix", "mtx"}, {"4x3 matrix", "mtx4x3"}, {"3x4 matrix", "mtx3x4"}};
    SpecifierItems(pane, app, kMatrix, KTRN_ARRAY_COUNT(kMatrix));
    ImGui::EndMenu();
  }
  ImGui::EndMenu();
}

static void DrawContextMenu(WatchPane *pane, AppState *app) {
  // The table scrolls in a child window of its own: the menu opens over it too.
  if (ImGui::IsWindowHovered(ImGuiHoveredFlags_ChildWindows) && ImGui::IsMouseReleased(ImGuiMouseButton_Right))
    ImGui::OpenPopup("watch-menu");
  if (!ImGui::BeginPopup("watch-menu")) return;
  TextCaptureWindow("watch menu");
  WatchWindowSettings *options = Options(app, pane->number);
  bool locals = pane->number == kWatchLocalsPane;
  bool any = pane->selection_count > 0;
  if (ImGui::MenuItem("Add Watch", nullptr, false, any)) WatchAddSelectedAsWatches(pane, app);
  // There is no memory window to send an address to yet.
  ImGui::MenuItem("Send to Memory Window", nullptr, false, false);
  if (ImGui::MenuItem("Copy", "Ctrl+C", false, any)) WatchCopySelection(pane, app, false);
  if (ImGui::MenuItem("Copy Value", nullptr, false, any)) WatchCopySelection(pane, app, true);
  ImGui::Separator();
  bool hex = options->hexadecimal, column_major = options->column_major;
  if (ImGui::MenuItem("Hexadecimal Display", nullptr, &hex)) options->hexadecimal = hex;
  if (ImGui::MenuItem("Column Major Display", nullptr, &column_major)) options->column_major = column_major;
  if (!locals) {
    DrawFormatAsMenu(pane, app, WatchKindsOfSelection(pane, app));
    TextCaptureWindow("watch menu");  // a submenu's end closes the capture
    ImGui::Separator();
    if (ImGui::MenuItem("Move Up", "Ctrl+Up", false, any)) WatchMoveSelectedRows(pane, app, true);
    if (ImGui::MenuItem("Move Down", "Ctrl+Down", false, any)) WatchMoveSelectedRows(pane, app, false);
    if (ImGui::MenuItem("Delete", "Del", false, any)) WatchDeleteSelectedRows(pane, app);
  }
  ImGui::Separator();
  bool type = options->show_type, comment = options->show_comment;
  if (ImGui::MenuItem("Type", nullptr, &type)) options->show_type = type;
  if (!locals && ImGui::MenuItem("Comment", nullptr, &comment)) options->show_comment = comment;
  ImGui::EndPopup();
}

// [SECTION] Rows

static const float kIndentPerLevel = 14.0f;
static const ImVec4 kChangedColour = ImVec4(1.0f, 0.35f, 0.35f, 1.0f);  // changed since the last stop

static void DrawRow(WatchPane *pane, AppState *app, u64 flat, bool stale, bool show_type, bool show_comment,
                    int comment_column) {
  WatchRowView row;
  ImGui::TableNextRow();
  if (!WatchPaneRow(pane, app, flat, &row)) return;
  ImGui::TableNextColumn();
  ImGui::PushID((int)flat);
  const WatchCell *cell = row.cell;
  bool top_level = !row.ref.parent;
  u32 row_id = top_level ? (u32)row.ref.index : 0;
  if (top_level && Editing(pane->number, row_id, false)) {
    ImGui::Indent(row.depth * kIndentPerLevel + 1.0f);
    DrawEditInput(app, "##edtlbl");
    ImGui::Unindent(row.depth * kIndentPerLevel + 1.0f);
  } else {
    bool selected = WatchPaneIsSelected(pane, row.ref);
    bool expandable = cell && cell->child_count && (top_level || row.depth <= kWatchPathCapacity);
    bool expanded = expandable && row.node && row.node->expanded;
    ImGuiTreeNodeFlags flags = ImGuiTreeNodeFlags_OpenOnArrow | ImGuiTreeNodeFlags_SpanAllColumns |
                               ImGuiTreeNodeFlags_NoTreePushOnOpen;
    if (!expandable) flags |= ImGuiTreeNodeFlags_Leaf;
    if (selected) flags |= ImGuiTreeNodeFlags_Selected;
    float indent = row.depth * kIndentPerLevel + 1.0f;
    ImGui::Indent(indent);
    ImGui::SetNextItemOpen(expanded);
    bool open = ImGui::TreeNodeEx("##row", flags, "%s", top_level ? row.expression : cell ? cell->name : "");
    ImGui::Unindent(indent);
    if (ImGui::IsItemToggledOpen()) {
      WatchPaneSetExpanded(pane, &row, open);
    } else if (ImGui::IsItemClicked(ImGuiMouseButton_Left)) {
      WatchPaneSelect(pane, row.ref, ImGui::GetIO().KeyCtrl);
      if (top_level && pane->number != kWatchLocalsPane && ImGui::IsMouseDoubleClicked(ImGuiMouseButton_Left)) {
        // The row's item spans every column: the column under the mouse says what is edited.
        if (show_comment && (ImGui::TableGetColumnFlags(comment_column) & ImGuiTableColumnFlags_IsHovered)) {
          const WatchList *list = &app->session.watches[pane->number];
          s32 r = WatchRowIndex(list, row_id);
          BeginEdit(pane->number, row_id, true, r >= 0 ? list->rows[r]->comment : "");
        } else {
          BeginEdit(pane->number, row_id, false, row.expression);
        }
      }
    } else if (ImGui::IsItemClicked(ImGuiMouseButton_Right) && !selected) {
      WatchPaneSelect(pane, row.ref, false);
    }
  }
  ImGui::TableNextColumn();
  if (stale) ImGui::PushStyleColor(ImGuiCol_Text, ImGui::GetStyleColorVec4(ImGuiCol_TextDisabled));
  if (cell && cell->changed && !stale) ImGui::TextColored(kChangedColour, "%s", cell->value);
  else if (cell) ImGui::TextUnformatted(cell->value);
  if (show_type) {
    ImGui::TableNextColumn();
    if (cell) ImGui::TextUnformatted(cell->type);
  }
  if (stale) ImGui::PopStyleColor();
  if (show_comment) {
    ImGui::TableNextColumn();
    if (top_level && Editing(pane->number, row_id, true)) {
      DrawEditInput(app, "##edtcmt");
    } else if (top_level) {
      const WatchList *list = &app->session.watches[pane->number];
      s32 r = WatchRowIndex(list, row_id);
      ImGui::TextUnformatted(r >= 0 ? list->rows[r]->comment : "");
    }
  }
  ImGui::PopID();
  if (g_capturing) {
    // The test dumps' line of the row: its name indented two blanks a level, value and type.
    char line[kWatchNameCapacity + kWatchValueCapacity + kWatchTypeCapacity + 96];
    // Looked up again: an edit committed in this row may have removed it.
    const WatchList *list = &app->session.watches[pane->number];
    s32 r = top_level ? WatchRowIndex(list, row_id) : -1;
    const char *name = top_level ? (r >= 0 ? list->rows[r]->expression : "") : cell ? cell->name : "";
    snprintf(line, sizeof line, "| %*s%s | %s | %s |", (int)(2 * row.depth), "", name, cell ? cell->value : "",
             cell ? cell->type : "");
    TextCaptureLine(line);
  }
}

// The line below the rows: a click there starts a new row.
static void DrawNewRow(WatchPane *pane, AppState *app) {
  ImGui::TableNextRow();
  ImGui::TableNextColumn();
  ImGui::PushID("new-row");
  if (Editing(pane->number, 0, false)) {
    DrawEditInput(app, "##edtlbl");
  } else if (ImGui::Selectable("##new", false, ImGuiSelectableFlags_SpanAllColumns)) {
    WatchPaneClearSelection(pane);
    BeginEdit(pane->number, 0, false, "");
  }
  ImGui::PopID();
}

// [SECTION] Window

// A frame without variables says so (the message of "__locals") instead of an empty list.
static void DrawLocalsMessage(WatchPane *pane, AppState *app) {
  if (app->debug_state != kDebugSuspended) return;
  for (u32 i = 0; i < pane->node_count; i++) {
    const WatchNode *n = &pane->nodes[i];
    if (!n->key || n->parent || n->row_id != 2) continue;  // the second group: "__locals"
    const WatchCell *cell = WatchPaneNodeCell(pane, n->key);
    if (cell && cell->failed) ImGui::TextDisabled("%s", cell->value);
    return;
  }
}

static void HandleKeys(WatchPane *pane, AppState *app) {
  if (g_edit.pane >= 0 || g_edit.closed_frame == ImGui::GetFrameCount() ||
      !ImGui::IsWindowFocused(ImGuiFocusedFlags_RootAndChildWindows))
    return;
  bool ctrl = ImGui::GetIO().KeyCtrl, locals = pane->number == kWatchLocalsPane;
  if (ctrl && ImGui::IsKeyPressed(ImGuiKey_C, false)) WatchCopySelection(pane, app, false);
  if (locals) return;
  if (ctrl && ImGui::IsKeyPressed(ImGuiKey_UpArrow)) WatchMoveSelectedRows(pane, app, true);
  if (ctrl && ImGui::IsKeyPressed(ImGuiKey_DownArrow)) WatchMoveSelectedRows(pane, app, false);
  if (ImGui::IsKeyPressed(ImGuiKey_Delete, false)) WatchDeleteSelectedRows(pane, app);
  if (ImGui::IsKeyPressed(ImGuiKey_F2, false) || ImGui::IsKeyPressed(ImGuiKey_Enter, false)) {
    const WatchList *list = &app->session.watches[pane->number];
    for (u32 i = 0; i < pane->selection_count; i++) {
      s32 r = pane->selection[i].parent ? -1 : WatchRowIndex(list, (u32)pane->selection[i].index);
      if (r < 0) continue;
      BeginEdit(pane->number, list->rows[r]->id, false, list->rows[r]->expression);
      break;
    }
  }
  if (ImGui::IsKeyPressed(ImGuiKey_Insert, false)) BeginEdit(pane->number, 0, false, "");
}

void DrawWatchWindow(AppState *app, u32 number) {
  WatchPane *pane = WatchPaneGet(number);
  if (!pane) return;
  WatchWindowSettings *options = Options(app, number);
  bool locals = number == kWatchLocalsPane;
  WatchPaneLayout(pane, app);
  if (ImGui::BeginChild("watch-wnd")) {
    bool show_type = options->show_type != 0, show_comment = !locals && options->show_comment;
    int columns = 2 + show_type + show_comment;
    ImGuiTableFlags flags = ImGuiTableFlags_Resizable | ImGuiTableFlags_ScrollY | ImGuiTableFlags_BordersInnerV;
    if (locals && !pane->row_total) DrawLocalsMessage(pane, app);
    g_capturing = TextCaptureActive();
    if (g_capturing) {
      TextCaptureLine(show_type ? "| Name | Value | Type |" : "| Name | Value |");
      TextCaptureSuspend(true);  // the cells' widgets would log the rows in pieces
    }
    if (ImGui::BeginTable("tbl", columns, flags)) {
      ImGui::TableSetupScrollFreeze(0, 1);
      ImGui::TableSetupColumn("Name");
      ImGui::TableSetupColumn("Value", ImGuiTableColumnFlags_WidthStretch);
      if (show_type) ImGui::TableSetupColumn("Type");
      if (show_comment) ImGui::TableSetupColumn("Comment");
      ImGui::TableHeadersRow();
      // Values of an earlier stop (the target runs, or no longer exists) are drawn dimmed.
      bool stale = app->debug_state != kDebugSuspended;
      u64 total = pane->row_total + (locals ? 0 : 1);
      if (total > 0x7FFFFFFFull) total = 0x7FFFFFFFull;
      // The row height measured in an earlier frame spares the clipper drawing the first row (and
      // asking the engine for its block) just to measure it.
      static float row_heights[kWatchPaneCount];
      bool editing_here = g_edit.pane == (s32)number;
      g_edit.drawn = 0;
      ImGuiListClipper clipper;
      clipper.Begin((int)total, row_heights[number] > 0 ? row_heights[number] : -1.0f);
      while (clipper.Step())
        for (int i = clipper.DisplayStart; i < clipper.DisplayEnd; i++) {
          if ((u64)i == pane->row_total && !locals) DrawNewRow(pane, app);
          else DrawRow(pane, app, (u64)i, stale, show_type, show_comment, columns - 1);
        }
      if (clipper.ItemsHeight > 0) row_heights[number] = clipper.ItemsHeight;
      if (editing_here && g_edit.pane == (s32)number && !g_edit.drawn && !g_edit.focus) EndEdit();
      ImGui::EndTable();
    }
    if (g_capturing) TextCaptureSuspend(false);
    g_capturing = false;

    HandleKeys(pane, app);
    DrawContextMenu(pane, app);
  }
  ImGui::EndChild();
}
