// A small set-associative cache of target memory, one per stop generation. The engine keeps two
// and switches at every stop, so everything read while the target was stopped before is dropped
// in one pass over the line flags, and reads repeated within one stop (the byte under the
// instruction pointer, stack walks, watch values) cost one system call per 64-byte line.
#pragma once
#include "base/types.h"

enum : u32 {
  kMemoryCacheSets = 256,
  kMemoryCacheWays = 4,
  kMemoryCacheLineBytes = 64,
};

// Line flags.
enum : u16 {
  kCacheLineKeep = 1 << 0,   // survives the switch at a stop (memory that cannot change)
  kCacheLineValid = 1 << 2,  // data holds the line's bytes
};

typedef int (*MemoryReadFn)(void *context, u64 address, void *buffer, u32 size);  // 0: all read

typedef struct MemoryCacheLine {
  u64 address;  // of the line's first byte
  u16 flags;
  u8 padding[6];
  u8 data[kMemoryCacheLineBytes];
} MemoryCacheLine;

typedef struct MemoryCache {
  MemoryCacheLine lines[kMemoryCacheSets][kMemoryCacheWays];
  u8 next_victim[kMemoryCacheSets];
  MemoryReadFn read;
  void *read_context;
  u8 read_directly;  // bypass the lines (reads that must see the target as it is now)
  u64 line_fills;    // system reads made to fill lines
} MemoryCache;

void MemoryCacheInit(MemoryCache *cache, MemoryReadFn read, void *read_context);
// Drops every line that is not marked to be kept.
void MemoryCacheInvalidate(MemoryCache *cache);
// Reads size bytes; 0 when all of them were read. A line that cannot be read whole falls back to
// a direct read of just the bytes asked for.
int MemoryCacheRead(MemoryCache *cache, u64 address, void *buffer, u32 size);
// Brings the cache in line with a write the engine made to target memory.
void MemoryCacheNoteWrite(MemoryCache *cache, u64 address, const void *bytes, u32 size);
