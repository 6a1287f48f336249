#include "symbols/pdb_types.h"

#include <string.h>

#include "symbols/pdb_alloc.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_records.h"

u32 PdbNameHashV1(const char *name, u32 length) {
  const u8 *p = (const u8 *)name;
  u32 h = 0;
  u32 words = length / 4;
  for (u32 i = 0; i < words; i++) h ^= ReadU32(p + 4 * i);
  p += 4 * words;
  u32 rest = length % 4;
  if (rest >= 2) h ^= ReadU16(p), p += 2, rest -= 2;
  if (rest == 1) h ^= *p;
  h |= 0x20202020u;
  h ^= h >> 11;
  h ^= h >> 16;
  return h;
}

const u8 *PdbTypeRecord(const PdbTypes *types, u32 type_index) {
  if (type_index < types->first_index || type_index - types->first_index >= types->count) return nullptr;
  u32 offset = types->offsets[type_index - types->first_index];
  if (offset == kPdbNoTypeRecord || types->record_bytes < 4 || offset > types->record_bytes - 4) return nullptr;
  if (ReadU16(types->records + offset) + 2u > types->record_bytes - offset) return nullptr;
  return types->records + offset;
}

// Moves each adjusted type to the end of its name's bucket, so that a lookup which prefers the
// last candidate of a bucket finds the type the linker chose.
void PdbApplyHashAdjusters(const u8 *data, u32 size, const PdbStringTable *strings, PdbTypes *types) {
  if (size < 9) return;
  u32 at = 8;  // entry count and capacity
  u32 entry_count = ReadU32(data);
  for (int vector = 0; vector < 2; vector++) {
    if (size - at < 4) return;
    u32 words = ReadU32(data + at);
    at += 4;
    if (words > (size - at) / 4) return;
    at += 4 * words;
  }
  if (entry_count > (size - at) / 8) entry_count = (size - at) / 8;
  for (u32 e = 0; e < entry_count; e++, at += 8) {
    u32 name_offset = ReadU32(data + at), type_index = ReadU32(data + at + 4);
    if (name_offset >= strings->buffer_bytes) continue;
    const char *name = strings->buffer + name_offset;
    u32 bucket = PdbNameHashV1(name, (u32)strlen(name)) % types->bucket_count;
    u32 start = (u32)types->buckets[bucket], n = (u32)(types->buckets[bucket] >> 32);
    for (u32 k = 0; k < n; k++) {
      if (types->bucket_list[start + k] != type_index) continue;
      types->bucket_list[start + k] = types->bucket_list[start + n - 1];
      types->bucket_list[start + n - 1] = type_index;
      break;
    }
  }
}

static void LoadHashIndex(SymbolArena *arena, const MsfFile *msf, const TpiStreamHeader *header,
                          const PdbStringTable *strings, PdbTypes *out) {
  u32 hash_stream = header->hash_stream;
  u32 bucket_count = header->bucket_count;
  u32 values_offset = header->hash_values_offset, values_bytes = header->hash_values_bytes;
  u32 adjust_offset = header->adjusters_offset, adjust_bytes = header->adjusters_bytes;
  if (hash_stream == kPdbNoHashStream || values_bytes / 4 != out->count || bucket_count == 0) return;
  const MsfStream *stream = MsfStreamAt(msf, hash_stream);
  u32 stream_size = MsfStreamSize(msf, hash_stream);
  if (!stream || values_offset > stream_size || values_bytes > stream_size - values_offset) return;
  if (bucket_count > kPdbMaxTypeBuckets) return;

  // The hash values are needed only while the buckets are built: scratch memory, which the next
  // PDB's load reuses without asking the system again.
  ScratchBegin();
  u32 *values = (u32 *)ScratchAllocate((u64)out->count * 4 + 4);
  PdbError error = values ? MsfReadStream(msf, stream, values, (u64)out->count * 4, values_offset) : kPdbOk;
  bool built = values && !error && PdbBuildTypeBuckets(arena, values, bucket_count, out);
  ScratchEnd();
  // A hash stream that cannot be read is an unusable index, not a broken PDB: the types stay
  // reachable by index, and without its adjusters the buckets keep the writer's order.
  if (error || !built) return;

  if (adjust_bytes >= 9 && adjust_offset <= stream_size && adjust_bytes <= stream_size - adjust_offset) {
    u8 *adjusters = (u8 *)PdbAllocate(arena, adjust_bytes);
    if (adjusters && MsfReadStream(msf, stream, adjusters, adjust_bytes, adjust_offset) == kPdbOk)
      PdbApplyHashAdjusters(adjusters, adjust_bytes, strings, out);
  }
}

bool PdbBuildTypeBuckets(SymbolArena *arena, const u32 *values, u32 bucket_count, PdbTypes *out) {
  if (bucket_count == 0 || bucket_count > kPdbMaxTypeBuckets) return false;
  u64 *buckets = (u64 *)PdbAllocate(arena, (u64)bucket_count * 8);
  u32 *list = (u32 *)PdbAllocate(arena, (u64)out->count * 4);
  if ((out->count && !list) || !buckets) return false;
  memset(buckets, 0, (u64)bucket_count * 8);
  for (u32 i = 0; i < out->count; i++)
    if (values[i] < bucket_count) buckets[values[i]] += 1ull << 32;
  u32 running = 0;
  for (u32 b = 0; b < bucket_count; b++) {
    u32 n = (u32)(buckets[b] >> 32);
    buckets[b] = running;  // start; the count is rebuilt while placing
    running += n;
  }
  for (u32 i = 0; i < out->count; i++) {
    if (values[i] >= bucket_count) continue;
    u64 *slot = &buckets[values[i]];
    list[(u32)*slot + (u32)(*slot >> 32)] = out->first_index + i;
    *slot += 1ull << 32;
  }
  out->bucket_count = bucket_count;
  out->buckets = buckets;
  out->bucket_list = list;
  return true;
}

// [SECTION] Record offsets, computed as the bytes arrive
typedef struct TypeIndexer {
  u32 at;       // byte offset of the next record
  u32 next;     // its position in index order
  u32 checked;  // records before this one were looked at for forward references
  u32 forward_count;
  u64 *forwards;  // (name hash << 32 | type index) of the forward references met; null: not kept
} TypeIndexer;

static PdbError BeginIndex(SymbolArena *arena, const u8 *records, u32 record_bytes, u32 first_index, u32 end_index,
                           bool keep_forwards, TypeIndexer *indexer, PdbTypes *out) {
  out->records = records;
  out->record_bytes = record_bytes;
  out->first_index = first_index;
  // Every record takes at least 4 bytes, so a larger count than the bytes can hold is a lie.
  u32 count = end_index > first_index ? end_index - first_index : 0;
  if (count > record_bytes / 4 + 1) count = record_bytes / 4 + 1;
  out->offsets = (u32 *)PdbAllocate(arena, (u64)count * 4 + 4);
  if (!out->offsets) return kPdbUnreadable;
  out->count = count;
  memset(indexer, 0, sizeof(*indexer));
  // Scratch for the worst case; only the pages that forward references fill are touched.
  if (keep_forwards) indexer->forwards = (u64 *)ScratchAllocate((u64)count * 8 + 8);
  if (keep_forwards && !indexer->forwards) return kPdbUnreadable;
  return kPdbOk;
}

// A class, structure, union or enumeration that is a forward reference: its name's hash is kept.
static void NoteForward(TypeIndexer *indexer, const PdbTypes *out, u32 position, const u8 *r, u32 bytes) {
  u32 properties;
  switch (ReadU16(r + kTypeRecordLeaf)) {
    case kLF_CLASS: case kLF_STRUCTURE: case kLF_INTERFACE:
      if (bytes < kClassSize) return;
      properties = ReadU16(r + kClassProperties);
      break;
    case kLF_UNION:
      if (bytes < kUnionSize) return;
      properties = ReadU16(r + kUnionProperties);
      break;
    case kLF_ENUM:
      if (bytes < kEnumName) return;
      properties = ReadU16(r + kEnumProperties);
      break;
    case kLF_CLASS2: case kLF_STRUCTURE2:
      if (bytes < kClass2Size) return;
      properties = ReadU32(r + kClass2Properties);
      break;
    default: return;
  }
  TypeRecord t;
  if (!(properties & kTypePropForwardRef) || !PdbDecodeTypeBytes(r, bytes, &t) || !t.name.length) return;
  indexer->forwards[indexer->forward_count++] =
      (u64)PdbNameHashV1(t.name.text, t.name.length) << 32 | (out->first_index + position);
}

// Indexes the records whose length field lies in the first `available` bytes, and looks at those
// that lie there whole for forward references while their bytes are still in the cache.
static void IndexAvailable(TypeIndexer *indexer, u32 available, PdbTypes *out) {
  u32 at = indexer->at, i = indexer->next, count = out->count;
  u32 *offsets = out->offsets;
  const u8 *records = out->records;
  while (i < count && available >= 2 && at <= available - 2) {
    offsets[i++] = at;
    at += ReadU16(records + at) + 2u;
  }
  indexer->at = at, indexer->next = i;
  if (!indexer->forwards) return;
  u32 k = indexer->checked;
  for (; k < i; k++) {
    u32 o = offsets[k], bytes = ReadU16(records + o) + 2u;
    if ((u64)o + bytes > available) break;
    if (bytes >= 4) NoteForward(indexer, out, k, records + o, bytes);
  }
  indexer->checked = k;
}

// Indices the walk did not reach have no record.
static void EndIndex(const TypeIndexer *indexer, PdbTypes *out) {
  memset(out->offsets + indexer->next, 0xFF, (u64)(out->count - indexer->next) * 4);
}

// The forward references, sorted by name hash for a binary search (an LSD radix sort on the hash,
// 16 bits a pass, through scratch).
static PdbError KeepForwards(SymbolArena *arena, const TypeIndexer *indexer, PdbTypes *out) {
  u32 n = indexer->forward_count;
  if (!n) return kPdbOk;
  u64 *sorted = (u64 *)PdbAllocate(arena, (u64)n * 8);
  u64 *other = (u64 *)ScratchAllocate((u64)n * 8);
  u32 *counts = (u32 *)ScratchAllocate(65536 * 4);
  if (!sorted || !other || !counts) return kPdbUnreadable;
  const u64 *from = indexer->forwards;
  u64 *to = other;
  for (int shift = 32; shift < 64; shift += 16) {
    if (shift == 48) to = sorted;
    memset(counts, 0, 65536 * 4);
    for (u32 k = 0; k < n; k++) counts[from[k] >> shift & 0xFFFF]++;
    u32 sum = 0;
    for (u32 d = 0; d < 65536; d++) {
      u32 c = counts[d];
      counts[d] = sum;
      sum += c;
    }
    for (u32 k = 0; k < n; k++) to[counts[from[k] >> shift & 0xFFFF]++] = from[k];
    from = to;
  }
  out->forwards = sorted;
  out->forward_count = n;
  return kPdbOk;
}

PdbError PdbLoadTypes(SymbolArena *arena, const MsfFile *msf, const PdbStringTable *strings, PdbTypes *out) {
  return PdbLoadTypeStream(arena, msf, kPdbTypeStream, strings, out);
}

PdbError PdbLoadIds(SymbolArena *arena, const MsfFile *msf, PdbTypes *out) {
  memset(out, 0, sizeof(*out));
  if (MsfStreamSize(msf, kPdbIdStream) == 0) return kPdbOk;  // older writers have none
  return PdbLoadTypeStream(arena, msf, kPdbIdStream, nullptr, out);
}

PdbError PdbLoadTypeStream(SymbolArena *arena, const MsfFile *msf, u32 stream_index, const PdbStringTable *strings,
                      PdbTypes *out) {
  memset(out, 0, sizeof(*out));
  const MsfStream *stream = MsfStreamAt(msf, stream_index);
  u32 size = MsfStreamSize(msf, stream_index);
  if (!stream || size < sizeof(TpiStreamHeader)) return kPdbBadFormat;
  TpiStreamHeader header;
  PdbError error = MsfReadStream(msf, stream, &header, sizeof(header), 0);
  if (error) return error;
  u32 first_index = header.first_index, end_index = header.end_index;
  u32 record_bytes = size - (u32)sizeof(TpiStreamHeader);
  u8 *records = (u8 *)PdbAllocate(arena, (u64)record_bytes + 8);
  if (!records) return kPdbUnreadable;
  // Ids are found by index only; types also by name, forward references included.
  ScratchBegin();
  TypeIndexer indexer;
  error = BeginIndex(arena, records, record_bytes, first_index, end_index, strings != nullptr, &indexer, out);
  // Read in chunks and index each while it is still in the cache.
  for (u32 done = 0; !error && done < record_bytes;) {
    u32 chunk = record_bytes - done < kTypeReadChunkBytes ? record_bytes - done : kTypeReadChunkBytes;
    error = MsfReadStream(msf, stream, records + done, chunk, (u32)sizeof(TpiStreamHeader) + done);
    done += chunk;
    if (!error) IndexAvailable(&indexer, done, out);
  }
  if (!error) {
    memset(records + record_bytes, 0, 8);
    EndIndex(&indexer, out);
    error = KeepForwards(arena, &indexer, out);
  }
  ScratchEnd();
  if (error) return error;
  if (strings) LoadHashIndex(arena, msf, &header, strings, out);
  return kPdbOk;
}

PdbError PdbIndexTypeRecords(SymbolArena *arena, const u8 *records, u32 record_bytes, u32 first_index, u32 end_index,
                        PdbTypes *out) {
  ScratchBegin();
  TypeIndexer indexer;
  PdbError error = BeginIndex(arena, records, record_bytes, first_index, end_index, true, &indexer, out);
  if (!error) {
    IndexAvailable(&indexer, record_bytes, out);
    EndIndex(&indexer, out);
    error = KeepForwards(arena, &indexer, out);
  }
  ScratchEnd();
  return error;
}
