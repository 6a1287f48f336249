// ktrn-shaderc SOURCE.hlsl ENTRY PROFILE OUT.dxbc
// Compiles one shader entry point with D3DCompile and writes the bytecode, for embedding as a
// resource. Errors go to stderr with a non-zero exit so the build stops.
#include <windows.h>
#include <d3dcompiler.h>

#include <stdio.h>
#include <stdlib.h>

static char *ReadWholeFile(const char *path, size_t *size) {
  FILE *f = fopen(path, "rb");
  if (!f) return nullptr;
  fseek(f, 0, SEEK_END);
  long n = ftell(f);
  fseek(f, 0, SEEK_SET);
  char *data = (char *)malloc(n > 0 ? (size_t)n : 1);
  *size = data ? fread(data, 1, (size_t)n, f) : 0;
  fclose(f);
  return data;
}

int main(int argc, char **argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: ktrn-shaderc SOURCE.hlsl ENTRY PROFILE OUT.dxbc\n");
    return 2;
  }
  size_t size = 0;
  char *source = ReadWholeFile(argv[1], &size);
  if (!source) {
    fprintf(stderr, "ktrn-shaderc: cannot read %s\n", argv[1]);
    return 1;
  }
  ID3DBlob *code = nullptr;
  ID3DBlob *errors = nullptr;
  HRESULT hr = D3DCompile(source, size, argv[1], nullptr, nullptr, argv[2], argv[3],
                          D3DCOMPILE_OPTIMIZATION_LEVEL3, 0, &code, &errors);
  if (FAILED(hr)) {
    fprintf(stderr, "ktrn-shaderc: %s(%s) failed (%08lX): %s\n", argv[1], argv[2], (unsigned long)hr,
            errors ? (const char *)errors->GetBufferPointer() : "");
    return 1;
  }
  FILE *out = fopen(argv[4], "wb");
  if (!out || fwrite(code->GetBufferPointer(), 1, code->GetBufferSize(), out) != code->GetBufferSize()) {
    fprintf(stderr, "ktrn-shaderc: cannot write %s\n", argv[4]);
    return 1;
  }
  fclose(out);
  return 0;
}
