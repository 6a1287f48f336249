// Types as the evaluator classifies them: the basic type classes (width and signedness).
#include <gtest/gtest.h>

#include <vector>

#include "symbols/pdb_type_lookup.h"

// The evaluator's classes of the basic types, wchar_t, char16_t, char32_t and the 8-bit bool
// computed as signed.
TEST(TypeClasses, BasicTypesHaveTheEvaluatorsWidthAndSignedness) {
  const struct {
    bool is_signed;
    u64 bytes;
    std::vector<u32> indexes;
  } classes[] = {
      {true, 1, {0x10, 0x30, 0x68, 0x70}}, {true, 2, {0x11, 0x71, 0x72, 0x7A}}, {true, 4, {0x12, 0x74, 0x7B}},
      {true, 8, {0x13, 0x76}},             {false, 1, {0x20, 0x69}},             {false, 2, {0x21, 0x73}},
      {false, 4, {0x22, 0x75}},            {false, 8, {0x23, 0x77}},
  };
  for (const auto &c : classes)
    for (u32 index : c.indexes) {
      EXPECT_EQ(BuiltinTypeIsSigned(index), c.is_signed) << std::hex << index;
      EXPECT_EQ(BuiltinTypeSize(index), c.bytes) << std::hex << index;
    }
  // Pointers to signed kinds, floats and void are not signed integers.
  for (u32 index : {0x674u, 0x610u, 0x40u, 0x41u, 0x03u}) EXPECT_FALSE(BuiltinTypeIsSigned(index)) << std::hex << index;
}
