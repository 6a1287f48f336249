#include "base/arena.h"

#include <gtest/gtest.h>

// Requests are packed back to back with no rounding, and a request that does not fit opens a new
// chunk of max(n + 32, 8 MiB), leaving the old chunk's tail unused.
TEST(SymbolArena, PacksRequestsExactlyAndChainsChunks) {
  SymbolArena arena = {};
  u8 *a = (u8 *)SymbolArenaAllocate(&arena, 3);
  u8 *b = (u8 *)SymbolArenaAllocate(&arena, 5);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(b, a + 3);
  ArenaChunk *first = arena.newest;
  EXPECT_EQ((u8 *)first + 32, a);
  EXPECT_EQ(first->base, (u64)(uintptr_t)first);
  EXPECT_EQ(first->capacity, 0x800000u);
  EXPECT_EQ(first->used, 32u + 8u);
  EXPECT_EQ(first->previous, nullptr);

  u8 *big = (u8 *)SymbolArenaAllocate(&arena, 0x800000);  // more than any 8 MiB chunk can hold
  ASSERT_TRUE(big);
  EXPECT_NE(arena.newest, first);
  EXPECT_EQ(arena.newest->capacity, 0x800000u + 32u);
  EXPECT_EQ(arena.newest->previous, first);
  big[0x7FFFFF] = 1;  // the whole request is usable

  // The full chunk is newest now, so a small request opens a third chunk.
  u8 *c = (u8 *)SymbolArenaAllocate(&arena, 16);
  ASSERT_TRUE(c);
  EXPECT_EQ(SymbolArenaChunkCount(&arena), 3u);
  EXPECT_EQ(SymbolArenaReservedBytes(&arena), 0x800000u * 3 + 32u);
  SymbolArenaRelease(&arena);
  EXPECT_EQ(arena.newest, nullptr);
  EXPECT_EQ(SymbolArenaChunkCount(&arena), 0u);
}

// Scratch chunks are page multiples; the outermost end folds several chunks into one big enough
// for the same work, keeps a single chunk with used reset, and leaves an empty chain alone.
TEST(ScratchArena, NestedScopesConsolidateAtTheOutermostEnd) {
  ScratchBegin();
  ScratchEnd();  // make sure nothing is left from an earlier test
  const ScratchArena *s = ScratchState();
  ScratchBegin();
  ScratchBegin();
  EXPECT_EQ(s->depth, 2u);
  void *p = ScratchAllocate(100);
  ASSERT_TRUE(p);
  ScratchEnd();
  EXPECT_EQ(s->depth, 1u);
  ASSERT_TRUE(s->newest);
  EXPECT_GT(s->newest->used, 32u);  // inner end keeps everything
  u64 first_capacity = s->newest->capacity;
  EXPECT_EQ(first_capacity % 4096, 0u);
  ASSERT_TRUE(ScratchAllocate(first_capacity));  // cannot fit: second chunk
  EXPECT_TRUE(s->newest->previous);
  u64 second_capacity = s->newest->capacity;
  EXPECT_EQ(second_capacity, AlignUp(first_capacity + 32, 4096));
  ScratchEnd();
  EXPECT_EQ(s->depth, 0u);
  ASSERT_TRUE(s->newest);
  EXPECT_EQ(s->newest->previous, nullptr);
  EXPECT_EQ(s->newest->used, 32u);
  EXPECT_EQ(s->newest->capacity, AlignUp(first_capacity + second_capacity - 32, 4096));

  // The same round of work now fits in the one chunk.
  const ArenaChunk *only = s->newest;
  ScratchBegin();
  ASSERT_TRUE(ScratchAllocate(100));
  ASSERT_TRUE(ScratchAllocate(first_capacity));
  EXPECT_EQ(s->newest, only);
  ScratchEnd();
  EXPECT_EQ(s->newest, only);
  EXPECT_EQ(only->used, 32u);

  ScratchEnd();  // an unbalanced end is ignored
  EXPECT_EQ(s->depth, 0u);
}
