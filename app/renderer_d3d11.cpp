// Direct3D 11 renderer for Dear ImGui draw lists.
//
// [SECTION] Device and swap chain
// [SECTION] Pipeline objects
// [SECTION] Font texture
// [SECTION] Frame
#include "app/renderer_d3d11.h"

#include <dxgi1_2.h>
#include <imgui.h>
#include <string.h>

template <typename T>
static void Release(T *&object) {
  if (object) object->Release();
  object = nullptr;
}

bool RendererIsDeviceLost(HRESULT result) {
  return result == DXGI_ERROR_DEVICE_REMOVED || result == DXGI_ERROR_DEVICE_RESET;
}

// [SECTION] Device and swap chain

static HRESULT CreateDevice(Renderer *r) {
  static const D3D_DRIVER_TYPE kDrivers[] = {D3D_DRIVER_TYPE_HARDWARE, D3D_DRIVER_TYPE_WARP, D3D_DRIVER_TYPE_REFERENCE};
  static const D3D_FEATURE_LEVEL kLevels[] = {D3D_FEATURE_LEVEL_11_1, D3D_FEATURE_LEVEL_11_0, D3D_FEATURE_LEVEL_10_1,
                                              D3D_FEATURE_LEVEL_10_0};
  HRESULT hr = E_FAIL;
  for (D3D_DRIVER_TYPE driver : kDrivers) {
    hr = D3D11CreateDevice(nullptr, driver, nullptr, 0, kLevels, 4, D3D11_SDK_VERSION, &r->device, &r->feature_level,
                           &r->context);
    if (hr == E_INVALIDARG)  // a runtime that does not know 11.1 rejects the whole list
      hr = D3D11CreateDevice(nullptr, driver, nullptr, 0, kLevels + 1, 3, D3D11_SDK_VERSION, &r->device,
                             &r->feature_level, &r->context);
    if (SUCCEEDED(hr)) {
      r->driver_type = driver;
      return hr;
    }
  }
  return hr;
}

static HRESULT CreateTargetView(Renderer *r) {
  ID3D11Texture2D *back_buffer = nullptr;
  HRESULT hr = r->swap_chain->GetBuffer(0, __uuidof(ID3D11Texture2D), (void **)&back_buffer);
  if (FAILED(hr)) return hr;
  hr = r->device->CreateRenderTargetView(back_buffer, nullptr, &r->target_view);
  back_buffer->Release();
  return hr;
}

static HRESULT CreateSwapChain(Renderer *r) {
  IDXGIDevice *dxgi_device = nullptr;
  IDXGIAdapter *adapter = nullptr;
  IDXGIFactory *factory = nullptr;
  HRESULT hr = r->device->QueryInterface(__uuidof(IDXGIDevice), (void **)&dxgi_device);
  if (SUCCEEDED(hr)) hr = dxgi_device->GetAdapter(&adapter);
  if (SUCCEEDED(hr)) hr = adapter->GetParent(__uuidof(IDXGIFactory), (void **)&factory);
  if (SUCCEEDED(hr)) {
    factory->MakeWindowAssociation(r->window, DXGI_MWA_NO_ALT_ENTER);
    IDXGIFactory2 *factory2 = nullptr;
    if (SUCCEEDED(factory->QueryInterface(__uuidof(IDXGIFactory2), (void **)&factory2))) {
      DXGI_SWAP_CHAIN_DESC1 desc = {};
      desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
      desc.SampleDesc.Count = 1;
      desc.BufferUsage = DXGI_USAGE_RENDER_TARGET_OUTPUT;
      desc.BufferCount = 1;
      desc.SwapEffect = DXGI_SWAP_EFFECT_DISCARD;
      IDXGISwapChain1 *chain1 = nullptr;
      hr = factory2->CreateSwapChainForHwnd(r->device, r->window, &desc, nullptr, nullptr, &chain1);
      if (SUCCEEDED(hr)) r->swap_chain = chain1;
      factory2->Release();
    } else {
      DXGI_SWAP_CHAIN_DESC desc = {};
      desc.BufferDesc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
      desc.BufferDesc.RefreshRate.Numerator = 60;
      desc.BufferDesc.RefreshRate.Denominator = 1;
      desc.SampleDesc.Count = 1;
      desc.BufferUsage = DXGI_USAGE_RENDER_TARGET_OUTPUT;
      desc.BufferCount = 1;
      desc.OutputWindow = r->window;
      desc.Windowed = TRUE;
      desc.SwapEffect = DXGI_SWAP_EFFECT_DISCARD;
      hr = factory->CreateSwapChain(r->device, &desc, &r->swap_chain);
    }
  }
  if (factory) factory->Release();
  if (adapter) adapter->Release();
  if (dxgi_device) dxgi_device->Release();
  if (SUCCEEDED(hr)) hr = CreateTargetView(r);
  return hr;
}

// [SECTION] Pipeline objects

static HRESULT CreatePipeline(Renderer *r) {
  HRESULT hr = r->device->CreateVertexShader(r->shaders.vertex_code, (SIZE_T)r->shaders.vertex_size, nullptr,
                                             &r->vertex_shader);
  if (FAILED(hr)) return hr;
  // 20 bytes a vertex, as ImDrawVert lays it out.
  static const D3D11_INPUT_ELEMENT_DESC kLayout[] = {
      {"POSITION", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 0, D3D11_INPUT_PER_VERTEX_DATA, 0},
      {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 8, D3D11_INPUT_PER_VERTEX_DATA, 0},
      {"COLOR", 0, DXGI_FORMAT_R8G8B8A8_UNORM, 0, 16, D3D11_INPUT_PER_VERTEX_DATA, 0},
  };
  static_assert(sizeof(ImDrawVert) == 20, "vertex layout assumes 20-byte ImDrawVert");
  hr = r->device->CreateInputLayout(kLayout, 3, r->shaders.vertex_code, (SIZE_T)r->shaders.vertex_size,
                                    &r->input_layout);
  if (FAILED(hr)) return hr;
  D3D11_BUFFER_DESC cb = {};
  cb.ByteWidth = 64;
  cb.Usage = D3D11_USAGE_DYNAMIC;
  cb.BindFlags = D3D11_BIND_CONSTANT_BUFFER;
  cb.CPUAccessFlags = D3D11_CPU_ACCESS_WRITE;
  hr = r->device->CreateBuffer(&cb, nullptr, &r->projection_buffer);
  if (FAILED(hr)) return hr;
  hr = r->device->CreatePixelShader(r->shaders.pixel_code, (SIZE_T)r->shaders.pixel_size, nullptr, &r->pixel_shader);
  if (FAILED(hr)) return hr;

  D3D11_BLEND_DESC blend = {};
  blend.RenderTarget[0].BlendEnable = TRUE;
  blend.RenderTarget[0].SrcBlend = D3D11_BLEND_SRC_ALPHA;
  blend.RenderTarget[0].DestBlend = D3D11_BLEND_INV_SRC_ALPHA;
  blend.RenderTarget[0].BlendOp = D3D11_BLEND_OP_ADD;
  blend.RenderTarget[0].SrcBlendAlpha = D3D11_BLEND_ONE;
  blend.RenderTarget[0].DestBlendAlpha = D3D11_BLEND_INV_SRC_ALPHA;
  blend.RenderTarget[0].BlendOpAlpha = D3D11_BLEND_OP_ADD;
  blend.RenderTarget[0].RenderTargetWriteMask = D3D11_COLOR_WRITE_ENABLE_ALL;
  hr = r->device->CreateBlendState(&blend, &r->blend_state);
  if (FAILED(hr)) return hr;

  D3D11_RASTERIZER_DESC raster = {};
  raster.FillMode = D3D11_FILL_SOLID;
  raster.CullMode = D3D11_CULL_NONE;
  raster.ScissorEnable = TRUE;
  raster.DepthClipEnable = TRUE;
  hr = r->device->CreateRasterizerState(&raster, &r->rasterizer_state);
  if (FAILED(hr)) return hr;

  D3D11_DEPTH_STENCIL_DESC depth = {};
  depth.DepthEnable = FALSE;
  depth.DepthWriteMask = D3D11_DEPTH_WRITE_MASK_ALL;
  depth.DepthFunc = D3D11_COMPARISON_ALWAYS;
  depth.FrontFace.StencilFailOp = depth.FrontFace.StencilDepthFailOp = depth.FrontFace.StencilPassOp =
      D3D11_STENCIL_OP_KEEP;
  depth.FrontFace.StencilFunc = D3D11_COMPARISON_ALWAYS;
  depth.BackFace = depth.FrontFace;
  hr = r->device->CreateDepthStencilState(&depth, &r->depth_state);
  if (FAILED(hr)) return hr;

  D3D11_SAMPLER_DESC sampler = {};
  sampler.Filter = D3D11_FILTER_MIN_MAG_MIP_LINEAR;
  sampler.AddressU = sampler.AddressV = sampler.AddressW = D3D11_TEXTURE_ADDRESS_WRAP;
  sampler.ComparisonFunc = D3D11_COMPARISON_ALWAYS;
  return r->device->CreateSamplerState(&sampler, &r->sampler);
}

// [SECTION] Font texture

HRESULT RendererRebuildFontTexture(Renderer *r) {
  Release(r->font_view);
  Release(r->font_texture);
  ImGuiIO &io = ImGui::GetIO();
  unsigned char *pixels = nullptr;
  int width = 0, height = 0;
  io.Fonts->GetTexDataAsRGBA32(&pixels, &width, &height);
  D3D11_TEXTURE2D_DESC desc = {};
  desc.Width = (UINT)width;
  desc.Height = (UINT)height;
  desc.MipLevels = 1;
  desc.ArraySize = 1;
  desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
  desc.SampleDesc.Count = 1;
  desc.Usage = D3D11_USAGE_DEFAULT;
  desc.BindFlags = D3D11_BIND_SHADER_RESOURCE;
  D3D11_SUBRESOURCE_DATA data = {};
  data.pSysMem = pixels;
  data.SysMemPitch = desc.Width * 4;
  HRESULT hr = r->device->CreateTexture2D(&desc, &data, &r->font_texture);
  if (FAILED(hr)) return hr;
  D3D11_SHADER_RESOURCE_VIEW_DESC view = {};
  view.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
  view.ViewDimension = D3D11_SRV_DIMENSION_TEXTURE2D;
  view.Texture2D.MipLevels = 1;
  hr = r->device->CreateShaderResourceView(r->font_texture, &view, &r->font_view);
  if (FAILED(hr)) return hr;
  io.Fonts->SetTexID((ImTextureID)r->font_view);
  return S_OK;
}

HRESULT RendererCreate(Renderer *r, HWND window, const RendererShaders *shaders) {
  memset(r, 0, sizeof *r);
  r->window = window;
  r->shaders = *shaders;
  HRESULT hr = CreateDevice(r);
  if (SUCCEEDED(hr)) hr = CreateSwapChain(r);
  if (SUCCEEDED(hr)) hr = CreatePipeline(r);
  if (SUCCEEDED(hr)) hr = RendererRebuildFontTexture(r);
  if (FAILED(hr)) RendererDestroy(r);
  return hr;
}

void RendererDestroy(Renderer *r) {
  if (r->context) r->context->ClearState();
  Release(r->vertex_buffer);
  Release(r->index_buffer);
  Release(r->font_view);
  Release(r->font_texture);
  Release(r->sampler);
  Release(r->depth_state);
  Release(r->rasterizer_state);
  Release(r->blend_state);
  Release(r->pixel_shader);
  Release(r->projection_buffer);
  Release(r->input_layout);
  Release(r->vertex_shader);
  Release(r->target_view);
  Release(r->swap_chain);
  Release(r->context);
  Release(r->device);
  r->vertex_capacity = r->index_capacity = 0;
}

// Tears everything down and builds it again on the same window after the device was lost.
static HRESULT Recreate(Renderer *r) {
  HWND window = r->window;
  RendererShaders shaders = r->shaders;
  RendererDestroy(r);
  return RendererCreate(r, window, &shaders);
}

HRESULT RendererResize(Renderer *r) {
  if (!r->swap_chain) return E_FAIL;
  r->context->OMSetRenderTargets(0, nullptr, nullptr);
  Release(r->target_view);
  HRESULT hr = r->swap_chain->ResizeBuffers(0, 0, 0, DXGI_FORMAT_UNKNOWN, 0);
  if (RendererIsDeviceLost(hr)) return Recreate(r);
  if (FAILED(hr)) return hr;
  return CreateTargetView(r);
}

// [SECTION] Frame

static HRESULT GrowBuffer(Renderer *r, ID3D11Buffer **buffer, int *capacity, int needed, int stride, UINT bind) {
  if (*buffer && *capacity >= needed) return S_OK;
  Release(*buffer);
  *capacity = needed + needed / 2 + 1024;  // headroom so that a growing UI does not reallocate every frame
  D3D11_BUFFER_DESC desc = {};
  desc.ByteWidth = (UINT)(*capacity * stride);
  desc.Usage = D3D11_USAGE_DYNAMIC;
  desc.BindFlags = bind;
  desc.CPUAccessFlags = D3D11_CPU_ACCESS_WRITE;
  return r->device->CreateBuffer(&desc, nullptr, buffer);
}

static void SetupState(Renderer *r, ImDrawData *dd) {
  ID3D11DeviceContext *ctx = r->context;
  D3D11_VIEWPORT vp = {};
  vp.Width = dd->DisplaySize.x;
  vp.Height = dd->DisplaySize.y;
  vp.MaxDepth = 1.0f;
  ctx->RSSetViewports(1, &vp);
  UINT stride = sizeof(ImDrawVert), offset = 0;
  ctx->IASetInputLayout(r->input_layout);
  ctx->IASetVertexBuffers(0, 1, &r->vertex_buffer, &stride, &offset);
  ctx->IASetIndexBuffer(r->index_buffer, sizeof(ImDrawIdx) == 2 ? DXGI_FORMAT_R16_UINT : DXGI_FORMAT_R32_UINT, 0);
  ctx->IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
  ctx->VSSetShader(r->vertex_shader, nullptr, 0);
  ctx->VSSetConstantBuffers(0, 1, &r->projection_buffer);
  ctx->PSSetShader(r->pixel_shader, nullptr, 0);
  ctx->PSSetSamplers(0, 1, &r->sampler);
  const float blend_factor[4] = {0, 0, 0, 0};
  ctx->OMSetBlendState(r->blend_state, blend_factor, 0xFFFFFFFFu);
  ctx->OMSetDepthStencilState(r->depth_state, 0);
  ctx->RSSetState(r->rasterizer_state);
}

static HRESULT DrawLists(Renderer *r, ImDrawData *dd) {
  if (dd->DisplaySize.x <= 0.0f || dd->DisplaySize.y <= 0.0f || dd->TotalVtxCount == 0) return S_OK;
  HRESULT hr = GrowBuffer(r, &r->vertex_buffer, &r->vertex_capacity, dd->TotalVtxCount, sizeof(ImDrawVert),
                          D3D11_BIND_VERTEX_BUFFER);
  if (SUCCEEDED(hr))
    hr = GrowBuffer(r, &r->index_buffer, &r->index_capacity, dd->TotalIdxCount, sizeof(ImDrawIdx),
                    D3D11_BIND_INDEX_BUFFER);
  if (FAILED(hr)) return hr;

  D3D11_MAPPED_SUBRESOURCE vtx, idx, proj;
  if (FAILED(hr = r->context->Map(r->vertex_buffer, 0, D3D11_MAP_WRITE_DISCARD, 0, &vtx))) return hr;
  if (FAILED(hr = r->context->Map(r->index_buffer, 0, D3D11_MAP_WRITE_DISCARD, 0, &idx))) {
    r->context->Unmap(r->vertex_buffer, 0);
    return hr;
  }
  ImDrawVert *vtx_out = (ImDrawVert *)vtx.pData;
  ImDrawIdx *idx_out = (ImDrawIdx *)idx.pData;
  for (int n = 0; n < dd->CmdListsCount; n++) {
    const ImDrawList *list = dd->CmdLists[n];
    memcpy(vtx_out, list->VtxBuffer.Data, list->VtxBuffer.Size * sizeof(ImDrawVert));
    memcpy(idx_out, list->IdxBuffer.Data, list->IdxBuffer.Size * sizeof(ImDrawIdx));
    vtx_out += list->VtxBuffer.Size;
    idx_out += list->IdxBuffer.Size;
  }
  r->context->Unmap(r->vertex_buffer, 0);
  r->context->Unmap(r->index_buffer, 0);

  // Orthographic projection of the display rectangle, column-major as the shader multiplies it.
  if (FAILED(hr = r->context->Map(r->projection_buffer, 0, D3D11_MAP_WRITE_DISCARD, 0, &proj))) return hr;
  float L = dd->DisplayPos.x, R = dd->DisplayPos.x + dd->DisplaySize.x;
  float T = dd->DisplayPos.y, B = dd->DisplayPos.y + dd->DisplaySize.y;
  const float m[4][4] = {
      {2.0f / (R - L), 0.0f, 0.0f, 0.0f},
      {0.0f, 2.0f / (T - B), 0.0f, 0.0f},
      {0.0f, 0.0f, 0.5f, 0.0f},
      {(R + L) / (L - R), (T + B) / (B - T), 0.5f, 1.0f},
  };
  memcpy(proj.pData, m, sizeof m);
  r->context->Unmap(r->projection_buffer, 0);

  SetupState(r, dd);
  int vtx_offset = 0, idx_offset = 0;
  ImVec2 clip_off = dd->DisplayPos;
  for (int n = 0; n < dd->CmdListsCount; n++) {
    const ImDrawList *list = dd->CmdLists[n];
    for (int i = 0; i < list->CmdBuffer.Size; i++) {
      const ImDrawCmd *cmd = &list->CmdBuffer[i];
      if (cmd->UserCallback) {
        if (cmd->UserCallback == ImDrawCallback_ResetRenderState)
          SetupState(r, dd);
        else
          cmd->UserCallback(list, cmd);
        continue;
      }
      ImVec2 lo(cmd->ClipRect.x - clip_off.x, cmd->ClipRect.y - clip_off.y);
      ImVec2 hi(cmd->ClipRect.z - clip_off.x, cmd->ClipRect.w - clip_off.y);
      if (hi.x <= lo.x || hi.y <= lo.y) continue;
      const D3D11_RECT scissor = {(LONG)lo.x, (LONG)lo.y, (LONG)hi.x, (LONG)hi.y};
      r->context->RSSetScissorRects(1, &scissor);
      ID3D11ShaderResourceView *texture = (ID3D11ShaderResourceView *)cmd->GetTexID();
      r->context->PSSetShaderResources(0, 1, &texture);
      r->context->DrawIndexed(cmd->ElemCount, cmd->IdxOffset + idx_offset, (INT)(cmd->VtxOffset + vtx_offset));
    }
    idx_offset += list->IdxBuffer.Size;
    vtx_offset += list->VtxBuffer.Size;
  }
  return S_OK;
}

HRESULT RendererDrawFrame(Renderer *r, ImDrawData *draw_data, const float clear_color[4]) {
  if (!r->device) return E_FAIL;
  r->context->OMSetRenderTargets(1, &r->target_view, nullptr);
  r->context->ClearRenderTargetView(r->target_view, clear_color);
  HRESULT hr = DrawLists(r, draw_data);
  if (SUCCEEDED(hr)) hr = r->swap_chain->Present(1, 0);
  if (RendererIsDeviceLost(hr)) return Recreate(r);
  return hr;
}
