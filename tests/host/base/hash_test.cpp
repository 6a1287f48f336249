#include "base/hash.h"

#include <gtest/gtest.h>
#include <string.h>

// Published FNV-1a 32-bit vectors: they pin the basis, the prime and the byte order.
TEST(HashName, MatchesPublishedVectorsForAscii) {
  EXPECT_EQ(HashNameZ(""), 0x811C9DC5u);
  EXPECT_EQ(HashNameZ("a"), 0xE40C292Cu);
  EXPECT_EQ(HashNameZ("foobar"), 0xBF9CF968u);
  EXPECT_EQ(HashName("foobar", 6), HashNameZ("foobar"));
  EXPECT_EQ(HashName("foobarXYZ", 6), HashNameZ("foobar"));
}

// Bytes of 0x80 and above are sign-extended before the xor, which the plain unsigned variant
// would not do: "\xC3\xA9" (é in UTF-8) must differ from the unsigned-byte hash.
TEST(HashName, SignExtendsHighBytes) {
  const char name[] = "caf\xC3\xA9";
  u32 unsigned_hash = 0x811C9DC5u;
  u32 signed_hash = 0x811C9DC5u;
  for (size_t i = 0; i < strlen(name); i++) {
    unsigned_hash = (unsigned_hash ^ (u8)name[i]) * 16777619u;
    signed_hash = (signed_hash ^ (u32)(s32)(s8)name[i]) * 16777619u;
  }
  EXPECT_NE(unsigned_hash, signed_hash);
  EXPECT_EQ(HashNameZ(name), signed_hash);
}
