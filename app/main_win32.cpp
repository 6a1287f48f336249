// kestrune.exe: the Windows entry point, the main window and the frame loop of the UI thread.
//
// [SECTION] Application state
// [SECTION] Resources
// [SECTION] Window title and placement
// [SECTION] Frame
// [SECTION] Window procedure
// [SECTION] Entry point
#include <windows.h>
#include <objbase.h>
#include <shellapi.h>

#include <imgui.h>
#include <imgui_impl_win32.h>
#include <stdio.h>
#include <string.h>

#include "app/command_line.h"
#include "app/renderer_d3d11.h"
#include "ui/main_frame.h"

extern IMGUI_IMPL_API LRESULT ImGui_ImplWin32_WndProcHandler(HWND window, UINT message, WPARAM w, LPARAM l);

static const wchar_t kWindowClassName[] = L"ktrn_MainWindowClass";
static const wchar_t kProductName[] = L"Kestrune";
enum { kIconResource = 103, kVertexShaderResource = 104, kPixelShaderResource = 105 };

// [SECTION] Application state

struct WindowPlacement {
  s32 x, y, width, height;
  u8 maximized;
};

struct AppState {
  HWND window;
  Renderer renderer;
  WindowPlacement placement;  // last restored placement
  bool wake;                  // set by WM_USER: draw two frames at once
  char target_path[4096];     // program named on the command line, empty when none
  MainFrameState frame;
};

static AppState g_app;

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

// [SECTION] Window title and placement

static const char *FileNamePart(const char *path) {
  const char *name = path;
  for (const char *p = path; *p; p++)
    if (*p == '\\' || *p == '/') name = p + 1;
  return name;
}

// "<program or Untitled> - Kestrune"; sessions and the modified mark come with session support.
static void UpdateTitle(AppState *app) {
  char title[512];
  snprintf(title, sizeof title, "%s - Kestrune", app->target_path[0] ? FileNamePart(app->target_path) : "Untitled");
  wchar_t wide[257];
  int n = MultiByteToWideChar(CP_UTF8, 0, title, -1, wide, 256);
  wide[n > 0 ? n : 0] = 0;
  SetWindowTextW(app->window, wide);
}

static void RecordPlacement(AppState *app) {
  WINDOWPLACEMENT wp = {sizeof wp};
  if (!GetWindowPlacement(app->window, &wp) || wp.showCmd == SW_SHOWMINIMIZED) return;
  RECT rect;
  GetWindowRect(app->window, &rect);
  app->placement.maximized = wp.showCmd == SW_SHOWMAXIMIZED;
  app->placement.x = rect.left;
  app->placement.y = rect.top;
  app->placement.width = rect.right - rect.left;
  app->placement.height = rect.bottom - rect.top;
}

// [SECTION] Frame

static void DrawFrame(AppState *app) {
  if (!app->renderer.device) return;
  ImGui_ImplWin32_NewFrame();
  ImGui::NewFrame();
  DrawMainFrame(&app->frame);
  ImGui::Render();
  static const float kClear[4] = {0.10f, 0.10f, 0.11f, 1.0f};
  RendererDrawFrame(&app->renderer, ImGui::GetDrawData(), kClear);
  if (app->frame.quit_requested) {
    app->frame.quit_requested = false;
    PostMessageW(app->window, WM_CLOSE, 0, 0);
  }
}

// [SECTION] Window procedure

static LRESULT CALLBACK MainWindowProc(HWND window, UINT message, WPARAM w, LPARAM l) {
  if (ImGui_ImplWin32_WndProcHandler(window, message, w, l)) return 1;
  AppState *app = (AppState *)GetWindowLongPtrW(window, GWLP_USERDATA);
  switch (message) {
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
    case WM_MOVE:
      if (app) RecordPlacement(app);
      break;
    case WM_SIZE:
      if (app && w != SIZE_MINIMIZED && app->renderer.device) {
        if (SUCCEEDED(RendererResize(&app->renderer))) {
          RecordPlacement(app);
          DrawFrame(app);  // keeps a resize drag live
        }
      }
      break;
    case WM_PAINT: {
      PAINTSTRUCT ps;
      BeginPaint(window, &ps);
      EndPaint(window, &ps);
      return 0;
    }
    case WM_ERASEBKGND:
      return 1;
    case WM_SYSCOMMAND:
      if ((w & 0xFFF0) == SC_KEYMENU) return 0;  // Alt must not open the system menu
      break;
    case WM_USER:
      if (app) app->wake = true;
      return 0;
  }
  return DefWindowProcW(window, message, w, l);
}

// [SECTION] Entry point

// Reads the start-up arguments: "-g", "-q", then a program (as given or with ".exe") or a session.
// Only the program's name is used so far, for the title; launching comes with the engine.
static void TakeTargetFromArguments(AppState *app, int argc, wchar_t **argv) {
  if (argc < 2) return;
  char **utf8 = (char **)HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(char *) * (size_t)argc);
  if (!utf8) return;
  bool converted = true;
  for (int i = 0; i < argc && converted; i++) {
    int n = WideCharToMultiByte(CP_UTF8, 0, argv[i], -1, nullptr, 0, nullptr, nullptr);
    utf8[i] = n > 0 ? (char *)HeapAlloc(GetProcessHeap(), 0, (size_t)n) : nullptr;
    converted = utf8[i] && WideCharToMultiByte(CP_UTF8, 0, argv[i], -1, utf8[i], n, nullptr, nullptr) > 0;
  }
  StartupArguments args = {};
  if (converted && StartupArgumentsParse(&args, argc, utf8) == 0 && args.kind != kStartupNothing)
    snprintf(app->target_path, sizeof app->target_path, "%s", args.path);
  StartupArgumentsFree(&args);
  for (int i = 0; i < argc; i++)
    if (utf8[i]) HeapFree(GetProcessHeap(), 0, utf8[i]);
  HeapFree(GetProcessHeap(), 0, utf8);
}

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, PWSTR, int show_command) {
  AppState *app = &g_app;
  CoInitialize(nullptr);
  int argc = 0;
  wchar_t **argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  if (argv) TakeTargetFromArguments(app, argc, argv);

  IMGUI_CHECKVERSION();
  ImGui::CreateContext();
  ImGuiIO &io = ImGui::GetIO();
  io.ConfigFlags |= ImGuiConfigFlags_NavEnableKeyboard | ImGuiConfigFlags_DockingEnable;
  io.IniFilename = nullptr;  // settings persistence registers its own handler
  ImGui::StyleColorsDark();

  WNDCLASSEXW wc = {sizeof wc};
  wc.style = CS_CLASSDC;
  wc.lpfnWndProc = MainWindowProc;
  wc.hInstance = instance;
  wc.hIcon = LoadIconW(instance, MAKEINTRESOURCEW(kIconResource));
  wc.hCursor = LoadCursorW(nullptr, (LPCWSTR)IDC_ARROW);
  wc.lpszClassName = kWindowClassName;
  RegisterClassExW(&wc);

  app->window = CreateWindowExW(0, kWindowClassName, L"", WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, CW_USEDEFAULT,
                                CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr, instance, nullptr);
  UpdateTitle(app);
  ImGui_ImplWin32_Init(app->window);

  RendererShaders shaders = {};
  HRESULT hr = E_FAIL;
  bool have_shaders = LoadShaders(&shaders);
  if (have_shaders) {
    hr = RendererCreate(&app->renderer, app->window, &shaders);
    if (FAILED(hr)) {
      wchar_t text[128];
      swprintf(text, 128, L"Unable to create D3D device for UI (%08X)\n", (unsigned)hr);
      ShowError(text);
    }
  }
  if (FAILED(hr)) {
    ImGui_ImplWin32_Shutdown();
    ImGui::DestroyContext();
    DestroyWindow(app->window);
    UnregisterClassW(kWindowClassName, instance);
    return 1;
  }

  app->frame.target_name = app->target_path[0] ? FileNamePart(app->target_path) : nullptr;
  SetWindowLongPtrW(app->window, GWLP_USERDATA, (LONG_PTR)app);
  ShowWindow(app->window, app->placement.maximized ? SW_SHOWMAXIMIZED : show_command);
  UpdateWindow(app->window);

  // Draws continuously while visible and active; otherwise sleeps in GetMessage and answers each
  // message (or wake-up) with two frames, which Dear ImGui needs to settle its layout.
  bool running = true;
  while (running) {
    MSG msg;
    if (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
      if (msg.message == WM_QUIT) break;
      TranslateMessage(&msg);
      DispatchMessageW(&msg);
      continue;
    }
    if (!IsIconic(app->window) && GetActiveWindow() == app->window) {
      DrawFrame(app);
    } else if (!app->wake) {
      DrawFrame(app);
      BOOL got = GetMessageW(&msg, nullptr, 0, 0);
      if (got == 0) break;
      if (got != -1) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
        DrawFrame(app);
        DrawFrame(app);
      }
    } else {
      DrawFrame(app);
      DrawFrame(app);
      app->wake = false;
    }
  }

  RendererDestroy(&app->renderer);
  ImGui_ImplWin32_Shutdown();
  ImGui::DestroyContext();
  DestroyWindow(app->window);
  UnregisterClassW(kWindowClassName, instance);
  if (argv) LocalFree(argv);
  CoUninitialize();
  return 0;
}
