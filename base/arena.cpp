#include "base/arena.h"

#include "base/os.h"

static ArenaChunk *NewChunk(u64 capacity, ArenaChunk *previous, bool large) {
  ArenaChunk *chunk = (ArenaChunk *)(large ? OsMemoryAllocateLarge(capacity) : OsMemoryAllocate(capacity));
  if (!chunk) return nullptr;
  chunk->base = (u64)(uintptr_t)chunk;
  chunk->used = kArenaChunkHeaderBytes;
  chunk->capacity = capacity;
  chunk->previous = previous;
  return chunk;
}

static void *BumpFrom(ArenaChunk *chunk, u64 size) {
  void *result = (u8 *)(uintptr_t)chunk->base + chunk->used;
  chunk->used += size;
  return result;
}

static bool Fits(const ArenaChunk *chunk, u64 size) {
  return chunk && size <= chunk->capacity - chunk->used;
}

static void ReleaseChain(ArenaChunk *chunk) {
  while (chunk) {
    ArenaChunk *previous = chunk->previous;
    OsMemoryRelease(chunk, chunk->capacity);
    chunk = previous;
  }
}

// [SECTION] SymbolArena

void *SymbolArenaAllocate(SymbolArena *arena, u64 size) {
  if (!Fits(arena->newest, size)) {
    if (size > ~0ull - kArenaChunkHeaderBytes) return nullptr;
    ArenaChunk *chunk = NewChunk(MaxU64(size + kArenaChunkHeaderBytes, kSymbolArenaChunkBytes), arena->newest, true);
    if (!chunk) return nullptr;
    arena->newest = chunk;
  }
  return BumpFrom(arena->newest, size);
}

void SymbolArenaRelease(SymbolArena *arena) {
  ReleaseChain(arena->newest);
  arena->newest = nullptr;
}

void SymbolArenaAppend(SymbolArena *into, SymbolArena *from) {
  if (!from->newest) return;
  ArenaChunk *oldest = from->newest;
  while (oldest->previous) oldest = oldest->previous;
  oldest->previous = into->newest;
  into->newest = from->newest;
  from->newest = nullptr;
}

void SymbolArenaBeginFixed(SymbolArena *arena, void *buffer, u64 size) {
  ArenaChunk *chunk = (ArenaChunk *)buffer;
  chunk->base = (u64)(uintptr_t)chunk;
  chunk->used = kArenaChunkHeaderBytes;
  chunk->capacity = size;
  chunk->previous = nullptr;
  arena->newest = chunk;
}

void SymbolArenaReleaseFixed(SymbolArena *arena) {
  ArenaChunk *chunk = arena->newest;
  while (chunk && chunk->previous) {  // the oldest chunk is the caller's buffer
    ArenaChunk *previous = chunk->previous;
    OsMemoryRelease(chunk, chunk->capacity);
    chunk = previous;
  }
  arena->newest = nullptr;
}

u64 SymbolArenaReservedBytes(const SymbolArena *arena) {
  u64 total = 0;
  for (const ArenaChunk *c = arena->newest; c; c = c->previous) total += c->capacity;
  return total;
}

u64 SymbolArenaUsedBytes(const SymbolArena *arena) {
  u64 total = 0;
  for (const ArenaChunk *c = arena->newest; c; c = c->previous) total += c->used;
  return total;
}

u32 SymbolArenaChunkCount(const SymbolArena *arena) {
  u32 count = 0;
  for (const ArenaChunk *c = arena->newest; c; c = c->previous) count++;
  return count;
}

// [SECTION] ScratchArena

// One per thread: symbol loading runs part of its work on a worker thread. The chunks go back to
// the system when the thread ends, whoever started it: the debugger thread of every run uses
// scratch memory and would otherwise leave it behind.
typedef struct ScratchOwner {
  ScratchArena arena;
  ~ScratchOwner() { ReleaseChain(arena.newest); }
} ScratchOwner;
static thread_local ScratchOwner g_scratch_owner;

static ScratchArena *ThisThreadScratch(void) { return &g_scratch_owner.arena; }

void ScratchBegin(void) { ThisThreadScratch()->depth++; }

void *ScratchAllocate(u64 size) {
  ScratchArena *scratch = ThisThreadScratch();
  if (!Fits(scratch->newest, size)) {
    if (size > ~0ull - 2 * 4096) return nullptr;
    ArenaChunk *chunk = NewChunk(AlignUp(size + kArenaChunkHeaderBytes, 4096), scratch->newest, false);
    if (!chunk) return nullptr;
    scratch->newest = chunk;
  }
  return BumpFrom(scratch->newest, size);
}

void ScratchEnd(void) {
  ScratchArena *scratch = ThisThreadScratch();
  if (scratch->depth == 0) return;  // unbalanced end: nothing is open
  scratch->depth--;
  if (scratch->depth != 0 || !scratch->newest) return;
  if (!scratch->newest->previous) {
    scratch->newest->used = kArenaChunkHeaderBytes;
    return;
  }
  // Several chunks: replace them by one that holds what they held together, so the next
  // round of the same work fits without a system call.
  u64 capacity = 0, count = 0;
  for (const ArenaChunk *c = scratch->newest; c; c = c->previous) {
    capacity += c->capacity;
    count++;
  }
  ReleaseChain(scratch->newest);
  scratch->newest = NewChunk(AlignUp(capacity - kArenaChunkHeaderBytes * (count - 1), 4096), nullptr, false);
}

const ScratchArena *ScratchState(void) { return ThisThreadScratch(); }

void ScratchReleaseThread(void) {
  ScratchArena *scratch = ThisThreadScratch();
  ReleaseChain(scratch->newest);
  scratch->newest = nullptr;
  scratch->depth = 0;
}
