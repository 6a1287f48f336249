// Digests of source files for the checksum check: MD5, SHA-1 and SHA-256 over a whole buffer.
#pragma once
#include "base/types.h"

enum : u32 { kMd5Bytes = 16, kSha1Bytes = 20, kSha256Bytes = 32 };

void DigestMd5(const u8 *data, u64 size, u8 out[kMd5Bytes]);
void DigestSha1(const u8 *data, u64 size, u8 out[kSha1Bytes]);
void DigestSha256(const u8 *data, u64 size, u8 out[kSha256Bytes]);
