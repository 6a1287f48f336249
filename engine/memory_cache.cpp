#include "engine/memory_cache.h"

#include <string.h>

void MemoryCacheInit(MemoryCache *cache, MemoryReadFn read, void *read_context) {
  memset(cache->lines, 0, sizeof cache->lines);
  memset(cache->next_victim, 0, sizeof cache->next_victim);
  cache->read = read;
  cache->read_context = read_context;
  cache->read_directly = 0;
  cache->keep = nullptr;
  cache->keep_context = nullptr;
  cache->line_fills = 0;
  cache->generation = 1;
}

void MemoryCacheSetKeep(MemoryCache *cache, MemoryKeepFn keep, void *keep_context) {
  cache->keep = keep;
  cache->keep_context = keep_context;
}

void MemoryCacheDropKept(MemoryCache *cache) {
  for (u32 s = 0; s < kMemoryCacheSets; s++)
    for (u32 w = 0; w < kMemoryCacheWays; w++) cache->lines[s][w].flags = 0;
}

void MemoryCacheNewGeneration(MemoryCache *cache) { cache->generation++; }

void MemoryCacheInvalidate(MemoryCache *cache) {
  for (u32 s = 0; s < kMemoryCacheSets; s++)
    for (u32 w = 0; w < kMemoryCacheWays; w++) {
      u16 *flags = &cache->lines[s][w].flags;
      if (!(*flags & kCacheLineKeep)) *flags &= (u16)~kCacheLineValid;
    }
}

static MemoryCacheLine *FindLine(MemoryCache *cache, u64 line_address) {
  u32 set = (u32)(line_address / kMemoryCacheLineBytes) % kMemoryCacheSets;
  for (u32 w = 0; w < kMemoryCacheWays; w++) {
    MemoryCacheLine *line = &cache->lines[set][w];
    if ((line->flags & kCacheLineValid) && line->address == line_address &&
        (line->generation == cache->generation || (line->flags & kCacheLineKeep)))
      return line;
  }
  return nullptr;
}

static MemoryCacheLine *FillLine(MemoryCache *cache, u64 line_address) {
  u32 set = (u32)(line_address / kMemoryCacheLineBytes) % kMemoryCacheSets;
  u32 way = cache->next_victim[set]++ % kMemoryCacheWays;
  MemoryCacheLine *line = &cache->lines[set][way];
  line->flags = 0;
  cache->line_fills++;
  if (!cache->read(cache->read_context, line_address, line->data, kMemoryCacheLineBytes)) return nullptr;
  line->address = line_address;
  line->flags = kCacheLineValid;
  if (cache->keep && cache->keep(cache->keep_context, line_address)) line->flags |= kCacheLineKeep;
  line->generation = cache->generation;
  return line;
}

bool MemoryCacheRead(MemoryCache *cache, u64 address, void *buffer, u32 size) {
  if (!cache->read) return false;
  if (size == 0) return true;
  if (cache->read_directly || address + size < address) return cache->read(cache->read_context, address, buffer, size);
  u8 *out = (u8 *)buffer;
  u64 at = address;
  u32 left = size;
  while (left) {
    u64 line_address = at & ~(u64)(kMemoryCacheLineBytes - 1);
    u32 within = (u32)(at - line_address);
    u32 take = kMemoryCacheLineBytes - within;
    if (take > left) take = left;
    MemoryCacheLine *line = FindLine(cache, line_address);
    if (!line) line = FillLine(cache, line_address);
    if (!line) {
      // The line crosses into memory that cannot be read: read what was asked for directly.
      if (!cache->read(cache->read_context, at, out, take)) return false;
    } else {
      memcpy(out, line->data + within, take);
    }
    out += take;
    at += take;
    left -= take;
  }
  return true;
}

void MemoryCacheNoteWrite(MemoryCache *cache, u64 address, const void *bytes, u32 size) {
  const u8 *in = (const u8 *)bytes;
  for (u32 i = 0; i < size; i++) {
    u64 a = address + i;
    MemoryCacheLine *line = FindLine(cache, a & ~(u64)(kMemoryCacheLineBytes - 1));
    if (line) line->data[a % kMemoryCacheLineBytes] = in[i];
  }
}
