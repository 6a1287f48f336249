#include "base/arena.h"

#include <gtest/gtest.h>

// Requests are packed back to back with no rounding; a request that does not fit opens a new
// chunk big enough for the whole of it, and the chunks go back to the system in one sweep.
TEST(SymbolArena, PacksRequestsExactlyAndChainsChunks) {
  SymbolArena arena = {};
  u8 *a = (u8 *)SymbolArenaAllocate(&arena, 3);
  u8 *b = (u8 *)SymbolArenaAllocate(&arena, 5);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(b, a + 3);
  EXPECT_EQ(SymbolArenaChunkCount(&arena), 1u);
  u8 *big = (u8 *)SymbolArenaAllocate(&arena, kSymbolArenaChunkBytes);  // more than any default chunk holds
  ASSERT_TRUE(big);
  big[kSymbolArenaChunkBytes - 1] = 1;  // the whole request is usable
  EXPECT_EQ(SymbolArenaChunkCount(&arena), 2u);
  // The full chunk is newest now, so a small request opens a third chunk.
  ASSERT_TRUE(SymbolArenaAllocate(&arena, 16));
  EXPECT_EQ(SymbolArenaChunkCount(&arena), 3u);
  EXPECT_GE(SymbolArenaReservedBytes(&arena), 2 * kSymbolArenaChunkBytes + 24);
  SymbolArenaRelease(&arena);
  EXPECT_EQ(arena.newest, nullptr);
  EXPECT_EQ(SymbolArenaChunkCount(&arena), 0u);
}

// Inner scopes keep everything; the outermost end folds the chunks into one big enough for the
// same work again; an unbalanced end is ignored.
TEST(ScratchArena, NestedScopesConsolidateAtTheOutermostEnd) {
  ScratchBegin();
  ScratchEnd();  // make sure nothing is left from an earlier test
  const ScratchArena *s = ScratchState();
  ScratchBegin();
  ScratchBegin();
  EXPECT_EQ(s->depth, 2u);
  ASSERT_TRUE(ScratchAllocate(100));
  u64 used = s->newest->used, first_capacity = s->newest->capacity;
  ScratchEnd();
  EXPECT_EQ(s->depth, 1u);
  EXPECT_EQ(s->newest->used, used);
  ASSERT_TRUE(ScratchAllocate(first_capacity));  // cannot fit: a second chunk
  EXPECT_TRUE(s->newest->previous);
  ScratchEnd();
  EXPECT_EQ(s->depth, 0u);
  ASSERT_TRUE(s->newest);
  EXPECT_EQ(s->newest->previous, nullptr);

  const ArenaChunk *only = s->newest;
  u64 empty = only->used;
  ScratchBegin();
  ASSERT_TRUE(ScratchAllocate(100));
  ASSERT_TRUE(ScratchAllocate(first_capacity));
  EXPECT_EQ(s->newest, only);
  ScratchEnd();
  EXPECT_EQ(s->newest, only);
  EXPECT_EQ(only->used, empty);
  EXPECT_LT(empty, 100u);

  ScratchEnd();
  EXPECT_EQ(s->depth, 0u);
}
