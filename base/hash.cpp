#include "base/hash.h"

static const u32 kFnvBasis = 0x811C9DC5u;
static const u32 kFnvPrime = 16777619u;

u32 HashName(const char *text, u64 length) {
  u32 hash = kFnvBasis;
  for (u64 i = 0; i < length; i++) {
    hash ^= (u32)(s32)(s8)text[i];
    hash *= kFnvPrime;
  }
  return hash;
}

u32 HashNameZ(const char *text) {
  u32 hash = kFnvBasis;
  for (; *text; text++) {
    hash ^= (u32)(s32)(s8)*text;
    hash *= kFnvPrime;
  }
  return hash;
}
