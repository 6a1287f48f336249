#include "symbols/pdb_lines.h"

#include <string.h>

#include "base/hash.h"
#include "symbols/pdb_alloc.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_raw.h"

// How a source path is spelled does not matter beyond case and the direction of its slashes.
static char NormalisedPathChar(char c) {
  if (c >= 'A' && c <= 'Z') return (char)(c - 'A' + 'a');
  return c == '/' ? '\\' : c;
}

u32 PdbSourceFileHash(const char *path, u64 length) {
  u32 hash = kHashNameBasis;
  for (u64 i = 0; i < length; i++) hash = HashNameStep(hash, NormalisedPathChar(path[i]));
  return hash;
}

static bool SamePath(const char *a, const char *b) {
  for (; *a && *b; a++, b++)
    if (NormalisedPathChar(*a) != NormalisedPathChar(*b)) return false;
  return *a == *b;
}

static u32 SourceFileSlot(u32 hash, u32 capacity) {
  u64 x = (u64)hash * 0xFF51AFD7ED558CCDull;
  x ^= x >> 32;
  return (u32)(x % capacity);
}

// The slot that holds the path, or else the empty slot where it would go; capacity when the
// table is full and does not hold it.
static u32 SourceFileSlotOf(const PdbSourceFileTable *files, const char *path, u32 hash) {
  u32 slot = SourceFileSlot(hash, files->capacity);
  for (u32 probes = 0; probes < files->capacity; probes++, slot = (slot + 1) % files->capacity) {
    if (files->name_hashes[slot] == 0) return slot;
    if (files->name_hashes[slot] == hash && SamePath(PdbStringAt(&files->names, (u32)files->name_offsets[slot]), path))
      return slot;
  }
  return files->capacity;
}

static void InsertSourceFile(PdbSourceFileTable *files, const char *name, u32 name_offset) {
  if (!files->capacity || files->used >= files->capacity) return;
  u32 hash = PdbSourceFileHash(name, strlen(name));
  u32 slot = SourceFileSlotOf(files, name, hash);
  if (slot == files->capacity || files->name_hashes[slot]) return;  // the same path, perhaps spelled otherwise
  files->name_hashes[slot] = hash;
  files->name_offsets[slot] = name_offset;
  files->used++;
}

static u32 FindSourceFileAsSpelled(const PdbSourceFileTable *files, const char *path) {
  u32 slot = SourceFileSlotOf(files, path, PdbSourceFileHash(path, strlen(path)));
  return slot < files->capacity && files->name_hashes[slot] ? (u32)files->name_offsets[slot] : 0;
}

// A program built on a Unix machine names its sources by rooted paths without a drive; Wine shows
// that root as a drive, so "Z:\src\a.c" is looked for as "\src\a.c" when the drive form is not there.
u32 PdbFindSourceFile(const PdbSourceFileTable *files, const char *path) {
  if (!files->capacity) return 0;
  u32 found = FindSourceFileAsSpelled(files, path);
  bool drive = ((path[0] | 0x20) >= 'a' && (path[0] | 0x20) <= 'z') && path[1] == ':' && (path[2] == '\\' || path[2] == '/');
  if (!found && drive) found = FindSourceFileAsSpelled(files, path + 2);
  return found;
}

u32 PdbLineFileOffset(const PdbLineEntry *entry) { return PdbFileRecordNameOffset(entry->file); }
u32 PdbFileRecordNameOffset(const u8 *file_record) { return file_record ? ReadU32(file_record) : 0; }

// Walks the subsections of one module's C13 area: calls visit(kind, payload, size) for each one
// whose declared length fits. Subsections start 4-aligned.
template <typename Visit>
static void ForEachSubsection(const u8 *c13, u32 bytes, Visit visit) {
  u64 at = 0;
  while (at + kC13SubsectionHeaderBytes <= bytes) {
    u32 kind = ReadU32(c13 + at), length = ReadU32(c13 + at + 4);
    at += kC13SubsectionHeaderBytes;
    if (length > bytes - at) return;
    visit(kind, c13 + at, length);
    at = AlignUp(at + length, 4);
  }
}

// Calls visit(file_id, line_count, lines) for every block of a lines subsection that fits.
template <typename Visit>
static void ForEachBlock(const u8 *payload, u32 size, Visit visit) {
  if (size <= kC13LinesHeaderBytes) return;
  bool columns = (ReadU16(payload + kC13LinesFlagsOffset) & kC13LinesHaveColumns) != 0;
  u64 at = kC13LinesHeaderBytes;
  while (at + kC13LineBlockHeaderBytes <= size) {
    u32 file_id = ReadU32(payload + at), count = ReadU32(payload + at + 4), block_bytes = ReadU32(payload + at + 8);
    if (block_bytes < kC13LineBlockHeaderBytes || block_bytes > size - at) return;
    u64 needed = kC13LineBlockHeaderBytes + (u64)count * (kC13LineBytes + (columns ? kC13ColumnBytes : 0));
    if (needed > block_bytes) return;
    visit(file_id, count, payload + at + kC13LineBlockHeaderBytes);
    at += block_bytes;
  }
}

// The checksum record of a file id: the whole record (fixed part and checksum bytes) must lie
// inside the payload, so that the name offset and the checksum can be read from it alone.
static const u8 *ChecksumRecordAt(const u8 *checksums, u32 checksum_bytes, u32 file_id) {
  if (!checksums || file_id >= checksum_bytes || checksum_bytes - file_id < kC13ChecksumHeaderBytes ||
      checksum_bytes - file_id - kC13ChecksumHeaderBytes < checksums[file_id + 4])
    return nullptr;
  return checksums + file_id;
}

const u8 *PdbModuleSubsection(const PdbModuleSymbols *module, u32 kind, u32 *size) {
  const u8 *found = nullptr;
  *size = 0;
  ForEachSubsection(module->c13, module->c13_bytes, [&](u32 k, const u8 *payload, u32 bytes) {
    if (k == kind && !found) found = payload, *size = bytes;
  });
  return found;
}

const u8 *PdbModuleFileRecord(const PdbModuleSymbols *module, u32 file_id) {
  u32 bytes = 0;
  const u8 *checksums = PdbModuleSubsection(module, kC13FileChecksums, &bytes);
  return ChecksumRecordAt(checksums, bytes, file_id);
}

static u64 CountLines(const PdbModuleSymbols *module) {
  u64 total = 0;
  ForEachSubsection(module->c13, module->c13_bytes, [&](u32 kind, const u8 *payload, u32 size) {
    if (kind != kC13Lines) return;
    ForEachBlock(payload, size, [&](u32, u32 count, const u8 *) { total += count; });
  });
  return total;
}

struct LineFill {
  PdbLineEntry *entries;
  u64 capacity;
  u64 count;
  PdbSourceFileTable *files;
  const PdbStringTable *strings;
};

static void LoadModuleLines(const PdbModuleSymbols *module, const PdbStringTable *strings, LineFill *fill) {
  u32 checksum_bytes = 0;
  const u8 *checksums = PdbModuleSubsection(module, kC13FileChecksums, &checksum_bytes);
  u32 previous_name = 0;
  bool have_previous_name = false;
  ForEachSubsection(module->c13, module->c13_bytes, [&](u32 kind, const u8 *payload, u32 size) {
    if (kind != kC13Lines || size <= kC13LinesHeaderBytes) return;
    u32 start = ReadU32(payload), section = ReadU16(payload + 4), code_size = ReadU32(payload + 8);
    ForEachBlock(payload, size, [&](u32 file_id, u32 count, const u8 *lines) {
      const u8 *file = ChecksumRecordAt(checksums, checksum_bytes, file_id);
      if (file) {
        u32 name = ReadU32(file);
        if (!have_previous_name || name != previous_name)
          InsertSourceFile(fill->files, PdbStringAt(strings, name), name);
        previous_name = name;
        have_previous_name = true;
      }
      u64 block_first = fill->count;
      for (u32 i = 0; i < count && fill->count < fill->capacity; i++) {
        u32 address = start + ReadU32(lines + (u64)i * kC13LineBytes);
        u32 number = ReadU32(lines + (u64)i * kC13LineBytes + 4) & kC13LineNumberMask;
        if (fill->count > block_first) {
          PdbLineEntry *previous = &fill->entries[fill->count - 1];
          if (previous->offset == address) {
            previous->line = number;  // the later line at one address wins
            continue;
          }
          if (previous->line == number) continue;  // the same line goes on
          previous->length = address - previous->offset;
        }
        PdbLineEntry *entry = &fill->entries[fill->count++];
        entry->file = file;
        entry->line = number;
        entry->section = section;
        entry->offset = address;
        entry->length = 0;
      }
      if (fill->count > block_first) {
        PdbLineEntry *last = &fill->entries[fill->count - 1];
        last->length = start + code_size - last->offset;
      }
    });
  });
}

static u64 AddressKey(const PdbLineEntry &e) { return (u64)e.section << 32 | e.offset; }
static u64 FileLineKey(const PdbLineEntry &e) { return (u64)PdbLineFileOffset(&e) << 32 | e.line; }

struct KeyedIndex {
  u64 key;
  u64 index;
};

// Stable LSD radix sort on a 64-bit key, 16 bits a pass, through (key, index) pairs so that the
// passes never touch the entries (reading a file key goes through a pointer); passes over a digit
// that is the same in every key are skipped. Entries that arrive sorted are left as they are.
template <typename Key>
static bool SortEntries(PdbLineEntry *items, u32 count, Key key_of) {
  bool sorted = true;
  for (u32 i = 1; i < count && sorted; i++) sorted = key_of(items[i - 1]) <= key_of(items[i]);
  if (sorted) return true;
  ScratchBegin();
  KeyedIndex *a = (KeyedIndex *)ScratchAllocate((u64)count * sizeof(KeyedIndex));
  KeyedIndex *b = (KeyedIndex *)ScratchAllocate((u64)count * sizeof(KeyedIndex));
  u32 *counts = (u32 *)ScratchAllocate(65536 * sizeof(u32));
  PdbLineEntry *copy = (PdbLineEntry *)ScratchAllocate((u64)count * sizeof(PdbLineEntry));
  bool ok = a && b && counts && copy;
  if (ok) {
    u64 all_or = 0, all_and = ~0ull;
    for (u32 i = 0; i < count; i++) {
      a[i].key = key_of(items[i]);
      a[i].index = i;
      all_or |= a[i].key, all_and &= a[i].key;
    }
    for (int shift = 0; shift < 64; shift += 16) {
      if (((all_or ^ all_and) >> shift & 0xFFFF) == 0) continue;
      memset(counts, 0, 65536 * sizeof(u32));
      for (u32 i = 0; i < count; i++) counts[a[i].key >> shift & 0xFFFF]++;
      u32 sum = 0;
      for (u32 d = 0; d < 65536; d++) {
        u32 c = counts[d];
        counts[d] = sum;
        sum += c;
      }
      for (u32 i = 0; i < count; i++) b[counts[a[i].key >> shift & 0xFFFF]++] = a[i];
      KeyedIndex *swap = a;
      a = b;
      b = swap;
    }
    memcpy(copy, items, (u64)count * sizeof(PdbLineEntry));
    for (u32 i = 0; i < count; i++) items[i] = copy[a[i].index];
  }
  ScratchEnd();
  return ok;
}

PdbError PdbLoadLines(SymbolArena *arena, const PdbScopes *scopes, const PdbStringTable *strings,
                 PdbSourceFileTable *files, PdbLines *out) {
  memset(out, 0, sizeof(*out));
  u64 total = 0;
  for (u32 m = 0; m < scopes->module_count; m++) total += CountLines(&scopes->modules[m]);
  if (!total) return kPdbOk;
  if (total > 0xFFFFFFFFull / 2) return kPdbUnreadable;
  LineFill fill = {};
  fill.entries = (PdbLineEntry *)PdbAllocate(arena, total * sizeof(PdbLineEntry));
  if (!fill.entries) return kPdbUnreadable;
  fill.capacity = total;
  fill.files = files;
  fill.strings = strings;
  for (u32 m = 0; m < scopes->module_count; m++) LoadModuleLines(&scopes->modules[m], strings, &fill);

  u32 count = (u32)fill.count;
  PdbLineEntry *by_address = (PdbLineEntry *)PdbAllocate(arena, (u64)count * sizeof(PdbLineEntry));
  if (!by_address) return kPdbUnreadable;
  memcpy(by_address, fill.entries, (u64)count * sizeof(PdbLineEntry));
  if (!SortEntries(fill.entries, count, FileLineKey) || !SortEntries(by_address, count, AddressKey))
    return kPdbUnreadable;
  out->by_file = fill.entries;
  out->by_address = by_address;
  out->count = count;
  return kPdbOk;
}

const PdbLineEntry *PdbLineAtAddress(const PdbLines *lines, u32 section, u32 offset) {
  u32 lo = 0, hi = lines->count;
  while (lo < hi) {
    u32 mid = lo + (hi - lo) / 2;
    const PdbLineEntry *e = &lines->by_address[mid];
    // The end test is made whatever the entry's section, so that ranges ending at or before the
    // key offset in a later section still move the search up.
    if (e->section < section || (u64)e->offset + e->length <= offset)
      lo = mid + 1;
    else if (e->section == section && e->offset <= offset)
      return e;
    else
      hi = mid;
  }
  return nullptr;
}

// One search for the first entry at or after (file, line): its line, when it belongs to the file
// and lies within the ten lines, is the first of them that has code.
const PdbLineEntry *PdbAddressOfLine(const PdbLines *lines, u32 file_offset, u32 line) {
  if (!file_offset) return nullptr;
  u32 lo = 0, hi = lines->count;
  while (lo < hi) {
    u32 mid = lo + (hi - lo) / 2;
    const PdbLineEntry *e = &lines->by_file[mid];
    u32 f = PdbLineFileOffset(e);
    if (f < file_offset || (f == file_offset && e->line < line))
      lo = mid + 1;
    else
      hi = mid;
  }
  if (lo == lines->count) return nullptr;
  const PdbLineEntry *e = &lines->by_file[lo];
  if (PdbLineFileOffset(e) != file_offset || (u64)e->line > (u64)line + 9) return nullptr;
  return e;
}
