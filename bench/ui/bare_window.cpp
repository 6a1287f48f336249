// The reference of the UI benchmarks: a bare Dear ImGui window on Direct3D 11 (the same renderer
// and loop shape as kestrune.exe, no application around it), measured by the same frame probe.
// usage: bench_bare_window.exe VERTEX_SHADER.dxbc PIXEL_SHADER.dxbc (KTRN_BENCH_* as for the program)
#include <imgui.h>
#include <imgui_impl_win32.h>
#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include "app/frame_probe.h"
#include "app/renderer_d3d11.h"

extern IMGUI_IMPL_API LRESULT ImGui_ImplWin32_WndProcHandler(HWND, UINT, WPARAM, LPARAM);

static Renderer g_renderer;

static LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM w, LPARAM l) {
  if (ImGui_ImplWin32_WndProcHandler(window, message, w, l)) return 1;
  if (message == WM_SIZE && g_renderer.device && w != SIZE_MINIMIZED) (void)RendererResize(&g_renderer);
  if (message == WM_DESTROY) PostQuitMessage(0);
  return DefWindowProcW(window, message, w, l);
}

static void *ReadWhole(const char *path, u64 *size) {
  FILE *file = fopen(path, "rb");
  if (!file) return nullptr;
  fseek(file, 0, SEEK_END);
  long length = ftell(file);
  fseek(file, 0, SEEK_SET);
  void *data = length > 0 ? malloc((size_t)length) : nullptr;
  if (data && fread(data, 1, (size_t)length, file) != (size_t)length) {
    free(data);
    data = nullptr;
  }
  fclose(file);
  *size = (u64)length;
  return data;
}

int main(int argc, char **argv) {
  RendererShaders shaders = {};
  if (argc != 3 || !(shaders.vertex_code = ReadWhole(argv[1], &shaders.vertex_size)) ||
      !(shaders.pixel_code = ReadWhole(argv[2], &shaders.pixel_size))) {
    fprintf(stderr, "usage: bench_bare_window VERTEX_SHADER.dxbc PIXEL_SHADER.dxbc\n");
    return 2;
  }
  FrameProbe probe;
  if (!FrameProbeInit(&probe)) {
    fprintf(stderr, "KTRN_BENCH_FRAMES and KTRN_BENCH_OUT must be set\n");
    return 2;
  }
  ImGui::CreateContext();
  ImGui::GetIO().IniFilename = nullptr;
  WNDCLASSEXW wc = {sizeof wc};
  wc.style = CS_CLASSDC;
  wc.lpfnWndProc = WindowProc;
  wc.hInstance = GetModuleHandleW(nullptr);
  wc.lpszClassName = L"ktrn_BareBenchWindow";
  RegisterClassExW(&wc);
  HWND window = CreateWindowExW(0, wc.lpszClassName, L"bare - Kestrune bench", WS_OVERLAPPEDWINDOW, 100, 100, 1200,
                                700, nullptr, nullptr, wc.hInstance, nullptr);
  ImGui_ImplWin32_Init(window);
  if (FAILED(RendererCreate(&g_renderer, window, &shaders))) return 1;
  ShowWindow(window, SW_SHOWDEFAULT);
  SetTimer(window, 1, 500, nullptr);
  for (;;) {  // the program's loop: continuous while active, asleep otherwise
    MSG msg;
    if (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
      if (msg.message == WM_QUIT) break;
      TranslateMessage(&msg);
      DispatchMessageW(&msg);
      continue;
    }
    if (!(!IsIconic(window) && GetActiveWindow() == window) && GetMessageW(&msg, nullptr, 0, 0) > 0) {
      TranslateMessage(&msg);
      DispatchMessageW(&msg);
    }
    FrameProbeBuildStart(&probe);
    ImGui_ImplWin32_NewFrame();
    ImGui::NewFrame();
    if (ImGui::BeginMainMenuBar()) {
      ImGui::MenuItem("Session");
      ImGui::EndMainMenuBar();
    }
    ImGui::Render();
    FrameProbeBuildEnd(&probe);
    static const float kClear[4] = {0.10f, 0.10f, 0.11f, 1.0f};
    RendererDrawFrame(&g_renderer, ImGui::GetDrawData(), kClear);
    if (FrameProbeAfterFrame(&probe)) DestroyWindow(window);
  }
  RendererDestroy(&g_renderer);
  ImGui_ImplWin32_Shutdown();
  ImGui::DestroyContext();
  return 0;
}
