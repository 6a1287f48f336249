// Line tables from crafted C13 areas: how raw line records merge into entries, files out of range,
// path spellings that share one source file, the ten-line search, and malformed subsections.
#include <gtest/gtest.h>
#include <string.h>

#include "pdb_builder.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_file.h"

namespace {

// "/names": offset 1 and 12 are the same path spelled two ways; 23 is another file.
const uint32_t kA = 1, kAOtherSpelling = 12, kB = 23;

Bytes NamesWithPaths() {
  Bytes buffer;
  buffer.push_back(0);
  PutName(buffer, "c:\\src\\a.c");
  PutName(buffer, "C:/SRC/A.C");
  PutName(buffer, "c:\\src\\b.c");
  Bytes b;
  Put32(b, 0xEFFEEFFE), Put32(b, 1);
  Put32(b, (uint32_t)buffer.size());
  b.insert(b.end(), buffer.begin(), buffer.end());
  Put32(b, 8);  // buckets
  for (int i = 0; i < 8; i++) Put32(b, 0);
  Put32(b, 3);
  return b;
}

struct Loaded {
  SymbolArena arena = {};
  PdbFile pdb = {};
  PdbSummary summary = {};
  int status = -1;
  explicit Loaded(const std::vector<Bytes> &c13_areas) {
    PdbSpec spec;
    spec.names_stream_override = NamesWithPaths();
    for (const Bytes &c13 : c13_areas) {
      ModuleSpec m;
      m.c13 = c13;
      spec.modules.push_back(m);
    }
    std::string path = WriteTempFile(BuildPdb(spec), "lines.pdb");
    CodeViewIdentity none = {};
    status = PdbOpen(&arena, &none, path.c_str(), true, &pdb, &summary);
  }
  ~Loaded() {
    MsfClose(&pdb.msf);
    SymbolArenaRelease(&arena);
  }
};

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes b;
  for (const Bytes &p : parts) b.insert(b.end(), p.begin(), p.end());
  return b;
}

struct Expected {
  uint32_t file, line, section, offset, length;
};

void ExpectEntries(const PdbFile &pdb, const std::vector<Expected> &expected) {
  ASSERT_EQ(pdb.lines.count, expected.size());
  for (size_t i = 0; i < expected.size(); i++) {
    SCOPED_TRACE(i);
    const PdbLineEntry &e = pdb.lines.by_address[i];
    EXPECT_EQ(PdbLineFileOffset(&e), expected[i].file);
    EXPECT_EQ(e.line, expected[i].line);
    EXPECT_EQ(e.section, expected[i].section);
    EXPECT_EQ(e.offset, expected[i].offset);
    EXPECT_EQ(e.length, expected[i].length);
  }
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
  ExpectEntries(l.pdb, {{kB, 3, 1, 0x10, 6},
                        {kB, 4, 1, 0x16, 0xA},
                        {kA, 10, 1, 0x100, 8},
                        {kA, 12, 1, 0x108, 8},
                        {kA, 13, 1, 0x110, 0x10},
                        {kB, 7, 2, 0x400, 8}});
  EXPECT_EQ(l.summary.line_count, 6u);
  struct {
    uint32_t section, offset;
    int line;  // -1: none
  } queries[] = {{1, 0x100, 10}, {1, 0x107, 10}, {1, 0x108, 12}, {1, 0x11F, 13}, {1, 0x120, -1},
                 {1, 0xFF, -1},  {1, 0x20, -1},  {1, 0x10, 3},    {2, 0x407, 7},   {2, 0x408, -1},
                 {2, 0x10, -1},  {0, 0x100, -1}, {3, 0, -1}};
  for (auto &q : queries) {
    SCOPED_TRACE(q.offset);
    const PdbLineEntry *e = PdbLineAtAddress(&l.pdb.lines, q.section, q.offset);
    EXPECT_EQ(e ? (int)e->line : -1, q.line) << q.section;
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

  struct {
    uint32_t file, line;
    int found_line;  // -1: none
    uint32_t offset;
  } queries[] = {{kB, 40, 49, 0x200}, {kB, 49, 49, 0x200}, {kB, 39, -1, 0},     {kB, 50, -1, 0},
                 {kB, 51, 60, 0x210}, {kB, 61, -1, 0},     {kA, 20, 20, 0x100}, {kA, 21, 22, 0x108},
                 {kA, 13, 20, 0x100}, {kA, 30, -1, 0},     {0, 20, -1, 0},      {kA + 1, 20, -1, 0}};
  for (auto &q : queries) {
    SCOPED_TRACE(q.line);
    const PdbLineEntry *e = PdbAddressOfLine(&l.pdb.lines, q.file, q.line);
    EXPECT_EQ(e ? (int)e->line : -1, q.found_line) << q.file;
    if (e) EXPECT_EQ(e->offset, q.offset);
  }
  // The second spelling's block is keyed by its own name offset, so its lines are found there.
  const PdbLineEntry *other = PdbAddressOfLine(&l.pdb.lines, kAOtherSpelling, 30);
  ASSERT_TRUE(other);
  EXPECT_EQ(other->offset, 0x220u);
}

TEST(PdbLines, MalformedAreasLoadWhatFits) {
  Bytes good = C13Lines(0x100, 1, 0x10, {{0, {{0, 5}}}});
  Bytes no_blocks = C13Lines(0x100, 1, 0x10, {});
  Bytes zero_block = no_blocks;  // a block that claims 0 bytes
  Set32(zero_block, 4, 12 + 12);
  Put32(zero_block, 0), Put32(zero_block, 1), Put32(zero_block, 0);
  Bytes huge_count = good;  // more lines than the block holds
  Set32(huge_count, 8 + 12 + 4, 0x20000000);
  Bytes long_block = good;  // block bytes beyond the subsection
  Set32(long_block, 8 + 12 + 8, 0x1000);
  Bytes long_subsection = good;  // subsection length beyond the area
  Set32(long_subsection, 4, 0x7FFFFFF0);
  Bytes odd_kind = C13Subsection(0xF3, Bytes(13, 0xAB));
  Bytes short_checksums = C13Subsection(0xF4, Bytes(5, 0));  // file id 0 lies inside, its record does not
  struct {
    const char *name;
    Bytes c13;
    uint32_t entries;
    bool has_file;
  } cases[] = {
      {"empty lines subsection", no_blocks, 0, false},
      {"zero-byte block", zero_block, 0, false},
      {"line count beyond the block", huge_count, 0, false},
      {"block beyond the subsection", long_block, 0, false},
      {"subsection beyond the area", long_subsection, 0, false},
      {"unknown kinds are skipped", Join({odd_kind, C13Checksums({kA}), good}), 1, true},
      {"file id beyond the checksums", Join({C13Checksums({kA}), C13Lines(0, 1, 4, {{24, {{0, 5}}}})}), 1, false},
      {"no checksums at all", good, 1, false},
      {"checksum record cut short", Join({short_checksums, good}), 1, false},
      {"lines subsection no longer than its header", Join({C13Checksums({kA}), C13Subsection(0xF2, Bytes(12, 1))}), 0, false},
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
