// S_CONSTANT names lie after a numeric leaf of any kind: the global table and the type records
// step over the leaf the same way.
#include <gtest/gtest.h>

#include "pdb_builder.h"
#include "opened_pdb.h"

namespace {

Bytes Leaf(uint16_t kind, size_t payload_bytes) {
  LeBytes b;
  b.u16(kind);
  for (size_t i = 0; i < payload_bytes; i++) b.u8(0xA0 + i);
  return b;
}

Bytes ConstantRecord(uint32_t type, const Bytes &leaf, const std::string &name) {
  return SymbolRecord(LeBytes().u16(0x1107).u32(type).raw(leaf).name(name));
}

}  // namespace

TEST(Constants, NameFollowsTheNumericLeafOfEveryKind) {
  Bytes varstring = LeBytes().u16(0x8010).u16(3).raw("xyz");
  const struct {
    const char *name;
    Bytes leaf;
  } cases[] = {
      {"small", {0x34, 0x12}},       {"char", Leaf(0x8000, 1)},    {"quad", Leaf(0x8009, 8)},
      {"octword", Leaf(0x8017, 16)}, {"uoctword", Leaf(0x8018, 16)}, {"real16", Leaf(0x801C, 2)},
      {"real48", Leaf(0x800B, 6)},   {"real80", Leaf(0x8007, 10)},  {"real128", Leaf(0x8008, 16)},
      {"complex64", Leaf(0x800D, 16)}, {"varstring", varstring},
      {"unknown_kind", Leaf(0x8040, 0)},  // a kind without a known size: the name follows its word
  };
  PdbSpec spec;
  for (const auto &c : cases) spec.globals.push_back(ConstantRecord(0x74, c.leaf, c.name));
  std::string path = WriteTempFile(BuildPdb(spec), "constants.pdb");
  OpenedPdb opened(path);
  ASSERT_EQ(opened.status, kPdbOk);
  PdbFile &pdb = opened.pdb;
  EXPECT_EQ(pdb.globals.constant_count, KTRN_ARRAY_COUNT(cases));
  for (const auto &c : cases) {
    const u8 *record = PdbFindConstant(&pdb.globals, c.name);
    ASSERT_TRUE(record) << c.name;
    EXPECT_STREQ(PdbGlobalRecordName(record), c.name);
  }
}
