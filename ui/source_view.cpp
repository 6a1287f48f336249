// [SECTION] Columns and markers
// [SECTION] Drawing a line
// [SECTION] Mouse and keys
// [SECTION] Tab
#include "ui/source_view.h"

#include <imgui.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ui/source_popups.h"
#include "ui/text_capture.h"

static const ImU32 kTopFrameColour = IM_COL32(255, 216, 55, 255);
static const ImU32 kOtherFrameColour = IM_COL32(126, 200, 126, 255);
static const ImU32 kTopFrameLineColour = IM_COL32(255, 216, 55, 60);
static const ImU32 kOtherFrameLineColour = IM_COL32(126, 200, 126, 50);
static const ImU32 kBreakpointColour = IM_COL32(220, 40, 40, 255);
static const ImU32 kDisabledColour = IM_COL32(150, 150, 150, 255);
static const ImU32 kConditionErrorColour = IM_COL32(255, 160, 0, 255);
static const ImU32 kLineNumberColour = IM_COL32(140, 140, 140, 255);
static const ImU32 kSelectionColour = IM_COL32(70, 110, 170, 160);
static const ImU32 kCursorColour = IM_COL32(230, 230, 230, 200);
enum { kExpandedCapacity = 2048, kMarkerCapacity = 1024 };

void SourceViewRequestsClear(SourceViewRequests *r) {
  memset(r, 0, sizeof *r);
  r->toggle_tab = r->run_to_tab = r->set_next_tab = r->close_tab = r->close_others = -1;
}

SourceTab *SourceViewActiveTab(AppState *app) {
  SourceTabs *tabs = &app->sources;
  return tabs->active >= 0 && (u32)tabs->active < tabs->count ? tabs->tabs[tabs->active] : nullptr;
}

// [SECTION] Columns and markers

static bool ContinuationByte(char c) { return ((u8)c & 0xC0) == 0x80; }

// The screen column where byte column of the line starts, with tabs expanded.
static u32 ColumnOfByte(const char *begin, const char *end, u32 byte, u32 tab) {
  u32 column = 0;
  for (const char *p = begin; p < end && p < begin + byte; p++) {
    if (*p == '\t') column += tab - column % tab;
    else if (!ContinuationByte(*p)) column++;
  }
  return column;
}

// The byte column of the character drawn at screen column (the line's length past its end).
static u32 ByteOfColumn(const char *begin, const char *end, u32 wanted, u32 tab) {
  u32 column = 0;
  const char *p = begin;
  while (p < end) {
    u32 next = *p == '\t' ? column + tab - column % tab : column + 1;
    if (wanted < next) {
      if (wanted * 2 >= column + next && *p != '\t') {  // the right half of a character: after it
        p++;
        while (p < end && ContinuationByte(*p)) p++;
      }
      break;
    }
    column = next;
    p++;
    while (p < end && ContinuationByte(*p)) p++;
  }
  return (u32)(p - begin);
}

// The line's characters from screen column first on, tabs made spaces (at most the buffer).
static u32 Expand(const char *begin, const char *end, u32 first, u32 tab, char *out, u32 capacity) {
  u32 column = 0, n = 0;
  for (const char *p = begin; p < end && n + 4 < capacity; p++) {
    if (*p == '\t') {
      u32 next = column + tab - column % tab;
      for (; column < next; column++)
        if (column >= first) out[n++] = ' ';
      continue;
    }
    if (!ContinuationByte(*p)) column++;
    if (column > first) out[n++] = *p;
  }
  return n;
}

enum MarkerKind : u8 { kMarkerPlain, kMarkerBound, kMarkerPending, kMarkerDisabled, kMarkerConditionError };
static const char *const kMarkerNames[] = {"set", "bound", "pending", "disabled", "condition error"};

typedef struct Marker {
  u32 line;  // 0-based
  u32 id;
  u8 kind;
} Marker;

// The breakpoints of the tab's file, each on the line it stops at once bound, else the line asked for.
static u32 CollectMarkers(AppState *app, const SourceTab *tab, Marker *out, u32 capacity) {
  u32 n = 0;
  const Session *s = &app->session;
  for (u32 i = 0; i < s->breakpoint_count && n < capacity; i++) {
    const Breakpoint *b = s->breakpoints[i];
    if (b->kind != kBreakpointSourceLine || !b->line || !SourcePathsEqual(b->place, tab->path)) continue;
    const BreakpointRuntime *r = &b->runtime;
    Marker m = {b->line - 1, b->id, kMarkerPlain};
    if (r->state == kBreakpointStateBound && r->bound_line) m.line = r->bound_line - 1;
    if (!b->enabled) m.kind = kMarkerDisabled;
    else if (r->condition_parse_failed || r->condition_error[0]) m.kind = kMarkerConditionError;
    else if (r->state == kBreakpointStateBound) m.kind = kMarkerBound;
    else if (app->target) m.kind = kMarkerPending;
    out[n++] = m;
  }
  return n;
}

static const Marker *MarkerOnLine(const Marker *markers, u32 count, u32 line) {
  for (u32 i = 0; i < count; i++)
    if (markers[i].line == line) return &markers[i];
  return nullptr;
}

// [SECTION] Drawing a line

typedef struct TabLayout {
  ImFont *font;
  float font_size, line_height, char_width, gutter_width;
  ImVec2 origin;      // screen position of line 0, column 0 of the text (after the gutter)
  u32 tab;            // columns per tab stop
  s32 current_line;   // 0-based line of the target in this file, -1 for none
  bool top_frame;
  u32 selection_begin, selection_end;  // byte offsets, begin <= end
  const Marker *markers;
  u32 marker_count;
  ImU32 foreground;
} TabLayout;

static void DrawMarker(ImDrawList *draw, ImVec2 centre, float radius, u8 kind) {
  switch (kind) {
    case kMarkerPending: draw->AddCircle(centre, radius, kBreakpointColour, 0, 2.0f); break;
    case kMarkerDisabled: draw->AddCircle(centre, radius, kDisabledColour, 0, 2.0f); break;
    case kMarkerConditionError:
      draw->AddCircleFilled(centre, radius, kConditionErrorColour);
      draw->AddLine(ImVec2(centre.x, centre.y - radius * 0.6f), ImVec2(centre.x, centre.y + radius * 0.2f), IM_COL32(0, 0, 0, 255), 2.0f);
      break;
    default: draw->AddCircleFilled(centre, radius, kBreakpointColour);
  }
}

// One line: the gutter stays at the window's left edge while the text scrolls sideways under it.
// Nothing is clipped per line (each clip would cost a draw call): the text starts at the first
// column wholly right of the gutter, and the bands start at the gutter's edge.
static void DrawLine(const SourceTab *tab, const TabLayout *l, u32 line, ImVec2 at, float width) {
  ImDrawList *draw = ImGui::GetWindowDrawList();
  const char *begin, *end;
  SourceTextLine(&tab->text, line, &begin, &end);
  float h = l->line_height, text_x = at.x + l->gutter_width;
  float scroll_x = ImGui::GetScrollX(), gutter_x = at.x + scroll_x, edge = gutter_x + l->gutter_width;
  bool current = (s32)line == l->current_line;
  if (current) draw->AddRectFilled(ImVec2(edge, at.y), ImVec2(gutter_x + width, at.y + h), l->top_frame ? kTopFrameLineColour : kOtherFrameLineColour);
  // The selection's part of this line.
  u32 start = tab->text.line_starts[line], stop = start + (u32)(end - begin);
  if (l->selection_begin < l->selection_end && l->selection_begin <= stop && l->selection_end >= start) {
    u32 from = l->selection_begin > start ? l->selection_begin - start : 0;
    u32 to = l->selection_end < stop ? l->selection_end - start : (u32)(end - begin) + 1;
    float x0 = text_x + ColumnOfByte(begin, end, from, l->tab) * l->char_width;
    float x1 = text_x + (ColumnOfByte(begin, end, to, l->tab) + (to > (u32)(end - begin) ? 1 : 0)) * l->char_width;
    if (x0 < edge) x0 = edge;
    if (x1 > x0) draw->AddRectFilled(ImVec2(x0, at.y), ImVec2(x1, at.y + h), kSelectionColour);
  }
  if (line == tab->cursor_line && ImGui::IsWindowFocused()) {
    float x = text_x + ColumnOfByte(begin, end, tab->cursor_column, l->tab) * l->char_width;
    if (x >= edge) draw->AddLine(ImVec2(x, at.y), ImVec2(x, at.y + h), kCursorColour);
  }
  // The text from the first column wholly right of the gutter on.
  u32 first = scroll_x > 0 ? (u32)(scroll_x / l->char_width + 0.999f) : 0;
  static char expanded[kExpandedCapacity];
  u32 n = Expand(begin, end, first, l->tab, expanded, sizeof expanded);
  draw->AddText(l->font, l->font_size, ImVec2(text_x + first * l->char_width, at.y), l->foreground, expanded, expanded + n);
  // Gutter: its background over text that scrolled under it, the marker, the current-line arrow,
  // the number.
  if (scroll_x > 0) draw->AddRectFilled(ImVec2(gutter_x, at.y), ImVec2(edge, at.y + h), ImGui::GetColorU32(ImGuiCol_ChildBg));
  float radius = h * 0.32f;
  ImVec2 centre(gutter_x + h * 0.5f, at.y + h * 0.5f);
  if (const Marker *m = MarkerOnLine(l->markers, l->marker_count, line)) DrawMarker(draw, centre, radius, m->kind);
  if (current) {
    float x = gutter_x + h * 0.3f;  // inside a breakpoint's circle, whose rim stays visible
    draw->AddTriangleFilled(ImVec2(x, at.y + h * 0.3f), ImVec2(x + h * 0.45f, at.y + h * 0.5f), ImVec2(x, at.y + h * 0.7f),
                            l->top_frame ? kTopFrameColour : kOtherFrameColour);
  }
  char number[16];
  int digits = snprintf(number, sizeof number, "%u", line + 1);
  float number_x = edge - (digits + 1) * l->char_width;
  draw->AddText(l->font, l->font_size, ImVec2(number_x, at.y), kLineNumberColour, number, number + digits);
}

// [SECTION] Mouse and keys

static u32 OffsetOf(const SourceText *text, u32 line, u32 column) {
  if (line >= text->line_count) line = text->line_count - 1;
  const char *begin, *end;
  SourceTextLine(text, line, &begin, &end);
  if (column > (u32)(end - begin)) column = (u32)(end - begin);
  return text->line_starts[line] + column;
}

// The (line, byte column) under a screen position of the text area.
static void PlaceAt(const SourceTab *tab, const TabLayout *l, ImVec2 mouse, u32 *line, u32 *column) {
  float y = (mouse.y - l->origin.y) / l->line_height;
  u32 row = y <= 0 ? 0 : (u32)y;
  if (row >= tab->text.line_count) row = tab->text.line_count - 1;
  float x = (mouse.x - l->origin.x - l->gutter_width) / l->char_width;
  const char *begin, *end;
  SourceTextLine(&tab->text, row, &begin, &end);
  *line = row;
  *column = ByteOfColumn(begin, end, x <= 0 ? 0 : (u32)x, l->tab);
}

static void CopySelection(const SourceTab *tab, const TabLayout *l) {
  if (l->selection_begin >= l->selection_end) return;
  u32 n = l->selection_end - l->selection_begin;
  char *copy = (char *)malloc((size_t)n + 1);  // a user's action, not the frame's work
  if (!copy) return;
  memcpy(copy, tab->text.bytes + l->selection_begin, n);
  copy[n] = 0;
  ImGui::SetClipboardText(copy);
  free(copy);
}

static void MoveCursor(SourceTab *tab, s64 lines, bool extend) {
  s64 line = (s64)tab->cursor_line + lines;
  if (line < 0) line = 0;
  if (line >= (s64)tab->text.line_count) line = tab->text.line_count - 1;
  tab->cursor_line = (u32)line;
  if (!extend) {
    tab->anchor_line = tab->cursor_line;
    tab->anchor_column = tab->cursor_column;
  }
  tab->scroll_to_line = (s32)line;
}

static void TakeKeys(AppState *app, SourceTab *tab, const TabLayout *l, SourceViewRequests *r, s32 index, float page) {
  ImGuiIO &io = ImGui::GetIO();
  if (io.KeyCtrl && ImGui::IsKeyPressed(ImGuiKey_C)) CopySelection(tab, l);
  if (io.KeyCtrl && ImGui::IsKeyPressed(ImGuiKey_A)) {
    tab->anchor_line = tab->anchor_column = 0;
    tab->cursor_line = tab->text.line_count - 1;
    tab->cursor_column = tab->text.line_starts[tab->text.line_count] - tab->text.line_starts[tab->cursor_line];
  }
  s64 page_lines = page > l->line_height ? (s64)(page / l->line_height) - 1 : 1;
  if (ImGui::IsKeyPressed(ImGuiKey_UpArrow)) MoveCursor(tab, -1, io.KeyShift);
  if (ImGui::IsKeyPressed(ImGuiKey_DownArrow)) MoveCursor(tab, 1, io.KeyShift);
  if (ImGui::IsKeyPressed(ImGuiKey_PageUp)) MoveCursor(tab, -page_lines, io.KeyShift);
  if (ImGui::IsKeyPressed(ImGuiKey_PageDown)) MoveCursor(tab, page_lines, io.KeyShift);
  if (io.KeyCtrl && ImGui::IsKeyPressed(ImGuiKey_Home)) MoveCursor(tab, -(s64)tab->text.line_count, io.KeyShift);
  if (io.KeyCtrl && ImGui::IsKeyPressed(ImGuiKey_End)) MoveCursor(tab, tab->text.line_count, io.KeyShift);
  if (ImGui::IsKeyChordPressed(ImGuiKey_F9)) {  // a breakpoint on the cursor's line, or off again
    const Marker *m = MarkerOnLine(l->markers, l->marker_count, tab->cursor_line);
    r->toggle_tab = index;
    r->toggle_line = tab->cursor_line + 1;
    r->toggle_breakpoint = m ? m->id : 0;
  }
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiKey_F10)) {
    r->run_to_tab = index;
    r->run_to_line = tab->cursor_line + 1;
    r->run_to_reason = 2;
  }
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiMod_Shift | ImGuiKey_F10) && app->debug_state == kDebugSuspended) {
    r->set_next_tab = index;
    r->set_next_line = tab->cursor_line + 1;
  }
}

// Clicks and drags in the text area (the child window): the margin toggles a breakpoint, the text
// places the cursor (Shift extends the selection, a drag selects), the right button opens the menu.
static void TakeMouse(AppState *app, SourceViewState *view, SourceViewRequests *r, SourceTab *tab, const TabLayout *l, s32 index) {
  ImVec2 mouse = ImGui::GetMousePos();
  // The text itself: not the child's scrollbars, which are items of their own.
  bool hovered = ImGui::IsWindowHovered() && !ImGui::IsAnyItemHovered() && !ImGui::IsAnyItemActive();
  bool in_margin = mouse.x < l->origin.x + ImGui::GetScrollX() + l->gutter_width;
  u32 line, column;
  PlaceAt(tab, l, mouse, &line, &column);
  if (hovered && ImGui::IsMouseClicked(ImGuiMouseButton_Left)) {
    if (in_margin && mouse.y - l->origin.y < tab->text.line_count * l->line_height) {
      const Marker *m = MarkerOnLine(l->markers, l->marker_count, line);
      r->toggle_tab = index;
      r->toggle_line = line + 1;
      r->toggle_breakpoint = m ? m->id : 0;
    } else if (!in_margin) {
      tab->cursor_line = line;
      tab->cursor_column = column;
      if (!ImGui::GetIO().KeyShift) {
        tab->anchor_line = line;
        tab->anchor_column = column;
      }
      view->selecting = true;
    }
  }
  if (view->selecting && ImGui::IsMouseDown(ImGuiMouseButton_Left) && app->sources.active == index) {
    tab->cursor_line = line;
    tab->cursor_column = column;
  }
  if (!ImGui::IsMouseDown(ImGuiMouseButton_Left)) view->selecting = false;
  if (hovered && ImGui::IsMouseClicked(ImGuiMouseButton_Right)) {
    u32 offset = OffsetOf(&tab->text, line, column);
    if (offset < l->selection_begin || offset > l->selection_end) {
      tab->cursor_line = tab->anchor_line = line;
      tab->cursor_column = tab->anchor_column = column;
    }
    view->menu_tab = index;
    view->menu_line = line;
    ImGui::OpenPopup("##txtmenu");
  }
  // Hover: an identifier rested on for the tool-tip delay is handed to the evaluator's hook.
  const Settings *s = &app->settings;
  const char *begin, *end;
  SourceTextLine(&tab->text, line, &begin, &end);
  u32 from, to;
  if (!s->evaluate_on_hover || !hovered || in_margin || !SourceIdentifierAt(begin, end, column, &from, &to)) {
    if (view->hover_tab == index) view->hover_tab = -1;
    return;
  }
  u32 at = tab->text.line_starts[line] + from;
  double now = ImGui::GetTime();
  if (view->hover_tab != index || view->hover_offset != at) {
    view->hover_tab = index;
    view->hover_offset = at;
    view->hover_since = now;
    return;
  }
  if ((now - view->hover_since) * 1000.0 < s->tooltip_delay_ms || to - from >= kSourceHoverCapacity) return;
  memcpy(r->hover_expression, begin + from, to - from);
  r->hover_expression[to - from] = 0;
  // Shown once the tab's text is logged (a tool-tip window ends the text capture of a frame).
  view->show_hover = view->hover_value != nullptr;
}

// [SECTION] Tab

static float TextWidth(ImFont *font, float size, const char *text) {
  return font->CalcTextSizeA(size, 1e9f, 0.0f, text).x;
}

// What the tab shows, for the UI tests' text dumps (the text itself is drawn without Dear ImGui's
// text calls, which the capture would see).
static void LogTab(const SourceTab *tab, const TabLayout *l, u32 first, u32 last) {
  ImGui::LogText("file %s (%u lines)\n", tab->path, tab->text.line_count);
  // Where line 1 starts and how tall lines are, so that a test can click a line as a user would.
  ImGui::LogText("visible lines %u-%u, line 1 at %.0f,%.0f, margin %.0f, line height %.0f, column width %.2f\n",
                 first + 1, last, l->origin.x, l->origin.y, l->gutter_width, l->line_height, l->char_width);
  if (l->current_line >= 0) ImGui::LogText("current line %d (%s)\n", l->current_line + 1, l->top_frame ? "top frame" : "selected frame");
  for (u32 i = 0; i < l->marker_count; i++)
    ImGui::LogText("breakpoint line %u %s\n", l->markers[i].line + 1, kMarkerNames[l->markers[i].kind]);
  ImGui::LogText("cursor line %u column %u\n", tab->cursor_line + 1, tab->cursor_column + 1);
  if (l->selection_begin < l->selection_end)
    ImGui::LogText("selection from line %u column %u\n", tab->anchor_line + 1, tab->anchor_column + 1);
}

static void DrawTabText(AppState *app, SourceViewState *view, SourceViewRequests *r, SourceTab *tab, s32 index, ImFont *font) {
  const Settings *s = &app->settings;
  static Marker markers[kMarkerCapacity];
  TabLayout l = {};
  l.font = font ? font : ImGui::GetFont();
  l.font_size = font ? font->FontSize : ImGui::GetFontSize();
  l.line_height = l.font_size + 2.0f;
  l.char_width = TextWidth(l.font, l.font_size, "M");
  l.tab = s->text_tab_spacing > 0 ? (u32)s->text_tab_spacing : 4;
  char digits[16];
  snprintf(digits, sizeof digits, "%u", tab->text.line_count);
  l.gutter_width = l.line_height + (strlen(digits) + 2) * l.char_width;
  l.current_line = app->location_line && SourcePathsEqual(app->location_file, tab->path) ? (s32)app->location_line - 1 : -1;
  l.top_frame = app->location_top_frame;
  u32 a = OffsetOf(&tab->text, tab->anchor_line, tab->anchor_column), c = OffsetOf(&tab->text, tab->cursor_line, tab->cursor_column);
  l.selection_begin = a < c ? a : c;
  l.selection_end = a < c ? c : a;
  l.markers = markers;
  l.marker_count = CollectMarkers(app, tab, markers, kMarkerCapacity);
  l.foreground = ImGui::ColorConvertFloat4ToU32(ImVec4(s->text_foreground.r, s->text_foreground.g, s->text_foreground.b, 1.0f));
  ImU32 background = ImGui::ColorConvertFloat4ToU32(ImVec4(s->text_background.r, s->text_background.g, s->text_background.b, 1.0f));

  ImGui::PushStyleColor(ImGuiCol_ChildBg, background);
  ImGui::PushStyleVar(ImGuiStyleVar_ItemSpacing, ImVec2(0, 0));
  ImGui::BeginChild("##text", ImVec2(0, 0), false, ImGuiWindowFlags_HorizontalScrollbar | ImGuiWindowFlags_NoNav);
  float visible_height = ImGui::GetWindowHeight();
  if (tab->scroll_to_line >= 0) {
    float y = tab->scroll_to_line * l.line_height, top = ImGui::GetScrollY();
    if (y < top || y + l.line_height > top + visible_height - ImGui::GetStyle().ScrollbarSize)
      ImGui::SetScrollY(y - visible_height / 3 > 0 ? y - visible_height / 3 : 0);
    tab->scroll_to_line = -1;
  }
  l.origin = ImGui::GetCursorScreenPos();
  float width = l.gutter_width + (tab->text.longest_line + 2) * l.char_width;
  float visible_width = ImGui::GetWindowWidth();
  if (width < visible_width) width = visible_width;
  ImGuiListClipper clipper;
  clipper.Begin((int)tab->text.line_count, l.line_height);
  u32 first = 0, last = 0;
  while (clipper.Step()) {
    if (!last) first = (u32)clipper.DisplayStart;
    for (int i = clipper.DisplayStart; i < clipper.DisplayEnd; i++) {
      DrawLine(tab, &l, (u32)i, ImGui::GetCursorScreenPos(), visible_width);
      ImGui::Dummy(ImVec2(width, l.line_height));
    }
    if (clipper.DisplayEnd > 0) last = (u32)clipper.DisplayEnd;
  }
  bool focused = ImGui::IsWindowFocused();
  if (focused) app->sources.active = index;
  TakeMouse(app, view, r, tab, &l, index);
  if (focused) TakeKeys(app, tab, &l, r, index, visible_height);
  if (TextCaptureActive()) LogTab(tab, &l, first, last);
  if (view->show_hover) {
    if (TextCaptureActive()) ImGui::LogText("hover %s = %s\n", r->hover_expression, view->hover_value);
    ImGui::SetTooltip("%s = %s", r->hover_expression, view->hover_value);
    view->show_hover = false;
  }
  DrawSourceContextMenu(app, view, r, tab, index);
  ImGui::EndChild();
  ImGui::PopStyleVar();
  ImGui::PopStyleColor();
}

static void DrawTab(AppState *app, SourceViewState *view, SourceViewRequests *r, u32 index, ImFont *font, u32 dock_id) {
  SourceTab *tab = app->sources.tabs[index];
  if (dock_id) ImGui::SetNextWindowDockID(dock_id, ImGuiCond_FirstUseEver);
  if (tab->focus) {
    ImGui::SetNextWindowFocus();
    app->sources.active = (s32)index;
    tab->focus = 0;
  }
  bool open = true;
  bool shown = ImGui::Begin(tab->title, &open);
  DrawSourceTabMenu(tab, r, (s32)index);
  if (shown) {
    TextCaptureWindow(tab->title);
    if (ImGui::IsWindowFocused(ImGuiFocusedFlags_RootAndChildWindows)) app->sources.active = (s32)index;
    if (tab->checksum == kChecksumDiffers) {
      ImGui::TextColored(ImVec4(1.0f, 0.8f, 0.2f, 1.0f), "Warning: source file on disk does not match checksum in symbol file");
      if (TextCaptureActive()) ImGui::LogText("\n");
    }
    DrawTabText(app, view, r, tab, (s32)index, font);
  }
  ImGui::End();
  if (!open) r->close_tab = (s32)index;
}

void DrawSourceTabs(AppState *app, SourceViewState *view, SourceViewRequests *r, ImFont *font, u32 dock_id) {
  for (u32 i = 0; i < app->sources.count; i++) DrawTab(app, view, r, i, font, dock_id);
  DrawSourcePopups(app, view);
}
