// [SECTION] Tool windows
// [SECTION] Menus
// [SECTION] Toolbar
// [SECTION] Shortcut keys
// [SECTION] Dock space and the default layout
// [SECTION] Status text
// [SECTION] Frame
#include "ui/main_frame.h"

#include <imgui.h>
#include <imgui_internal.h>
#include <stdio.h>
#include <string.h>

#include "ui/output_window.h"
#include "ui/run_control_glyphs.h"
#include "ui/session_dialogs.h"
#include "ui/stop_reason.h"
#include "ui/text_capture.h"
#include "ui/hover_value.h"
#include "ui/watch_model.h"
#include "ui/watch_window.h"

// [SECTION] Tool windows

enum ToolWindow : u32 {
  kWindowThreads = 0, kWindowModules = 1, kWindowWatch1 = 2,  // Watch 1..8: 2..9
  kWindowMemory1 = 10,                                          // Memory 1..4: 10..13
  kWindowRegisters = 14, kWindowCallStack = 15, kWindowBreakpoints = 16, kWindowOutput = 17,
  kWindowDisassembly = 18, kWindowLocals = 19, kWindowLastSingle = 19,
};

static const char *const kToolWindowTitles[kToolWindowCount] = {
    "Threads", "Modules", "Watch 1", "Watch 2", "Watch 3", "Watch 4", "Watch 5", "Watch 6", "Watch 7",
    "Watch 8", "Memory 1", "Memory 2", "Memory 3", "Memory 4", "Registers", "Call Stack", "Breakpoints",
    "Output", "Disassembly", "Locals", nullptr};

// The Window menu's chord letters (Ctrl+L, then Ctrl+letter); 0 for windows without one.
static ImGuiKey ChordKey(u32 index) {
  switch (index) {
    case kWindowThreads: return ImGuiKey_T;
    case kWindowModules: return ImGuiKey_U;
    case kWindowWatch1: return ImGuiKey_K;
    case kWindowMemory1: return ImGuiKey_M;
    case kWindowRegisters: return ImGuiKey_R;
    case kWindowCallStack: return ImGuiKey_C;
    case kWindowBreakpoints: return ImGuiKey_B;
    case kWindowOutput: return ImGuiKey_O;
    case kWindowDisassembly: return ImGuiKey_D;
  }
  return ImGuiKey_None;
}

const char *ToolWindowTitle(u32 index) { return index <= kWindowLastSingle ? kToolWindowTitles[index] : nullptr; }

u8 *ToolWindowShown(Settings *s, u32 index) {
  if (index >= kWindowWatch1 && index < kWindowWatch1 + kSettingsWatchWindows) return &s->watch[index - kWindowWatch1].show;
  if (index >= kWindowMemory1 && index < kWindowMemory1 + kSettingsMemoryWindows) return &s->memory[index - kWindowMemory1].show;
  switch (index) {
    case kWindowThreads: return &s->threads_show;
    case kWindowModules: return &s->modules_show;
    case kWindowRegisters: return &s->registers_show;
    case kWindowCallStack: return &s->callstack_show;
    case kWindowBreakpoints: return &s->breakpoints_show;
    case kWindowOutput: return &s->output_show;
    case kWindowDisassembly: return &s->disassembly_show;
    case kWindowLocals: return &s->locals.show;
  }
  return nullptr;
}

static void ToggleToolWindow(AppState *app, u32 index) {
  u8 *shown = ToolWindowShown(&app->settings, index);
  *shown = !*shown;
  if (*shown) ImGui::SetWindowFocus(ToolWindowTitle(index));
}

// Every shown tool window; those not built yet are titled and empty, so layouts already hold them.
static void DrawToolWindows(AppState *app, MainFrameState *state) {
  WatchPanesBeginFrame(app);
  for (u32 i = 0; i <= kWindowLastSingle; i++) {
    u8 *shown = ToolWindowShown(&app->settings, i);
    if (!*shown) continue;
    bool open = true;
    // The locals window, docked last beside "Watch 1", does not take its tab's place in front when
    // it first appears (choosing it in the Window menu brings it to the front).
    ImGuiWindowFlags flags = i == kWindowLocals ? ImGuiWindowFlags_NoFocusOnAppearing : 0;
    if (ImGui::Begin(ToolWindowTitle(i), &open, flags)) {
      TextCaptureWindow(ToolWindowTitle(i));
      if (i == kWindowOutput) DrawOutputWindow(app);
      else if (i == kWindowCallStack) DrawCallStackWindow(app, &state->target_requests);
      else if (i == kWindowThreads) DrawThreadsWindow(app, &state->target_requests);
      else if (i == kWindowModules) DrawModulesWindow(app, &state->target_requests);
      else if (i >= kWindowWatch1 && i < kWindowWatch1 + kSettingsWatchWindows) DrawWatchWindow(app, i - kWindowWatch1);
      else if (i == kWindowLocals) DrawWatchWindow(app, kWatchLocalsPane);
    }
    ImGui::End();
    if (!open) *shown = 0;
  }
  WatchPanesEndFrame(app);
}

// [SECTION] Menus

static bool CanStart(AppState *app) {
  const TargetCommand *t = SessionCurrentTarget(&app->session);
  return app->debug_state == kDebugNone && t && t->command && t->command[0];
}

static void DrawSessionMenu(AppState *app, MainFrameState *state) {
  if (!ImGui::BeginMenu("Session")) return;
  MainFrameRequests *r = &state->requests;
  Settings *s = &app->settings;
  if (ImGui::MenuItem("New")) r->new_session = true;
  if (ImGui::MenuItem("Open...", "Ctrl+Shift+O")) r->open_session = true;
  if (ImGui::MenuItem("Save...", "Ctrl+S")) r->save_session = true;
  if (ImGui::MenuItem("Save As...")) r->save_session_as = true;
  bool auto_save = s->auto_save_enabled, open_last = s->open_last_session_on_startup;
  if (ImGui::MenuItem("Auto Save", nullptr, &auto_save)) s->auto_save_enabled = auto_save;
  if (ImGui::MenuItem("Open Last Session on Startup", nullptr, &open_last)) s->open_last_session_on_startup = open_last;
  if (ImGui::BeginMenu("Recent")) {
    if (s->recent_files.count == 0) ImGui::MenuItem("Empty", nullptr, false, false);
    for (u32 i = 0; i < s->recent_files.count; i++)
      if (ImGui::MenuItem(s->recent_files.paths[i])) r->open_recent = s->recent_files.paths[i];
    ImGui::Separator();
    if (ImGui::MenuItem("Clear", nullptr, false, s->recent_files.count != 0)) r->clear_recent = true;
    ImGui::EndMenu();
  }
  ImGui::Separator();
  if (ImGui::MenuItem("Application and Parameters###achr")) state->show_target_editor = true;
  if (ImGui::MenuItem("Attach to Process...", "Shift+F6")) state->show_attach = true;
  if (ImGui::MenuItem("Reattach to Process...", "Ctrl+Shift+F6", false, state->reattach_name && state->reattach_name[0]))
    r->reattach = true;
  ImGui::Separator();
  if (ImGui::MenuItem("Exit")) r->quit = true;
  ImGui::EndMenu();
}

static void AskStep(MainFrameRequests *r, u32 step, u32 reason) {
  r->step = step;
  r->step_reason = reason;
}

static void DrawControlMenu(AppState *app, MainFrameState *state) {
  if (!ImGui::BeginMenu("Control")) return;
  MainFrameRequests *r = &state->requests;
  u32 d = app->debug_state;
  if (d == kDebugNone) {
    if (ImGui::MenuItem(KTRN_GLYPH_CONTINUE " Start Debugging", "F5", false, CanStart(app))) {
      r->start_debugging = true;
      r->start_reason = 5;
    }
  } else if (ImGui::MenuItem(KTRN_GLYPH_CONTINUE " Continue", "F5", false, d == kDebugSuspended)) {
    r->continue_run = true;
    r->continue_reason = 33;
  }
  if (d == kDebugNone)
    ImGui::MenuItem(KTRN_GLYPH_STOP " Stop Debugging", "Shift+F5", false, false);
  else if (ImGui::MenuItem(app->attached ? KTRN_GLYPH_STOP " Stop Debugging (Detach)" : KTRN_GLYPH_STOP " Stop Debugging (Terminate)", "Shift+F5"))
    r->stop_debugging = true;
  if (ImGui::MenuItem(KTRN_GLYPH_RESTART " Restart", "Ctrl+Shift+F5", false, d != kDebugNone && !app->attached)) {
    r->restart = true;
    r->restart_reason = 15;
  }
  if (ImGui::MenuItem(KTRN_GLYPH_BREAK " Break", "Ctrl+Shift+X", false, d == kDebugRunning)) {
    r->break_in = true;
    r->break_reason = kStopReasonBreakMenu;
  }
  ImGui::Separator();
  // Not debugging, the line steps launch the program halted at its entry (reasons 8 and 11).
  bool idle = d == kDebugNone, suspended = d == kDebugSuspended;
  if (ImGui::MenuItem(KTRN_GLYPH_STEP_INTO " Step Into (Line)", "F11", false, suspended || (idle && CanStart(app))))
    AskStep(r, kAskStepIntoLine, idle ? 8 : 18);
  if (ImGui::MenuItem(KTRN_GLYPH_STEP_INTO_INSTRUCTION " Step Into (Instruction)", nullptr, false, suspended))
    AskStep(r, kAskStepIntoInstruction, 21);
  if (ImGui::MenuItem(KTRN_GLYPH_STEP_OVER " Step Over (Line)", "F10", false, suspended || (idle && CanStart(app))))
    AskStep(r, kAskStepOverLine, idle ? 11 : 27);
  if (ImGui::MenuItem(KTRN_GLYPH_STEP_OVER_INSTRUCTION " Step Over (Instruction)", nullptr, false, suspended))
    AskStep(r, kAskStepOverInstruction, 30);
  if (ImGui::MenuItem(KTRN_GLYPH_STEP_OUT " Step Out", "Shift+F11", false, suspended)) AskStep(r, kAskStepOut, 24);
  ImGui::EndMenu();
}

static void DrawWindowMenu(AppState *app) {
  if (!ImGui::BeginMenu("Window")) return;
  for (u32 i = 0; i <= kWindowLastSingle; i++) {
    char shortcut[24] = "";
    ImGuiKey key = ChordKey(i);
    if (key != ImGuiKey_None) snprintf(shortcut, sizeof shortcut, "Ctrl+L, Ctrl+%s", ImGui::GetKeyName(key));
    if (ImGui::MenuItem(ToolWindowTitle(i), shortcut[0] ? shortcut : nullptr, *ToolWindowShown(&app->settings, i) != 0))
      ToggleToolWindow(app, i);
  }
  ImGui::EndMenu();
}

// Each slot: "Load" (what choosing a slot does), "Save Layout" with its name and "Save", "Delete".
static void DrawLayoutSlots(MainFrameState *state) {
  SavedLayouts *layouts = state->layouts;
  if (!layouts) return;
  MainFrameRequests *r = &state->requests;
  for (u32 slot = 0; slot < kSavedLayoutCount; slot++) {
    char label[kSavedLayoutNameCapacity + 16];
    snprintf(label, sizeof label, "%s##layout%u", layouts->names[slot], slot);
    if (!ImGui::BeginMenu(label)) continue;
    if (ImGui::MenuItem("Load", nullptr, false, layouts->saved[slot] != 0)) r->load_layout = slot + 1;
    if (ImGui::BeginMenu("Save Layout")) {
      if (ImGui::IsWindowAppearing()) snprintf(state->layout_name, sizeof state->layout_name, "%s", layouts->names[slot]);
      ImGui::SetNextItemWidth(160);
      ImGui::InputText("##layoutinput", state->layout_name, sizeof state->layout_name);
      ImGui::SameLine();
      if (ImGui::Button("Save") && state->layout_name[0]) {
        r->save_layout = slot + 1;
        r->layout_name = state->layout_name;
        ImGui::CloseCurrentPopup();
      }
      ImGui::EndMenu();
    }
    if (ImGui::MenuItem("Delete", nullptr, false, layouts->saved[slot] != 0)) r->delete_layout = slot + 1;
    ImGui::EndMenu();
  }
}

static s32 Clamp(s32 value, s32 low, s32 high) { return value < low ? low : value > high ? high : value; }

// A font file (entered with Enter) and its size in pixels; either change rebuilds the fonts.
static void DrawFontChoice(AppState *app, char *name, u32 *file_part, s32 *size_px, s32 default_px,
                           const char *file_id, const char *size_id, const char *reset_label) {
  char path[kSettingsFontNameCapacity];
  snprintf(path, sizeof path, "%s", name);
  ImGui::TextUnformatted(name[0] ? name + *file_part : "(default font)");
  ImGui::SetNextItemWidth(ImGui::GetFontSize() * 24);
  if (ImGui::InputTextWithHint(file_id, "font file (.ttf)", path, sizeof path, ImGuiInputTextFlags_EnterReturnsTrue)) {
    SettingsSetFontName(name, file_part, path, strlen(path));
    app->fonts_need_rebuild = 1;
  }
  ImGui::SetNextItemWidth(ImGui::GetFontSize() * 8);
  if (ImGui::InputInt(size_id, size_px)) {
    *size_px = Clamp(*size_px, 6, 72);
    app->fonts_need_rebuild = 1;
  }
  if (ImGui::MenuItem(reset_label)) {
    SettingsSetFontName(name, file_part, "", 0);
    *size_px = default_px;
    app->fonts_need_rebuild = 1;
  }
}

// The style of the settings in Dear ImGui: the colours when the choice changed, the scrollbar size.
static void ApplyStyle(AppState *app) {
  const Settings *s = &app->settings;
  if (app->style_applied != s->ui_style) {
    if (s->ui_style == 0) ImGui::StyleColorsLight(); else ImGui::StyleColorsDark();
    app->style_applied = s->ui_style;
  }
  if (s->scrollbar_size_px > 0) ImGui::GetStyle().ScrollbarSize = (float)s->scrollbar_size_px;
}

static void DrawMoreMenu(AppState *app, MainFrameState *state) {
  if (!ImGui::BeginMenu("More")) return;
  Settings *s = &app->settings;
  if (ImGui::BeginMenu("Style")) {
    if (ImGui::MenuItem("Dark", nullptr, s->ui_style == 1)) s->ui_style = 1;
    if (ImGui::MenuItem("Light", nullptr, s->ui_style == 0)) s->ui_style = 0;
    bool top = s->status_text_pos_top, toolbar = s->show_toolbar, focus = s->show_window_focus;
    if (ImGui::MenuItem("Status Text On Top", nullptr, &top)) s->status_text_pos_top = top;
    if (ImGui::MenuItem("Show Window Focus", nullptr, &focus)) s->show_window_focus = focus;
    if (ImGui::MenuItem("Show Toolbar", nullptr, &toolbar)) s->show_toolbar = toolbar;
    if (ImGui::BeginMenu("UI Font")) {
      DrawFontChoice(app, s->ui_font_name, &s->ui_font_file_part, &s->ui_font_size_px, kSettingsDefaultUiFontPx,
                     "##uifontfile", "##uifontpx", "Reset to Defaults##uifont");
      ImGui::EndMenu();
    }
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 8);
    if (ImGui::InputInt("Scrollbar Size (px)", &s->scrollbar_size_px)) s->scrollbar_size_px = Clamp(s->scrollbar_size_px, 4, 40);
    ImGui::Separator();
    if (ImGui::BeginMenu("Text Font")) {
      DrawFontChoice(app, s->text_font_name, &s->text_font_file_part, &s->text_font_size_px, kSettingsDefaultTextFontPx,
                     "##txfontfile", "##txfontpx", "Reset to Defaults##txfont");
      ImGui::EndMenu();
    }
    ImGui::ColorEdit3("Foreground Color##fgclr", &s->text_foreground.r, ImGuiColorEditFlags_NoInputs);
    ImGui::ColorEdit3("Background Color##fgclr", &s->text_background.r, ImGuiColorEditFlags_NoInputs);
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 8);
    if (ImGui::InputInt("Tab Spacing", &s->text_tab_spacing)) s->text_tab_spacing = Clamp(s->text_tab_spacing, 1, 16);
    bool hover = s->evaluate_on_hover;
    if (ImGui::MenuItem("Evaluate on Hover", nullptr, &hover)) s->evaluate_on_hover = hover;
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 8);
    if (ImGui::InputInt("Tool-tip Delay (ms)", &s->tooltip_delay_ms, 50)) s->tooltip_delay_ms = Clamp(s->tooltip_delay_ms, 0, 10000);
    ImGui::EndMenu();
  }
  ImGui::Separator();
  DrawLayoutSlots(state);
  ImGui::Separator();
  if (ImGui::MenuItem("Restore Default Layout")) app->first_run_layout = 1;
  ImGui::EndMenu();
}

static void DrawMenuBar(AppState *app, MainFrameState *state) {
  if (!ImGui::BeginMainMenuBar()) return;
  TextCaptureWindow("menu bar");
  DrawSessionMenu(app, state);
  if (ImGui::BeginMenu("Source File")) {
    SourceViewState *view = &state->source_view;
    bool active = SourceViewActiveTab(app) != nullptr;
    if (ImGui::MenuItem("Open", "Ctrl-O")) state->source_requests.open_file = true;
    if (ImGui::MenuItem("Find", "Ctrl+F", false, active)) view->open_find = true;
    if (ImGui::MenuItem("Find Next", "F3", false, active)) view->find_next = true;
    if (ImGui::MenuItem("Find Prev", "Shift+F3", false, active)) view->find_previous = true;
    if (ImGui::MenuItem("Goto Line", "Ctrl+G", false, active)) view->open_goto = true;
    ImGui::EndMenu();
  }
  DrawControlMenu(app, state);
  DrawWindowMenu(app);
  DrawMoreMenu(app, state);
  if (ImGui::BeginMenu("Help")) {
    if (ImGui::MenuItem("About Kestrune")) state->show_about = true;
    ImGui::EndMenu();
  }
  ImGui::EndMainMenuBar();
}

// [SECTION] Toolbar

// The Control menu's run-control items as buttons (Show Toolbar); each passes its own reason.
static void DrawToolbar(AppState *app, MainFrameState *state) {
  if (!app->settings.show_toolbar) return;
  ImGuiWindowFlags flags = ImGuiWindowFlags_NoScrollbar | ImGuiWindowFlags_NoSavedSettings | ImGuiWindowFlags_MenuBar;
  if (ImGui::BeginViewportSideBar("##toolbar", ImGui::GetMainViewport(), ImGuiDir_Up, ImGui::GetFrameHeight(), flags)) {
    TextCaptureWindow("toolbar");
    if (ImGui::BeginMenuBar()) {
      MainFrameRequests *r = &state->requests;
      u32 d = app->debug_state;
      if (d == kDebugNone) {
        ImGui::BeginDisabled(!CanStart(app));
        if (ImGui::Button(KTRN_GLYPH_CONTINUE " Start Debugging")) {
          r->start_debugging = true;
          r->start_reason = 6;
        }
        ImGui::EndDisabled();
      } else {
        ImGui::BeginDisabled(d != kDebugSuspended);
        if (ImGui::Button(KTRN_GLYPH_CONTINUE " Continue")) {
          r->continue_run = true;
          r->continue_reason = 34;
        }
        ImGui::EndDisabled();
      }
      ImGui::BeginDisabled(d != kDebugRunning);
      if (ImGui::Button(KTRN_GLYPH_BREAK " Break")) {
        r->break_in = true;
        r->break_reason = kStopReasonBreakButton;
      }
      ImGui::EndDisabled();
      ImGui::BeginDisabled(d == kDebugNone);
      if (ImGui::Button(KTRN_GLYPH_STOP " Stop Debugging")) r->stop_debugging = true;
      ImGui::EndDisabled();
      ImGui::BeginDisabled(d == kDebugNone || app->attached);
      if (ImGui::Button(KTRN_GLYPH_RESTART " Restart")) {
        r->restart = true;
        r->restart_reason = 17;
      }
      ImGui::EndDisabled();
      bool idle = d == kDebugNone, suspended = d == kDebugSuspended;
      ImGui::BeginDisabled(!(suspended || (idle && CanStart(app))));
      if (ImGui::Button(KTRN_GLYPH_STEP_INTO " Step Into")) AskStep(r, kAskStepIntoLine, idle ? 9 : 19);
      if (ImGui::Button(KTRN_GLYPH_STEP_OVER " Step Over")) AskStep(r, kAskStepOverLine, idle ? 12 : 28);
      ImGui::EndDisabled();
      ImGui::BeginDisabled(!suspended);
      if (ImGui::Button(KTRN_GLYPH_STEP_OUT " Step Out")) AskStep(r, kAskStepOut, 25);
      ImGui::EndDisabled();
      ImGui::EndMenuBar();
    }
  }
  ImGui::End();
}

// [SECTION] Shortcut keys

static void TakeShortcuts(AppState *app, MainFrameState *state) {
  MainFrameRequests *r = &state->requests;
  if (ImGui::IsKeyChordPressed(ImGuiKey_F5)) {
    if (CanStart(app)) {
      r->start_debugging = true;
      r->start_reason = 7;
    } else if (app->debug_state == kDebugSuspended) {
      r->continue_run = true;
      r->continue_reason = 35;
    }
  }
  if (ImGui::IsKeyChordPressed(ImGuiMod_Shift | ImGuiKey_F5) && app->debug_state != kDebugNone) r->stop_debugging = true;
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiMod_Shift | ImGuiKey_F5) && app->debug_state != kDebugNone &&
      !app->attached) {
    r->restart = true;
    r->restart_reason = 16;
  }
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiMod_Shift | ImGuiKey_X) && app->debug_state == kDebugRunning) {
    r->break_in = true;
    r->break_reason = kStopReasonBreakKey;
  }
  {
    bool idle = app->debug_state == kDebugNone && CanStart(app), suspended = app->debug_state == kDebugSuspended;
    if (ImGui::IsKeyChordPressed(ImGuiKey_F11) && (idle || suspended)) AskStep(r, kAskStepIntoLine, idle ? 10 : 20);
    if (ImGui::IsKeyChordPressed(ImGuiKey_F10) && (idle || suspended)) AskStep(r, kAskStepOverLine, idle ? 13 : 29);
    if (ImGui::IsKeyChordPressed(ImGuiMod_Shift | ImGuiKey_F11) && suspended) AskStep(r, kAskStepOut, 26);
  }
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiKey_S)) r->save_session = true;
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiKey_O)) state->source_requests.open_file = true;
  if (SourceViewActiveTab(app)) {
    SourceViewState *view = &state->source_view;
    if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiKey_F)) view->open_find = true;
    if (ImGui::IsKeyChordPressed(ImGuiKey_F3)) view->find_next = true;
    if (ImGui::IsKeyChordPressed(ImGuiMod_Shift | ImGuiKey_F3)) view->find_previous = true;
    if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiKey_G)) view->open_goto = true;
  }
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiMod_Shift | ImGuiKey_O)) r->open_session = true;
  if (ImGui::IsKeyChordPressed(ImGuiMod_Shift | ImGuiKey_F6)) state->show_attach = true;
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiMod_Shift | ImGuiKey_F6) && state->reattach_name &&
      state->reattach_name[0])
    r->reattach = true;
  // Ctrl+L arms the window chords for two seconds.
  double now = ImGui::GetTime();
  if (ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | ImGuiKey_L)) {
    state->chord_armed = true;
    state->chord_time = now;
    return;
  }
  if (!state->chord_armed) return;
  if (now - state->chord_time > 2.0) {
    state->chord_armed = false;
    return;
  }
  for (u32 i = 0; i <= kWindowLastSingle; i++) {
    ImGuiKey key = ChordKey(i);
    if (key != ImGuiKey_None && ImGui::IsKeyChordPressed(ImGuiMod_Ctrl | key)) {
      ToggleToolWindow(app, i);
      state->chord_armed = false;
    }
  }
}

// [SECTION] Dock space and the default layout

// Source and disassembly in the middle, the lists on the right, output and watches below.
static void BuildDefaultLayout(AppState *app, ImGuiID dockspace, ImVec2 size) {
  Settings *s = &app->settings;
  s->threads_show = s->modules_show = 1;
  s->watch[0].show = s->locals.show = 1;
  for (u32 w = 1; w < kSettingsWatchWindows; w++) s->watch[w].show = 0;
  for (u32 m = 0; m < kSettingsMemoryWindows; m++) s->memory[m].show = 0;
  ImGui::DockBuilderRemoveNode(dockspace);
  ImGui::DockBuilderAddNode(dockspace, ImGuiDockNodeFlags_DockSpace);
  ImGui::DockBuilderSetNodeSize(dockspace, size);
  ImGuiID center = dockspace, bottom, right, bottom_right;
  bottom = ImGui::DockBuilderSplitNode(center, ImGuiDir_Down, 0.32f, nullptr, &center);
  right = ImGui::DockBuilderSplitNode(center, ImGuiDir_Right, 0.30f, nullptr, &center);
  bottom_right = ImGui::DockBuilderSplitNode(bottom, ImGuiDir_Right, 0.45f, nullptr, &bottom);
  ImGuiID right_bottom = ImGui::DockBuilderSplitNode(right, ImGuiDir_Down, 0.5f, nullptr, &right);
  ImGui::DockBuilderDockWindow("Output", bottom);
  for (u32 i = kWindowWatch1; i < kWindowWatch1 + kSettingsWatchWindows; i++) ImGui::DockBuilderDockWindow(ToolWindowTitle(i), bottom_right);
  for (u32 i = kWindowMemory1; i < kWindowMemory1 + kSettingsMemoryWindows; i++) ImGui::DockBuilderDockWindow(ToolWindowTitle(i), bottom_right);
  ImGui::DockBuilderDockWindow("Breakpoints", bottom_right);
  ImGui::DockBuilderDockWindow("Locals", bottom_right);
  ImGui::DockBuilderDockWindow("Threads", right);
  ImGui::DockBuilderDockWindow("Registers", right);
  ImGui::DockBuilderDockWindow("Modules", right_bottom);
  ImGui::DockBuilderDockWindow("Call Stack", right_bottom);
  ImGui::DockBuilderDockWindow("Disassembly", center);
  ImGui::DockBuilderFinish(dockspace);
}

// Returns the dock space's central node, where source tabs dock (0 when there is none).
static ImGuiID DrawDockSpace(AppState *app) {
  const ImGuiViewport *viewport = ImGui::GetMainViewport();
  ImGui::SetNextWindowPos(viewport->WorkPos);
  ImGui::SetNextWindowSize(viewport->WorkSize);
  ImGui::SetNextWindowViewport(viewport->ID);
  ImGuiWindowFlags flags = ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_NoMove |
                           ImGuiWindowFlags_NoBringToFrontOnFocus | ImGuiWindowFlags_NoNavFocus |
                           ImGuiWindowFlags_NoDocking | ImGuiWindowFlags_NoSavedSettings;
  ImGui::PushStyleVar(ImGuiStyleVar_WindowPadding, ImVec2(0, 0));
  ImGui::PushStyleVar(ImGuiStyleVar_WindowRounding, 0.0f);
  ImGui::PushStyleVar(ImGuiStyleVar_WindowBorderSize, 0.0f);
  ImGui::Begin("DockSpace", nullptr, flags);
  ImGui::PopStyleVar(3);
  ImGuiID dockspace = ImGui::GetID("KtrnDockspace");
  if (app->first_run_layout) {
    BuildDefaultLayout(app, dockspace, viewport->WorkSize);
    app->first_run_layout = 0;
  }
  ImGui::DockSpace(dockspace, ImVec2(0, 0), ImGuiDockNodeFlags_PassthruCentralNode);
  ImGui::End();
  ImGuiDockNode *central = ImGui::DockBuilderGetCentralNode(dockspace);
  return central ? central->ID : 0;
}

// [SECTION] Status text

static void StatusText(const AppState *app, char *out, u32 capacity) {
  char pid[24] = "";
  if (app->settings.status_text_show_pid) snprintf(pid, sizeof pid, "[PID:%u]", app->process_id);
  switch (app->debug_state) {
    case kDebugSuspended:
      snprintf(out, capacity, "[SUSPENDED]%s %s", pid, StopReasonStoppedText(app->stop_reason, app->run_started_by));
      return;
    case kDebugRunning:
      snprintf(out, capacity, "[EXECUTING]%s %s", pid, StopReasonRunningText(app->stop_reason));
      return;
  }
  if (!app->has_run)
    out[0] = 0;
  else if (app->last_exit_code == 0)
    snprintf(out, capacity, "Program halted with exit code 0");
  else
    snprintf(out, capacity, "Program halted with exit code 0x%08X (%u)", app->last_exit_code, app->last_exit_code);
}

static void DrawStatusBar(AppState *app) {
  ImGuiViewport *viewport = ImGui::GetMainViewport();
  ImGuiWindowFlags flags = ImGuiWindowFlags_NoScrollbar | ImGuiWindowFlags_NoSavedSettings | ImGuiWindowFlags_MenuBar;
  ImGuiDir side = app->settings.status_text_pos_top ? ImGuiDir_Up : ImGuiDir_Down;
  if (ImGui::BeginViewportSideBar("##status", viewport, side, ImGui::GetFrameHeight(), flags)) {
    TextCaptureWindow("status");
    if (ImGui::BeginMenuBar()) {
      char text[400];
      StatusText(app, text, sizeof text);
      ImGui::TextUnformatted(text);
      ImGui::EndMenuBar();
    }
    if (ImGui::BeginPopupContextWindow("##lowerstat")) {
      TextCaptureWindow("status menu");
      Settings *s = &app->settings;
      if (ImGui::MenuItem(s->status_text_pos_top ? "Move to Bottom" : "Move to Top")) s->status_text_pos_top = !s->status_text_pos_top;
      bool pid = s->status_text_show_pid;
      if (ImGui::MenuItem("Show PID", nullptr, &pid)) s->status_text_show_pid = pid;
      ImGui::EndPopup();
    }
  }
  ImGui::End();
}

// [SECTION] Frame

static void DrawAbout(MainFrameState *state) {
  if (state->show_about) {
    ImGui::OpenPopup("About Kestrune");
    state->show_about = false;
  }
  if (ImGui::BeginPopupModal("About Kestrune", nullptr, ImGuiWindowFlags_AlwaysAutoResize)) {
    TextCaptureWindow("About Kestrune");
    ImGui::TextUnformatted("Kestrune: a source-level debugger for 64-bit Windows programs");
    ImGui::Text("Version: %d.%d.%d.%d", 0, 1, 0, 0);
    if (ImGui::Button("OK")) ImGui::CloseCurrentPopup();
    ImGui::EndPopup();
  }
}

void DrawMainFrame(AppState *app, MainFrameState *state) {
  ApplyStyle(app);
  memset(&state->requests, 0, sizeof state->requests);
  TargetWindowRequestsClear(&state->target_requests);
  SourceViewRequestsClear(&state->source_requests);
  DrawMenuBar(app, state);
  DrawToolbar(app, state);
  DrawStatusBar(app);
  ImGuiID central = DrawDockSpace(app);
  DrawToolWindows(app, state);
  state->source_view.hover_value = HoverValue();
  DrawSourceTabs(app, &state->source_view, &state->source_requests, state->text_font, central);
  HoverEvaluate(app, state->source_requests.hover_expression);
  DrawTargetCommandEditor(app, state);
  DrawAttachDialog(app, state);
  DrawAbout(state);
  TakeShortcuts(app, state);
  state->frame_count++;
}
