// Line tables from crafted C13 areas: how raw line records merge into entries, files out of range,
// path spellings that share one source file, the ten-line search, and malformed subsections.
#include <gtest/gtest.h>

#include "opened_pdb.h"
#include "pdb_builder.h"

namespace {

// "/names": offset 1 and 12 are the same path spelled two ways; 23 is another file.
const uint32_t kA = 1, kAOtherSpelling = 12, kB = 23;

// One module for each C13 area.
struct Loaded : OpenedPdb {
  explicit Loaded(const std::vector<Bytes> &c13_areas) : OpenedPdb(Write(c13_areas)) {}
  static std::string Write(const std::vector<Bytes> &c13_areas) {
    PdbSpec spec;
    spec.names_stream = NamesStream({"c:\\src\\a.c", "C:/SRC/A.C", "c:\\src\\b.c"});
    for (const Bytes &c13 : c13_areas) spec.modules.push_back({"a.obj", {}, false, c13});
    return WriteTempFile(BuildPdb(spec), "lines.pdb");
  }
};

Bytes Join(std::initializer_list<Bytes> parts) {
  LeBytes b;
  for (const Bytes &p : parts) b.raw(p);
  return b;
}

}  // namespace

TEST(PdbLines, RawLinesMergeIntoEntries) {
  // A repeated number extends the entry; a line at the same address replaces the number; the last
  // entry runs to the end of the code. Columns are skipped, and blocks of the second subsection
  // (another section, loaded from a second module) sort after it.
  Loaded l({Join({C13Checksums({kA, kB}),
                  C13Lines(0x100, 1, 0x20, {{0, {{0, 10}, {4, 10}, {8, 11}, {8, 12}, {0x10, 13}}}}, true)}),
            Join({C13Checksums({kB}), C13Lines(0x400, 2, 0x8, {{0, {{0, 7}}}}),
                  C13Lines(0x10, 1, 0x10, {{0, {{0, 3}, {6, 4}}}})})});
  ASSERT_EQ(l.status, kPdbOk);
  EXPECT_EQ(l.summary.line_count, 6u);
  std::string entries;  // file:line section:offset+length
  for (u32 i = 0; i < l.pdb.lines.count; i++) {
    const PdbLineEntry &e = l.pdb.lines.by_address[i];
    entries += Format("%u:%u %u:%X+%X ", PdbLineFileOffset(&e), e.line, e.section, e.offset, e.length);
  }
  EXPECT_EQ(entries, "23:3 1:10+6 23:4 1:16+A 1:10 1:100+8 1:12 1:108+8 1:13 1:110+10 23:7 2:400+8 ");
  struct {
    uint32_t section, offset;
    int line;  // -1: none
  } queries[] = {{1, 0x100, 10}, {1, 0x107, 10}, {1, 0x108, 12}, {1, 0x11F, 13}, {1, 0x120, -1},
                 {1, 0xFF, -1},  {1, 0x20, -1},  {1, 0x10, 3},    {2, 0x407, 7},   {2, 0x408, -1},
                 {2, 0x10, -1},  {0, 0x100, -1}, {3, 0, -1}};
  for (auto &q : queries) {
    const PdbLineEntry *e = PdbLineAtAddress(&l.pdb.lines, q.section, q.offset);
    EXPECT_EQ(e ? (int)e->line : -1, q.line) << q.section << ":" << std::hex << q.offset;
  }
}

TEST(PdbLines, SourceFilesAndTheTenLineSearch) {
  // Module 1 names a.c one way, module 2 the other way: one source file. b.c has code on lines 49
  // and 60.
  Loaded l({Join({C13Checksums({kA}), C13Lines(0x100, 1, 0x10, {{0, {{0, 20}, {8, 22}}}})}),
            Join({C13Checksums({kB, kAOtherSpelling}),
                  C13Lines(0x200, 1, 0x30, {{0, {{0, 49}, {0x10, 60}}}, {24, {{0x20, 30}}}})})});
  ASSERT_EQ(l.status, kPdbOk);
  EXPECT_EQ(l.pdb.source_files.used, 2u);
  for (const char *path : {"c:\\src\\a.c", "C:/src/A.c", "c:/SRC/a.C"})
    EXPECT_EQ(PdbFindSourceFile(&l.pdb.source_files, path), kA) << path;
  EXPECT_EQ(PdbFindSourceFile(&l.pdb.source_files, "c:/src/b.c"), kB);
  for (const char *path : {"a.c", "src\\a.c", "d:\\src\\a.c", ""})
    EXPECT_EQ(PdbFindSourceFile(&l.pdb.source_files, path), 0u) << path;

  // The second spelling's block is keyed by its own name offset, so its lines are found there.
  struct {
    uint32_t file, line;
    int found_line;  // -1: none
    uint32_t offset;
  } queries[] = {{kB, 40, 49, 0x200}, {kB, 49, 49, 0x200}, {kB, 39, -1, 0},     {kB, 50, -1, 0},
                 {kB, 51, 60, 0x210}, {kB, 61, -1, 0},     {kA, 20, 20, 0x100}, {kA, 21, 22, 0x108},
                 {kA, 13, 20, 0x100}, {kA, 30, -1, 0},     {0, 20, -1, 0},      {kA + 1, 20, -1, 0},
                 {kAOtherSpelling, 30, 30, 0x220}};
  for (auto &q : queries) {
    const PdbLineEntry *e = PdbAddressOfLine(&l.pdb.lines, q.file, q.line);
    EXPECT_EQ(e ? (int)e->line : -1, q.found_line) << q.file << ":" << q.line;
    if (e) EXPECT_EQ(e->offset, q.offset) << q.file << ":" << q.line;
  }
}

TEST(PdbLines, MalformedAreasLoadWhatFits) {
  Bytes good = C13Lines(0x100, 1, 0x10, {{0, {{0, 5}}}});
  Bytes zero_block = LeBytes().raw(C13Lines(0x100, 1, 0x10, {})).zero32(3);  // a block that claims 0 bytes
  Set32(zero_block, 4, 12 + 12);
  zero_block[8 + 12 + 4] = 1;
  auto patched = [&](size_t at, uint32_t value) {
    Bytes b = good;
    Set32(b, at, value);
    return b;
  };
  struct {
    const char *name;
    Bytes c13;
    uint32_t entries;
    bool has_file;
  } cases[] = {
      {"empty lines subsection", C13Lines(0x100, 1, 0x10, {}), 0, false},
      {"zero-byte block", zero_block, 0, false},
      {"line count beyond the block", patched(8 + 12 + 4, 0x20000000), 0, false},
      {"block beyond the subsection", patched(8 + 12 + 8, 0x1000), 0, false},
      {"subsection beyond the area", patched(4, 0x7FFFFFF0), 0, false},
      {"unknown kinds are skipped", Join({C13Subsection(0xF3, Bytes(13, 0xAB)), C13Checksums({kA}), good}), 1, true},
      {"file id beyond the checksums", Join({C13Checksums({kA}), C13Lines(0, 1, 4, {{24, {{0, 5}}}})}), 1, false},
      {"no checksums at all", good, 1, false},
      // file id 0 lies inside the checksums, its record does not
      {"checksum record cut short", Join({C13Subsection(0xF4, Bytes(5, 0)), good}), 1, false},
      {"lines subsection no longer than its header", Join({C13Checksums({kA}), C13Subsection(0xF2, Bytes(12, 1))}), 0,
       false},
      {"area cut inside a header", Bytes(good.begin(), good.begin() + 6), 0, false},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.name);
    Loaded l({c.c13});
    ASSERT_EQ(l.status, kPdbOk);
    ASSERT_EQ(l.pdb.lines.count, c.entries);
    if (c.entries) EXPECT_EQ(l.pdb.lines.by_address[0].file != nullptr, c.has_file);
    EXPECT_EQ(l.pdb.source_files.used, c.has_file ? 1u : 0u);
  }
}
