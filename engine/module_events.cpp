// Image loads and unloads as the debug events report them: the module's headers and symbols are
// loaded through the symbols layer, from the image file the event hands over and from the target's
// memory where the loader mapped the image.
#include <string.h>

#include "engine/engine_internal.h"

// [SECTION] Image source over the event's file handle and the target's memory

typedef struct ImageHandles {
  HANDLE file;
  HANDLE process;
} ImageHandles;

static int ReadImageFile(void *context, u64 offset, void *buffer, u32 size) {
  ImageHandles *h = (ImageHandles *)context;
  LARGE_INTEGER at;
  at.QuadPart = (LONGLONG)offset;
  if (!SetFilePointerEx(h->file, at, nullptr, FILE_BEGIN)) return 1;
  DWORD got = 0;
  if (!ReadFile(h->file, buffer, size, &got, nullptr)) return 1;
  return got == size ? 0 : 1;
}

static int ReadImageMapped(void *context, u64 load_base, u32 rva, void *buffer, u32 size) {
  ImageHandles *h = (ImageHandles *)context;
  SIZE_T got = 0;
  if (!ReadProcessMemory(h->process, (const void *)(uintptr_t)(load_base + rva), buffer, size, &got)) return 1;
  return got == size ? 0 : 1;
}

// The image's path as the system names it, without the "\\?\" prefix, in UTF-8; "" when unknown.
static void ImagePathOfHandle(HANDLE file, char *out, u32 capacity) {
  out[0] = 0;
  wchar_t wide[kModulePathCapacity + 8];
  DWORD n = GetFinalPathNameByHandleW(file, wide, (DWORD)KTRN_ARRAY_COUNT(wide), 0);
  if (n == 0 || n >= KTRN_ARRAY_COUNT(wide)) return;
  const wchar_t *path = wide;
  if (n >= 4 && wide[0] == L'\\' && wide[1] == L'\\' && wide[2] == L'?' && wide[3] == L'\\') path += 4;
  int bytes = WideCharToMultiByte(CP_UTF8, 0, path, -1, out, (int)capacity, nullptr, nullptr);
  if (bytes <= 0) out[0] = 0;
}

// [SECTION] Load and unload

static void PostModuleEvent(Target *target, u32 kind, TargetModule *module, u64 base) {
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kind;
  event.module.module = module;
  event.module.base = base;
  event.module.size = TargetModuleEnd(module) - base;
  event.module.status = module->symbols.status;
  EnginePostEvent(target, &event);
}

int EngineLoadModule(Target *target, HANDLE file, u64 base, TargetModule **out_module) {
  if (out_module) *out_module = nullptr;
  TargetModule *module = TargetModuleTake(target);
  if (!module) return 0;  // more images than the pool holds: the rest run unmodelled
  ImageHandles handles = {file, target->process};
  ImageSource source;
  source.context = &handles;
  source.read_file = ReadImageFile;
  source.read_mapped = ReadImageMapped;
  char path[kModulePathCapacity];
  ImagePathOfHandle(file, path, sizeof path);
  int result = LoadModuleSymbolsWithPick(&module->symbols, &source, path, base, &target->pdb_pick);
  if (result != 0) {
    TargetModuleRelease(target, module);
    return result;
  }
  TargetModuleLink(target, module);
  PostModuleEvent(target, kEventModuleLoaded, module, base);
  if (out_module) *out_module = module;
  return 0;
}

void EngineUnloadModule(Target *target, u64 base) {
  TargetModule *module = TargetFindModuleByBase(target, base);
  if (!module) return;
  // Breakpoint locations bound to the module become pending here once breakpoints exist.
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->ip_module == module) {
      t->ip_module = nullptr;
      t->ip_function = nullptr;
      t->ip_function_start = t->ip_function_end = 0;
    }
  if (target->main_module == module) target->main_module = nullptr;
  TargetModuleUnlink(target, module);
  PostModuleEvent(target, kEventModuleUnloaded, module, base);
}
