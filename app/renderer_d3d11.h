// Draws Dear ImGui's frames on the main window with Direct3D 11. The shaders are precompiled
// bytecode taken from the executable's resources; nothing is compiled at run time.
#pragma once
#include <d3d11.h>
#include <dxgi.h>

#include "base/types.h"

struct ImDrawData;

struct RendererShaders {
  const void *vertex_code;
  u64 vertex_size;
  const void *pixel_code;
  u64 pixel_size;
};

struct Renderer {
  HWND window;
  RendererShaders shaders;
  ID3D11Device *device;
  ID3D11DeviceContext *context;
  IDXGISwapChain *swap_chain;
  ID3D11RenderTargetView *target_view;
  ID3D11VertexShader *vertex_shader;
  ID3D11InputLayout *input_layout;
  ID3D11Buffer *projection_buffer;  // 64 bytes: one float4x4
  ID3D11PixelShader *pixel_shader;
  ID3D11SamplerState *sampler;
  ID3D11BlendState *blend_state;
  ID3D11RasterizerState *rasterizer_state;
  ID3D11DepthStencilState *depth_state;
  ID3D11Texture2D *font_texture;
  ID3D11ShaderResourceView *font_view;
  ID3D11Buffer *vertex_buffer;
  ID3D11Buffer *index_buffer;
  int vertex_capacity;
  int index_capacity;
  D3D_DRIVER_TYPE driver_type;
  D3D_FEATURE_LEVEL feature_level;
};

// Creates device, swap chain, pipeline objects and the font texture of the current ImGui context.
// Returns S_OK or the failing HRESULT; on failure everything created so far is released.
HRESULT RendererCreate(Renderer *renderer, HWND window, const RendererShaders *shaders);
void RendererDestroy(Renderer *renderer);
// Resizes the swap chain's buffers to the window's client size (called from WM_SIZE).
HRESULT RendererResize(Renderer *renderer);
// Draws one frame of ImGui draw data and presents it with a sync interval of 1. A lost device is
// rebuilt on the same window before returning.
HRESULT RendererDrawFrame(Renderer *renderer, ImDrawData *draw_data, const float clear_color[4]);
// Uploads the font atlas again after fonts or the display scale changed.
HRESULT RendererRebuildFontTexture(Renderer *renderer);
// True when the result means the device is gone and must be created again.
bool RendererIsDeviceLost(HRESULT result);
