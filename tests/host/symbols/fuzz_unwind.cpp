// libFuzzer target: one frame unwound over arbitrary bytes. The input is the whole readable memory,
// placed at the image base (copied to a buffer of its exact size, so a read past it is caught):
// its first 12 bytes are the function entry, the next 4 the instruction pointer's rva and the next
// 4 the stack pointer's; the unwind information, code and stack are wherever those point. Then the
// function table search over the input read as a table.
#include <stdlib.h>
#include <string.h>

#include "symbols/x64_unwind.h"

static void Check(bool condition) {
  if (!condition) abort();
}

static const u64 kBase = 0x140000000ull;

struct Memory {
  const u8 *bytes;
  u64 size;
};

static bool Read(void *context, u64 address, void *buffer, u32 size) {
  const Memory *m = (const Memory *)context;
  if (address < kBase || address - kBase > m->size || size > m->size - (address - kBase)) return false;
  memcpy(buffer, m->bytes + (address - kBase), size);
  return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 20 || size > (1u << 16)) return 0;
  u8 *copy = (u8 *)malloc(size);
  memcpy(copy, data, size);
  Memory memory = {copy, size};
  FunctionEntry entry;
  u32 rip_rva, rsp_rva;
  memcpy(&entry, copy, sizeof entry);
  memcpy(&rip_rva, copy + 12, 4);
  memcpy(&rsp_rva, copy + 16, 4);

  UnwindContext context;
  for (u32 r = 0; r < kUnwindRegisterCount; r++) context.gpr[r] = kBase + (u64)r * 8;  // frame registers point in
  memset(context.xmm, 0, sizeof context.xmm);
  context.gpr[kUnwindRsp] = kBase + rsp_rva;
  context.rip = kBase + rip_rva;
  const UnwindContext before = context;
  UnwindMemory reader = {Read, &memory};
  UnwindResult result = VirtualUnwind(&reader, kBase, &entry, &context);
  Check(result == kUnwindOk || result == kUnwindUnreadable || result == kUnwindChainTooDeep ||
        result == kUnwindUnknownOperation);
  if (result != kUnwindOk) Check(memcmp(&before, &context, sizeof context) == 0);

  const FunctionEntry *table = (const FunctionEntry *)copy;
  u32 count = (u32)(size / sizeof(FunctionEntry));
  FunctionEntry found;
  if (FunctionEntrySearch(table, count, rip_rva, &found)) Check(found.begin <= rip_rva && rip_rva <= found.end);
  free(copy);
  return 0;
}
