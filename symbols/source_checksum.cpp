#include "symbols/source_checksum.h"

#include <string.h>

#include "symbols/source_digest.h"

int CheckSourceChecksum(const u8 *record, const u8 *file_bytes, u64 file_size, bool *has_bom) {
  *has_bom = file_size >= 3 && file_bytes[0] == 0xEF && file_bytes[1] == 0xBB && file_bytes[2] == 0xBF;
  u8 size = record[4], kind = record[5];
  const u8 *expected = record + 6;
  u8 digest[kSha256Bytes];
  // SHA-256 records hold the 32-byte digest; no other size of them can be checked.
  if (kind == kChecksumMd5 && size == kMd5Bytes) DigestMd5(file_bytes, file_size, digest);
  else if (kind == kChecksumSha1 && size == kSha1Bytes) DigestSha1(file_bytes, file_size, digest);
  else if (kind == kChecksumSha256 && size == kSha256Bytes) DigestSha256(file_bytes, file_size, digest);
  else return kSourceNotChecked;
  return memcmp(digest, expected, size) == 0 ? kSourceMatches : kSourceDiffers;
}
