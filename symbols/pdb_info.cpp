#include "symbols/pdb_info.h"

#include <string.h>

#include "symbols/pdb_error.h"
#include "symbols/pdb_raw.h"

enum { kInfoStreamIndex = 1 };

static const char kNamesStreamName[] = "/names";

PdbError PdbReadInfoStream(SymbolArena *arena, const CodeViewIdentity *expected, const MsfFile *msf,
                      s32 *out_names_stream, bool ignore_signature) {
  *out_names_stream = -1;
  u8 *bytes = nullptr;
  u32 size = 0;
  PdbError error = MsfReadWholeStream(arena, msf, kInfoStreamIndex, &bytes, &size);
  if (error) return error;
  if (size <= 12) return kPdbBadFormat;
  PdbInfoHeader header;
  memset(&header, 0, sizeof(header));
  memcpy(&header, bytes, MinU64(size, sizeof(header)));
  if (header.signature == kPdbInfoOldSignature) return kPdbBadFormat;
  if (header.version < kPdbInfoVersionMin || header.version > kPdbInfoVersionMax) return kPdbUnsupportedVersion;
  if (size < 29) return kPdbBadFormat;
  if (!ignore_signature && memcmp(header.guid, expected->bytes + 4, 16) != 0) return kPdbSignatureMismatch;

  // Named-stream map: the names buffer, then a serialised hash table of (name offset, stream).
  if (size - 28 < 4) return kPdbBadFormat;
  u32 names_bytes = ReadU32(bytes + 28);
  if (names_bytes > size - 32) return kPdbBadFormat;
  if (names_bytes < 1) return kPdbStreamMissing;
  const u8 *names = bytes + 32;
  u32 target_offset = 0;
  bool found = false;
  for (u32 at = 0; at < names_bytes;) {
    u32 left = names_bytes - at;
    if (left >= sizeof(kNamesStreamName) && memcmp(names + at, kNamesStreamName, sizeof(kNamesStreamName)) == 0) {
      target_offset = at;
      found = true;
      break;
    }
    const u8 *end = (const u8 *)memchr(names + at, 0, left);
    if (!end) break;
    at = (u32)(end - names) + 1;
  }
  if (!found) return kPdbStreamMissing;

  u64 at = 32 + (u64)names_bytes;
  u64 left = size - at;
  if (left < 8) return kPdbStreamMissing;
  u32 entry_count = ReadU32(bytes + at);
  at += 8, left -= 8;  // entry count, capacity
  for (int vector = 0; vector < 2; vector++) {  // present bits, deleted bits: skipped
    if (left < 4) return kPdbBadFormat;
    u64 words = ReadU32(bytes + at);
    at += 4, left -= 4;
    if (words * 4 > left) return kPdbBadFormat;
    at += words * 4, left -= words * 4;
  }
  if ((u64)entry_count * 8 > left) return kPdbBadFormat;
  for (u32 i = 0; i < entry_count; i++) {
    const u8 *pair = bytes + at + 8 * (u64)i;
    if (ReadU32(pair) == target_offset) {
      *out_names_stream = (s32)ReadU32(pair + 4);
      return kPdbOk;
    }
  }
  return kPdbStreamMissing;
}
