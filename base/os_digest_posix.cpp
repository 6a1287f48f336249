// No system hashing service on this side: callers fall back to the portable digests.
#include "base/os_digest.h"

u32 OsDigestBytes(u32 kind) {
  return kind == kOsDigestMd5 ? 16 : kind == kOsDigestSha1 ? 20 : kind == kOsDigestSha256 ? 32 : 0;
}

int OsDigest(u32 kind, const void *data, u64 size, u8 out[kOsDigestMaxBytes]) { return kOsFailed; }
