// kestrune.exe: the Windows entry point, single instance and command forwarding, the settings
// folder and ini file, the main window and the frame loop of the UI thread.
//
// [SECTION] Application state
// [SECTION] Resources
// [SECTION] Settings folder and ini handler
// [SECTION] Sessions and the save prompt
// [SECTION] Command actions
// [SECTION] Command channel
// [SECTION] Window title and placement
// [SECTION] Frame
// [SECTION] Window procedure
// [SECTION] Entry point
#include <windows.h>
#include <objbase.h>
#include <shellapi.h>
#include <shlobj.h>

#include <imgui.h>
#include <imgui_impl_win32.h>
#include <imgui_internal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "app/command_buffer.h"
#include "app/command_line.h"
#include "app/command_words.h"
#include "app/debugging.h"
#include "app/fonts.h"
#include "app/folder_watch.h"
#include "app/frame_probe.h"
#include "app/renderer_d3d11.h"
#include "app/shell_win32.h"
#include "app/source_files.h"
#include "app/test_hook.h"
#include "app/saved_layouts.h"
#include "app/session_file.h"
#include "engine/engine.h"
#include "engine/process_list.h"
#include "ui/main_frame.h"
#include "ui/stop_reason.h"
#include "ui/watch_model.h"

extern IMGUI_IMPL_API LRESULT ImGui_ImplWin32_WndProcHandler(HWND window, UINT message, WPARAM w, LPARAM l);

static const wchar_t kWindowClassName[] = L"ktrn_MainWindowClass";
static const wchar_t kProductName[] = L"Kestrune";
static const char kInstanceMutexName[] = "ktrninstancerunningmtx";
static const char kCommandMappingName[] = "ktrncommandbufname";
static const char kCommandMessageName[] = "ktrncommandbufmsg";
enum { kIconResource = 103, kVertexShaderResource = 104, kPixelShaderResource = 105, kSymbolFontResource = 106 };
enum { kTestHookTimer = 1, kFirstRunTimer = 2, kBenchTimer = 3 };
enum { kReasonStartCommand = 14 };

// [SECTION] Application state

struct Program {
  AppState app;
  HWND window;
  Renderer renderer;
  MainFrameState frame;
  SymbolFont symbol_font;
  bool test_hook;
  FrameProbe probe;  // benchmarks only
  SavedLayouts layouts;
  ProcessList *processes;  // the attach dialog's list (heap, made when first asked for)
  char reattach_name[kProcessNameCapacity];  // the process last attached to
  u32 attach_when_shown;      // "attach-to-process-by-id" on the command line: once the window is up
  bool let_run_when_shown;
  u32 bench_stop_frames;      // frames drawn since the benchmark's stop (KTRN_BENCH_STOPPED)
};

static Program g_program;

static void Wake(void *user) { PostMessageW(((Program *)user)->window, WM_USER, 0, 0); }

// [SECTION] Resources

static const void *FindRawResource(int id, u64 *size) {
  HRSRC info = FindResourceW(nullptr, MAKEINTRESOURCEW(id), MAKEINTRESOURCEW(10) /* RT_RCDATA */);
  if (!info) return nullptr;
  HGLOBAL handle = LoadResource(nullptr, info);
  if (!handle) return nullptr;
  *size = SizeofResource(nullptr, info);
  return LockResource(handle);
}

static void ShowError(const wchar_t *text) { MessageBoxW(nullptr, text, kProductName, MB_OK | MB_ICONERROR); }

// Loads both shaders from the resources; false (after telling the user) when one is missing.
static bool LoadShaders(RendererShaders *shaders) {
  if (!FindResourceW(nullptr, MAKEINTRESOURCEW(kVertexShaderResource), MAKEINTRESOURCEW(10))) {
    ShowError(L"Unable to find vertex shader resource");
    return false;
  }
  if (!FindResourceW(nullptr, MAKEINTRESOURCEW(kPixelShaderResource), MAKEINTRESOURCEW(10))) {
    ShowError(L"Unable to find pixel shader resource");
    return false;
  }
  shaders->vertex_code = FindRawResource(kVertexShaderResource, &shaders->vertex_size);
  if (!shaders->vertex_code) {
    ShowError(L"Unable to load vertex shader from resource");
    return false;
  }
  shaders->pixel_code = FindRawResource(kPixelShaderResource, &shaders->pixel_size);
  if (!shaders->pixel_code) {
    ShowError(L"Unable to load pixel shader from resource");
    return false;
  }
  return true;
}

// [SECTION] Settings folder and ini handler

// The per-user folder: roaming application data plus "\kestrune", created when missing. Left
// empty (no ini file) when it cannot be had.
static void ChooseSettingsFolder(AppState *app) {
  if (app->settings_folder[0]) return;  // "--settings" chose it
  wchar_t *roaming = nullptr;
  if (FAILED(SHGetKnownFolderPath(FOLDERID_RoamingAppData, KF_FLAG_CREATE, nullptr, &roaming))) return;
  char folder[kAppPathCapacity];
  int n = WideCharToMultiByte(CP_UTF8, 0, roaming, -1, folder, sizeof folder, nullptr, nullptr);
  CoTaskMemFree(roaming);
  if (n <= 0) return;
  char ours[kAppPathCapacity + 16];
  snprintf(ours, sizeof ours, "%s\\kestrune", folder);
  if (strlen(ours) >= kAppPathCapacity) return;
  if (CreateDirectoryA(ours, nullptr) || GetLastError() == ERROR_ALREADY_EXISTS)
    snprintf(app->settings_folder, sizeof app->settings_folder, "%s", ours);
}

static void *SettingsHandlerReadOpen(ImGuiContext *, ImGuiSettingsHandler *handler, const char *name) {
  AppState *app = (AppState *)handler->UserData;
  return (void *)SettingsReadOpen(&app->settings, name);
}

static void SettingsHandlerReadLine(ImGuiContext *, ImGuiSettingsHandler *handler, void *entry, const char *line) {
  AppState *app = (AppState *)handler->UserData;
  SettingsReadLine(&app->settings, (const SettingsSection *)entry, line);
}

static void AppendToImGuiBuffer(void *user, const char *text, u64 length) {
  ((ImGuiTextBuffer *)user)->append(text, text + length);
}

static void SettingsHandlerWriteAll(ImGuiContext *, ImGuiSettingsHandler *handler, ImGuiTextBuffer *out) {
  AppState *app = (AppState *)handler->UserData;
  // The window placement is kept in AppState while the window lives; the file takes it from there.
  app->settings.window_x = app->placement.x;
  app->settings.window_y = app->placement.y;
  app->settings.window_w = app->placement.width;
  app->settings.window_h = app->placement.height;
  app->settings.window_maximized = app->placement.maximized;
  SettingsTextSink sink = {out, AppendToImGuiBuffer};
  SettingsWriteAll(&app->settings, &sink);
}

// Our sections live in Dear ImGui's own ini file, beside its window and docking data.
static void RegisterSettingsAndLoad(AppState *app) {
  ImGuiSettingsHandler handler = {};
  handler.TypeName = "Kestrune";
  handler.TypeHash = ImHashStr("Kestrune");
  handler.ReadOpenFn = SettingsHandlerReadOpen;
  handler.ReadLineFn = SettingsHandlerReadLine;
  handler.WriteAllFn = SettingsHandlerWriteAll;
  handler.UserData = app;
  ImGui::AddSettingsHandler(&handler);
  if (!app->settings_folder[0]) return;
  snprintf(app->ini_path, sizeof app->ini_path, "%s\\imgui180.ini", app->settings_folder);
  app->first_run_layout = GetFileAttributesA(app->ini_path) == INVALID_FILE_ATTRIBUTES;
  ImGui::GetIO().IniFilename = app->ini_path;
  if (!app->first_run_layout) ImGui::LoadIniSettingsFromDisk(app->ini_path);
  app->placement.x = app->settings.window_x;
  app->placement.y = app->settings.window_y;
  app->placement.width = app->settings.window_w;
  app->placement.height = app->settings.window_h;
  app->placement.maximized = app->settings.window_maximized;
}

// [SECTION] Sessions and the save prompt

static void ReportUnopened(void *user, const char *text) { OutputAppendZ(&((AppState *)user)->output, text); }

// Why a session could not be opened, as the output window says it.
static const char *SessionFileProblem(int result) {
  switch (result) {
    case kSessionFileBadMagic: return ": it is not a session file";
    case kSessionFileTooLarge: return ": the file is too large";
    case kSessionFileNoMemory: return ": out of memory";
  }
  return "";
}

// Reads a session file. A file that stops making sense part-way is opened up to its last whole
// section but left unnamed, so that no save ever writes the shorter session over it.
static bool OpenSession(AppState *app, const char *path) {
  SessionReadHooks hooks = {};
  hooks.user = app;
  hooks.output = ReportUnopened;
  hooks.open_source_file = SourceFilesOpenForSession;
  u32 sections = 0;
  u64 unread = 0;
  int result = SessionReadFile(&app->session, path, &hooks, &app->settings.recent_files, &sections, &unread);
  app->title_dirty = 1;
  char line[kAppPathCapacity + 200];
  if (result != kSessionFileOk) {
    snprintf(line, sizeof line, "Unable to open session %s%s\n", path, SessionFileProblem(result));
    OutputAppendZ(&app->output, line);
    return false;
  }
  if (unread) {
    snprintf(line, sizeof line,
             "Session %s is damaged after its section %u: what comes before was opened as an unnamed session; "
             "the file is left as it is\n", path, sections);
    OutputAppendZ(&app->output, line);
    app->session.path[0] = 0;
  }
  return true;
}

static bool AskSessionPath(Program *program, char *out, u32 capacity) {
  return AskFilePath(program->window, kDialogSaveSession, out, capacity);
}

static bool SaveSession(Program *program, bool ask_path) {
  AppState *app = &program->app;
  char path[kAppPathCapacity];
  snprintf(path, sizeof path, "%s", app->session.path);
  if ((ask_path || !path[0]) && !AskSessionPath(program, path, sizeof path)) return false;
  app->title_dirty = 1;
  if (SessionWriteFile(&app->session, path, &app->settings.recent_files) == kSessionFileOk) return true;
  char line[kAppPathCapacity + 48];
  snprintf(line, sizeof line, "Unable to save session %s\n", path);  // the file on disk is as it was
  OutputAppendZ(&app->output, line);
  return false;
}

// Before the session is replaced or the program closes; false when the user cancelled.
static bool SavePrompt(Program *program) {
  AppState *app = &program->app;
  if (!app->session.modified) return true;
  SetForegroundWindow(program->window);
  if (app->session.path[0] && app->settings.auto_save_enabled) return SaveSession(program, false) || true;
  char question[kAppPathCapacity + 80];
  if (app->session.path[0])
    snprintf(question, sizeof question, "Do you want to save changes to the session %s?", PathFileName(app->session.path));
  else
    snprintf(question, sizeof question, "Do you want to save changes to the unnamed session?");
  int answer = MessageBoxA(program->window, question, "Kestrune", MB_YESNOCANCEL | MB_ICONQUESTION);
  if (answer == IDCANCEL) return false;
  if (answer == IDYES) return SaveSession(program, false);
  return true;
}

// [SECTION] Command actions

static void ActionSetSettingsFolder(void *user, const char *folder) {
  snprintf(((Program *)user)->app.settings_folder, kAppPathCapacity, "%s", folder);
}

enum OpenOutcome { kOpened, kOpenFailed, kOpenPutOff };

// Opens a session the user or another program asked for: while debugging only after "Do you want
// to stop debugging?" and the end of the run; otherwise after the save prompt.
static OpenOutcome OpenSessionAsked(Program *program, const char *path) {
  AppState *app = &program->app;
  if (!program->window) return OpenSession(app, path) ? kOpened : kOpenFailed;  // start-up: no questions yet
  if (app->target) {
    if (MessageBoxA(program->window, "Do you want to stop debugging?", "Kestrune", MB_YESNO) != IDYES) return kOpenPutOff;
    AppStateSetPending(app, kPendingOpenSession, path);
    app->quit_when_target_exits = 0;
    DebuggingStop(app);
    return kOpenPutOff;
  }
  if (!SavePrompt(program)) return kOpenPutOff;
  return OpenSession(app, path) ? kOpened : kOpenFailed;
}

static void ActionOpenSession(void *user, const char *path) { OpenSessionAsked((Program *)user, path); }

static bool AskYesNo(Program *program, const char *question) {
  return MessageBoxA(program->window, question, "Kestrune", MB_YESNO | MB_ICONQUESTION) == IDYES;
}

static void OpenRecent(Program *program, const char *chosen) {
  char path[kRecentPathCapacity];
  snprintf(path, sizeof path, "%s", chosen);
  if (OpenSessionAsked(program, path) != kOpenFailed) return;
  char question[kRecentPathCapacity + 100];
  snprintf(question, sizeof question, "\"%s\" could not be opened. Would you like to remove it from the recent list?", path);
  if (AskYesNo(program, question)) RecentFilesRemove(&program->app.settings.recent_files, path);
}

// Attach now, or, while a run exists and the user agrees, once it has ended.
static void AttachOrPark(Program *program, u32 process_id, bool let_run) {
  AppState *app = &program->app;
  if (!app->target) {
    if (DebuggingAttach(app, process_id, let_run, Wake, program) == 0) {
      snprintf(program->reattach_name, sizeof program->reattach_name, "%s", "");
      for (u32 i = 0; program->processes && i < program->processes->count; i++)
        if (program->processes->entries[i].id == process_id)
          snprintf(program->reattach_name, sizeof program->reattach_name, "%s", program->processes->entries[i].name);
    }
    return;
  }
  if (!AskYesNo(program, "Do you want to stop debugging?")) return;
  AppStateSetPending(app, kPendingAttach, nullptr);
  app->pending.process_id = process_id;
  app->pending.continue_after_attach = let_run;
  DebuggingStop(app);
}

static void ActionAttach(void *user, u32 process_id, bool let_run) {
  Program *program = (Program *)user;
  if (!program->window) {  // start-up: once the window is up
    program->attach_when_shown = process_id;
    program->let_run_when_shown = let_run;
    return;
  }
  AttachOrPark(program, process_id, let_run);
}

static void ActionOpenFile(void *user, const char *path, u32 line) { SourceFilesOpen(&((Program *)user)->app, path, line); }

static void ActionCloseFile(void *user, const char *path) { SourceFilesClose(&((Program *)user)->app, path); }

static void ActionAddFileBreakpoint(void *user, const char *path, u32 line) {
  DebuggingAddLineBreakpoint(&((Program *)user)->app, path, line);
}

static void ActionRemoveFileBreakpoint(void *user, const char *path, u32 line) {
  AppState *app = &((Program *)user)->app;
  s32 index = SessionFindSourceLineBreakpoint(&app->session, path, line);
  if (index >= 0) DebuggingRemoveBreakpoint(app, app->session.breakpoints[index]->id);
}

static void ActionRunToCursor(void *user, const char *path, u32 line) {
  Program *program = (Program *)user;
  if (program->window) DebuggingRunToLine(&program->app, path, line, kStopReasonRunToCursorMenu, Wake, program);
}

static void ActionAddFunctionBreakpoint(void *user, const char *name, const char *condition) {
  Session *s = &((Program *)user)->app.session;
  u32 index;
  if (SessionAddBreakpoint(s, kBreakpointFunction, name, 0, 0, &index) != kSessionOk) return;
  if (condition) TextReplace(&s->breakpoints[index]->condition, condition);
  s->modified = 1;
  DebuggingBreakpointAdded(&((Program *)user)->app, s->breakpoints[index]);
}

// The engine's record of a breakpoint that leaves the session goes with it.
static void ForgetEngineBreakpoint(void *user, const Breakpoint *breakpoint) {
  AppState *app = (AppState *)user;
  if (app->target && breakpoint->runtime.location) (void)EngineRemoveBreakpoint(app->target, breakpoint->runtime.location);
}

static void ActionRemoveFunctionBreakpoints(void *user, const char *name) {
  AppState *app = &((Program *)user)->app;
  if (SessionRemoveFunctionBreakpoints(&app->session, name, ForgetEngineBreakpoint, app)) app->session.modified = 1;
}

static void ActionStartDebugging(void *user, bool) {
  Program *program = (Program *)user;
  if (!program->window) {
    program->app.start_when_shown = 1;
    return;
  }
  if (!program->app.target) DebuggingStart(&program->app, kReasonStartCommand, Wake, program);
}

static void ActionStopDebugging(void *user) {
  Program *program = (Program *)user;
  program->app.quit_when_target_exits = 0;
  DebuggingStop(&program->app);
}

static void ActionContinue(void *user) {
  Program *program = (Program *)user;
  AppState *app = &program->app;
  if (app->debug_state == kDebugSuspended)
    DebuggingContinue(app, kStopReasonContinueCommand);
  else if (!app->target && program->window)
    DebuggingStart(app, kStopReasonContinueCommand, Wake, program);
}

static void ActionRemoveAllBreakpoints(void *user) {
  AppState *app = &((Program *)user)->app;
  while (app->session.breakpoint_count) DebuggingRemoveBreakpoint(app, app->session.breakpoints[app->session.breakpoint_count - 1]->id);
}

static CommandActions ProgramActions(Program *program) {
  CommandActions a = {};
  a.user = program;
  a.set_settings_folder = ActionSetSettingsFolder;
  a.open_session = ActionOpenSession;
  a.start_debugging = ActionStartDebugging;
  a.stop_debugging = ActionStopDebugging;
  a.continue_execution = ActionContinue;
  a.remove_all_breakpoints = ActionRemoveAllBreakpoints;
  a.attach_to_process = ActionAttach;
  a.open_file = ActionOpenFile;
  a.close_file = ActionCloseFile;
  a.add_breakpoint_at_file = ActionAddFileBreakpoint;
  a.remove_breakpoint_at_file = ActionRemoveFileBreakpoint;
  a.add_breakpoint_at_function = ActionAddFunctionBreakpoint;
  a.remove_breakpoint_at_function = ActionRemoveFunctionBreakpoints;
  a.run_to_cursor = ActionRunToCursor;
  return a;
}

// [SECTION] Command channel

// A second process with a channel command: hands its arguments to the running instance and ends.
static void ForwardCommand(int argc, const char *const *argv) {
  u16 size = CommandBufferSize(argc - 1, argv + 1);
  u8 *buffer = (u8 *)calloc(1, size ? size : 1);
  if (!buffer) return;
  CommandBufferEncode(buffer, size, argc - 1, argv + 1);
  HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, kCommandMappingName);
  if (mapping) {
    void *view = MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size);
    if (view) {
      memcpy(view, buffer, size);
      UINT message = RegisterWindowMessageA(kCommandMessageName);
      DWORD_PTR ignored;
      if (message) SendMessageTimeoutA(HWND_BROADCAST, message, 0, 0, SMTO_BLOCK, 1000, &ignored);
      UnmapViewOfFile(view);
    }
    CloseHandle(mapping);
  }
  free(buffer);
}

static void ReceiveCommand(Program *program) {
  HANDLE mapping = OpenFileMappingA(FILE_MAP_READ, FALSE, kCommandMappingName);
  if (!mapping) return;
  static ReceivedCommand command;
  const u8 *header = (const u8 *)MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, kCommandBufferHeaderSize);
  if (header) {
    u32 length = (u32)header[21] | ((u32)header[22] << 8);
    UnmapViewOfFile(header);
    const u8 *whole = (const u8 *)MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, kCommandBufferHeaderSize + length);
    if (whole) {
      if (CommandBufferDecode(whole, kCommandBufferHeaderSize + length, &command) == kCommandBufferOk) {
        CommandActions actions = ProgramActions(program);
        actions.set_settings_folder = nullptr;  // start-up only
        CommandDispatch(&actions, command.argc, command.argv);
      }
      UnmapViewOfFile(whole);
    }
  }
  CloseHandle(mapping);
}

// [SECTION] Window title and placement

static void UpdateTitle(Program *program) {
  AppState *app = &program->app;
  char title[kAppTitleCapacity];
  AppStateTitle(app, title, sizeof title);
  wchar_t wide[257];
  int n = MultiByteToWideChar(CP_UTF8, 0, title, -1, wide, 256);
  wide[n > 0 ? n : 0] = 0;
  SetWindowTextW(program->window, wide);
  app->title_modified_shown = app->session.modified;
  app->title_dirty = 0;
}

static void RecordPlacement(Program *program) {
  WINDOWPLACEMENT wp = {sizeof wp};
  if (!GetWindowPlacement(program->window, &wp) || wp.showCmd == SW_SHOWMINIMIZED) return;
  RECT rect;
  GetWindowRect(program->window, &rect);
  WindowPlacement *p = &program->app.placement;
  p->maximized = wp.showCmd == SW_SHOWMAXIMIZED;
  p->x = rect.left;
  p->y = rect.top;
  p->width = rect.right - rect.left;
  p->height = rect.bottom - rect.top;
}

// [SECTION] Frame

static void CarryOutPending(Program *program) {
  AppState *app = &program->app;
  PendingAction pending = app->pending;
  app->pending.path = nullptr;  // taken over here
  AppStateClearPending(app);
  switch (pending.code) {
    case kPendingRestart:
      DebuggingStart(app, pending.reason, Wake, program);
      break;
    case kPendingOpenSession:
      if (pending.path) OpenSession(app, pending.path);
      break;
    case kPendingNewSession:
      SessionReset(&app->session);
      app->title_dirty = 1;
      break;
    case kPendingAttach:
      AttachOrPark(program, pending.process_id, pending.continue_after_attach);
      break;
  }
  free(pending.path);
}

static void CarryOutRequests(Program *program) {
  char source[kAppPathCapacity];
  if (program->frame.source_requests.open_file && AskFilePath(program->window, kDialogOpenSource, source, sizeof source))
    SourceFilesOpen(&program->app, source, 0);
  SourceFilesCarryOut(&program->app, &program->frame.source_requests, Wake, program);
  AppState *app = &program->app;
  const MainFrameRequests *r = &program->frame.requests;
  if (r->start_debugging) DebuggingStart(app, r->start_reason, Wake, program);
  if (r->continue_run) DebuggingContinue(app, r->continue_reason);
  if (r->step) DebuggingStep(app, r->step, r->step_reason, Wake, program);
  if (r->stop_debugging) DebuggingStop(app);
  if (r->break_in) DebuggingBreak(app, r->break_reason);
  DebuggingCarryOutTargetRequests(app, &program->frame.target_requests);
  char picked[kAppPathCapacity];
  TargetModule *module = program->frame.target_requests.pick_symbols;
  if (module && app->target && AskFilePath(program->window, kDialogOpenSymbols, picked, sizeof picked))
    DebuggingReloadSymbols(app, module, picked);
  if (r->restart && app->target && !app->attached) {
    AppStateSetPending(app, kPendingRestart, nullptr);
    app->pending.reason = r->restart_reason;
    DebuggingStop(app);
  }
  if (r->save_session || r->save_session_as) SaveSession(program, r->save_session_as);
  char path[kAppPathCapacity];
  if (r->open_session && AskFilePath(program->window, kDialogOpenSession, path, sizeof path)) OpenSessionAsked(program, path);
  if (r->open_recent) OpenRecent(program, r->open_recent);
  if (r->clear_recent && AskYesNo(program, "Are you sure you want to clear the recent sessions list?"))
    app->settings.recent_files.count = 0;
  if (r->browse_command && AskFilePath(program->window, kDialogOpenProgram, path, sizeof path)) {
    TargetCommand *t = SessionCurrentTarget(&app->session);
    u32 index;
    if (!t && SessionAddTarget(&app->session, "", "", "", &index) == kSessionOk) {
      app->session.current_target = index;
      t = SessionCurrentTarget(&app->session);
    }
    if (t) {
      TextReplace(&t->command, path);
      if (!t->working_directory || !t->working_directory[0]) {
        char folder[kAppPathCapacity];
        ProgramFolder(path, folder, sizeof folder);
        TextReplace(&t->working_directory, folder);
      }
      app->session.modified = 1;
      app->title_dirty = 1;
    }
  }
  if (r->browse_working_directory && SessionCurrentTarget(&app->session) && AskFolder(program->window, path, sizeof path)) {
    TextReplace(&SessionCurrentTarget(&app->session)->working_directory, path);
    app->session.modified = 1;
  }
  if (r->refresh_processes) {
    if (!program->processes) program->processes = (ProcessList *)calloc(1, sizeof(ProcessList));
    if (program->processes && ProcessListRefresh(program->processes) == kEngineOk)
      ProcessListSort(program->processes, program->frame.process_sort);
    program->frame.processes = program->processes;
  }
  if (r->attach_process_id) AttachOrPark(program, r->attach_process_id, false);
  if (r->reattach && program->reattach_name[0]) {
    u32 process_id = ProcessFindByName(program->reattach_name);
    if (process_id) {
      AttachOrPark(program, process_id, false);
    } else {
      char line[kProcessNameCapacity + 80];
      snprintf(line, sizeof line, "Unable to reattach to process named \"%s\". Process not found.\n", program->reattach_name);
      OutputAppendZ(&app->output, line);
    }
  }
  const char *folder = app->settings_folder;
  if (r->save_layout && r->layout_name) SavedLayoutSave(&program->layouts, folder, r->save_layout - 1, r->layout_name, &app->output);
  if (r->load_layout) SavedLayoutLoad(&program->layouts, folder, r->load_layout - 1, &app->output);
  if (r->delete_layout) SavedLayoutDelete(&program->layouts, folder, r->delete_layout - 1);
  if (r->new_session && SavePrompt(program)) {
    if (!app->target) {
      SessionReset(&app->session);
      app->title_dirty = 1;
    } else if (MessageBoxA(program->window, "Do you want to stop debugging?", "Kestrune", MB_YESNO) == IDYES) {
      AppStateSetPending(app, kPendingNewSession, nullptr);
      DebuggingStop(app);
    }
  }
  if (r->quit) PostMessageW(program->window, WM_CLOSE, 0, 0);
}

// The atlas again from the settings at the window's display scale, and its texture.
static void RebuildFonts(Program *program) {
  float scale = ImGui_ImplWin32_GetDpiScaleForHwnd(program->window);
  FontsBuilt fonts = FontsBuild(&program->app, &program->symbol_font, scale > 0 ? scale : 1.0f);
  program->frame.text_font = fonts.text;
  if (program->renderer.device) RendererRebuildFontTexture(&program->renderer);
  program->app.fonts_need_rebuild = 0;
}

// The stopped-frame benchmark's scene, set up once the debugged program stops: the large array
// watched and expanded, the windows that list the threads and the call stack in front.
static void BenchAtStop(Program *program) {
  AppState *app = &program->app;
  u32 n = program->bench_stop_frames++;
  if (n == 0) (void)SessionAddWatchRow(&app->session, 0, "g_million", "");
  if (n == 1) {
    ImGui::SetWindowFocus("Watch 1");
    ImGui::SetWindowFocus("Threads");
    ImGui::SetWindowFocus("Call Stack");
  }
  if (n == 20) {  // its row's result has come: expanded
    WatchPane *pane = WatchPaneGet(0);
    WatchRowView row;
    WatchPaneLayout(pane, app);
    if (WatchPaneRow(pane, app, 0, &row)) WatchPaneSetExpanded(pane, &row, true);
  }
}

static void DrawFrame(Program *program) {
  if (!program->renderer.device) return;
  if (program->app.fonts_need_rebuild) RebuildFonts(program);
  FrameProbeBuildStart(&program->probe);
  SourceFilesEachFrame(&program->app);
  ImGui_ImplWin32_NewFrame();
  ImGui::NewFrame();
  TestHookBeginFrame();
  DrawMainFrame(&program->app, &program->frame);
  if (program->probe.wait_for_stop && program->probe.stop_seen_us) BenchAtStop(program);
  TestHookEndFrame();
  ImGui::Render();
  FrameProbeBuildEnd(&program->probe);
  static const float kClear[4] = {0.10f, 0.10f, 0.11f, 1.0f};
  RendererDrawFrame(&program->renderer, ImGui::GetDrawData(), kClear);
  if (FrameProbeAfterFrame(&program->probe)) PostMessageW(program->window, WM_CLOSE, 0, 0);
  if (program->probe.frames_wanted && program->app.sources.count) {  // the benchmark's source: a page further
    SourceTab *tab = program->app.sources.tabs[0];
    tab->scroll_to_line = (s32)((program->probe.frames_drawn * 60u) % tab->text.line_count);
  }
  CarryOutRequests(program);
  AppState *app = &program->app;
  // The engine's events of this frame, then what waited for the run to end.
  bool ended = DebuggingDrainEvents(app);
  if (app->debug_state == kDebugSuspended && !DebuggingAwaitingFirstRun(app)) FrameProbeStopSeen(&program->probe);
  if (ended) {
    if (app->pending.code)
      CarryOutPending(program);
    else if (app->quit_when_target_exits && app->last_exit_code == 0 && SavePrompt(program))
      PostQuitMessage(0);
  }
  // A launch held at its start is let run once the engine serves commands: look again soon.
  if (DebuggingAwaitingFirstRun(app)) SetTimer(program->window, kFirstRunTimer, 20, nullptr);
  else KillTimer(program->window, kFirstRunTimer);
  if (app->title_dirty || app->title_modified_shown != app->session.modified) UpdateTitle(program);
}

// [SECTION] Window procedure

static LRESULT CALLBACK MainWindowProc(HWND window, UINT message, WPARAM w, LPARAM l) {
  if (ImGui_ImplWin32_WndProcHandler(window, message, w, l)) return 1;
  Program *program = (Program *)GetWindowLongPtrW(window, GWLP_USERDATA);
  static UINT command_message = RegisterWindowMessageA(kCommandMessageName);
  if (command_message && message == command_message) {
    if (program) ReceiveCommand(program);
    PostMessageW(window, WM_USER, 0, 0);
    return DefWindowProcW(window, message, w, l);
  }
  switch (message) {
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
    case WM_MOVE:
      if (program) RecordPlacement(program);
      break;
    case WM_SIZE:
      if (program && w != SIZE_MINIMIZED && program->renderer.device) {
        if (SUCCEEDED(RendererResize(&program->renderer))) {
          RecordPlacement(program);
          DrawFrame(program);  // keeps a resize drag live
        }
      }
      break;
    case WM_PAINT: {
      PAINTSTRUCT ps;
      BeginPaint(window, &ps);
      EndPaint(window, &ps);
      return 0;
    }
    case WM_CLOSE:
      if (program) {
        if (program->app.target && program->app.attached) DebuggingStop(&program->app);
        if (!SavePrompt(program)) return 0;
      }
      break;
    case WM_ERASEBKGND:
      return 1;
    case WM_DPICHANGED:  // fonts again at the new scale; the window takes the size Windows suggests
      if (program) {
        program->app.fonts_need_rebuild = 1;
        const RECT *suggested = (const RECT *)l;
        SetWindowPos(window, nullptr, suggested->left, suggested->top, suggested->right - suggested->left,
                     suggested->bottom - suggested->top, SWP_NOZORDER | SWP_NOACTIVATE);
      }
      return 0;
    case WM_SYSCOMMAND:
      if ((w & 0xFFF0) == SC_KEYMENU) return 0;  // Alt must not open the system menu
      break;
    case WM_USER:
      if (program) program->app.wake = 1;
      return 0;
  }
  return DefWindowProcW(window, message, w, l);
}

// [SECTION] Entry point

// The command line as UTF-8 (heap); null when it cannot be had.
static char **Utf8Arguments(int argc, wchar_t **argv) {
  char **utf8 = (char **)calloc((size_t)argc + 1, sizeof(char *));
  if (!utf8) return nullptr;
  for (int i = 0; i < argc; i++) {
    int n = WideCharToMultiByte(CP_UTF8, 0, argv[i], -1, nullptr, 0, nullptr, nullptr);
    utf8[i] = n > 0 ? (char *)malloc((size_t)n) : nullptr;
    if (!utf8[i] || WideCharToMultiByte(CP_UTF8, 0, argv[i], -1, utf8[i], n, nullptr, nullptr) <= 0) {
      for (int j = 0; j <= i; j++) free(utf8[j]);
      free(utf8);
      return nullptr;
    }
  }
  return utf8;
}

// Command words first; otherwise "-g", "-q" and a program or session. "--settings FOLDER" may come
// before the rest of the command line.
static void TakeArguments(Program *program, int argc, const char *const *argv) {
  AppState *app = &program->app;
  CommandActions actions = ProgramActions(program);
  if (argc >= 2 && CommandDispatch(&actions, argc, argv)) return;
  const char *const *rest = argv;
  int rest_count = argc;
  static const char *shifted[256];
  if (argc >= 3 && strcmp(argv[1], "--settings") == 0 && argc - 2 < 255) {
    shifted[0] = argv[0];
    for (int i = 3; i < argc; i++) shifted[i - 2] = argv[i];
    rest = shifted;
    rest_count = argc - 2;
  }
  if (rest_count < 2) return;
  static StartupArguments args;
  if (StartupArgumentsParse(&args, rest_count, rest) != 0) return;
  app->start_when_shown = args.go;
  app->quit_when_target_exits = args.quit_on_exit;
  if (args.kind == kStartupSession) OpenSession(app, args.path);
  if (args.kind == kStartupProgram) {
    StartupApplyProgram(&args, &app->session);
    app->session.modified = 0;
  }
  StartupArgumentsFree(&args);
}

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, PWSTR, int show_command) {
  Program *program = &g_program;
  AppState *app = &program->app;
  int argc = 0;
  wchar_t **wide_argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  char **argv = wide_argv ? Utf8Arguments(argc, wide_argv) : nullptr;
  if (!argv) argc = 0;

  // Single instance: a channel command goes to the instance that runs; anything else starts a
  // further, independent instance.
  HANDLE mutex = CreateMutexA(nullptr, TRUE, kInstanceMutexName);
  if (mutex && GetLastError() == ERROR_ALREADY_EXISTS) {
    if (argc >= 2 && CommandIsChannelWord(argv[1])) {
      ForwardCommand(argc, argv);
      CloseHandle(mutex);
      return 0;
    }
    CloseHandle(mutex);
    mutex = nullptr;
  }

  CoInitialize(nullptr);
  ImGui_ImplWin32_EnableDpiAwareness();  // real pixels and WM_DPICHANGED, not a stretched bitmap
  AppStateInit(app);
  program->test_hook = TestHookInit();
  if (argv) TakeArguments(program, argc, argv);

  IMGUI_CHECKVERSION();
  ImGui::CreateContext();
  ImGuiIO &io = ImGui::GetIO();
  io.ConfigFlags |= ImGuiConfigFlags_NavEnableKeyboard | ImGuiConfigFlags_DockingEnable;
  io.IniFilename = nullptr;
  ChooseSettingsFolder(app);

  WNDCLASSEXW wc = {sizeof wc};
  wc.style = CS_CLASSDC;
  wc.lpfnWndProc = MainWindowProc;
  wc.hInstance = instance;
  wc.hIcon = LoadIconW(instance, MAKEINTRESOURCEW(kIconResource));
  wc.hCursor = LoadCursorW(nullptr, (LPCWSTR)IDC_ARROW);
  wc.lpszClassName = kWindowClassName;
  RegisterClassExW(&wc);

  RegisterSettingsAndLoad(app);
  SavedLayoutsRead(&program->layouts, app->settings_folder);
  program->frame.layouts = &program->layouts;
  program->frame.reattach_name = program->reattach_name;
  app->style_applied = -1;  // the colours and sizes of the settings are applied by the first frame
  if (app->settings.open_last_session_on_startup && !SessionCurrentTarget(&app->session) &&
      app->settings.recent_files.count)
    OpenSession(app, app->settings.recent_files.paths[0]);

  program->window = CreateWindowExW(0, kWindowClassName, L"", WS_OVERLAPPEDWINDOW, app->placement.x, app->placement.y,
                                    app->placement.width, app->placement.height, nullptr, nullptr, instance, nullptr);
  UpdateTitle(program);
  ImGui_ImplWin32_Init(program->window);
  (void)FolderWatchStart(Wake, program);  // without it each tab's folder is tested every frame

  program->symbol_font.data = FindRawResource(kSymbolFontResource, &program->symbol_font.size);
  RebuildFonts(program);  // before the renderer, which uploads the atlas

  RendererShaders shaders = {};
  HRESULT hr = E_FAIL;
  if (LoadShaders(&shaders)) {
    hr = RendererCreate(&program->renderer, program->window, &shaders);
    if (FAILED(hr)) {
      wchar_t text[128];
      swprintf(text, 128, L"Unable to create D3D device for UI (%08X)\n", (unsigned)hr);
      ShowError(text);
    }
  }
  if (FAILED(hr)) {
    ImGui_ImplWin32_Shutdown();
    io.IniFilename = nullptr;
    ImGui::DestroyContext();
    DestroyWindow(program->window);
    UnregisterClassW(kWindowClassName, instance);
    return 1;
  }

  SetWindowLongPtrW(program->window, GWLP_USERDATA, (LONG_PTR)program);
  ShowWindow(program->window, app->placement.maximized ? SW_SHOWMAXIMIZED : show_command);
  UpdateWindow(program->window);
  if (program->test_hook) SetTimer(program->window, kTestHookTimer, 100, nullptr);
  if (FrameProbeInit(&program->probe)) {
    // A benchmark: the output window filled as asked, and a slow timer so that a window that is
    // not active (and so sleeps) still reaches the end of the measured time.
    char line[96];
    for (u32 i = 0, count = FrameProbeOutputLines(); i < count; i++) {
      int length = snprintf(line, sizeof line, "second %u: %u particles, energy %u.%u\n", i, i % 200, i * 7, i % 10);
      OutputAppend(&app->output, line, (u64)length);
    }
    char source[kAppPathCapacity];
    if (FrameProbeSourceFile(source, sizeof source)) SourceFilesOpen(app, source, 1);
    SetTimer(program->window, kBenchTimer, 500, nullptr);
  }
  if (app->start_when_shown) DebuggingStart(app, 5, Wake, program);
  else if (program->attach_when_shown) AttachOrPark(program, program->attach_when_shown, program->let_run_when_shown);

  // Draws continuously while visible and active; otherwise sleeps in GetMessage and answers each
  // message (or wake-up) with two frames, which Dear ImGui needs to settle its layout.
  for (;;) {
    MSG msg;
    if (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
      if (msg.message == WM_QUIT) break;
      TranslateMessage(&msg);
      DispatchMessageW(&msg);
      continue;
    }
    if (!IsIconic(program->window) && GetActiveWindow() == program->window) {
      DrawFrame(program);
    } else if (!app->wake) {
      DrawFrame(program);
      // The engine wakes us (WM_USER) only once told that we sleep; events already queued are
      // drawn first.
      if (!DebuggingMaySleep(app)) {
        app->wake = 1;
        continue;
      }
      BOOL got = GetMessageW(&msg, nullptr, 0, 0);
      if (got == 0) break;
      if (got != -1) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
        DrawFrame(program);
        DrawFrame(program);
      }
    } else {
      DrawFrame(program);
      DrawFrame(program);
      app->wake = 0;
    }
  }

  if (app->target) {  // closing while debugging: the launched program goes with us
    DebuggingStop(app);
    for (int waited = 0; app->target && waited < 500; waited++) {  // at most 5 s
      DebuggingDrainEvents(app);
      Sleep(10);
    }
  }
  RendererDestroy(&program->renderer);
  ImGui_ImplWin32_Shutdown();
  ImGui::DestroyContext();  // writes the ini file
  DestroyWindow(program->window);
  UnregisterClassW(kWindowClassName, instance);
  SourceFilesCloseAll(app);
  FolderWatchStop();
  AppStateFree(app);
  free(program->processes);
  if (wide_argv) LocalFree(wide_argv);
  CoUninitialize();
  if (mutex) {
    ReleaseMutex(mutex);
    CloseHandle(mutex);
  }
  return 0;
}
