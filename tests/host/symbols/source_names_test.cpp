// The source-file table tells apart paths whose hashes are equal: a line breakpoint in one file
// must never land in another file whose name only hashes the same.
#include <gtest/gtest.h>

#include "base/hash.h"
#include "pdb_builder.h"
#include "opened_pdb.h"

namespace {

// Two paths of one 32-bit source-file hash (found by a search over generated names).
const char *const kFirst = "c:\\src\\f210493.c";
const char *const kSecond = "c:\\src\\f1505110.c";
const uint32_t kFirstOffset = 1, kSecondOffset = 18;

// "/names" with both paths and an empty table of the given bucket count.
Bytes OneHashNames(uint32_t buckets) {
  LeBytes buffer;
  buffer.u8(0).name(kFirst).name(kSecond);
  return LeBytes().u32(0xEFFEEFFE).u32(1).u32((uint32_t)buffer.b.size()).raw(buffer.b).u32(buckets).zero32(buckets).u32(2);
}

}  // namespace

TEST(SourceNames, PathsOfOneHashAreToldApartByTheirNames) {
  ASSERT_EQ(PdbSourceFileHash(kFirst, strlen(kFirst)), PdbSourceFileHash(kSecond, strlen(kSecond)));
  // Whatever slot the hash picks, the two names meet in one probe run.
  for (uint32_t buckets : {2u, 3u, 7u}) {
    SCOPED_TRACE(buckets);
    PdbSpec spec;
    spec.names_stream = OneHashNames(buckets);
    ModuleSpec m;
    Bytes c13 = C13Checksums({kFirstOffset, kSecondOffset});
    Bytes lines = C13Lines(0x100, 1, 0x20, {{0, {{0, 10}}}, {24, {{0x10, 20}}}});
    c13.insert(c13.end(), lines.begin(), lines.end());
    m.c13 = c13;
    spec.modules.push_back(m);
    std::string path = WriteTempFile(BuildPdb(spec), "source_names.pdb");
    OpenedPdb opened(path);
    ASSERT_EQ(opened.status, kPdbOk);
    PdbFile &pdb = opened.pdb;
    EXPECT_EQ(pdb.source_files.used, 2u);
    EXPECT_EQ(PdbFindSourceFile(&pdb.source_files, kFirst), kFirstOffset);
    EXPECT_EQ(PdbFindSourceFile(&pdb.source_files, "C:/SRC/F1505110.C"), kSecondOffset);
    const PdbLineEntry *second = PdbAddressOfLine(&pdb.lines, PdbFindSourceFile(&pdb.source_files, kSecond), 20);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->offset, 0x110u);
  }
}

// The path hash is the name hash of the path written in lower case with backslashes.
TEST(SourceNames, PathHashIsTheNameHashOfTheNormalisedPath) {
  const struct {
    const char *path, *normalised;
  } cases[] = {{"C:/Src/Main.CPP", "c:\\src\\main.cpp"}, {"\xC3\xA9t\xC3\xA9/A.c", "\xC3\xA9t\xC3\xA9\\a.c"}, {"", ""}};
  for (const auto &c : cases)
    EXPECT_EQ(PdbSourceFileHash(c.path, strlen(c.path)), HashNameZ(c.normalised)) << c.path;
}
