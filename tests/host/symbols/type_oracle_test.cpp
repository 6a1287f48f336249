// The type stream's record index against llvm-pdbutil: for every PDB of the corpus that loads,
// and for the test programs' PDBs, the same type indices in the same order with the same record
// sizes and leaf kinds as `llvm-pdbutil dump -types` reports.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "test_files.h"
#include "oracle.h"
#include "symbols/pdb_file.h"
#include "symbols/pdb_raw.h"

namespace {

const std::string kCorpusDir = std::string(KTRN_DATA_DIR) + "/pdb-corpus";
const std::string kTargets = KTRN_TARGETS_DIR;
const std::string kPdbTool = KTRN_PDB_TOOL;

// Leaf kinds by the names llvm-pdbutil prints; a leaf not listed here is compared by size only.
const std::map<std::string, unsigned> kLeafKinds = {
    {"LF_MODIFIER", 0x1001},  {"LF_POINTER", 0x1002},  {"LF_PROCEDURE", 0x1008}, {"LF_MFUNCTION", 0x1009},
    {"LF_VTSHAPE", 0x000A},   {"LF_ARGLIST", 0x1201},  {"LF_FIELDLIST", 0x1203}, {"LF_BITFIELD", 0x1205},
    {"LF_METHODLIST", 0x1206}, {"LF_ARRAY", 0x1503},   {"LF_CLASS", 0x1504},     {"LF_STRUCTURE", 0x1505},
    {"LF_UNION", 0x1506},     {"LF_ENUM", 0x1507},     {"LF_INTERFACE", 0x1519},
};

// "0xINDEX\t0xLEAF\t0xLENGTH" lines from `llvm-pdbutil dump -types`; the leaf column is "*" when
// the leaf's name is not in the table above. Empty with ok = false when the oracle failed.
std::vector<std::string> OracleRecords(const std::string &pdb, bool *ok) {
  CommandResult r = RunCommand("llvm-pdbutil-14 dump -types " + Quote(pdb) + " 2>&1");
  *ok = r.exit_status == 0 && r.output.find("error") == std::string::npos;
  std::vector<std::string> out;
  for (const std::string &line : SplitLines(r.output)) {
    unsigned index = 0, size = 0;
    char leaf[64] = {0};
    if (sscanf(line.c_str(), " 0x%X | %63s [size = %u]", &index, leaf, &size) != 3) continue;
    char text[96];
    auto kind = kLeafKinds.find(leaf);
    if (kind != kLeafKinds.end())
      snprintf(text, sizeof(text), "0x%X\t0x%04X\t0x%X", index, kind->second, size - 2);
    else
      snprintf(text, sizeof(text), "0x%X\t*\t0x%X", index, size - 2);
    out.push_back(text);
  }
  return out;
}

// Ours, with the leaf column hidden where the oracle's leaf name is unknown.
std::vector<std::string> OurRecords(const std::string &pdb, const std::vector<std::string> &oracle) {
  CommandResult r = RunCommand(Quote(kPdbTool) + " type-records " + Quote(pdb));
  EXPECT_EQ(r.exit_status, 0) << pdb;
  std::vector<std::string> ours = SplitLines(r.output);
  for (size_t i = 0; i < ours.size() && i < oracle.size(); i++) {
    size_t tab = oracle[i].find('\t');
    if (oracle[i].compare(tab, 3, "\t*\t") != 0) continue;
    size_t a = ours[i].find('\t'), b = ours[i].find('\t', a + 1);
    if (a != std::string::npos && b != std::string::npos) ours[i] = ours[i].substr(0, a) + "\t*" + ours[i].substr(b);
  }
  return ours;
}

void CompareWithOracle(const std::string &pdb, int *compared) {
  bool ok = false;
  std::vector<std::string> oracle = OracleRecords(pdb, &ok);
  if (!ok) return;  // files llvm-pdbutil rejects are covered by the load tests
  CommandResult probe = RunCommand(Quote(kPdbTool) + " info " + Quote(pdb) + " 2>/dev/null");
  if (probe.exit_status != 0) return;  // nor do files that we refuse by their own result code
  EXPECT_EQ(DescribeDifference(OurRecords(pdb, oracle), oracle), "") << pdb;
  ++*compared;
}

TEST(TypeRecords, CorpusAgreesWithLlvmPdbutil) {
  int compared = 0;
  for (const std::string &folder : {kCorpusDir, kCorpusDir + "/llvm"})
    for (const std::string &pdb : FilesIn(folder, ".pdb")) CompareWithOracle(pdb, &compared);
  EXPECT_GE(compared, 40) << "corpus at " << kCorpusDir;
}

TEST(TypeRecords, TestProgramsAgreeWithLlvmPdbutil) {
  ASSERT_FALSE(kTargets.empty()) << "configure the host build with -DKTRN_TARGETS_DIR=<windows build>/tests/targets";
  int compared = 0;
  for (const std::string &pdb : FilesIn(kTargets, ".pdb")) CompareWithOracle(pdb, &compared);
  EXPECT_GE(compared, 1) << "no test program PDB in " << kTargets;
}

// The version-1 string hash and the bucket index on real PDBs: a named enumeration that is neither
// a forward reference nor scoped is hashed by its name, so it sits in its name's bucket.
TEST(TypeRecords, NamedEnumsSitInTheBucketOfTheirName) {
  int checked = 0;
  for (const std::string &folder : {kCorpusDir, kCorpusDir + "/llvm"}) {
    for (const std::string &pdb : FilesIn(folder, ".pdb")) {
      SymbolArena arena = {};
      PdbFile file;
      PdbSummary summary;
      CodeViewIdentity none = {};
      if (PdbOpen(&arena, &none, pdb.c_str(), true, &file, &summary) == 0 && file.types.bucket_count) {
        const PdbTypes &t = file.types;
        for (uint32_t i = 0; i < t.count; i++) {
          const uint8_t *r = PdbTypeRecord(&t, t.first_index + i);
          if (!r || ReadU16(r + 2) != 0x1507 || ReadU16(r) < 16) continue;
          if (ReadU16(r + 6) & 0x180) continue;  // forward reference or scoped name
          std::string name((const char *)r + 16, strnlen((const char *)r + 16, ReadU16(r) - 14));
          if (name.empty() || name.find("<unnamed") != std::string::npos || name.find("__unnamed") != std::string::npos)
            continue;
          uint32_t bucket = PdbNameHashV1(name.c_str(), (uint32_t)name.size()) % t.bucket_count;
          uint32_t start = (uint32_t)t.buckets[bucket], n = (uint32_t)(t.buckets[bucket] >> 32);
          bool found = false;
          for (uint32_t k = 0; k < n && !found; k++) found = t.bucket_list[start + k] == t.first_index + i;
          EXPECT_TRUE(found) << pdb << " enum " << name;
          checked++;
        }
      }
      SymbolArenaRelease(&arena);
    }
  }
  EXPECT_GE(checked, 100);
}

}  // namespace
