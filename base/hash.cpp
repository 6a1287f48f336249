#include "base/hash.h"

u32 HashName(const char *text, u64 length) {
  u32 hash = kHashNameBasis;
  for (u64 i = 0; i < length; i++) hash = HashNameStep(hash, text[i]);
  return hash;
}

u32 HashNameZ(const char *text) {
  u32 hash = kHashNameBasis;
  for (; *text; text++) hash = HashNameStep(hash, *text);
  return hash;
}
