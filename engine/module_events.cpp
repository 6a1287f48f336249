// Image loads and unloads as the debug events report them: the module's headers and symbols are
// loaded through the symbols layer, from the image file the event hands over and from the target's
// memory where the loader mapped the image.
#include <string.h>

#include "engine/call_stack.h"
#include "engine/engine.h"
#include "engine/engine_internal.h"

#include <psapi.h>

// [SECTION] Image sources

typedef struct ImageHandles {
  HANDLE file;
  HANDLE process;
  u64 base;
  const PeImage *layout;  // memory only: the section table that maps file offsets to rvas
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

// The image as the loader mapped it, read as if it were the file: the headers lie at the same
// offsets; past them a file offset is found in the section that holds it (once the section table
// is known) and read at its rva.
static int ReadImageFromMemory(void *context, u64 offset, void *buffer, u32 size) {
  ImageHandles *h = (ImageHandles *)context;
  u64 rva = offset;
  if (h->layout) {
    for (u32 i = 0; i < h->layout->section_count; i++) {
      const PeSectionHeader *s = &h->layout->sections[i];
      if (offset >= s->raw_offset && offset + size <= (u64)s->raw_offset + s->raw_size) {
        rva = s->virtual_address + (offset - s->raw_offset);
        break;
      }
    }
  }
  if (rva > 0xFFFFFFFFull) return 1;
  return ReadImageMapped(context, h->base, (u32)rva, buffer, size);
}

// The image's path as the system names it, without the "\\?\" prefix, in UTF-8; "" when unknown.
static void Utf8Path(const wchar_t *wide, char *out, u32 capacity) {
  out[0] = 0;
  const wchar_t *path = wide;
  if (wide[0] == L'\\' && wide[1] == L'\\' && wide[2] == L'?' && wide[3] == L'\\') path += 4;
  int bytes = WideCharToMultiByte(CP_UTF8, 0, path, -1, out, (int)capacity, nullptr, nullptr);
  if (bytes <= 0) out[0] = 0;
}

static void ImagePathOfHandle(HANDLE file, char *out, u32 capacity) {
  out[0] = 0;
  wchar_t wide[kModulePathCapacity + 8];
  DWORD n = GetFinalPathNameByHandleW(file, wide, (DWORD)KTRN_ARRAY_COUNT(wide), 0);
  if (n == 0 || n >= KTRN_ARRAY_COUNT(wide)) return;
  Utf8Path(wide, out, capacity);
}

// The path of the image at base as the process knows it: the main image's through the process,
// any other through the loaded-module list. "" when the system does not say.
static void ImagePathInProcess(Target *target, u64 base, char *out, u32 capacity) {
  out[0] = 0;
  wchar_t wide[kModulePathCapacity + 8];
  DWORD n = (DWORD)KTRN_ARRAY_COUNT(wide);
  bool found = base == target->main_image_base
                   ? QueryFullProcessImageNameW(target->process, 0, wide, &n) != 0
                   : (n = K32GetModuleFileNameExW(target->process, (HMODULE)(uintptr_t)base, wide, n)) != 0;
  if (!found || n == 0 || n >= KTRN_ARRAY_COUNT(wide)) return;
  wide[n] = 0;
  Utf8Path(wide, out, capacity);
}

static HANDLE OpenImage(const char *path) {
  if (!path[0]) return nullptr;
  wchar_t wide[kModulePathCapacity + 8];
  if (MultiByteToWideChar(CP_UTF8, 0, path, -1, wide, (int)KTRN_ARRAY_COUNT(wide)) <= 0) return nullptr;
  HANDLE file = CreateFileW(wide, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  return file == INVALID_HANDLE_VALUE ? nullptr : file;
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

static int LoadModuleFrom(Target *target, const ImageSource *source, const char *path, u64 base,
                          TargetModule **out_module) {
  TargetModule *module = TargetModuleTake(target);
  if (!module) return 0;  // more images than the pool holds: the rest run unmodelled
  int result = LoadModuleSymbolsWithPick(&module->symbols, source, path, base, &target->pdb_pick);
  if (result != 0) {
    TargetModuleRelease(target, module);
    return result;
  }
  TargetModuleLink(target, module);
  PostModuleEvent(target, kEventModuleLoaded, module, base);
  if (out_module) *out_module = module;
  return 0;
}

int EngineLoadModuleFromMemory(Target *target, u64 base, const char *path, TargetModule **out_module) {
  if (out_module) *out_module = nullptr;
  // Twice: the first read gives the section table, the second reads what lies past the headers
  // (the CodeView record) where the loader put it.
  static_assert(sizeof(PeImage) < 8192, "the layout is read on the stack");
  PeImage layout;
  ImageHandles handles = {nullptr, target->process, base, nullptr};
  ImageSource source = {&handles, ReadImageFromMemory, ReadImageMapped};
  int result = PeReadImage(&source, base, &layout);
  if (result != 0) return result;
  handles.layout = &layout;
  return LoadModuleFrom(target, &source, path ? path : "", base, out_module);
}

int EngineLoadModule(Target *target, HANDLE file, u64 base, TargetModule **out_module) {
  if (out_module) *out_module = nullptr;
  char path[kModulePathCapacity];
  bool opened = false;
  if (file) {
    ImagePathOfHandle(file, path, sizeof path);
  } else {
    // No file handle came with the event (an attach may bring none): the file by its path, else
    // the image in the target's memory.
    ImagePathInProcess(target, base, path, sizeof path);
    file = OpenImage(path);
    opened = file != nullptr;
    if (!file) return EngineLoadModuleFromMemory(target, base, path, out_module);
  }
  ImageHandles handles = {file, target->process, base, nullptr};
  ImageSource source = {&handles, ReadImageFile, ReadImageMapped};
  int result = LoadModuleFrom(target, &source, path, base, out_module);
  if (opened) CloseHandle(file);
  return result;
}

void EngineUnloadModule(Target *target, u64 base) {
  TargetModule *module = TargetFindModuleByBase(target, base);
  if (!module) return;
  BreakpointsOnModuleUnload(target, module);
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->ip_module == module) {
      t->ip_module = nullptr;
      t->ip_function = nullptr;
      t->ip_function_start = t->ip_function_end = 0;
    }
  if (target->main_module == module) target->main_module = nullptr;
  TargetModuleUnlink(target, module);
  for (u32 i = 0; i < 2; i++) MemoryCacheDropKept(target->caches[i]);  // its pages are gone
  PostModuleEvent(target, kEventModuleUnloaded, module, base);
}

// The module's symbols again, from the PDB the user picked (no GUID check): breakpoints in the
// module are taken out and bound again through the new symbols, and every structure that points
// into the old ones (stacks, the threads' functions) is forgotten first.
EngineResult EngineReloadModuleSymbols(Target *target, TargetModule *module, const char *pdb_path) {
  if (!target || !module || !pdb_path) return kEngineNoTarget;
  if (strnlen(pdb_path, kModulePathCapacity) >= kModulePathCapacity) return kEngineTextTooLong;
  EngineResult state = EngineLockStopped(target);
  if (state != kEngineOk) return state;
  bool known = false;
  for (TargetModule *m = target->modules; m; m = m->next) known |= m == module;
  if (!known) {
    EngineUnlockModel(target);
    return kEngineNoTarget;
  }
  BreakpointsOnModuleUnload(target, module);
  CallStackForgetAll(target);
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->ip_module == module) {
      t->ip_function = nullptr;
      t->ip_function_start = t->ip_function_end = 0;
    }
  u64 base = TargetModuleBase(module);
  char image_path[kModulePathCapacity];
  memcpy(image_path, module->symbols.image_path, sizeof image_path);
  UnloadModuleSymbols(&module->symbols);
  target->symbols_generation++;
  // The image as the system mapped it: its headers are in the target whatever became of its file.
  PeImage layout;
  ImageHandles handles = {nullptr, target->process, base, nullptr};
  ImageSource source = {&handles, ReadImageFromMemory, ReadImageMapped};
  int result = PeReadImage(&source, base, &layout);
  if (result == 0) {
    handles.layout = &layout;
    result = LoadModuleSymbols(&module->symbols, &source, image_path, base, pdb_path);
  }
  if (result == 0) BreakpointsOnModuleLoad(target, module);
  if (target->current_thread) (void)CallStackBuild(target, target->current_thread);
  EngineUnlockModel(target);
  (void)EngineRefresh(target);  // values and their types come from the new symbols
  return result == 0 ? kEngineOk : kEngineSystemCallFailed;
}
