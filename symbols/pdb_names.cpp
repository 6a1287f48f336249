#include "symbols/pdb_names.h"

#include <string.h>

#include "symbols/pdb_alloc.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_raw.h"

PdbError PdbLoadStringTable(SymbolArena *arena, const MsfFile *msf, s32 stream_index, PdbStringTable *strings,
                       PdbSourceFileTable *files) {
  memset(strings, 0, sizeof(*strings));
  memset(files, 0, sizeof(*files));
  const MsfStream *stream = stream_index >= 0 ? MsfStreamAt(msf, (u32)stream_index) : nullptr;
  if (!stream || stream->size == kMsfNilStreamSize) return kPdbUnreadable;
  u32 size = stream->size;
  if (size < 8 || size > msf->file_size) return kPdbUnreadable;
  PdbNamesHeader header;
  if (MsfReadStream(msf, stream, &header, 8, 0)) return kPdbUnreadable;
  if (header.magic != kPdbNamesMagic || (header.hash_version != 1 && header.hash_version != 2) || size < 12)
    return kPdbUnreadable;
  if (MsfReadStream(msf, stream, &header.buffer_bytes, 4, 8)) return kPdbUnreadable;
  u32 buffer_bytes = header.buffer_bytes;
  if ((u64)size < (u64)buffer_bytes + 12) return kPdbUnreadable;
  char *buffer = (char *)PdbAllocate(arena, (u64)buffer_bytes + 1);
  if (!buffer) return kPdbUnreadable;
  if (MsfReadStream(msf, stream, buffer, buffer_bytes, 12)) return kPdbUnreadable;
  buffer[buffer_bytes] = 0;  // a last string without terminator still ends here

  // The bucket count sizes the source-file table; a stream that ends before it has none.
  u32 bucket_count = 0;
  if ((u64)size >= (u64)buffer_bytes + 16) {
    u8 word[4];
    if (MsfReadStream(msf, stream, word, 4, 12 + (u64)buffer_bytes)) return kPdbUnreadable;
    bucket_count = ReadU32(word);
  }
  // Each bucket of the file's table takes 4 bytes of the stream: more than that is corrupt.
  if ((u64)bucket_count * 4 > size) return kPdbUnreadable;
  files->name_hashes = (u64 *)PdbAllocate(arena, (u64)bucket_count * 8);
  files->name_offsets = (u64 *)PdbAllocate(arena, (u64)bucket_count * 8);
  if (!files->name_hashes || !files->name_offsets) return kPdbUnreadable;
  memset(files->name_hashes, 0, (u64)bucket_count * 8);
  files->used = 0;
  files->capacity = bucket_count;
  files->names.buffer = buffer;
  files->names.buffer_bytes = buffer_bytes;
  strings->buffer = buffer;
  strings->buffer_bytes = buffer_bytes;
  return kPdbOk;
}

const char *PdbStringAt(const PdbStringTable *strings, u32 offset) {
  if (!strings->buffer || offset >= strings->buffer_bytes) return "";
  return strings->buffer + offset;
}
