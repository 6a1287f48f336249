// The "/names" string table: the raw string buffer (strings addressed by byte offset) and the
// empty source-file table sized from its bucket count, which the line loader fills.
#pragma once
#include "base/arena.h"
#include "symbols/msf.h"

typedef struct PdbStringTable {
  const char *buffer;  // the raw buffer, followed in memory by one zero byte
  u32 buffer_bytes;
} PdbStringTable;

// Slots hold a name's hash and its offset in the string buffer; two names of one hash are told
// apart by their texts, so a path never finds another file whose name only hashes the same.
typedef struct PdbSourceFileTable {
  u64 *name_hashes;   // capacity slots; 0 = empty
  u64 *name_offsets;  // each file's name offset in the string buffer
  u32 used;
  u32 capacity;       // the string table's bucket count
  PdbStringTable names;  // where the offsets point
} PdbSourceFileTable;

// 0, or kPdbUnreadable for a missing, short or malformed table.
PdbError PdbLoadStringTable(SymbolArena *arena, const MsfFile *msf, s32 stream_index, PdbStringTable *strings,
                       PdbSourceFileTable *files);

// The zero-terminated string at a byte offset of the buffer, or "" when the offset lies outside.
const char *PdbStringAt(const PdbStringTable *strings, u32 offset);
