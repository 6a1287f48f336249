// Function tables read lazily from the target and one-frame unwinding over them.
#include "engine/unwind.h"

#include <string.h>

#include "base/os.h"
#include "engine/engine_internal.h"

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

const FunctionEntry *FindFunctionEntryIn(Target *target, TargetModule *module, u64 address) {
  if (!module || address < TargetModuleBase(module) || address - TargetModuleBase(module) > 0xFFFFFFFFu) return nullptr;
  if (module->function_table_state == kFunctionTableUnread) LoadFunctionTable(target, module);
  if (module->function_table_state != kFunctionTableRead) return nullptr;
  return FunctionEntryAt(module->function_table, module->function_count, (u32)(address - TargetModuleBase(module)));
}

bool FindFunctionEntry(Target *target, TargetModule *module, u64 address, FunctionEntry *out) {
  const FunctionEntry *entry = FindFunctionEntryIn(target, module, address);
  if (entry) *out = *entry;
  return entry != nullptr;
}

UnwindResult UnwindOneFrameIn(Target *target, TargetModule *module, UnwindContext *context) {
  UnwindMemory memory = UnwindMemoryOfTarget(target);
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
