// The MSF 7.00 container: superblock, stream directory and stream reads.
#pragma once
#include "base/arena.h"
#include "base/os.h"
#include "base/types.h"
#include "symbols/pdb_error.h"

enum : u32 { kMsfNilStreamSize = 0xFFFFFFFF };

typedef struct MsfStream {
  u32 size;     // bytes; kMsfNilStreamSize marks a nil stream, which owns no pages
  u32 padding;
  u32 *pages;   // the stream's run inside the shared page-number array
} MsfStream;

typedef struct MsfFile {
  OsFile file;
  u32 page_size;  // 1024, 2048 or 4096
  u32 stream_count;
  MsfStream *streams;
  u64 file_size;  // bounds every whole-stream read before it allocates
} MsfFile;

// Opens and validates the container and maps its stream directory into the arena. Returns a
// PdbError. The file stays open for the loaders on success. On a rejected superblock (magic,
// page size, free-page-map page, directory size) the file is left open in out->file, on every
// other failure it is closed.
PdbError MsfOpen(SymbolArena *arena, const char *path, MsfFile *out);
void MsfClose(MsfFile *msf);

// Reads count bytes at offset of a stream, clipped to the stream's end (nothing to read is
// success). Physically consecutive pages are read with one system call. 0 or kPdbUnreadable.
PdbError MsfReadStream(const MsfFile *msf, const MsfStream *stream, void *buffer, u64 count, u64 offset);

// The stream of that index, or null when the index is out of range.
const MsfStream *MsfStreamAt(const MsfFile *msf, u32 index);
// Size in bytes of a stream; 0 for a nil or missing stream.
u32 MsfStreamSize(const MsfFile *msf, u32 index);
// Reads a whole stream into the arena (the buffer is rounded up to 8 bytes and the rounding
// zeroed). A missing or nil stream reads as empty. 0 or kPdbUnreadable.
PdbError MsfReadWholeStream(SymbolArena *arena, const MsfFile *msf, u32 index, u8 **out_bytes, u32 *out_size);
