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
