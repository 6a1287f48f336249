#include "ui/source_popups.h"

#include <imgui.h>
#include <stdio.h>
#include <string.h>

#include "ui/text_capture.h"

// The selection's text, else the identifier at the cursor; false when there is neither.
static bool WatchText(const SourceTab *tab, char *out, u32 capacity) {
  const SourceText *t = &tab->text;
  u32 a = t->line_starts[tab->anchor_line] + tab->anchor_column, c = t->line_starts[tab->cursor_line] + tab->cursor_column;
  u32 from = a < c ? a : c, to = a < c ? c : a;
  if (from == to) {
    const char *begin, *end;
    SourceTextLine(t, tab->cursor_line, &begin, &end);
    if (!SourceIdentifierAt(begin, end, tab->cursor_column, &from, &to)) return false;
    from += t->line_starts[tab->cursor_line];
    to += t->line_starts[tab->cursor_line];
  }
  if (to - from >= capacity) to = from + capacity - 1;
  memcpy(out, t->bytes + from, to - from);
  out[to - from] = 0;
  return true;
}

static u32 BreakpointOnLine(const AppState *app, const SourceTab *tab, u32 line) {
  const Session *s = &app->session;
  for (u32 i = 0; i < s->breakpoint_count; i++) {
    const Breakpoint *b = s->breakpoints[i];
    if (b->kind != kBreakpointSourceLine || !SourcePathsEqual(b->place, tab->path)) continue;
    u32 shown = b->runtime.state == kBreakpointStateBound && b->runtime.bound_line ? b->runtime.bound_line : b->line;
    if (shown == line + 1) return b->id;
  }
  return 0;
}

void DrawSourceContextMenu(AppState *app, SourceViewState *view, SourceViewRequests *r, SourceTab *tab, s32 index) {
  if (view->menu_tab != index || !ImGui::BeginPopup("##txtmenu")) return;
  TextCaptureWindow("##txtmenu");
  u32 line = view->menu_line;
  if (ImGui::MenuItem("Run to Cursor  ", "Ctrl+F10")) {
    r->run_to_tab = index;
    r->run_to_line = line + 1;
    r->run_to_reason = 1;
  }
  if (ImGui::MenuItem("Set Next Statement  ", "Ctrl+Shift+F10", false, app->debug_state == kDebugSuspended)) {
    r->set_next_tab = index;
    r->set_next_line = line + 1;
  }
  u32 breakpoint = BreakpointOnLine(app, tab, line);
  if (breakpoint && ImGui::MenuItem("Edit Breakpoint")) r->edit_breakpoint = breakpoint;
  char watch[kWatchRowBufferSize];
  if (WatchText(tab, watch, sizeof watch) && ImGui::MenuItem("Add Watch")) memcpy(r->add_watch, watch, sizeof watch);
  ImGui::EndPopup();
}

void DrawSourceTabMenu(SourceTab *tab, SourceViewRequests *r, s32 index) {
  if (!ImGui::BeginPopupContextItem("##txttabmenu")) return;
  TextCaptureWindow("##txttabmenu");
  if (ImGui::MenuItem("Copy Full Path")) ImGui::SetClipboardText(tab->path);
  if (ImGui::MenuItem("Close")) r->close_tab = index;
  if (ImGui::MenuItem("Close All But This")) r->close_others = index;
  ImGui::EndPopup();
}

// The search from the active tab's selection start (forward: after it; backward: before it); a hit
// becomes the selection and is brought into view.
static void Search(AppState *app, bool forward) {
  SourceTab *tab = SourceViewActiveTab(app);
  TextSearch *search = &app->sources.search;
  if (!tab) return;
  TextSearchPrepare(search);
  if (!search->length) return;
  const SourceText *t = &tab->text;
  u32 a = t->line_starts[tab->anchor_line] + tab->anchor_column, c = t->line_starts[tab->cursor_line] + tab->cursor_column;
  u32 from = a < c ? a : c, at = 0;
  bool found = forward ? TextSearchNext(search, t->bytes, t->size, from, &at) : TextSearchPrevious(search, t->bytes, t->size, from, &at);
  search->not_found = !found;
  if (!found) return;
  u32 end = at + search->length;
  tab->anchor_line = SourceTextLineOfOffset(t, at);
  tab->anchor_column = at - t->line_starts[tab->anchor_line];
  tab->cursor_line = SourceTextLineOfOffset(t, end);
  tab->cursor_column = end - t->line_starts[tab->cursor_line];
  tab->scroll_to_line = (s32)tab->anchor_line;
}

// Escape with no modifier held closes the current popup.
static void CloseOnEscape(void) {
  ImGuiIO &io = ImGui::GetIO();
  if (ImGui::IsKeyPressed(ImGuiKey_Escape) && !io.KeyCtrl && !io.KeyShift && !io.KeyAlt) ImGui::CloseCurrentPopup();
}

// The start of a one-field popup: its text captured under name, the label, and the field that
// follows it (width in font heights) taking the keyboard when the popup appears.
static void FieldAfterLabel(const char *name, const char *label, float width) {
  TextCaptureWindow(name);
  ImGui::TextUnformatted(label);
  ImGui::SameLine();
  if (ImGui::IsWindowAppearing()) ImGui::SetKeyboardFocusHere();
  ImGui::SetNextItemWidth(ImGui::GetFontSize() * width);
}

static void DrawFind(AppState *app, SourceViewState *view) {
  TextSearch *search = &app->sources.search;
  if (view->open_find) {
    ImGui::OpenPopup("Find in File");
    search->not_found = 0;
  }
  if (view->find_next || view->find_previous) Search(app, view->find_next);
  if (!ImGui::BeginPopup("Find in File")) return;
  FieldAfterLabel("Find in File", "Find: ", 20);
  if (ImGui::InputText("##findinfile", search->pattern, sizeof search->pattern, ImGuiInputTextFlags_EnterReturnsTrue)) {
    Search(app, true);
    ImGui::SetKeyboardFocusHere(-1);
  }
  if (search->not_found) ImGui::Text("Pattern not found: %s", search->pattern);
  CloseOnEscape();
  ImGui::EndPopup();
}

static void DrawGoto(AppState *app, SourceViewState *view) {
  SourceTab *tab = SourceViewActiveTab(app);
  if (view->open_goto && tab) {
    ImGui::OpenPopup("Goto Line###goto");
    view->goto_line = (s32)tab->cursor_line + 1;
  }
  if (!ImGui::BeginPopup("Goto Line###goto")) return;
  FieldAfterLabel("Goto Line", "Go To Line: ", 8);
  if (ImGui::InputInt("##gotoline", &view->goto_line, 1, 100, ImGuiInputTextFlags_EnterReturnsTrue) && tab) {
    s32 line = view->goto_line < 1 ? 1 : view->goto_line > (s32)tab->text.line_count ? (s32)tab->text.line_count : view->goto_line;
    tab->cursor_line = tab->anchor_line = (u32)line - 1;
    tab->cursor_column = tab->anchor_column = 0;
    tab->scroll_to_line = line - 1;
    tab->focus = 1;
    ImGui::CloseCurrentPopup();
  }
  CloseOnEscape();
  ImGui::EndPopup();
}

void DrawSourcePopups(AppState *app, SourceViewState *view) {
  DrawFind(app, view);
  DrawGoto(app, view);
  view->open_find = view->open_goto = view->find_next = view->find_previous = false;
}
