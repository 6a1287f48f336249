#include "ui/target_windows.h"

#include <imgui.h>
#include <imgui_internal.h>
#include <stdarg.h>
#include <stdio.h>

#include "engine/engine.h"
#include "engine/frame_parameters.h"
#include "ui/list_selection.h"
#include "ui/text_capture.h"

static const ImU32 kCurrentRowColour = IM_COL32(255, 216, 55, 255);
static const ImU32 kSelectedFrameColour = IM_COL32(206, 231, 206, 255);
static const ImU32 kCollapsedOutlineColour = IM_COL32(255, 0, 0, 255);
static const ImU32 kFrozenColour = IM_COL32(255, 81, 1, 255), kFrozenHoveredColour = IM_COL32(216, 35, 35, 255);
static const ImU32 kSoloColour = IM_COL32(111, 211, 48, 255), kSoloHoveredColour = IM_COL32(96, 181, 41, 255);
static const float kMarkerColumnWidth = 24.0f;
enum { kCellCapacity = 1280 };

void TargetWindowRequestsClear(TargetWindowRequests *requests) {
  *requests = {};
  requests->select_frame = -1;
  requests->collapse_repeated = -1;
}

// The model is read only at a stop, under the engine's lock: false (nothing held) otherwise.
static bool LockStoppedTarget(AppState *app) {
  return app->target && app->debug_state == kDebugSuspended && EngineTryLockModel(app->target);
}

static const char *ModuleName(const TargetModule *module) {
  return module && module->symbols.name ? module->symbols.name : "";
}

// A frame's function as the lists show it: the procedure's name, or the module and address when no
// symbols know the address.
static void FrameFunction(const StackFrame *frame, char *out, u32 capacity) {
  char inlined[kScopeNameCapacity];
  if (frame->procedure)
    snprintf(out, capacity, "%s%s", frame->inline_site ? "[Inline Frame] " : "",
             StackFrameFunctionName(frame, inlined, sizeof inlined));
  else if (frame->module)
    snprintf(out, capacity, "%s!%llX", ModuleName(frame->module), (unsigned long long)frame->ip);
  else
    snprintf(out, capacity, "%llX", (unsigned long long)frame->ip);
}

// A window's context menu. Its table fills it and scrolls in a child window of its own, which
// Dear ImGui's window context menu does not count as the window: a right click over either opens it.
static bool BeginWindowMenu(const char *id) {
  if (ImGui::IsMouseReleased(ImGuiMouseButton_Right) &&
      ImGui::IsWindowHovered(ImGuiHoveredFlags_ChildWindows | ImGuiHoveredFlags_AllowWhenBlockedByPopup))
    ImGui::OpenPopup(id);
  if (!ImGui::BeginPopup(id)) return false;
  TextCaptureWindow(id);
  return true;
}

// [SECTION] Call stack

static void DrawCallStackMenu(AppState *app, TargetWindowRequests *requests, const TargetThread *thread,
                              s32 selected, u32 count) {
  if (!BeginWindowMenu("callstack-wnd")) return;
  Settings *s = &app->settings;
  if (ImGui::MenuItem("Next Frame", "Ctrl+Up", false, selected > 0)) requests->select_frame = selected - 1;
  if (ImGui::MenuItem("Prev Frame", "Ctrl+Down", false, count && (u32)selected + 1 < count))
    requests->select_frame = selected + 1;
  ImGui::Separator();
  static const char *const kVerbosities[] = {"Minimal", "Top Frame Detailed", "Detailed"};
  for (u32 i = 0; i < KTRN_ARRAY_COUNT(kVerbosities); i++)
    if (ImGui::MenuItem(kVerbosities[i], nullptr, s->callstack_verbosity == i)) s->callstack_verbosity = (u8)i;
  if (thread && thread->stack_overflow_seen) {
    ImGui::Separator();
    bool collapsing = app->target->collapse_stack_overflow != 0;
    if (ImGui::MenuItem("Collapse Repeated Frames", nullptr, collapsing)) requests->collapse_repeated = !collapsing;
  }
  ImGui::Separator();
  bool module = s->callstack_show_module_name, address = s->callstack_show_address;
  if (ImGui::MenuItem("Module Name", nullptr, &module)) s->callstack_show_module_name = module;
  ImGui::MenuItem("Function Name", nullptr, true, false);
  if (ImGui::MenuItem("Address", nullptr, &address)) s->callstack_show_address = address;
  ImGui::EndPopup();
}

// Parameter lists of the frames drawn, kept for the stop they were made at (the window draws every
// frame; the values change only when the target has run). The user-interface thread's alone.
enum : u32 { kParameterCacheSlots = 32 };
typedef struct ParameterCacheSlot {
  u32 stop;  // the engine's stop number; 0: empty
  u32 symbols;  // the engine's count of symbol reloads
  u32 thread_id;
  u32 frame;
  FrameParameters list;
} ParameterCacheSlot;
static ParameterCacheSlot g_parameter_cache[kParameterCacheSlots];

static const FrameParameters *CachedParameters(AppState *app, TargetThread *thread, u32 index) {
  u32 stop = app->target->stop_generation;
  ParameterCacheSlot *slot = &g_parameter_cache[(index * 7 + thread->id) % kParameterCacheSlots];
  u32 symbols = app->target->symbols_generation;
  if (slot->stop != stop || slot->symbols != symbols || slot->thread_id != thread->id || slot->frame != index) {
    slot->stop = stop;
    slot->symbols = symbols;
    slot->thread_id = thread->id;
    slot->frame = index;
    (void)EngineFrameParameters(app->target, thread, index, &slot->list);
  }
  return &slot->list;
}

static void AppendCell(char *cell, u32 *used, const char *format, ...) __attribute__((format(printf, 3, 4)));
static void AppendCell(char *cell, u32 *used, const char *format, ...) {
  if (*used >= kCellCapacity - 1) return;
  va_list arguments;
  va_start(arguments, format);
  int n = vsnprintf(cell + *used, kCellCapacity - *used, format, arguments);
  va_end(arguments);
  if (n > 0) *used = *used + (u32)n < kCellCapacity - 1 ? *used + (u32)n : kCellCapacity - 1;
}

// The detailed function cell: the return type and name, one line per parameter with its value in
// the form its class asks for, then the line. Returns the number of parameters listed.
static u32 DetailedFunctionCell(const char *function, const FrameParameters *list, u32 line, char *cell) {
  u32 used = 0;
  cell[0] = 0;
  if (list->return_type[0])
    AppendCell(cell, &used, "%s %s(", list->return_type, function);
  else
    AppendCell(cell, &used, "%s(", function);
  FrameParameter p;
  u32 offset = 0, n = 0;
  while (FrameParameterNext(list, &offset, &p)) {
    n++;
    char last = n == list->count ? ' ' : ',';
    char type[256], name[256];
    snprintf(type, sizeof type, "%.*s", (int)p.type_length, p.type);
    snprintf(name, sizeof name, "%.*s", (int)p.name_length, p.name);
    if (!type[0]) snprintf(type, sizeof type, "<unknown-type>");
    if (!name[0]) snprintf(name, sizeof name, "<unknown-param-name>");
    switch (p.value_class) {
      case kParameterNamedSigned:
        AppendCell(cell, &used, "\n   %s %s = %.*s (%lld)", type, name, (int)p.value_length, p.value, (long long)p.number);
        break;
      case kParameterNamedUnsigned:
        AppendCell(cell, &used, "\n   %s %s = %.*s (%llu)", type, name, (int)p.value_length, p.value,
                   (unsigned long long)p.number);
        break;
      // Pointers as "%p" writes them on Windows: sixteen upper-case digits.
      case kParameterPointer: AppendCell(cell, &used, "\n   %s %s = %016llX", type, name, (unsigned long long)p.number); break;
      case kParameterInteger: AppendCell(cell, &used, "\n   %s %s = %lld", type, name, (long long)p.number); break;
      case kParameterAggregate: AppendCell(cell, &used, "\n   %s %s = { ... }", type, name); break;
      case kParameterText: AppendCell(cell, &used, "\n   %s %s = %.*s", type, name, (int)p.value_length, p.value); break;
      default: AppendCell(cell, &used, "\n   <unknown-type> %s = ???", name); break;
    }
    if (last == ',') AppendCell(cell, &used, ",");
  }
  if (line)
    AppendCell(cell, &used, ") Ln %d", (int)line);
  else
    AppendCell(cell, &used, ")");
  return n;
}

// A detailed row's lines: the function and its return type, then one per parameter (the line number
// ends the last).
static u32 DetailedLines(u32 parameters) { return 1 + parameters; }

static void DrawFrameRow(AppState *app, TargetWindowRequests *requests, TargetThread *thread, const StackFrame *frame,
                         u32 index, s32 selected) {
  const Settings *s = &app->settings;
  ImGui::TableNextRow();
  if (index == 0) ImGui::TableSetBgColor(ImGuiTableBgTarget_RowBg0, kCurrentRowColour);
  else if ((s32)index == selected) ImGui::TableSetBgColor(ImGuiTableBgTarget_RowBg0, kSelectedFrameColour);
  ImGui::TableNextColumn();
  ImGui::PushID((int)index);
  bool coloured = index == 0 || (s32)index == selected;
  if (coloured) ImGui::PushStyleColor(ImGuiCol_Text, IM_COL32(0, 0, 0, 255));
  if (ImGui::Selectable("##frame", false, ImGuiSelectableFlags_SpanAllColumns)) requests->select_frame = (s32)index;
  if (TextCaptureActive()) {  // where the row is, for the tests that click on it
    ImVec2 low = ImGui::GetItemRectMin();
    ImGui::LogText("frame %u at %.0f,%.0f\n", index, low.x, low.y);
  }
  bool detailed = !frame->collapsed && frame->procedure &&
                  (s->callstack_verbosity == 2 || (s->callstack_verbosity == 1 && index == 0));
  char cell[kCellCapacity];
  char function[kCellCapacity - 32];
  FrameFunction(frame, function, sizeof function);
  u32 parameters = detailed ? DetailedFunctionCell(function, CachedParameters(app, thread, index), frame->line, cell) : 0;
  if (s->callstack_show_module_name) {
    ImGui::TableNextColumn();
    if (!frame->collapsed) {
      // As tall as the function cell (DetailedLines).
      char module[256 + 80];
      u32 breaks = DetailedLines(parameters) - 1;
      int n = snprintf(module, sizeof module - 80, "%s", ModuleName(frame->module));
      for (u32 i = 0; i < breaks && n > 0 && (u32)n < sizeof module - 1; i++) module[n++] = '\n';
      module[n > 0 ? n : 0] = 0;
      ImGui::TextUnformatted(module);
    }
  }
  ImGui::TableNextColumn();
  if (frame->collapsed) {
    snprintf(cell, sizeof cell, "Collapsed %d frames (possible stack-overflow)", (int)frame->collapsed_count);
    ImGui::TextUnformatted(cell);
    ImVec2 low = ImGui::GetItemRectMin(), high = ImGui::GetItemRectMax();
    ImGui::GetWindowDrawList()->AddRect(ImVec2(low.x - 2, low.y - 1), ImVec2(high.x + 2, high.y + 1),
                                        kCollapsedOutlineColour, 4.0f, ImDrawFlags_RoundCornersAll, 2.0f);
  } else if (detailed) {
    ImGui::TextUnformatted(cell);
  } else {
    if (!frame->procedure) snprintf(cell, sizeof cell, "%s", function);  // no symbols: no call to show
    else if (frame->line) snprintf(cell, sizeof cell, "%s() Ln %d", function, (int)frame->line);
    else snprintf(cell, sizeof cell, "%s()", function);
    ImGui::TextUnformatted(cell);
  }
  if (s->callstack_show_address) {
    ImGui::TableNextColumn();
    if (!frame->collapsed) ImGui::Text("%llX", (unsigned long long)frame->ip);
  }
  if (coloured) ImGui::PopStyleColor();
  ImGui::PopID();
}

// The number of text lines of each frame's row at "Detailed", made once per stop and thread: the rows' heights differ, and only the rows in view are
// drawn, the others standing as two spacer rows of their summed height.
typedef struct DetailedRowLines {
  u32 stop, symbols, thread_id, count;
  u16 lines[kMaxStackFrames + 1];
} DetailedRowLines;
static DetailedRowLines g_row_lines;

static const DetailedRowLines *RowLines(AppState *app, TargetThread *thread, const StackFrame *frames, u32 count) {
  DetailedRowLines *r = &g_row_lines;
  u32 stop = app->target->stop_generation, symbols = app->target->symbols_generation;
  if (r->stop == stop && r->symbols == symbols && r->thread_id == thread->id && r->count == count) return r;
  r->stop = stop;
  r->symbols = symbols;
  r->thread_id = thread->id;
  r->count = count;
  for (u32 i = 0; i < count && i < KTRN_ARRAY_COUNT(r->lines); i++) {
    u32 parameters = 0;
    if (!frames[i].collapsed && frames[i].procedure) {
      const FrameParameters *list = CachedParameters(app, thread, i);
      FrameParameter p;
      for (u32 offset = 0; FrameParameterNext(list, &offset, &p);) parameters++;
    }
    r->lines[i] = (u16)DetailedLines(parameters);
  }
  return r;
}

// Every row at "Detailed", only those in view drawn.
static void DrawDetailedRows(AppState *app, TargetWindowRequests *requests, TargetThread *thread,
                             const StackFrame *frames, u32 count, s32 selected) {
  if (count > KTRN_ARRAY_COUNT(g_row_lines.lines)) count = KTRN_ARRAY_COUNT(g_row_lines.lines);
  const DetailedRowLines *r = RowLines(app, thread, frames, count);
  float line = ImGui::GetFontSize(), padding = ImGui::GetStyle().CellPadding.y * 2.0f;
  float top = ImGui::GetScrollY(), bottom = top + ImGui::GetWindowHeight();
  float y = 0, above = 0;
  u32 first = 0;
  for (; first < count && y + r->lines[first] * line + padding < top; first++) y += r->lines[first] * line + padding;
  above = y;
  u32 end = first;
  for (; end < count && y < bottom; end++) y += r->lines[end] * line + padding;
  float below = 0;
  for (u32 i = end; i < count; i++) below += r->lines[i] * line + padding;
  if (above > 0) ImGui::TableNextRow(0, above);
  for (u32 i = first; i < end; i++) DrawFrameRow(app, requests, thread, &frames[i], i, selected);
  if (below > 0) ImGui::TableNextRow(0, below);
}

void DrawCallStackWindow(AppState *app, TargetWindowRequests *requests) {
  if (!LockStoppedTarget(app)) return;
  TargetThread *thread = app->target->current_thread;
  EngineUnlockModel(app->target);
  // The stack is built on first request under the engine's own hold of the lock; the rows are then
  // read under ours, so that no engine command rewrites them meanwhile.
  const StackFrame *frames = nullptr;
  u32 count = thread ? EngineThreadStack(app->target, thread, &frames) : 0;
  if (!LockStoppedTarget(app)) return;
  s32 selected = thread ? thread->selected_frame : 0;
  const Settings *s = &app->settings;
  int columns = 2 + (s->callstack_show_module_name ? 1 : 0) + (s->callstack_show_address ? 1 : 0);
  ImGuiTableFlags flags = ImGuiTableFlags_Resizable | ImGuiTableFlags_ScrollY | ImGuiTableFlags_BordersInnerV;
  if (ImGui::BeginTable("tbl", columns, flags)) {
    ImGui::TableSetupScrollFreeze(0, 1);
    ImGui::TableSetupColumn("", ImGuiTableColumnFlags_WidthFixed, kMarkerColumnWidth);
    if (s->callstack_show_module_name) ImGui::TableSetupColumn("Module Name");
    ImGui::TableSetupColumn("Function Name", ImGuiTableColumnFlags_WidthStretch);
    if (s->callstack_show_address) ImGui::TableSetupColumn("Address");
    ImGui::TableHeadersRow();
    // Minimal rows are one line each and only the visible ones are drawn; with "Top Frame Detailed"
    // the tall top row is drawn first; "Detailed" rows differ in height (DrawDetailedRows).
    u32 first = 0;
    if (s->callstack_verbosity == 1 && count) {
      DrawFrameRow(app, requests, thread, &frames[0], 0, selected);
      first = 1;
    }
    if (s->callstack_verbosity == 2 && count) {
      DrawDetailedRows(app, requests, thread, frames, count, selected);
    } else {
      ImGuiListClipper clipper;
      clipper.Begin((int)(count - first));
      while (clipper.Step())
        for (int i = clipper.DisplayStart; i < clipper.DisplayEnd; i++)
          DrawFrameRow(app, requests, thread, &frames[first + i], first + (u32)i, selected);
    }
    ImGui::EndTable();
  }
  // The menu's shortcuts: Ctrl+Up towards frame 0 ("Next Frame"), Ctrl+Down away from it.
  if (ImGui::IsWindowFocused(ImGuiFocusedFlags_ChildWindows) && ImGui::GetIO().KeyCtrl) {
    if (ImGui::IsKeyPressed(ImGuiKey_UpArrow) && selected > 0) requests->select_frame = selected - 1;
    if (ImGui::IsKeyPressed(ImGuiKey_DownArrow) && count && (u32)selected + 1 < count) requests->select_frame = selected + 1;
  }
  DrawCallStackMenu(app, requests, thread, selected, count);
  EngineUnlockModel(app->target);
}

// [SECTION] Copied rows

// Rows as "Copy" writes them: the cells separated by tabs, one line a row, as spreadsheets and
// editors take them in.
static void AppendCopiedRow(ImGuiTextBuffer *out, const char *const *cells, u32 count) {
  for (u32 i = 0; i < count; i++) out->appendf("%s%s", i ? "\t" : "", cells[i]);
  out->append("\n");
}

// The rows of a list window fit the page keys' step: those in view less the header.
static u32 RowsInView(void) {
  float row = ImGui::GetTextLineHeight() + 2 * ImGui::GetStyle().CellPadding.y;
  float rows = ImGui::GetContentRegionAvail().y / row;
  return rows > 2 ? (u32)rows - 1 : 1;
}

// A click on a row's selectable (the right button too, so that the context menu acts on that row).
static void ClickRow(ListSelection *selection, const u64 *rows, u32 row_count, u32 row, bool clicked) {
  if (!clicked && !ImGui::IsItemClicked(ImGuiMouseButton_Right)) return;
  const ImGuiIO &io = ImGui::GetIO();
  ListSelectionClick(selection, rows, row_count, row, clicked && io.KeyCtrl, clicked && io.KeyShift);
}

// The table's own window takes the arrows, pages, Home and End as the selection keys, not as
// Dear ImGui's keyboard navigation between the rows' buttons.
static void TakeKeysFromNavigation(void) { ImGui::GetCurrentWindow()->Flags |= ImGuiWindowFlags_NoNavInputs; }

// The last item (the row the keys moved to) centred when it is not wholly in view.
static void ScrollIntoView(void) {
  const ImRect &clip = ImGui::GetCurrentWindow()->ClipRect;
  if (ImGui::GetItemRectMin().y < clip.Min.y || ImGui::GetItemRectMax().y > clip.Max.y) ImGui::SetScrollHereY(0.5f);
}

// The dumps' view of a row's highlight.
static void MarkSelectedForTests(bool selected) {
  if (selected && TextCaptureActive()) ImGui::LogText(" (selected)");
}

// [SECTION] Threads

static ListSelection g_thread_selection;  // by thread id

// A thread's cells past its id, as its row shows them and "Copy" writes them. The stack is built
// (once a stop) for the thread asked about only; a failed build shows no frames.
struct ThreadCells {
  char module[kModulePathCapacity];
  char function[kCellCapacity];
  char caller[kCellCapacity];
  char address[24];
  char priority[48];
};

static void ThreadCellsOf(Target *target, TargetThread *t, ThreadCells *c) {
  const StackFrame *frames = nullptr;
  u32 count = CallStackOfThread(target, t, &frames);
  c->module[0] = c->function[0] = c->caller[0] = c->address[0] = 0;
  if (count) {
    snprintf(c->module, sizeof c->module, "%s", ModuleName(frames[0].module));
    FrameFunction(&frames[0], c->function, sizeof c->function);
    snprintf(c->address, sizeof c->address, "%llX", (unsigned long long)frames[0].ip);
  }
  u32 caller = 1;
  while (caller < count && frames[caller].collapsed) caller++;
  if (caller < count) FrameFunction(&frames[caller], c->caller, sizeof c->caller);
  s32 priority = EngineThreadPriority(target, t);
  const char *name = EngineThreadPriorityName(priority);
  if (name[0]) snprintf(c->priority, sizeof c->priority, "%s (%d)", name, (int)priority);
  else snprintf(c->priority, sizeof c->priority, "%d", (int)priority);
}

// Every column, shown or not, in the table's order.
static void CopyThreadRows(Target *target, TargetThread *const *threads, u32 count) {
  ImGuiTextBuffer text;
  static ThreadCells cells;  // the user-interface thread's alone; too big for its stack
  for (u32 i = 0; i < count; i++) {
    TargetThread *t = threads[i];
    if (!ListSelected(&g_thread_selection, t->id)) continue;
    ThreadCellsOf(target, t, &cells);
    char id[16];
    snprintf(id, sizeof id, "%u", t->id);
    const char *row[] = {id, t->name, cells.module, cells.function, cells.caller, cells.address, cells.priority};
    AppendCopiedRow(&text, row, KTRN_ARRAY_COUNT(row));
  }
  ImGui::SetClipboardText(text.c_str());
}

static bool DrawThreadsMenu(Settings *s) {
  if (!BeginWindowMenu("threads-wnd")) return false;
  bool copy = ImGui::MenuItem("Copy", "Ctrl+C", false, g_thread_selection.count != 0);
  ImGui::Separator();
  ImGui::MenuItem("ID", nullptr, true, false);
  struct Column { const char *label; u8 *shown; };
  const Column columns[] = {{"Name", &s->threads_show_name},
                            {"Module", &s->threads_show_module},
                            {"Function Name", &s->threads_show_function_name},
                            {"Last Known Caller", &s->threads_show_calling_function_name},
                            {"Address", &s->threads_show_address},
                            {"Priority", &s->threads_show_priority}};
  for (const Column &c : columns) {
    bool on = *c.shown;
    if (ImGui::MenuItem(c.label, nullptr, &on)) *c.shown = on;
  }
  ImGui::EndPopup();
  return copy;
}

// A small button drawn in its colour while its state holds; true when clicked.
static bool FlagButton(const char *label, bool lit, ImU32 colour, ImU32 hovered, const char *tip) {
  if (lit) {
    ImGui::PushStyleColor(ImGuiCol_Button, colour);
    ImGui::PushStyleColor(ImGuiCol_ButtonHovered, hovered);
  }
  bool clicked = ImGui::SmallButton(label);
  if (lit) ImGui::PopStyleColor(2);
  if (ImGui::IsItemHovered(ImGuiHoveredFlags_DelayNormal)) ImGui::SetTooltip("%s", tip);
  return clicked;
}

// A list window's selection kept on this frame's rows (by key), then the selection keys taken while
// the window has focus and no menu is open.
static ListKeyAction FollowRows(ListSelection *selection, const u64 *keys, u32 count, s32 *moved_to) {
  ListSelectionKeepRows(selection, keys, count);
  if (!ImGui::IsWindowFocused(ImGuiFocusedFlags_ChildWindows) || ImGui::IsPopupOpen(nullptr, ImGuiPopupFlags_AnyPopup))
    return kListKeyNone;
  return ListSelectionKeys(selection, keys, count, RowsInView(), moved_to);
}

void DrawThreadsWindow(AppState *app, TargetWindowRequests *requests) {
  if (!LockStoppedTarget(app)) return;
  Target *target = app->target;
  Settings *s = &app->settings;
  const TargetThread *solo = nullptr;
  // The rows: every thread in the engine's order, with their ids as the selection's keys.
  static TargetThread *threads[kThreadPoolCount];
  static u64 ids[kThreadPoolCount];
  u32 thread_count = 0;
  for (TargetThread *t = target->threads; t && thread_count < kThreadPoolCount; t = t->next) {
    if (t->solo) solo = t;
    ids[thread_count] = t->id;
    threads[thread_count++] = t;
  }
  ListSelection *selection = &g_thread_selection;
  s32 moved_to = -1;
  ListKeyAction action = FollowRows(selection, ids, thread_count, &moved_to);
  int columns = 3 + s->threads_show_name + s->threads_show_module + s->threads_show_function_name +
                s->threads_show_calling_function_name + s->threads_show_address + s->threads_show_priority;
  if (ImGui::BeginTable("tbl", columns, ImGuiTableFlags_Resizable | ImGuiTableFlags_ScrollY | ImGuiTableFlags_BordersInnerV)) {
    TakeKeysFromNavigation();
    ImGui::TableSetupScrollFreeze(0, 1);
    ImGui::TableSetupColumn("", ImGuiTableColumnFlags_WidthFixed, kMarkerColumnWidth);
    ImGui::TableSetupColumn("", ImGuiTableColumnFlags_WidthFixed, 2 * kMarkerColumnWidth);
    ImGui::TableSetupColumn("ID");
    if (s->threads_show_name) ImGui::TableSetupColumn("Name");
    if (s->threads_show_module) ImGui::TableSetupColumn("Module");
    if (s->threads_show_function_name) ImGui::TableSetupColumn("Function Name");
    if (s->threads_show_calling_function_name) ImGui::TableSetupColumn("Last Known Caller");
    if (s->threads_show_address) ImGui::TableSetupColumn("Address");
    if (s->threads_show_priority) ImGui::TableSetupColumn("Priority");
    ImGui::TableHeadersRow();
    // Only the rows in view are drawn, and only their threads' stacks are built (under the lock
    // held here, once a stop each): two thousand threads cost the rows on screen. A row the keys
    // moved to is drawn too, to scroll it into view.
    ImGuiListClipper clipper;
    clipper.Begin((int)thread_count);
    if (moved_to >= 0) clipper.IncludeItemByIndex(moved_to);
    static ThreadCells cells;  // the user-interface thread's alone; too big for its stack
    while (clipper.Step()) {
      for (int row = clipper.DisplayStart; row < clipper.DisplayEnd; row++) {
        TargetThread *t = threads[row];
        ImGui::TableNextRow();
        ImGui::PushID((int)t->id);
        bool current = t == target->current_thread;
        ImGui::TableNextColumn();
        if (current) {
          ImGui::TableSetBgColor(ImGuiTableBgTarget_CellBg, kCurrentRowColour);
          ImGui::TextUnformatted(">");
        }
        ImGui::TableNextColumn();
        bool held = t->frozen || (solo && solo != t);
        if (FlagButton("F", held, kFrozenColour, kFrozenHoveredColour, "Freeze Thread")) requests->toggle_freeze = t;
        ImGui::SameLine();
        if (FlagButton("S", t->solo != 0, kSoloColour, kSoloHoveredColour, "Solo Thread")) requests->toggle_solo = t;
        ImGui::TableNextColumn();
        char id[16];
        snprintf(id, sizeof id, "%u", t->id);
        bool selected = ListSelected(selection, t->id);
        bool clicked = ImGui::Selectable(id, selected, ImGuiSelectableFlags_SpanAllColumns | ImGuiSelectableFlags_AllowDoubleClick);
        ClickRow(selection, ids, thread_count, (u32)row, clicked);
        if (clicked && ImGui::IsMouseDoubleClicked(ImGuiMouseButton_Left)) requests->select_thread = t->id;
        if (row == moved_to) ScrollIntoView();
        MarkSelectedForTests(selected);
        ThreadCellsOf(target, t, &cells);
        if (s->threads_show_name) { ImGui::TableNextColumn(); ImGui::TextUnformatted(t->name); }
        if (s->threads_show_module) { ImGui::TableNextColumn(); ImGui::TextUnformatted(cells.module); }
        if (s->threads_show_function_name) { ImGui::TableNextColumn(); ImGui::TextUnformatted(cells.function); }
        if (s->threads_show_calling_function_name) { ImGui::TableNextColumn(); ImGui::TextUnformatted(cells.caller); }
        if (s->threads_show_address) { ImGui::TableNextColumn(); ImGui::TextUnformatted(cells.address); }
        if (s->threads_show_priority) { ImGui::TableNextColumn(); ImGui::TextUnformatted(cells.priority); }
        ImGui::PopID();
      }
    }
    ImGui::EndTable();
  }
  if (action == kListKeyActivate && selection->count == 1) requests->select_thread = (u32)selection->keys[0];
  if (DrawThreadsMenu(s) || action == kListKeyCopy) CopyThreadRows(target, threads, thread_count);
  EngineUnlockModel(target);
}

// [SECTION] Modules

static ListSelection g_module_selection;  // by module base

// Every column, shown or not, in the table's order; the status by its short name.
static void CopyModuleRows(TargetModule *modules) {
  ImGuiTextBuffer text;
  for (TargetModule *m = modules; m; m = m->next) {
    if (!ListSelected(&g_module_selection, TargetModuleBase(m))) continue;
    char range[48];
    snprintf(range, sizeof range, "%llX-%llX", (unsigned long long)TargetModuleBase(m), (unsigned long long)TargetModuleEnd(m));
    const char *row[] = {ModuleName(m), m->symbols.image_path, range, m->symbols.pdb_path, SymbolStatusName(m->symbols.status)};
    AppendCopiedRow(&text, row, KTRN_ARRAY_COUNT(row));
  }
  ImGui::SetClipboardText(text.c_str());
}

// "Load Symbols From..." acts on one module: the one selected row.
static bool DrawModulesMenu(Settings *s, TargetModule *only, TargetWindowRequests *requests) {
  if (!BeginWindowMenu("modules-wnd")) return false;
  bool copy = ImGui::MenuItem("Copy", "Ctrl+C", false, g_module_selection.count != 0);
  // The user's pick of a PDB for the module (taken without its GUID check), then its symbols anew.
  if (ImGui::MenuItem("Load Symbols From...", nullptr, false, only != nullptr)) requests->pick_symbols = only;
  ImGui::Separator();
  ImGui::MenuItem("Name", nullptr, true, false);
  struct Column { const char *label; u8 *shown; };
  const Column columns[] = {{"Path", &s->modules_show_path},
                            {"Address", &s->modules_show_address},
                            {"Symbol File", &s->modules_show_symbol_file},
                            {"Symbol Status", &s->modules_show_status}};
  for (const Column &c : columns) {
    bool on = *c.shown;
    if (ImGui::MenuItem(c.label, nullptr, &on)) *c.shown = on;
  }
  ImGui::EndPopup();
  return copy;
}

void DrawModulesWindow(AppState *app, TargetWindowRequests *requests) {
  if (!LockStoppedTarget(app)) return;
  Settings *s = &app->settings;
  static u64 bases[kModulePoolCount];  // the rows' keys
  u32 module_count = 0;
  for (TargetModule *m = app->target->modules; m && module_count < kModulePoolCount; m = m->next)
    bases[module_count++] = TargetModuleBase(m);
  ListSelection *selection = &g_module_selection;
  s32 moved_to = -1;
  ListKeyAction action = FollowRows(selection, bases, module_count, &moved_to);
  int columns = 1 + s->modules_show_path + s->modules_show_address + s->modules_show_symbol_file + s->modules_show_status;
  TargetModule *only = nullptr;
  if (ImGui::BeginTable("tbl", columns, ImGuiTableFlags_Resizable | ImGuiTableFlags_ScrollY | ImGuiTableFlags_BordersInnerV)) {
    TakeKeysFromNavigation();
    ImGui::TableSetupScrollFreeze(0, 1);
    ImGui::TableSetupColumn("Name");
    if (s->modules_show_path) ImGui::TableSetupColumn("Path");
    if (s->modules_show_address) ImGui::TableSetupColumn("Address");
    if (s->modules_show_symbol_file) ImGui::TableSetupColumn("Symbol File");
    if (s->modules_show_status) ImGui::TableSetupColumn("Symbol Status");
    ImGui::TableHeadersRow();
    u32 row = 0;
    for (TargetModule *m = app->target->modules; m && row < module_count; m = m->next, row++) {
      ImGui::TableNextRow();
      ImGui::TableNextColumn();
      u64 base = bases[row];
      ImGui::PushID((const void *)m);
      bool selected = ListSelected(selection, base);
      ClickRow(selection, bases, module_count, row, ImGui::Selectable(ModuleName(m), selected, ImGuiSelectableFlags_SpanAllColumns));
      if ((s32)row == moved_to) ScrollIntoView();
      MarkSelectedForTests(selected);
      if (selection->count == 1 && selection->keys[0] == base) only = m;
      ImGui::PopID();
      if (s->modules_show_path) { ImGui::TableNextColumn(); ImGui::TextUnformatted(m->symbols.image_path); }
      if (s->modules_show_address) {
        ImGui::TableNextColumn();
        ImGui::Text("%llX-%llX", (unsigned long long)base, (unsigned long long)TargetModuleEnd(m));
      }
      if (s->modules_show_symbol_file) { ImGui::TableNextColumn(); ImGui::TextUnformatted(m->symbols.pdb_path); }
      if (s->modules_show_status) { ImGui::TableNextColumn(); ImGui::TextUnformatted(SymbolStatusText(m->symbols.status)); }
    }
    ImGui::EndTable();
  }
  if (DrawModulesMenu(s, only, requests) || action == kListKeyCopy) CopyModuleRows(app->target->modules);
  EngineUnlockModel(app->target);
}
