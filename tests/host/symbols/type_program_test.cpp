// Type interpretation against the test programs' own view and the PDB writers': the sizes,
// offsets and bit places that the programs print (NAME.layout beside each PDB) against
// `ktrn-pdb type`, member and enumerator type names, `ktrn-pdb types`, the record hash against the
// writers' buckets, and members found by name.
#include <gtest/gtest.h>
#include <string.h>

#include <map>

#include "oracle.h"
#include "symbols/pdb_type_fields.h"
#include "symbols/pdb_type_lookup.h"

namespace {

std::vector<std::string> Columns(const std::string &line) { return Split(line, '\t'); }

// For each "type NAME SIZE" block that the program printed: `ktrn-pdb type PDB NAME` has that
// size, and its member and bit-field lines, in order, are the ones the program printed
// ("member NAME OFFSET SIZE", "bits NAME FIRST-BIT WIDTH").
void CompareProgramLayouts(const std::string &program, int *types_checked) {
  std::vector<std::string> layout = SplitLines(ReadFile(TargetFile(program + ".layout")));
  for (std::string &line : layout)
    if (!line.empty() && line.back() == '\r') line.pop_back();
  ASSERT_FALSE(layout.empty()) << "no " << program << ".layout in " << TargetsDir();
  for (size_t i = 0; i < layout.size();) {
    std::vector<std::string> head = Columns(layout[i++]);
    ASSERT_EQ(head.size(), 3u) << layout[i - 1];
    std::vector<std::string> expected;
    for (; i < layout.size() && layout[i].compare(0, 5, "type\t") != 0; i++) {
      std::vector<std::string> c = Columns(layout[i]);
      expected.push_back(c[0] + " " + c[1] + " " + c[2] + " " + c[3]);
    }
    CommandResult r = PdbTool({"type", TargetFile(program + ".pdb"), head[1]});
    ASSERT_EQ(r.exit_status, 0) << program << " " << head[1];
    std::vector<std::string> lines = SplitLines(r.output);
    ASSERT_FALSE(lines.empty());
    std::vector<std::string> first = Columns(lines[0]);
    ASSERT_EQ(first.size(), 5u) << lines[0];
    EXPECT_EQ(first[3], head[2]) << program << " sizeof " << head[1];
    EXPECT_NE(first[2], "other") << lines[0];
    std::vector<std::string> ours;
    for (size_t k = 1; k < lines.size(); k++) {
      std::vector<std::string> c = Columns(lines[k]);
      if (c[0] == "member" && c.size() == 5) ours.push_back("member " + c[4] + " " + c[1] + " " + c[2]);
      if (c[0] == "bitfield" && c.size() == 7)
        ours.push_back("bits " + c[4] + " " + std::to_string(std::stoull(c[1]) * 8 + std::stoull(c[5])) + " " + c[6]);
    }
    if (first[2] != "enum") EXPECT_EQ(ours, expected) << program << " members of " << head[1];
    ++*types_checked;
  }
}

TEST(TypeLayout, ProgramsPrintTheSizesAndOffsetsKtrnPdbReads) {
  int checked = 0;
  for (const char *program : {"types_c", "types_cpp", "types_msvc"}) CompareProgramLayouts(program, &checked);
  EXPECT_GE(checked, 35);
}

// The lines of golden/type_lines.txt; and a type that is not there is an error.
TEST(TypeLayout, NamesOfMemberTypesAndEnumerators) {
  std::map<std::string, std::string> printed;  // "program type" -> ktrn-pdb type's output
  int checked = 0;
  for (const GoldenLine &g : ReadGolden("tests/host/symbols/golden/type_lines.txt")) {
    ASSERT_GE(g.fields.size(), 3u) << "type_lines.txt:" << g.number;
    std::string &output = printed[g.fields[0] + " " + g.fields[1]], line = g.fields[2];
    for (size_t i = 3; i < g.fields.size(); i++) line += "\t" + g.fields[i];
    if (output.empty()) {
      CommandResult r = PdbTool({"type", TargetFile(g.fields[0] + ".pdb"), g.fields[1]});
      EXPECT_EQ(r.exit_status, 0) << g.fields[1];
      output = r.output;
    }
    EXPECT_NE(output.find(line), std::string::npos) << "type_lines.txt:" << g.number << ": " << line << "\n" << output;
    checked++;
  }
  EXPECT_GE(checked, 40);
  for (const char *missing : {"NoSuchType", "0x7FFFFF"})
    EXPECT_EQ(PdbTool({"type", TargetFile("types_c.pdb"), missing}, "2>&1").exit_status, 1) << missing;
}

// `ktrn-pdb types` lists every index with the kind and size `type` gives it.
TEST(TypeLayout, TypesListsEveryIndex) {
  std::string pdb = TargetFile("types_cpp.pdb");
  CommandResult all = PdbTool({"types", pdb}), records = PdbTool({"type-records", pdb});
  ASSERT_EQ(all.exit_status, 0);
  std::vector<std::string> lines = SplitLines(all.output);
  EXPECT_EQ(lines.size(), SplitLines(records.output).size());
  int compared = 0;
  for (size_t i = 0; i < lines.size(); i += 7) {
    std::vector<std::string> c = Columns(lines[i]);
    ASSERT_EQ(c.size(), 4u) << lines[i];
    EXPECT_EQ(SplitLines(PdbTool({"type", pdb, c[0]}).output).at(0), "type\t" + lines[i]);
    compared++;
  }
  EXPECT_GE(compared, 10);
}

// The record hash against the writers' own: every class, structure, union and enumeration of the
// corpus and of the test programs sits in the bucket of PdbTypeRecordHash (MSVC and lld alike),
// and so do the records hashed by CRC-32 (pointers, procedures, field lists, ...). Modifiers are
// left out: we hash them as what they modify, to find a definition, where writers use CRC-32.
TEST(TypeLayout, RecordHashPutsEveryRecordInItsWritersBucket) {
  int checked = 0;
  std::vector<std::string> pdbs = FilesIn(TargetsDir(), ".pdb"), corpus = CorpusFiles(".pdb");
  pdbs.insert(pdbs.end(), corpus.begin(), corpus.end());
  for (const std::string &pdb : pdbs) {
    OpenedPdb file(pdb);
    if (file.status == kPdbOk && file.pdb.types.bucket_count) {
      const PdbTypes &t = file.pdb.types;
      std::vector<uint32_t> bucket_of(t.count, ~0u);
      for (uint32_t b = 0; b < t.bucket_count; b++)
        for (uint32_t k = 0; k < (uint32_t)(t.buckets[b] >> 32); k++)
          bucket_of[t.bucket_list[(uint32_t)t.buckets[b] + k] - t.first_index] = b;
      int wrong = 0;
      for (uint32_t i = 0; i < t.count && wrong < 5; i++) {
        TypeRecord r;
        if (!PdbDecodeType(&t, t.first_index + i, &r) || r.leaf == kLF_MODIFIER) continue;
        uint32_t bucket = PdbTypeRecordHash(&t, t.first_index + i) % t.bucket_count;
        EXPECT_EQ(bucket, bucket_of[i]) << pdb << " type 0x" << std::hex << t.first_index + i << " leaf " << r.leaf;
        wrong += bucket != bucket_of[i];
        checked++;
      }
    }
  }
  EXPECT_GE(checked, 50000);
}

// Members by name in real PDBs: through base classes (at their offsets in the derived object),
// in anonymous unions and structures, and arrays by element and count.
TEST(TypeLayout, MembersByNameInTheTestPrograms) {
  struct Case {
    const char *program, *type, *member, *found;  // offset, depth, and an array's counts and element
  } cases[] = {
      {"types_cpp", "geo::Circle", "label", "24 depth 1"},        {"types_cpp", "geo::Circle", "id", "8 depth 1"},
      {"types_cpp", "geo::Circle", "radius", "56 depth 0"},       {"types_cpp", "geo::Derived", "a", "0 depth 1"},
      {"types_cpp", "geo::Diamond", "right_value", "24 depth 1"}, {"types_c", "struct WithAnonymous", "as_float", "4 depth 0"},
      {"types_c", "struct WithAnonymous", "hi", "10 depth 0"},    {"types_msvc", "ms::Multiple", "root_value", "8 depth 1"},
      {"types_c", "struct Everything", "matrix", "124 depth 0 [3][4] of 0x74"},
  };
  for (const Case &c : cases) {
    OpenedPdb file(TargetFile(std::string(c.program) + ".pdb"));
    ASSERT_EQ(file.status, kPdbOk) << c.program;
    const PdbTypes *types = &file.pdb.types;
    uint32_t type = PdbLookupType(types, &file.pdb.globals, c.type, (uint32_t)strlen(c.type));
    FoundMember m;
    ASSERT_TRUE(PdbFindMember(types, type, c.member, (uint32_t)strlen(c.member), &m)) << c.type << "." << c.member;
    std::string found = Format("%llu depth %u", (unsigned long long)m.offset, m.depth), counts;
    uint32_t element = m.type, innermost = 0;
    for (uint64_t count = 0; PdbTypeIsArray(types, element, &element, &count); innermost = element)
      counts += Format("[%llu]", (unsigned long long)count);
    EXPECT_EQ(found + (counts.empty() ? "" : " " + counts + Format(" of 0x%X", innermost)), c.found) << c.type << "." << c.member;
  }
}

}  // namespace
