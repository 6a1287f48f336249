// Name hashing shared by every hashed symbol table.
#pragma once
#include "base/types.h"

// 32-bit FNV-1a over the bytes taken as *signed* characters: bytes of 0x80 and above are
// sign-extended before the xor, so names with such bytes hash as the tables on disk expect.
enum : u32 { kHashNameBasis = 0x811C9DC5u, kHashNamePrime = 16777619u };
static inline u32 HashNameStep(u32 hash, char c) { return (hash ^ (u32)(s32)(s8)c) * kHashNamePrime; }

u32 HashName(const char *text, u64 length);
u32 HashNameZ(const char *text);

// Capacity of an open-addressed, linearly probed table for n entries (n + n/2, at least 1).
static inline u32 HashTableCapacity(u32 count) { return count + count / 2 + 1; }
