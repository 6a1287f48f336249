// The type stream: record bytes addressed by type index, and the name-hash index (bucket table
// and bucket list, with the PDB's hash adjusters applied) that finds types by name.
#pragma once
#include "base/arena.h"
#include "symbols/msf.h"
#include "symbols/pdb_names.h"

enum : u32 { kPdbTypeStream = 2, kPdbNoHashStream = 0xFFFF,
              kPdbNoTypeRecord = 0xFFFFFFFF,
              // The format's largest bucket count; lld always writes 0x3FFFF, whatever the file's size.
              kPdbMaxTypeBuckets = 0x40000,
              kTypeReadChunkBytes = 1 << 20 };

typedef struct PdbTypes {
  const u8 *records;     // everything after the header
  u32 record_bytes;
  u32 first_index;       // normally 0x1000; smaller indices are built-in types
  u32 count;             // end index - first index
  u32 *offsets;          // count entries, in index order; kPdbNoTypeRecord past the bytes read
  u32 bucket_count;      // 0 when no hash index was built
  u64 *buckets;          // per bucket: start in the list (low 32 bits), entry count (high 32 bits)
  u32 *bucket_list;      // type indices grouped by bucket
  // Forward references of classes, structures, unions and enumerations by name (writers hash them
  // by their bytes, so no name bucket holds them): (version-1 string hash of the name << 32 | type
  // index), sorted.
  u64 *forwards;
  u32 forward_count;
  u32 padding;
} PdbTypes;

// 0, kPdbBadFormat for a type stream shorter than its header, or kPdbUnreadable. A missing or
// inconsistent hash index is not a failure: the name index then stays empty.
PdbError PdbLoadTypes(SymbolArena *arena, const MsfFile *msf, const PdbStringTable *strings, PdbTypes *out);
// The IPI stream (function ids, string ids) by index only; a PDB without one loads with none.
PdbError PdbLoadIds(SymbolArena *arena, const MsfFile *msf, PdbTypes *out);
// Either stream: its records by index, and the name index when strings is not null.
PdbError PdbLoadTypeStream(SymbolArena *arena, const MsfFile *msf, u32 stream_index, const PdbStringTable *strings,
                      PdbTypes *out);

// The steps of loading, for callers that hold the bytes themselves (tests, fuzzers):
// record offsets by index over record_bytes (followed in memory by 8 zero bytes) ...
PdbError PdbIndexTypeRecords(SymbolArena *arena, const u8 *records, u32 record_bytes, u32 first_index, u32 end_index,
                        PdbTypes *out);
// ... the bucket table and list from one hash value per type (false: no index built) ...
bool PdbBuildTypeBuckets(SymbolArena *arena, const u32 *values, u32 bucket_count, PdbTypes *out);
// ... and the serialised adjuster table applied to the buckets.
void PdbApplyHashAdjusters(const u8 *data, u32 size, const PdbStringTable *strings, PdbTypes *out);

// The PDB format's version-1 string hash of length bytes.
u32 PdbNameHashV1(const char *name, u32 length);

// The record of a type index (its 16-bit length, then its leaf kind), or null when the index is
// not a record of the stream or its record does not fit the bytes read.
const u8 *PdbTypeRecord(const PdbTypes *types, u32 type_index);
