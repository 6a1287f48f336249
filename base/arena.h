// The two allocators of the symbol code.
//
// SymbolArena: chunked bump allocation for everything that belongs to one loaded PDB, given back
// to the system in one sweep. ScratchArena: one allocator per thread for short-lived buffers,
// used inside nested scopes; when the outermost scope ends its chunks are folded into one, so the
// next round of scratch work costs no system call.
//
// Both hand out exactly the bytes asked for, directly after the previous request: no rounding, no
// alignment. Callers that store structures round their own requests (see PdbAllocate).
#pragma once
#include "base/types.h"

// Every chunk starts with this header; the arena is a pointer to the newest chunk.
typedef struct ArenaChunk {
  u64 base;                     // the chunk's own address
  u64 used;                     // bytes used, header included (starts at 32)
  u64 capacity;                 // the chunk's total size in bytes
  struct ArenaChunk *previous;  // older chunk, null for the first
} ArenaChunk;
static_assert(sizeof(ArenaChunk) == 32, "chunk header is 32 bytes");

enum { kArenaChunkHeaderBytes = 32 };
static const u64 kSymbolArenaChunkBytes = 0x800000;  // 8 MiB

typedef struct SymbolArena {
  ArenaChunk *newest;  // null when empty
} SymbolArena;

// Returns size bytes; null only when the system refuses memory.
void *SymbolArenaAllocate(SymbolArena *arena, u64 size);
// Gives every chunk back to the system and empties the arena.
void SymbolArenaRelease(SymbolArena *arena);
// Sum of the chunk capacities (what the arena holds from the system) and of the used bytes.
// Moves every chunk of from into into (from is left empty): work done in an arena of its own, on
// another thread, joins the arena that owns the result.
void SymbolArenaAppend(SymbolArena *into, SymbolArena *from);
// Starts an empty arena on a caller's buffer (at least 64 bytes), for short work that usually
// fits: further chunks come from the system as usual. Release it with SymbolArenaReleaseFixed,
// which gives back every chunk but the caller's buffer.
void SymbolArenaBeginFixed(SymbolArena *arena, void *buffer, u64 size);
void SymbolArenaReleaseFixed(SymbolArena *arena);
u64 SymbolArenaReservedBytes(const SymbolArena *arena);
u64 SymbolArenaUsedBytes(const SymbolArena *arena);
u32 SymbolArenaChunkCount(const SymbolArena *arena);

typedef struct ScratchArena {
  ArenaChunk *newest;
  u32 depth;  // open scopes
} ScratchArena;

void ScratchBegin(void);
// Valid until the outermost scope ends. Null only when the system refuses memory.
void *ScratchAllocate(u64 size);
void ScratchEnd(void);
// This thread's scratch state, for tests and diagnostics.
const ScratchArena *ScratchState(void);
// Gives this thread's scratch chunks back to the system; a worker thread calls it before it ends.
void ScratchReleaseThread(void);
