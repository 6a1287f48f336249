// Checks shared by the symbol loaders: a record is only used when its length and the name it
// carries lie inside the bytes that hold it.
#pragma once
#include <string.h>

#include "symbols/pdb_raw.h"

// Bytes the record at `at` takes (its length field + 2), or 0 when it does not fit in size.
static inline u32 SymbolRecordBytes(const u8 *bytes, u64 size, u64 at) {
  if (at + kSymHeaderBytes > size) return 0;
  u32 length = ReadU16(bytes + at);
  if (length < 2 || at + 2 + length > size) return 0;
  return length + 2;
}

// True when the record holds a terminated name starting at name_at.
static inline bool SymbolRecordHasName(const u8 *record, u32 record_bytes, u32 name_at) {
  return name_at < record_bytes && memchr(record + name_at, 0, record_bytes - name_at) != nullptr;
}

// Bytes that the numeric leaf at p takes: the value itself below 0x8000, else the leaf kind and
// its payload; unknown leaf kinds take only their kind word.
static inline u32 NumericLeafBytes(u16 leaf) {
  if (leaf < 0x8000) return 2;
  switch (leaf) {
    case 0x8000: return 3;                               // LF_CHAR
    case 0x8001: case 0x8002: return 4;                  // LF_SHORT, LF_USHORT
    case 0x8003: case 0x8004: case 0x8005: return 6;     // LF_LONG, LF_ULONG, LF_REAL32
    case 0x8006: case 0x8009: case 0x800A: return 10;    // LF_REAL64, LF_QUADWORD, LF_UQUADWORD
  }
  return 2;
}
