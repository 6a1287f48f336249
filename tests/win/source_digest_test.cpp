// The system's hashing service (CNG, under Wine here) against our portable digests, byte for byte,
// over files read back from disk: empty, a lone byte-order mark, a source with one, lengths around
// the digests' block padding, and a large file; then the test programs' sources against the
// checksum records of their PDB through the check the source view makes.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/os_digest.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_file.h"
#include "symbols/source_checksum.h"
#include "symbols/source_digest.h"

namespace {

bool WriteFile(const std::string &path, const std::vector<u8> &bytes) {
  OsFile file;
  if (OsFileOpenWrite(path.c_str(), &file) != kOsOk) return false;
  bool ok = OsFileWrite(file, bytes.data(), bytes.size()) == kOsOk;
  OsFileClose(&file);
  return ok;
}

bool ReadWhole(const std::string &path, std::vector<u8> *out) {
  OsFile file;
  u64 size = 0, got = 0;
  if (OsFileOpenRead(path.c_str(), &file) != kOsOk) return false;
  bool ok = OsFileSize(file, &size) == kOsOk;
  out->resize(size);
  ok = ok && (size == 0 || (OsFileRead(file, out->data(), size, &got) == kOsOk && got == size));
  OsFileClose(&file);
  return ok;
}

std::string Hex(const u8 *bytes, u32 n) {
  std::string text;
  char two[3];
  for (u32 i = 0; i < n; i++) snprintf(two, sizeof(two), "%02x", bytes[i]), text += two;
  return text;
}

}  // namespace

TEST(SystemDigest, AgreesWithPortableDigestsOnFiles) {
  std::mt19937 random(11);
  auto bytes_of = [](const std::string &text) { return std::vector<u8>(text.begin(), text.end()); };
  struct Input {
    std::string name;
    std::vector<u8> bytes;
  };
  std::vector<Input> inputs = {
      {"empty.c", {}},
      {"bom_only.c", bytes_of("\xEF\xBB\xBF")},
      {"bom_source.cpp", bytes_of("\xEF\xBB\xBF// gr\xC3\xB6\xC3\x9F" "e\r\nint main() { return 0; }\r\n")},
  };
  for (size_t size : {1, 55, 56, 57, 63, 64, 65, 119, 120, 4095, 4096, 4097}) {
    std::vector<u8> data(size);
    for (u8 &b : data) b = (u8)random();
    inputs.push_back({"padding_" + std::to_string(size) + ".bin", data});
  }
  std::vector<u8> large(24 * 1024 * 1024 + 3);
  for (u8 &b : large) b = (u8)random();
  inputs.push_back({"large.bin", large});

  struct {
    u32 kind;
    void (*portable)(const u8 *, u64, u8 *);
  } kinds[] = {{kOsDigestMd5, DigestMd5}, {kOsDigestSha1, DigestSha1}, {kOsDigestSha256, DigestSha256}};
  std::string dir = testing::TempDir();
  for (const Input &input : inputs) {
    SCOPED_TRACE(input.name);
    std::string path = dir + "/ktrn_digest_" + input.name;
    ASSERT_TRUE(WriteFile(path, input.bytes)) << path;
    std::vector<u8> read;
    ASSERT_TRUE(ReadWhole(path, &read)) << path;
    ASSERT_EQ(read.size(), input.bytes.size());
    for (auto &k : kinds) {
      u8 system[kOsDigestMaxBytes] = {}, portable[kOsDigestMaxBytes] = {};
      ASSERT_EQ(OsDigest(k.kind, read.data(), read.size(), system), kOsOk) << "kind " << k.kind;
      k.portable(read.data(), read.size(), portable);
      EXPECT_EQ(Hex(system, OsDigestBytes(k.kind)), Hex(portable, OsDigestBytes(k.kind))) << "kind " << k.kind;
    }
    remove(path.c_str());
  }
  u8 unused[kOsDigestMaxBytes];
  EXPECT_EQ(OsDigest(0, "x", 1, unused), kOsFailed);
  EXPECT_EQ(OsDigest(4, "x", 1, unused), kOsFailed);
}

// The check the source view makes, with the system's digests: every source of sym_c that is on
// this machine matches its MD5 record, and the same text with a byte-order mark put in front
// does not.
TEST(SystemDigest, TestProgramSourcesMatchTheirPdbRecords) {
  std::string pdb_path = std::string(KTRN_TARGETS_DIR) + "/sym_c.pdb";
  SymbolArena arena = {};
  PdbFile pdb;
  PdbSummary summary;
  CodeViewIdentity none = {};
  ASSERT_EQ(PdbOpen(&arena, &none, pdb_path.c_str(), true, &pdb, &summary), kPdbOk) << pdb_path;
  std::set<const u8 *> records;
  for (u32 i = 0; i < pdb.lines.count; i++)
    if (pdb.lines.by_address[i].file) records.insert(pdb.lines.by_address[i].file);
  int checked = 0;
  for (const u8 *record : records) {
    // The PDB names the sources by their paths on the machine that built them, this one; Wine
    // shows its root as drive Z.
    std::string path = std::string("Z:") + PdbStringAt(&pdb.strings, ReadU32(record));
    std::vector<u8> text;
    if (!ReadWhole(path, &text)) continue;
    SCOPED_TRACE(path);
    bool bom = true;
    EXPECT_EQ(record[5], kChecksumMd5);
    EXPECT_EQ(CheckSourceChecksum(record, text.data(), text.size(), &bom), kSourceMatches);
    EXPECT_FALSE(bom);
    text.insert(text.begin(), {0xEF, 0xBB, 0xBF});
    EXPECT_EQ(CheckSourceChecksum(record, text.data(), text.size(), &bom), kSourceDiffers);
    EXPECT_TRUE(bom);
    checked++;
  }
  EXPECT_GE(checked, 3);
  MsfClose(&pdb.msf);
  SymbolArenaRelease(&arena);
}
