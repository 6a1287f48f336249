// Global symbols: the symbol-record stream, the global hash records in their order, and four
// open-addressed name tables (constants, user-defined types, data, thread data) built from them.
// Every table has capacity n + n/2 for n records of its kind, slot = name hash mod capacity and
// linear probing; names hash with HashName (FNV-1a over sign-extended bytes).
#pragma once
#include "base/arena.h"
#include "symbols/msf.h"
#include "symbols/pdb_raw.h"

enum : u32 { kPdbNoEntry = 0xFFFFFFFF };

// One data global (S_LDATA32 / S_GDATA32). Entries with the same hash are chained through next
// in the order of the hash records, so equal names (file statics of several modules) are all
// found.
typedef struct PdbDataEntry {
  u32 name_hash;
  u16 section_minus_1;
  u16 padding;
  u32 offset;
  u32 type_index;
  u32 next;                    // slot of the next entry with the same hash, kPdbNoEntry for none
  u32 record_offset_plus_one;  // the record in the symbol-record stream; 0 = empty slot
} PdbDataEntry;
static_assert(sizeof(PdbDataEntry) == 24, "data entry");

typedef struct PdbUdtEntry {
  u32 name_hash;
  u32 type_index;
} PdbUdtEntry;

typedef struct PdbGlobals {
  const u8 *records;  // the symbol-record stream
  u32 record_bytes;
  u32 hash_record_count;
  const GsiHashRecord *hash_records;

  u32 *constant_hashes;
  const u8 **constant_records;  // null = empty slot
  u32 constant_capacity, constant_count;

  PdbUdtEntry *udts;
  u32 *udt_record_offsets_plus_one;  // 0 = empty slot
  u32 udt_capacity, udt_count;

  PdbDataEntry *data;
  u32 data_capacity, data_count;

  u32 *thread_hashes;
  const u8 **thread_records;  // null = empty slot
  u32 thread_capacity, thread_count;
} PdbGlobals;

// Builds the tables. On failure (kPdbUnreadable or kPdbBadFormat) they stay empty.
PdbError PdbLoadGlobals(SymbolArena *arena, const MsfFile *msf, u32 global_stream, u32 record_stream, PdbGlobals *out);

// The record that hash record i refers to, with its kind, or null when it lies outside the stream
// or is not a well-formed record of a kind the tables keep.
const u8 *PdbGlobalRecord(const PdbGlobals *globals, u32 i, u16 *out_kind);
// Name of a kept global record (S_CONSTANT, S_UDT, data, thread data); "" for other kinds.
const char *PdbGlobalRecordName(const u8 *record);

// [SECTION] Lookups by name. Each returns the first match when after is null, else the next
// match after it; null (or 0) when there is no more.
const PdbDataEntry *PdbFindData(const PdbGlobals *globals, const char *name, const PdbDataEntry *after);
const u8 *PdbFindConstant(const PdbGlobals *globals, const char *name);
const u8 *PdbFindThreadData(const PdbGlobals *globals, const char *name);
u32 PdbFindUdt(const PdbGlobals *globals, const char *name);  // type index, 0 when none
const char *PdbDataEntryName(const PdbGlobals *globals, const PdbDataEntry *entry);
