// Source checksums: the three digests against md5sum, sha1sum and sha256sum over lengths around
// the padding boundaries, and the test programs' own sources against the records of their PDBs.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "oracle.h"
#include "symbols/source_checksum.h"
#include "symbols/source_digest.h"

TEST(SourceDigest, AgreesWithCoreutilsAcrossPaddingBoundaries) {
  std::mt19937 random(7);
  TempDir dir;
  for (size_t size : {0, 1, 3, 55, 56, 57, 63, 64, 65, 119, 120, 128, 1000, 70001}) {
    SCOPED_TRACE(size);
    Bytes data(size);
    for (u8 &b : data) b = (u8)random();
    std::string path = dir.Write("digest_input.bin", data);
    struct {
      const char *tool;
      void (*digest)(const u8 *, u64, u8 *);
      size_t bytes;
    } kinds[] = {{"md5sum", DigestMd5, kMd5Bytes}, {"sha1sum", DigestSha1, kSha1Bytes},
                 {"sha256sum", DigestSha256, kSha256Bytes}};
    for (auto &k : kinds) {
      CommandResult r = RunCommand(std::string(k.tool) + " " + Quote(path));
      ASSERT_EQ(r.exit_status, 0) << k.tool;
      u8 digest[kSha256Bytes];
      k.digest(data.data(), size, digest);
      EXPECT_EQ(Hex(digest, k.bytes), r.output.substr(0, k.bytes * 2)) << k.tool;
    }
  }
}

TEST(SourceChecksum, RecordsOfEveryKindAndSize) {
  const std::string text = "int main() { return 0; }\n";
  const u8 *bytes = (const u8 *)text.data();
  struct {
    u8 kind, size;
    int result;
  } cases[] = {{1, 16, kSourceMatches}, {2, 20, kSourceMatches}, {3, 32, kSourceMatches},
               {1, 20, kSourceNotChecked}, {3, 64, kSourceNotChecked}, {0, 0, kSourceNotChecked},
               {4, 16, kSourceNotChecked}};
  for (auto &c : cases) {
    SCOPED_TRACE(int(c.kind) * 100 + c.size);
    u8 record[6 + 64] = {1, 0, 0, 0, c.size, c.kind};
    void (*digests[])(const u8 *, u64, u8 *) = {nullptr, DigestMd5, DigestSha1, DigestSha256};
    if (c.kind >= 1 && c.kind <= 3) digests[c.kind](bytes, text.size(), record + 6);
    bool bom = true;
    EXPECT_EQ(CheckSourceChecksum(record, bytes, text.size(), &bom), c.result);
    EXPECT_FALSE(bom);
    if (c.result != kSourceMatches) continue;
    record[6 + c.size - 1] ^= 1;  // one bit of the recorded digest
    EXPECT_EQ(CheckSourceChecksum(record, bytes, text.size(), &bom), kSourceDiffers);
    std::string edited = "\xEF\xBB\xBF" + text;  // the same text with a byte-order mark
    EXPECT_EQ(CheckSourceChecksum(record, (const u8 *)edited.data(), edited.size(), &bom), kSourceDiffers);
    EXPECT_TRUE(bom);
  }
}

// clang records MD5 checksums: every source of the test programs that is present on this machine
// matches its record, and a copy with one byte changed does not.
TEST(SourceChecksum, TestProgramSourcesMatchTheirPdbRecords) {
  OpenedPdb opened(TargetFile("sym_c.pdb"));
  ASSERT_EQ(opened.status, kPdbOk);
  std::set<const u8 *> records;
  for (u32 i = 0; i < opened.pdb.lines.count; i++)
    if (opened.pdb.lines.by_address[i].file) records.insert(opened.pdb.lines.by_address[i].file);
  int checked = 0;
  for (const u8 *record : records) {
    std::string path = PdbStringAt(&opened.pdb.strings, ReadU32(record));
    bool ok = false;
    std::string text = ReadFile(path, &ok);
    if (!ok) continue;
    SCOPED_TRACE(path);
    bool bom = false;
    EXPECT_EQ(record[5], kChecksumMd5);
    EXPECT_EQ(CheckSourceChecksum(record, (const u8 *)text.data(), text.size(), &bom), kSourceMatches);
    text.push_back('\n');
    EXPECT_EQ(CheckSourceChecksum(record, (const u8 *)text.data(), text.size(), &bom), kSourceDiffers);
    checked++;
  }
  EXPECT_GE(checked, 3);
}
