#include "base/hash.h"

#include <gtest/gtest.h>

// Known answers of FNV-1a 32-bit: the published vectors pin the basis, the prime and the byte
// order; bytes of 0x80 and above are sign-extended before the xor ("caf\xC3\xA9", é in UTF-8,
// hashes otherwise than with unsigned bytes, whose answer would be 0xA82B5049).
TEST(HashName, KnownAnswers) {
  EXPECT_EQ(HashNameZ(""), 0x811C9DC5u);
  EXPECT_EQ(HashNameZ("a"), 0xE40C292Cu);
  EXPECT_EQ(HashNameZ("foobar"), 0xBF9CF968u);
  EXPECT_EQ(HashNameZ("caf\xC3\xA9"), 0x7572C049u);
  EXPECT_EQ(HashName("foobarXYZ", 6), HashNameZ("foobar"));
}
