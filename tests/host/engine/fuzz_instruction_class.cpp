// libFuzzer target: the instruction class of arbitrary bytes, as line stepping reads them from a
// program's memory (copied to a buffer of the exact size, so a read past it is caught). A decoded
// instruction's length is never 0 and never more than the bytes given or 15.
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "engine/instruction_class.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 64) return 0;
  std::vector<u8> bytes(data, data + size);
  DecodedClass d = ClassifyInstruction(bytes.empty() ? nullptr : bytes.data(), (u32)bytes.size());
  bool decoded = d.kind != kInstructionUndecodable;
  if (decoded != (d.length != 0) || d.length > size || d.length > kMaxInstructionBytes) abort();
  return 0;
}
