// Digests by the operating system's hashing service: CNG (BCrypt) on Windows. Other systems have
// none here, and their callers use the portable digests of symbols/source_digest.h, which give
// the same bytes.
#pragma once
#include "base/os.h"

enum OsDigestKind : u32 { kOsDigestMd5 = 1, kOsDigestSha1 = 2, kOsDigestSha256 = 3 };
enum : u32 { kOsDigestMaxBytes = 32 };

// Bytes of the digest of a kind (16, 20, 32), 0 for an unknown kind.
u32 OsDigestBytes(u32 kind);
// Writes the digest of size bytes of data to out (OsDigestBytes(kind) bytes). kOsOk, or kOsFailed
// for an unknown kind, when the service refuses, or where there is no such service.
int OsDigest(u32 kind, const void *data, u64 size, u8 out[kOsDigestMaxBytes]);
