// Allocation for the symbol loaders: every request is rounded up to 8 bytes, so the structures
// and stream copies that the loaders place in the arena stay 8-aligned (chunks start aligned and
// the arena itself never rounds).
#pragma once
#include "base/arena.h"

static inline void *PdbAllocate(SymbolArena *arena, u64 size) {
  if (size > ~0ull - 8) return nullptr;
  return SymbolArenaAllocate(arena, AlignUp(size, 8));
}
