#include "symbols/source_digest.h"

#include <string.h>

// The three digests share the Merkle-Damgard padding: the message, 0x80, zeros up to 56 mod 64,
// then the bit length in 8 bytes (little-endian for MD5, big-endian for the SHA family).
template <typename Block>
static void ForEachPaddedBlock(const u8 *data, u64 size, bool big_endian_length, Block block) {
  u64 full = size / 64;
  for (u64 i = 0; i < full; i++) block(data + i * 64);
  u8 tail[128] = {};
  u64 rest = size - full * 64;
  if (rest) memcpy(tail, data + full * 64, rest);
  tail[rest] = 0x80;
  u64 tail_bytes = rest < 56 ? 64 : 128;
  u64 bits = size * 8;
  for (int i = 0; i < 8; i++) {
    u8 byte = (u8)(bits >> (8 * i));
    if (big_endian_length)
      tail[tail_bytes - 1 - i] = byte;
    else
      tail[tail_bytes - 8 + i] = byte;
  }
  block(tail);
  if (tail_bytes == 128) block(tail + 64);
}

static u32 RotateLeft(u32 x, int n) { return (x << n) | (x >> (32 - n)); }
static u32 RotateRight(u32 x, int n) { return (x >> n) | (x << (32 - n)); }
static u32 LoadBigEndian(const u8 *p) { return (u32)p[0] << 24 | (u32)p[1] << 16 | (u32)p[2] << 8 | p[3]; }
static u32 LoadLittleEndian(const u8 *p) { return (u32)p[3] << 24 | (u32)p[2] << 16 | (u32)p[1] << 8 | p[0]; }
static void StoreBigEndian(u8 *p, u32 v) {
  p[0] = (u8)(v >> 24), p[1] = (u8)(v >> 16), p[2] = (u8)(v >> 8), p[3] = (u8)v;
}

void DigestMd5(const u8 *data, u64 size, u8 out[kMd5Bytes]) {
  static const u32 kShift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                                 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                                 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                                 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};
  static const u32 kSine[64] = {
      0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
      0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
      0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
      0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
      0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
      0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
      0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
      0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
  u32 h[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  ForEachPaddedBlock(data, size, false, [&](const u8 *block) {
    u32 m[16];
    for (int i = 0; i < 16; i++) m[i] = LoadLittleEndian(block + 4 * i);
    u32 a = h[0], b = h[1], c = h[2], d = h[3];
    for (int i = 0; i < 64; i++) {
      u32 f;
      int g;
      if (i < 16) f = (b & c) | (~b & d), g = i;
      else if (i < 32) f = (d & b) | (~d & c), g = (5 * i + 1) % 16;
      else if (i < 48) f = b ^ c ^ d, g = (3 * i + 5) % 16;
      else f = c ^ (b | ~d), g = (7 * i) % 16;
      u32 next = b + RotateLeft(a + f + kSine[i] + m[g], (int)kShift[i]);
      a = d, d = c, c = b, b = next;
    }
    h[0] += a, h[1] += b, h[2] += c, h[3] += d;
  });
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++) out[4 * i + j] = (u8)(h[i] >> (8 * j));
}

void DigestSha1(const u8 *data, u64 size, u8 out[kSha1Bytes]) {
  u32 h[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  ForEachPaddedBlock(data, size, true, [&](const u8 *block) {
    u32 w[80];
    for (int i = 0; i < 16; i++) w[i] = LoadBigEndian(block + 4 * i);
    for (int i = 16; i < 80; i++) w[i] = RotateLeft(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    u32 a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    for (int i = 0; i < 80; i++) {
      u32 f, k;
      if (i < 20) f = (b & c) | (~b & d), k = 0x5A827999;
      else if (i < 40) f = b ^ c ^ d, k = 0x6ED9EBA1;
      else if (i < 60) f = (b & c) | (b & d) | (c & d), k = 0x8F1BBCDC;
      else f = b ^ c ^ d, k = 0xCA62C1D6;
      u32 t = RotateLeft(a, 5) + f + e + k + w[i];
      e = d, d = c, c = RotateLeft(b, 30), b = a, a = t;
    }
    h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e;
  });
  for (int i = 0; i < 5; i++) StoreBigEndian(out + 4 * i, h[i]);
}

void DigestSha256(const u8 *data, u64 size, u8 out[kSha256Bytes]) {
  static const u32 k[64] = {
      0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
      0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
      0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
      0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
      0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
      0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
      0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
      0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};
  u32 h[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  ForEachPaddedBlock(data, size, true, [&](const u8 *block) {
    u32 w[64];
    for (int i = 0; i < 16; i++) w[i] = LoadBigEndian(block + 4 * i);
    for (int i = 16; i < 64; i++) {
      u32 s0 = RotateRight(w[i - 15], 7) ^ RotateRight(w[i - 15], 18) ^ (w[i - 15] >> 3);
      u32 s1 = RotateRight(w[i - 2], 17) ^ RotateRight(w[i - 2], 19) ^ (w[i - 2] >> 10);
      w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    u32 v[8];
    memcpy(v, h, sizeof(v));
    for (int i = 0; i < 64; i++) {
      u32 s1 = RotateRight(v[4], 6) ^ RotateRight(v[4], 11) ^ RotateRight(v[4], 25);
      u32 choose = (v[4] & v[5]) ^ (~v[4] & v[6]);
      u32 t1 = v[7] + s1 + choose + k[i] + w[i];
      u32 s0 = RotateRight(v[0], 2) ^ RotateRight(v[0], 13) ^ RotateRight(v[0], 22);
      u32 majority = (v[0] & v[1]) ^ (v[0] & v[2]) ^ (v[1] & v[2]);
      memmove(v + 1, v, 7 * sizeof(u32));
      v[4] += t1;
      v[0] = t1 + s0 + majority;
    }
    for (int i = 0; i < 8; i++) h[i] += v[i];
  });
  for (int i = 0; i < 8; i++) StoreBigEndian(out + 4 * i, h[i]);
}
