// Digests through CNG: the algorithm provider's "ObjectLength" property sizes the hash object,
// which lives on the stack, then create hash, hash data, finish hash, destroy.
#include "base/os_digest.h"

#include <windows.h>
#include <bcrypt.h>

u32 OsDigestBytes(u32 kind) {
  return kind == kOsDigestMd5 ? 16 : kind == kOsDigestSha1 ? 20 : kind == kOsDigestSha256 ? 32 : 0;
}

int OsDigest(u32 kind, const void *data, u64 size, u8 out[kOsDigestMaxBytes]) {
  const wchar_t *algorithm = kind == kOsDigestMd5    ? BCRYPT_MD5_ALGORITHM
                             : kind == kOsDigestSha1 ? BCRYPT_SHA1_ALGORITHM
                             : kind == kOsDigestSha256 ? BCRYPT_SHA256_ALGORITHM
                                                       : nullptr;
  if (!algorithm) return kOsFailed;
  BCRYPT_ALG_HANDLE provider = nullptr;
  if (!BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&provider, algorithm, nullptr, 0))) return kOsFailed;
  // Windows asks a few hundred bytes for these objects; a bigger request is refused rather than
  // taken from the heap.
  alignas(16) u8 object[2048];
  DWORD object_bytes = 0, digest_bytes = 0, got = 0;
  BCRYPT_HASH_HANDLE hash = nullptr;
  bool ok = BCRYPT_SUCCESS(BCryptGetProperty(provider, BCRYPT_OBJECT_LENGTH, (PUCHAR)&object_bytes,
                                             sizeof(object_bytes), &got, 0)) &&
            object_bytes <= sizeof(object) &&
            BCRYPT_SUCCESS(BCryptGetProperty(provider, BCRYPT_HASH_LENGTH, (PUCHAR)&digest_bytes,
                                             sizeof(digest_bytes), &got, 0)) &&
            digest_bytes == OsDigestBytes(kind) &&
            BCRYPT_SUCCESS(BCryptCreateHash(provider, &hash, object, object_bytes, nullptr, 0, 0));
  // BCryptHashData takes 32-bit lengths: files of 4 GiB and more go in pieces.
  const u8 *at = (const u8 *)data;
  for (u64 left = size; ok && left > 0;) {
    ULONG piece = left > 0x40000000u ? 0x40000000u : (ULONG)left;
    ok = BCRYPT_SUCCESS(BCryptHashData(hash, (PUCHAR)at, piece, 0));
    at += piece, left -= piece;
  }
  ok = ok && BCRYPT_SUCCESS(BCryptFinishHash(hash, out, digest_bytes, 0));
  if (hash) BCryptDestroyHash(hash);
  BCryptCloseAlgorithmProvider(provider, 0);
  return ok ? kOsOk : kOsFailed;
}
