// [SECTION] Application and Parameters
// [SECTION] Attach to Process
#include "ui/session_dialogs.h"

#include <imgui.h>
#include <stdio.h>
#include <string.h>

#include "ui/text_capture.h"

// [SECTION] Application and Parameters

enum {
  kCommandBufferSize = 1024,
  kArgumentsBufferSize = 8192,
  kEnvironmentBufferSize = 16384,
};

static char g_command[kCommandBufferSize];
static char g_arguments[kArgumentsBufferSize];
static char g_working_directory[kCommandBufferSize];
static char g_environment[kEnvironmentBufferSize];

// The current target command, made when the session has none yet (the user's first edit makes it).
static TargetCommand *EditedTarget(Session *session) {
  TargetCommand *t = SessionCurrentTarget(session);
  if (t) return t;
  u32 index;
  if (SessionAddTarget(session, "", "", "", &index) != kSessionOk) return nullptr;
  session->current_target = index;
  return SessionCurrentTarget(session);
}

static void Refill(char *buffer, u64 capacity, const char *text) {
  TextCopyClamped(buffer, capacity, text ? text : "", TextLength(text));
}

// One text of the target command; an edit goes to the model at once and marks the session.
static void EditText(AppState *app, const char *label, char *buffer, u64 capacity, u32 field, bool multiline) {
  bool changed = multiline ? ImGui::InputTextMultiline(label, buffer, capacity, ImVec2(-1, ImGui::GetTextLineHeight() * 6))
                           : ImGui::InputText(label, buffer, capacity);
  if (!changed) return;
  TargetCommand *t = EditedTarget(&app->session);
  if (!t) return;
  char **slots[] = {&t->command, &t->arguments, &t->working_directory, &t->environment};
  TextReplace(slots[field], buffer);
  app->session.modified = 1;
  if (field == 0) app->title_dirty = 1;  // an unnamed session is titled after its program
}

// "<" and ">" choose the current target command (saved with the session), "New Command" adds one,
// "Remove Command" removes the current one.
static void DrawTargetChoice(AppState *app) {
  Session *s = &app->session;
  u32 current = s->current_target, index;
  if (ImGui::Button("<##achr") && current > 0) current--;
  ImGui::SameLine();
  if (ImGui::Button(">##achr") && current + 1 < s->target_count) current++;
  ImGui::SameLine();
  if (ImGui::Button("New Command##achr") && SessionAddTarget(s, "", "", "", &index) == kSessionOk) {
    current = index;
    s->modified = 1;
  }
  ImGui::SameLine();
  if (ImGui::Button("Remove Command##achr") && s->target_count && SessionRemoveTarget(s, current) == kSessionOk) {
    if (current >= s->target_count && current) current--;
    s->modified = 1;
    app->title_dirty = 1;
  }
  if (current != s->current_target) {
    s->current_target = current;
    s->modified = 1;
    app->title_dirty = 1;  // an unnamed session is titled after the current program
  }
}

void DrawTargetCommandEditor(AppState *app, MainFrameState *state) {
  if (!state->show_target_editor) return;
  Session *s = &app->session;
  char title[96];
  if (s->target_count > 1)
    snprintf(title, sizeof title, "Application and Parameters (%u / %u)###achr", s->current_target + 1, s->target_count);
  else
    snprintf(title, sizeof title, "Application and Parameters###achr");
  ImGui::SetNextWindowSize(ImVec2(640, 420), ImGuiCond_FirstUseEver);
  bool open = true;
  if (ImGui::Begin(title, &open, ImGuiWindowFlags_NoDocking)) {
    TextCaptureWindow("Application and Parameters");
    TargetCommand *t = SessionCurrentTarget(s);
    Refill(g_command, sizeof g_command, t ? t->command : nullptr);
    Refill(g_arguments, sizeof g_arguments, t ? t->arguments : nullptr);
    Refill(g_working_directory, sizeof g_working_directory, t ? t->working_directory : nullptr);
    Refill(g_environment, sizeof g_environment, t ? t->environment : nullptr);
    DrawTargetChoice(app);
    ImGui::TextUnformatted("Command");
    ImGui::SetNextItemWidth(-48);
    EditText(app, "##command", g_command, sizeof g_command, 0, false);
    ImGui::SameLine();
    if (ImGui::Button("...##bcmd")) state->requests.browse_command = true;
    ImGui::TextUnformatted("Command Arguments");
    ImGui::SetNextItemWidth(-1);
    EditText(app, "##arguments", g_arguments, sizeof g_arguments, 1, false);
    ImGui::TextUnformatted("Working Directory");
    ImGui::SetNextItemWidth(-48);
    EditText(app, "##workingdir", g_working_directory, sizeof g_working_directory, 2, false);
    ImGui::SameLine();
    if (ImGui::Button("...##bwdir")) state->requests.browse_working_directory = true;

    ImGui::TextUnformatted("Step halts new instance at");
    int halt = t ? (t->halt_at_nominal_entry ? 1 : 0) : 1;
    int chosen = halt;
    ImGui::RadioButton("Nominal entry point", &chosen, 1);
    ImGui::SameLine();
    ImGui::TextDisabled("(?)");
    if (ImGui::IsItemHovered())
      ImGui::SetTooltip("Nominal entry point functions include: WinMain, main, wWinMain, wmain, WinMainCRTStartup, and wWinMainCRTStartup.");
    ImGui::SameLine();
    ImGui::RadioButton("Entry point function", &chosen, 0);
    if (chosen != halt && (t = EditedTarget(s)) != nullptr) {
      t->halt_at_nominal_entry = (u8)chosen;
      s->modified = 1;
    }

    ImGui::TextUnformatted("Environment");
    ImVec2 at = ImGui::GetCursorScreenPos();
    EditText(app, "##envvars", g_environment, sizeof g_environment, 3, true);
    if (!g_environment[0] && !ImGui::IsItemActive()) {  // the hint of an empty list
      ImVec2 pad = ImGui::GetStyle().FramePadding;
      ImGui::GetWindowDrawList()->AddText(ImVec2(at.x + pad.x, at.y + pad.y), ImGui::GetColorU32(ImGuiCol_TextDisabled),
                                          "VARNAME0=VALUE0\nVARNAME1=VALUE1\n...");
    }
    bool inherit = t ? t->inherit_from_parent != 0 : false;
    if (ImGui::Checkbox("Inherit from parent", &inherit) && (t = EditedTarget(s)) != nullptr) {
      t->inherit_from_parent = inherit;
      s->modified = 1;
    }
  }
  ImGui::End();
  if (!open) state->show_target_editor = false;
}

// [SECTION] Attach to Process

static u32 g_selected_process;

void DrawAttachDialog(AppState *app, MainFrameState *state) {
  (void)app;
  if (!state->show_attach) return;
  ImGui::SetNextWindowSize(ImVec2(480, 520), ImGuiCond_FirstUseEver);
  bool open = true;
  if (ImGui::Begin("Attach to Process", &open, ImGuiWindowFlags_NoDocking)) {
    TextCaptureWindow("Attach to Process");
    if (ImGui::IsWindowAppearing()) {
      state->requests.refresh_processes = true;
      g_selected_process = 0;
    }
    ImGui::SetNextItemWidth(200);
    ImGui::InputText("Filter", state->process_filter, sizeof state->process_filter);
    ImGui::SameLine();
    if (ImGui::Button("Refresh")) state->requests.refresh_processes = true;
    ImGui::TextUnformatted("Sort processes by:");
    ImGui::SameLine();
    int sort = (int)state->process_sort;
    bool resort = ImGui::RadioButton("Name", &sort, kSortByName);
    ImGui::SameLine();
    resort |= ImGui::RadioButton("ID", &sort, kSortById);
    state->process_sort = (u32)sort;
    ProcessList *list = state->processes;
    if (resort && list) ProcessListSort(list, state->process_sort);
    ImGui::Text("%s  %s", "   ID", "Process");
    float footer = ImGui::GetFrameHeightWithSpacing() + ImGui::GetStyle().ItemSpacing.y;
    ImGui::BeginChild("##processes", ImVec2(0, -footer), ImGuiChildFlags_Border);
    for (u32 i = 0; list && i < list->count; i++) {
      const ProcessEntry *e = &list->entries[i];
      if (!ProcessListMatches(e, state->process_filter)) continue;
      char row[kProcessNameCapacity + 16];
      snprintf(row, sizeof row, "%5u %s", e->id, e->name);
      ImGui::PushID((int)e->id);
      if (ImGui::Selectable(row, g_selected_process == e->id, ImGuiSelectableFlags_AllowDoubleClick)) {
        g_selected_process = e->id;
        if (ImGui::IsMouseDoubleClicked(ImGuiMouseButton_Left)) state->requests.attach_process_id = e->id;
      }
      ImGui::PopID();
    }
    ImGui::EndChild();
    ImGui::BeginDisabled(g_selected_process == 0);
    if (ImGui::Button("Attach##icmd")) state->requests.attach_process_id = g_selected_process;
    ImGui::EndDisabled();
  }
  ImGui::End();
  if (!open || state->requests.attach_process_id) state->show_attach = false;
}
