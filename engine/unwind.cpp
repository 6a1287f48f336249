// Function tables read lazily from the target and one-frame unwinding over them.
//
// [SECTION] Function tables
// [SECTION] The exception dispatcher
// [SECTION] One frame
#include "engine/unwind.h"

#include <string.h>

#include "base/os.h"
#include "engine/engine_internal.h"

// [SECTION] Function tables

enum : u8 { kFunctionTableUnread = 0, kFunctionTableAbsent = 1, kFunctionTableRead = 2 };

void UnwindContextFromThread(const CONTEXT *context, UnwindContext *out) {
  memset(out, 0, sizeof *out);
  const DWORD64 registers[kUnwindRegisterCount] = {
      context->Rax, context->Rcx, context->Rdx, context->Rbx, context->Rsp, context->Rbp, context->Rsi, context->Rdi,
      context->R8,  context->R9,  context->R10, context->R11, context->R12, context->R13, context->R14, context->R15};
  for (u32 r = 0; r < kUnwindRegisterCount; r++) out->gpr[r] = registers[r];
  out->rip = context->Rip;
  memcpy(out->xmm, &context->Xmm0, sizeof out->xmm);
}

// The program's own bytes: an int3 of the engine's over an epilogue's ret must read as the ret.
static bool ReadThroughCache(void *context, u64 address, void *buffer, u32 size) {
  return TargetReadProgramMemory((Target *)context, address, buffer, size);
}

UnwindMemory UnwindMemoryOfTarget(Target *target) {
  UnwindMemory memory = {ReadThroughCache, target};
  return memory;
}

static u64 FunctionTableBytes(u32 count) { return AlignUp((u64)count * sizeof(FunctionEntry), 4096); }

static void LoadFunctionTable(Target *target, TargetModule *module) {
  module->function_table_state = kFunctionTableAbsent;
  const ModuleSymbols *symbols = &module->symbols;
  u32 count = symbols->exception_entry_count;
  u64 address = symbols->exception_address;
  // A directory larger than the image cannot be one: refused rather than read.
  if (!address || !count || (u64)count * sizeof(FunctionEntry) > symbols->extent_end - symbols->load_base) return;
  u64 bytes = FunctionTableBytes(count);
  FunctionEntry *table = (FunctionEntry *)OsMemoryAllocate(bytes);
  if (!table) return;
  // One read for the whole directory: it is image memory that does not change while loaded.
  if (!TargetReadMemoryDirect(target, address, table, (u32)(count * sizeof(FunctionEntry)))) {
    OsMemoryRelease(table, bytes);
    return;
  }
  module->function_table = table;
  module->function_count = count;
  module->function_table_state = kFunctionTableRead;
}

const FunctionEntry *FindFunctionEntryIn(Target *target, TargetModule *module, u64 address, bool return_address) {
  if (!module || address < TargetModuleBase(module) || address - TargetModuleBase(module) > 0xFFFFFFFFu) return nullptr;
  if (module->function_table_state == kFunctionTableUnread) LoadFunctionTable(target, module);
  if (module->function_table_state != kFunctionTableRead) return nullptr;
  return FunctionEntryAt(module->function_table, module->function_count, (u32)(address - TargetModuleBase(module)),
                         return_address);
}

bool FindFunctionEntry(Target *target, TargetModule *module, u64 address, FunctionEntry *out) {
  const FunctionEntry *entry = FindFunctionEntryIn(target, module, address, false);
  if (entry) *out = *entry;
  return entry != nullptr;
}

// [SECTION] The exception dispatcher

// The rva of an export of the image at base, through its export directory in target memory (its
// name table is sorted, so a binary search); 0 when absent.
static u32 FindExport(Target *target, u64 base, const char *wanted) {
  enum : u32 { kPeHeaderOffset = 0x3C, kExportDirectoryOffset = 24 + 112, kExportDirectoryBytes = 40 };
  u32 header = 0, directory[2] = {0, 0};
  if (!TargetReadMemory(target, base + kPeHeaderOffset, &header, 4) ||
      !TargetReadMemory(target, base + header + kExportDirectoryOffset, directory, 8) || !directory[0])
    return 0;
  u32 fields[kExportDirectoryBytes / 4];
  if (!TargetReadMemory(target, base + directory[0], fields, sizeof fields)) return 0;
  u32 name_count = fields[6], functions = fields[7], names = fields[8], ordinals = fields[9];
  u32 low = 0, high = name_count;
  while (low < high) {
    u32 middle = low + (high - low) / 2, name_rva = 0;
    char name[64];
    if (!TargetReadMemory(target, base + names + 4ull * middle, &name_rva, 4)) return 0;
    u32 length = 0;  // read a byte at a time up to the terminator: a name may end at a page's end
    while (length + 1 < sizeof name && TargetReadMemory(target, base + name_rva + length, &name[length], 1) &&
           name[length])
      length++;
    name[length] = 0;
    int order = strcmp(name, wanted);
    if (order == 0) {
      u16 ordinal = 0;
      u32 rva = 0;
      if (!TargetReadMemory(target, base + ordinals + 2ull * middle, &ordinal, 2) ||
          !TargetReadMemory(target, base + functions + 4ull * ordinal, &rva, 4))
        return 0;
      return rva;
    }
    if (order < 0) low = middle + 1;
    else high = middle;
  }
  return 0;
}

bool UnwindIsExceptionDispatcher(Target *target, TargetModule *module, u64 address) {
  if (!module || !module->symbols.name || _stricmp(module->symbols.name, "ntdll.dll") != 0) return false;
  if (!module->dispatcher_state) {
    module->dispatcher_state = 1;
    module->dispatcher_rva = FindExport(target, TargetModuleBase(module), "KiUserExceptionDispatcher");
  }
  if (!module->dispatcher_rva || address < TargetModuleBase(module) + module->dispatcher_rva) return false;
  // It ends where the next function with an entry begins (it is a few dozen bytes long).
  u64 end = TargetModuleBase(module) + module->dispatcher_rva + 0x200;
  if (module->function_table_state == kFunctionTableUnread) LoadFunctionTable(target, module);
  for (u32 i = 0; i < module->function_count; i++)
    if (module->function_table[i].begin > module->dispatcher_rva) {
      end = MinU64(end, TargetModuleBase(module) + module->function_table[i].begin);
      break;
    }
  return address < end;
}

// [SECTION] One frame

UnwindResult UnwindOneFrameIn(Target *target, TargetModule *module, UnwindContext *context) {
  UnwindMemory memory = UnwindMemoryOfTarget(target);
  // Before any unwind data of the dispatcher's own: such data gives back rip and rsp only.
  if (UnwindIsExceptionDispatcher(target, module, context->rip))
    return UnwindFromContextRecord(&memory, context->gpr[kUnwindRsp], context);
  FunctionEntry entry;
  if (!FindFunctionEntry(target, module, context->rip, &entry)) return UnwindLeaf(&memory, context);
  return VirtualUnwind(&memory, TargetModuleBase(module), &entry, context);
}

UnwindResult UnwindOneFrame(Target *target, UnwindContext *context) {
  return UnwindOneFrameIn(target, TargetFindModule(target, context->rip), context);
}

void UnwindReleaseModule(TargetModule *module) {
  if (module->function_table) OsMemoryRelease((void *)module->function_table, FunctionTableBytes(module->function_count));
  module->function_table = nullptr;
  module->function_count = 0;
  module->function_table_state = kFunctionTableUnread;
}
