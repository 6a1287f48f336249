// A small set-associative cache of target memory. A line holds bytes of one generation (the engine
// ends a generation at every ContinueDebugEvent, when the target may change its memory), so a
// new generation drops every line at once; reads repeated within one (the byte under the
// instruction pointer, stack walks, watch values) cost one system call per line. A line is one
// whole page: a system read costs about the same for 8 bytes as for a page under Wine (about
// 100 us), so a stack walk of 64 frames reads a few pages, not a hundred small pieces, and a line
// never straddles a readable and an unreadable page. The
// engine keeps two caches and switches at every visible stop, so the previous stop's bytes stay.
#pragma once
#include "base/types.h"

enum : u32 {
  kMemoryCacheSets = 64,
  kMemoryCacheWays = 4,
  kMemoryCacheLineBytes = 4096,  // 1 MiB per cache
};

// Line flags.
enum : u16 {
  kCacheLineKeep = 1 << 0,   // survives the switch at a stop (memory that cannot change)
  kCacheLineValid = 1 << 2,  // data holds the line's bytes
};

typedef bool (*MemoryReadFn)(void *context, u64 address, void *buffer, u32 size);  // true: all read
// True when the line at line_address holds memory the program cannot change (its image's code and
// read-only data): such a line is kept across stops.
typedef bool (*MemoryKeepFn)(void *context, u64 line_address);

typedef struct MemoryCacheLine {
  u64 address;  // of the line's first byte
  u16 flags;
  u16 padding;
  u32 generation;  // the cache's generation when the line was filled
  u8 data[kMemoryCacheLineBytes];
} MemoryCacheLine;

typedef struct MemoryCache {
  MemoryCacheLine lines[kMemoryCacheSets][kMemoryCacheWays];
  u8 next_victim[kMemoryCacheSets];
  MemoryReadFn read;
  void *read_context;
  MemoryKeepFn keep;  // null: no line is kept
  void *keep_context;
  u8 read_directly;  // bypass the lines (reads that must see the target as it is now)
  u32 generation;    // lines of another generation are not valid (unless kept)
  u64 line_fills;    // system reads made to fill lines
} MemoryCache;

void MemoryCacheInit(MemoryCache *cache, MemoryReadFn read, void *read_context);
void MemoryCacheSetKeep(MemoryCache *cache, MemoryKeepFn keep, void *keep_context);
// Drops the kept lines too (an image went away: what is mapped there next is other memory).
void MemoryCacheDropKept(MemoryCache *cache);
// Drops every line that is not marked to be kept: one pass over the flags.
void MemoryCacheInvalidate(MemoryCache *cache);
// Starts a new generation: every line not marked to be kept is dropped, at no cost.
void MemoryCacheNewGeneration(MemoryCache *cache);
// Reads size bytes; true when all of them were read. A line that cannot be read whole falls back to
// a direct read of just the bytes asked for.
bool MemoryCacheRead(MemoryCache *cache, u64 address, void *buffer, u32 size);
// Brings the cache in line with a write the engine made to target memory.
void MemoryCacheNoteWrite(MemoryCache *cache, u64 address, const void *bytes, u32 size);
