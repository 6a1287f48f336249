// The two shaders of the user interface: positions in pixels are projected by an orthographic
// matrix; each pixel is the vertex colour times the font-atlas sample.
cbuffer Projection : register(b0) {
  float4x4 projection;
};

struct VertexIn {
  float2 position : POSITION;
  float2 uv : TEXCOORD0;
  float4 color : COLOR0;
};

struct PixelIn {
  float4 position : SV_POSITION;
  float4 color : COLOR0;
  float2 uv : TEXCOORD0;
};

PixelIn VertexMain(VertexIn input) {
  PixelIn output;
  output.position = mul(projection, float4(input.position, 0.0f, 1.0f));
  output.color = input.color;
  output.uv = input.uv;
  return output;
}

sampler atlas_sampler;
Texture2D atlas_texture;

float4 PixelMain(PixelIn input) : SV_Target {
  return input.color * atlas_texture.Sample(atlas_sampler, input.uv);
}
