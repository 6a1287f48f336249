#include "symbols/msf.h"

#include <string.h>

#include "symbols/pdb_alloc.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_raw.h"

const u8 kMsfMagic[kMsfMagicBytes] = {'M', 'i', 'c', 'r', 'o', 's', 'o', 'f', 't', ' ', 'C', '/', 'C', '+', '+',
                                      ' ', 'M', 'S', 'F', ' ', '7', '.', '0', '0', '\r', '\n', 0x1A, 'D', 'S', 0};

static u64 PagesFor(u32 size, u32 page_size) {
  if (size == kMsfNilStreamSize) return 0;
  return ((u64)size + page_size - 1) / page_size;
}

static bool ReadExact(OsFile file, void *buffer, u64 count) {
  u64 got = 0;
  return OsFileRead(file, buffer, count, &got) == kOsOk && got == count;
}

// [SECTION] Directory parsing: the directory arrives one page at a time and is consumed as a
// stream of 32-bit words: the stream count, the sizes, then every stream's page numbers.
typedef struct DirectoryParse {
  SymbolArena *arena;
  u32 page_size;
  u32 directory_bytes;
  u32 words_seen;
  u32 stream_count;
  u32 sizes_seen;
  MsfStream *streams;
  u64 page_total;
  u32 *pages;
  u64 pages_seen;
  PdbError error;
} DirectoryParse;

static void ParseDirectoryWord(DirectoryParse *p, u32 word) {
  u32 index = p->words_seen++;
  if (index == 0) {
    // The count, the sizes and the page lists must all fit in the directory.
    if (word > (p->directory_bytes - 4) / 4) {
      p->error = kPdbBadFormat;
      return;
    }
    p->stream_count = word;
    p->streams = (MsfStream *)PdbAllocate(p->arena, (u64)word * sizeof(MsfStream));
    if (!p->streams && word) p->error = kPdbUnreadable;
  } else if (p->sizes_seen < p->stream_count) {
    p->streams[p->sizes_seen].size = word;
    p->streams[p->sizes_seen].padding = 0;
    p->streams[p->sizes_seen].pages = nullptr;
    p->sizes_seen++;
    p->page_total += PagesFor(word, p->page_size);
  } else if (p->pages_seen < p->page_total) {
    p->pages[p->pages_seen++] = word;
  }
  if (index != 0 && p->sizes_seen == p->stream_count && !p->pages && index == p->stream_count) {
    // Last size stored: the page lists must fit in what is left of the directory.
    u64 words_left = p->directory_bytes / 4 - 1 - (u64)p->stream_count;
    if (p->page_total > words_left) {
      p->error = kPdbBadFormat;
      return;
    }
    p->pages = (u32 *)PdbAllocate(p->arena, p->page_total * 4 + 4);
    if (!p->pages) p->error = kPdbUnreadable;
  }
}

static void ParseDirectoryBytes(DirectoryParse *p, const u8 *bytes, u32 count) {
  for (u32 i = 0; i + 4 <= count && !p->error; i += 4) ParseDirectoryWord(p, ReadU32(bytes + i));
  // An empty stream table has no size to close it.
  if (!p->error && p->words_seen >= 1 && p->stream_count == 0 && !p->pages) {
    p->pages = (u32 *)PdbAllocate(p->arena, 4);
    if (!p->pages) p->error = kPdbUnreadable;
  }
}

// [SECTION] MsfOpen

PdbError MsfOpen(SymbolArena *arena, const char *path, MsfFile *out) {
  memset(out, 0, sizeof(*out));
  OsFile file;
  if (OsFileOpenRead(path, &file) != kOsOk) return kPdbUnreadable;

  u8 super[kMsfSuperblockReadBytes];
  u64 got = 0;
  if (OsFileRead(file, super, sizeof(super), &got) != kOsOk) {
    OsFileClose(&file);
    return kPdbUnreadable;
  }
  if (got < sizeof(super)) {
    OsFileClose(&file);
    return kPdbBadFormat;
  }
  // Superblock rejections leave the file open (the handle stays with the caller's MsfFile).
  out->file = file;
  if (memcmp(super, kMsfMagic, kMsfMagicBytes) != 0) return kPdbBadFormat;
  u32 page_size = ReadU32(super + kMsfOffsetPageSize);
  u32 free_map_page = ReadU32(super + kMsfOffsetFreeMapPage);
  u32 directory_bytes = ReadU32(super + kMsfOffsetDirectoryBytes);
  if (page_size != 1024 && page_size != 2048 && page_size != 4096) return kPdbBadFormat;
  if (free_map_page != 1 && free_map_page != 2) return kPdbBadFormat;
  if (directory_bytes < 4) return kPdbBadFormat;
  out->file.handle = 0;

  u64 directory_pages = ((u64)directory_bytes + page_size - 1) / page_size;
  u64 map_bytes = 4 * directory_pages;
  u64 map_pages = (map_bytes + page_size - 1) / page_size;
  if (map_pages > kMsfMaxMapPages) {
    OsFileClose(&file);
    return kPdbBadFormat;
  }
  u64 file_size = 0;
  if (OsFileSize(file, &file_size) != kOsOk || directory_bytes > file_size) {
    OsFileClose(&file);  // the directory cannot lie beyond the file: its read would come up short
    return kPdbUnreadable;
  }

  DirectoryParse parse = {};
  parse.arena = arena;
  parse.page_size = page_size;
  parse.directory_bytes = directory_bytes;
  bool seek_back_failed = false;
  PdbError error = kPdbOk;
  ScratchBegin();
  u8 *page = (u8 *)ScratchAllocate(page_size);
  u64 bytes_left = directory_bytes;
  u64 map_bytes_left = map_bytes;
  if (!page) error = kPdbUnreadable;
  for (u64 m = 0; m < map_pages && !error; m++) {
    u32 map_page = ReadU32(super + kMsfOffsetDirectoryMap + 4 * m);
    if (OsFileSeek(file, (u64)map_page * page_size) != kOsOk) {
      error = kPdbUnreadable;
      break;
    }
    u64 listed = MinU64(map_bytes_left, page_size) / 4;
    map_bytes_left -= listed * 4;
    for (u64 i = 0; i < listed && !error; i++) {
      u8 word[4];
      if (!ReadExact(file, word, 4)) {
        error = kPdbUnreadable;
        break;
      }
      u64 back = (u64)map_page * page_size + 4 * (i + 1);
      u32 directory_page = ReadU32(word);
      u64 piece = MinU64(bytes_left, page_size);
      if (OsFileSeek(file, (u64)directory_page * page_size) != kOsOk || !ReadExact(file, page, piece)) {
        error = kPdbUnreadable;
        break;
      }
      bytes_left -= piece;
      ParseDirectoryBytes(&parse, page, (u32)piece);
      if (parse.error) error = parse.error;
      if (OsFileSeek(file, back) != kOsOk) seek_back_failed = true;
    }
  }
  ScratchEnd();
  if (!error && seek_back_failed) error = kPdbUnreadable;
  if (!error && (parse.words_seen == 0 || parse.sizes_seen < parse.stream_count || !parse.pages))
    error = kPdbBadFormat;  // the directory ended inside its own stream table
  if (error) {
    OsFileClose(&file);
    return error;
  }

  u32 *next = parse.pages;
  for (u32 i = 0; i < parse.stream_count; i++) {
    parse.streams[i].pages = next;
    next += PagesFor(parse.streams[i].size, page_size);
  }
  out->file = file;
  out->page_size = page_size;
  out->stream_count = parse.stream_count;
  out->streams = parse.streams;
  out->file_size = file_size;
  return kPdbOk;
}

void MsfClose(MsfFile *msf) { OsFileClose(&msf->file); }

// [SECTION] Stream reads

const MsfStream *MsfStreamAt(const MsfFile *msf, u32 index) {
  return index < msf->stream_count ? &msf->streams[index] : nullptr;
}

u32 MsfStreamSize(const MsfFile *msf, u32 index) {
  const MsfStream *s = MsfStreamAt(msf, index);
  return (s && s->size != kMsfNilStreamSize) ? s->size : 0;
}

PdbError MsfReadStream(const MsfFile *msf, const MsfStream *stream, void *buffer, u64 count, u64 offset) {
  u64 size = stream->size == kMsfNilStreamSize ? 0 : stream->size;
  if (offset >= size) return kPdbOk;
  count = MinU64(count, size - offset);
  if (count == 0) return kPdbOk;
  u32 page_size = msf->page_size;
  u64 page_index = offset / page_size;
  u64 in_page = offset % page_size;
  u8 *to = (u8 *)buffer;
  while (count > 0) {
    u32 first = stream->pages[page_index];
    u64 run = MinU64(count, page_size - in_page);
    u64 last = first;
    page_index++;
    while (run < count && stream->pages[page_index] == last + 1) {
      run += MinU64(count - run, page_size);
      last++;
      page_index++;
    }
    // Positional reads: the type stream is read on a worker thread while the modules are read here.
    u64 got = 0;
    if (OsFileReadAt(msf->file, (u64)first * page_size + in_page, to, run, &got) != kOsOk || got != run)
      return kPdbUnreadable;
    to += run;
    count -= run;
    in_page = 0;
  }
  return kPdbOk;
}

PdbError MsfReadWholeStream(SymbolArena *arena, const MsfFile *msf, u32 index, u8 **out_bytes, u32 *out_size) {
  *out_bytes = nullptr;
  *out_size = 0;
  u32 size = MsfStreamSize(msf, index);
  if (size > msf->file_size) return kPdbUnreadable;  // would be a short read
  u64 rounded = AlignUp(size, 8);
  u8 *bytes = (u8 *)PdbAllocate(arena, rounded);
  if (!bytes) return kPdbUnreadable;
  memset(bytes + size, 0, rounded - size);
  if (size && MsfReadStream(msf, &msf->streams[index], bytes, size, 0) != kPdbOk) return kPdbUnreadable;
  *out_bytes = bytes;
  *out_size = size;
  return kPdbOk;
}
