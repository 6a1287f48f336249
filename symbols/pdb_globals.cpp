#include "symbols/pdb_globals.h"

#include <string.h>

#include "base/hash.h"
#include "symbols/pdb_alloc.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_kinds.h"
#include "symbols/pdb_record.h"
#include "symbols/pdb_type_records.h"

enum TableKind { kTableNone, kTableConstant, kTableUdt, kTableData, kTableThread };

static TableKind TableOf(u16 kind) {
  switch (kind) {
    case kS_CONSTANT: return kTableConstant;
    case kS_UDT: return kTableUdt;
    case kS_LDATA32: case kS_GDATA32: return kTableData;
    case kS_LTHREAD32: case kS_GTHREAD32: return kTableThread;
  }
  return kTableNone;
}

// Offset of the name inside a kept record, 0 when the record is too short to hold one.
static u32 NameOffset(const u8 *record, u32 record_bytes) {
  switch (TableOf(ReadU16(record + 2))) {
    case kTableConstant: {
      if (record_bytes < kConstSymValue + 2) return 0;
      // A leaf of a kind that is not known is taken as its kind word alone.
      u32 leaf_bytes = ReadNumericLeaf(record + kConstSymValue, record_bytes - kConstSymValue).bytes;
      return kConstSymValue + (leaf_bytes ? leaf_bytes : 2);
    }
    case kTableUdt: return kUdtSymName;
    case kTableData: case kTableThread: return kDataSymName;
    case kTableNone: break;
  }
  return 0;
}

const u8 *PdbGlobalRecord(const PdbGlobals *globals, u32 i, u16 *out_kind) {
  *out_kind = 0;
  if (i >= globals->hash_record_count) return nullptr;
  u32 offset = globals->hash_records[i].offset_plus_one - 1;  // 0 wraps and fails the bound check
  u32 bytes = SymbolRecordBytes(globals->records, globals->record_bytes, offset);
  if (!bytes) return nullptr;
  const u8 *record = globals->records + offset;
  u16 kind = ReadU16(record + 2);
  if (TableOf(kind) == kTableNone) return nullptr;
  u32 name_at = NameOffset(record, bytes);
  if (!name_at || !SymbolRecordHasName(record, bytes, name_at)) return nullptr;
  *out_kind = kind;
  return record;
}

const char *PdbGlobalRecordName(const u8 *record) {
  u32 name_at = NameOffset(record, ReadU16(record) + 2u);
  return name_at ? (const char *)record + name_at : "";
}

template <typename T>
static T *AllocateCleared(SymbolArena *arena, u32 count, bool *failed) {
  T *p = (T *)PdbAllocate(arena, (u64)count * sizeof(T));
  if (!p) {
    *failed = true;
    return nullptr;
  }
  memset(p, 0, (u64)count * sizeof(T));
  return p;
}

static u32 CapacityFor(u32 count) { return count + count / 2; }
static u32 NextSlot(u32 slot, u32 capacity) { return slot + 1 == capacity ? 0 : slot + 1; }

// What the first pass keeps of a record for the table inserts of the second.
typedef struct KeptGlobal {
  u32 record_offset;
  u32 name_hash;
  u32 type_index;
  u32 offset;  // data only
  u16 section;
  u16 table;   // TableKind
} KeptGlobal;

static void PrefetchSlot(const PdbGlobals *g, const KeptGlobal *k) {
  switch (k->table) {
    case kTableConstant: __builtin_prefetch(&g->constant_records[k->name_hash % g->constant_capacity], 1); break;
    case kTableUdt: __builtin_prefetch(&g->udts[k->name_hash % g->udt_capacity], 1); break;
    case kTableData: __builtin_prefetch(&g->data[k->name_hash % g->data_capacity], 1); break;
    case kTableThread: __builtin_prefetch(&g->thread_records[k->name_hash % g->thread_capacity], 1); break;
  }
}

// The constant and thread-data tables: a name hash and a record pointer per slot, probed linearly.
static void InsertRecord(u32 *hashes, const u8 **slots, u32 capacity, u32 hash_value, const u8 *record) {
  u32 slot = hash_value % capacity;
  while (slots[slot]) slot = NextSlot(slot, capacity);
  hashes[slot] = hash_value;
  slots[slot] = record;
}

PdbError PdbLoadGlobals(SymbolArena *arena, const MsfFile *msf, u32 global_stream, u32 record_stream, PdbGlobals *out) {
  memset(out, 0, sizeof(*out));
  u8 *records = nullptr, *hash = nullptr;
  u32 record_bytes = 0, hash_bytes = 0;
  if (MsfReadWholeStream(arena, msf, record_stream, &records, &record_bytes)) return kPdbUnreadable;
  if (MsfReadWholeStream(arena, msf, global_stream, &hash, &hash_bytes)) return kPdbUnreadable;
  if (hash_bytes < sizeof(GsiHashHeader)) return kPdbBadFormat;
  GsiHashHeader header;
  memcpy(&header, hash, sizeof(header));
  if (header.signature != kGsiSignature || header.version != kGsiVersion) return kPdbBadFormat;
  u32 hash_record_count = header.record_bytes / sizeof(GsiHashRecord);
  u32 fits = (hash_bytes - sizeof(GsiHashHeader)) / sizeof(GsiHashRecord);
  if (hash_record_count > fits) hash_record_count = fits;  // stop where the stream runs out

  PdbGlobals g = {};
  g.records = records;
  g.record_bytes = record_bytes;
  g.hash_records = (const GsiHashRecord *)(hash + sizeof(GsiHashHeader));
  g.hash_record_count = hash_record_count;

  // First pass: validate each record once, hash its name and note what the tables keep, so the
  // second pass (table inserts) touches the record stream no more.
  ScratchBegin();
  KeptGlobal *kept = (KeptGlobal *)ScratchAllocate((u64)hash_record_count * sizeof(KeptGlobal));
  if (!kept && hash_record_count) {
    ScratchEnd();
    return kPdbUnreadable;
  }
  u32 kept_count = 0;
  u32 counts[5] = {};
  enum { kLookAhead = 16 };  // records and slots are met at random: overlap their cache misses
  for (u32 i = 0; i < hash_record_count; i++) {
    if (i + kLookAhead < hash_record_count) {
      u32 ahead = g.hash_records[i + kLookAhead].offset_plus_one - 1;
      if (ahead < record_bytes) __builtin_prefetch(records + ahead);
    }
    u16 kind;
    const u8 *record = PdbGlobalRecord(&g, i, &kind);
    if (!record) continue;
    KeptGlobal *k = &kept[kept_count++];
    k->table = TableOf(kind);
    k->record_offset = (u32)(record - records);
    k->name_hash = HashNameZ(PdbGlobalRecordName(record));
    k->type_index = ReadU32(record + kDataSymType);  // same place in every kept kind
    if (k->table == kTableData) {
      k->offset = ReadU32(record + kDataSymOffset);
      k->section = ReadU16(record + kDataSymSection);
    }
    counts[k->table]++;
  }
  bool failed = false;
  g.constant_capacity = CapacityFor(counts[kTableConstant]);
  g.constant_hashes = AllocateCleared<u32>(arena, g.constant_capacity, &failed);
  g.constant_records = AllocateCleared<const u8 *>(arena, g.constant_capacity, &failed);
  g.udt_capacity = CapacityFor(counts[kTableUdt]);
  g.udts = AllocateCleared<PdbUdtEntry>(arena, g.udt_capacity, &failed);
  g.udt_record_offsets_plus_one = AllocateCleared<u32>(arena, g.udt_capacity, &failed);
  g.data_capacity = CapacityFor(counts[kTableData]);
  g.data = AllocateCleared<PdbDataEntry>(arena, g.data_capacity, &failed);
  g.thread_capacity = CapacityFor(counts[kTableThread]);
  g.thread_hashes = AllocateCleared<u32>(arena, g.thread_capacity, &failed);
  g.thread_records = AllocateCleared<const u8 *>(arena, g.thread_capacity, &failed);
  if (failed) {
    ScratchEnd();
    return kPdbUnreadable;
  }

  // Second pass, in hash-record order.
  for (u32 i = 0; i < kept_count; i++) {
    if (i + kLookAhead < kept_count) PrefetchSlot(&g, &kept[i + kLookAhead]);
    const KeptGlobal *k = &kept[i];
    u32 hash_value = k->name_hash;
    switch (k->table) {
      case kTableConstant:
        InsertRecord(g.constant_hashes, g.constant_records, g.constant_capacity, hash_value, records + k->record_offset);
        g.constant_count++;
        break;
      case kTableUdt: {
        u32 slot = hash_value % g.udt_capacity;
        while (g.udt_record_offsets_plus_one[slot]) slot = NextSlot(slot, g.udt_capacity);
        g.udts[slot].name_hash = hash_value;
        g.udts[slot].type_index = k->type_index;
        g.udt_record_offsets_plus_one[slot] = k->record_offset + 1;
        g.udt_count++;
      } break;
      case kTableData: {
        u32 slot = hash_value % g.data_capacity;
        u32 last_same = kPdbNoEntry;
        while (g.data[slot].record_offset_plus_one) {
          if (g.data[slot].name_hash == hash_value) last_same = slot;
          slot = NextSlot(slot, g.data_capacity);
        }
        if (last_same != kPdbNoEntry) g.data[last_same].next = slot;
        PdbDataEntry *e = &g.data[slot];
        e->name_hash = hash_value;
        e->section_minus_1 = (u16)(k->section - 1);
        e->offset = k->offset;
        e->type_index = k->type_index;
        e->next = kPdbNoEntry;
        e->record_offset_plus_one = k->record_offset + 1;
        g.data_count++;
      } break;
      case kTableThread:
        InsertRecord(g.thread_hashes, g.thread_records, g.thread_capacity, hash_value, records + k->record_offset);
        g.thread_count++;
        break;
      case kTableNone: break;
    }
  }
  ScratchEnd();
  *out = g;
  return kPdbOk;
}

// [SECTION] Lookups

const char *PdbDataEntryName(const PdbGlobals *globals, const PdbDataEntry *entry) {
  return (const char *)globals->records + entry->record_offset_plus_one - 1 + kDataSymName;
}

const PdbDataEntry *PdbFindData(const PdbGlobals *globals, const char *name, const PdbDataEntry *after) {
  if (!globals->data_capacity) return nullptr;
  u32 hash_value = HashNameZ(name);
  u32 slot;
  if (after) {
    slot = after->next;  // the chain links every entry of this hash, in load order
  } else {
    // A table of one entry has no free slot: the probe count ends the search there.
    slot = hash_value % globals->data_capacity;
    u32 probes = 0;
    while (globals->data[slot].record_offset_plus_one && globals->data[slot].name_hash != hash_value &&
           probes < globals->data_capacity) {
      slot = (slot + 1) % globals->data_capacity;
      probes++;
    }
    if (!globals->data[slot].record_offset_plus_one || globals->data[slot].name_hash != hash_value) return nullptr;
  }
  for (; slot != kPdbNoEntry && slot < globals->data_capacity; slot = globals->data[slot].next) {
    const PdbDataEntry *e = &globals->data[slot];
    if (e->name_hash == hash_value && strcmp(PdbDataEntryName(globals, e), name) == 0) return e;
  }
  return nullptr;
}

static const u8 *FindRecord(const u32 *hashes, const u8 *const *records, u32 capacity, const char *name) {
  if (!capacity) return nullptr;
  u32 hash_value = HashNameZ(name);
  for (u32 slot = hash_value % capacity, probes = 0; records[slot] && probes < capacity;
       slot = (slot + 1) % capacity, probes++) {
    if (hashes[slot] == hash_value && strcmp(PdbGlobalRecordName(records[slot]), name) == 0) return records[slot];
  }
  return nullptr;
}

const u8 *PdbFindConstant(const PdbGlobals *globals, const char *name) {
  return FindRecord(globals->constant_hashes, globals->constant_records, globals->constant_capacity, name);
}

const u8 *PdbFindThreadData(const PdbGlobals *globals, const char *name) {
  return FindRecord(globals->thread_hashes, globals->thread_records, globals->thread_capacity, name);
}

u32 PdbFindUdt(const PdbGlobals *globals, const char *name) {
  if (!globals->udt_capacity) return 0;
  u32 hash_value = HashNameZ(name);
  for (u32 slot = hash_value % globals->udt_capacity, probes = 0;
       globals->udt_record_offsets_plus_one[slot] && probes < globals->udt_capacity;
       slot = (slot + 1) % globals->udt_capacity, probes++) {
    const u8 *record = globals->records + globals->udt_record_offsets_plus_one[slot] - 1;
    if (globals->udts[slot].name_hash == hash_value && strcmp((const char *)record + kUdtSymName, name) == 0)
      return globals->udts[slot].type_index;
  }
  return 0;
}
