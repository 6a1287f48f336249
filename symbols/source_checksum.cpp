#include "symbols/source_checksum.h"

#include <string.h>

#include "base/os_digest.h"
#include "symbols/source_digest.h"

// The system's hashing service where there is one (CNG on Windows), else our own digests; the two
// give the same bytes (a test under Wine compares them), so a service that refuses falls back too.
static void SourceDigest(u8 kind, const u8 *data, u64 size, u8 digest[kSha256Bytes]) {
  static_assert(kOsDigestMd5 == kChecksumMd5 && kOsDigestSha1 == kChecksumSha1 && kOsDigestSha256 == kChecksumSha256,
                "checksum kinds are digest kinds");
  if (OsDigest(kind, data, size, digest) == kOsOk) return;
  if (kind == kChecksumMd5) DigestMd5(data, size, digest);
  else if (kind == kChecksumSha1) DigestSha1(data, size, digest);
  else DigestSha256(data, size, digest);
}

SourceChecksumResult CheckSourceChecksum(const u8 *record, const u8 *file_bytes, u64 file_size, bool *has_bom) {
  *has_bom = file_size >= 3 && file_bytes[0] == 0xEF && file_bytes[1] == 0xBB && file_bytes[2] == 0xBF;
  u8 size = record[4], kind = record[5];
  const u8 *expected = record + 6;
  // SHA-256 records hold the 32-byte digest; no other size of them can be checked.
  bool known = (kind == kChecksumMd5 && size == kMd5Bytes) || (kind == kChecksumSha1 && size == kSha1Bytes) ||
               (kind == kChecksumSha256 && size == kSha256Bytes);
  if (!known) return kSourceNotChecked;
  u8 digest[kSha256Bytes];
  SourceDigest(kind, file_bytes, file_size, digest);
  return memcmp(digest, expected, size) == 0 ? kSourceMatches : kSourceDiffers;
}
