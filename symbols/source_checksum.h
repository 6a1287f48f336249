// The check of a source file on disk against the checksum record that the PDB keeps for it.
#pragma once
#include "base/types.h"

enum [[nodiscard]] SourceChecksumResult : int {
  kSourceMatches = 0,
  kSourceDiffers = 1,
  kSourceNotChecked = 2,  // a checksum kind or size that is not verified
};

enum : u8 { kChecksumMd5 = 1, kChecksumSha1 = 2, kChecksumSha256 = 3 };

// record: a checksum record (name offset, size, kind, bytes) whose bytes lie in memory, as the
// line entries hold them. has_bom tells whether the file starts with a UTF-8 byte-order mark.
SourceChecksumResult CheckSourceChecksum(const u8 *record, const u8 *file_bytes, u64 file_size, bool *has_bom);
