// Real images read by `ktrn-pdb pe` and by llvm-readobj: headers, every section, the exception
// directory and the CodeView record must agree, and the record's GUID must be the one its PDB
// carries. The test programs, our own programs and the corpus images are all checked.
#include <gtest/gtest.h>

#include <map>

#include "oracle.h"

namespace {

std::string Value(const std::string &line) {
  size_t colon = line.find(": ");
  return colon == std::string::npos ? "" : line.substr(colon + 2);
}
unsigned long long Number(const std::string &text) { return strtoull(text.c_str(), nullptr, 0); }

// "(2F 34 00 ...)" -> the bytes as characters, up to the first zero.
std::string BytesInParentheses(const std::string &text) {
  std::string out;
  size_t open = text.find('(');
  if (open == std::string::npos) return out;
  const char *p = text.c_str() + open + 1;
  for (char *end; *p && *p != ')'; p = end) {
    unsigned long byte = strtoul(p, &end, 16);
    if (end == p) break;
    out.push_back((char)byte);
  }
  return out;
}

// llvm-readobj's view of an image, turned into the lines `ktrn-pdb pe` prints.
std::vector<std::string> ExpectedPe(const std::string &image) {
  CommandResult r = RunCommand("llvm-readobj-14 --file-headers --sections --coff-debug-directory " + Quote(image));
  std::map<std::string, std::string> header;
  struct Section {
    std::string name;
    unsigned long long size = 0, address = 0, characteristics = 0;
  };
  std::vector<Section> sections;
  std::string guid, age, pdb;
  bool codeview = false;
  for (const std::string &raw : SplitLines(r.output)) {
    std::string line = Trim(raw);
    if (line.empty()) continue;
    std::string key = line.substr(0, line.find(':'));
    if (key == "Name" && raw.find("(") != std::string::npos) {
      sections.push_back({BytesInParentheses(line)});
    } else if (key == "VirtualSize" && !sections.empty()) {
      sections.back().size = Number(Value(line));
    } else if (key == "VirtualAddress" && !sections.empty()) {
      sections.back().address = Number(Value(line));
    } else if (line.rfind("Characteristics [ (", 0) == 0 && !sections.empty()) {
      sections.back().characteristics = Number(line.substr(19));
    } else if (key == "Type" && Value(line).rfind("CodeView", 0) == 0) {
      codeview = true;
    } else if (key == "PDBGUID" && guid.empty()) {
      std::string b = BytesInParentheses(line);
      const unsigned char *g = (const unsigned char *)b.data();
      if (b.size() == 16)
        guid = Format("{%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g[3], g[2], g[1],
                      g[0], g[5], g[4], g[7], g[6], g[8], g[9], g[10], g[11], g[12], g[13], g[14], g[15]);
    } else if (key == "PDBAge" && age.empty()) {
      age = Value(line);
    } else if (key == "PDBFileName" && pdb.empty()) {
      pdb = Value(line);
    } else if (!header.count(key)) {
      header[key] = Value(line);
    }
  }
  const std::string &machine = header["Machine"];  // "IMAGE_FILE_MACHINE_AMD64 (0x8664)"
  size_t hex = machine.find("(0x");
  size_t kept = sections.size() < 96 ? sections.size() : 96;
  std::vector<std::string> lines = {
      Format("base 0x%016llX", Number(header["ImageBase"])),
      Format("machine 0x%04llX", hex == std::string::npos ? 0 : strtoull(machine.c_str() + hex + 1, nullptr, 16)),
      Format("entry 0x%08llX", Number(header["AddressOfEntryPoint"])),
      Format("size 0x%08llX", Number(header["SizeOfImage"])),
      Format("sections %zu of %zu", kept, sections.size())};
  for (size_t i = 0; i < kept; i++) {
    const Section &s = sections[i];
    lines.push_back(Format("section %zu %-8.8s 0x%08llX 0x%08llX 0x%08llX", i + 1, s.name.c_str(), s.address, s.size,
                           s.characteristics));
  }
  lines.push_back(Format("exception 0x%08llX %llu", Number(header["ExceptionTableRVA"]),
                         Number(header["ExceptionTableSize"]) / 12));
  if (codeview) lines.insert(lines.end(), {"codeview " + guid + " " + age, "pdb " + pdb});
  else lines.push_back("codeview none");
  return lines;
}

// And, with a PDB beside it, the GUID of the record is the one the PDB says it has.
void ExpectPeAgrees(const std::string &image, const std::string &pdb = "") {
  SCOPED_TRACE(image);
  CommandResult ours = PdbTool({"pe", image});
  ASSERT_EQ(ours.exit_status, 0) << ours.output;
  EXPECT_EQ(DescribeDifference(SplitLines(ours.output), ExpectedPe(image)), "");
  if (pdb.empty()) return;
  std::string guid;
  for (const std::string &line : SplitLines(RunCommand("llvm-pdbutil-14 dump --summary " + Quote(pdb)).output))
    if (line.find("GUID: ") != std::string::npos) guid = Value(line);
  ASSERT_FALSE(guid.empty());
  EXPECT_NE(ours.output.find("codeview " + guid + " "), std::string::npos) << ours.output;
}

}  // namespace

TEST(PeOracle, TestProgramsOurOwnProgramsAndCorpusImagesAgreeWithReadobj) {
  std::vector<std::string> images = FilesIn(TargetsDir(), ".exe");
  ASSERT_FALSE(images.empty()) << "no test programs in " << TargetsDir();
  std::vector<std::string> own = FilesIn(OwnProgramFile(""), ".exe");
  ASSERT_FALSE(own.empty());
  images.insert(images.end(), own.begin(), own.end());
  for (const std::string &image : images) ExpectPeAgrees(image, image.substr(0, image.size() - 3) + "pdb");
  std::string columns = CorpusFile("llvm/llvm_test_tools_llvm-symbolizer_pdb_test-columns");
  ExpectPeAgrees(columns + ".exe", columns + ".pdb");
  ExpectPeAgrees(CorpusFile("llvm/llvm_unittests_DebugInfo_PDB_SimpleTest.exe"));
  ExpectPeAgrees(CorpusFile("llvm/llvm_test_tools_llvm-symbolizer_pdb_missing_pdb.exe"));
}

// The corpus names its PDBs by paths of the machine that built them: the PDB is then found
// beside the image only under the image's own name, which these files do not have, or not at all.
TEST(PeOracle, AddrReportsTheSymbolStatusAndRefusesA32BitImage) {
  CommandResult missing = PdbTool({"addr", CorpusFile("llvm/llvm_test_tools_llvm-symbolizer_pdb_missing_pdb.exe"), "1000"});
  EXPECT_EQ(missing.exit_status, 0);
  EXPECT_EQ(SplitLines(missing.output), (std::vector<std::string>{"Cannot find or open PDB file", "0x00001000 ? ?"}));
  CommandResult x86 = PdbTool({"addr", CorpusFile("llvm/llvm_test_tools_llvm-symbolizer_pdb_test.exe"), "1000"}, "2>&1");
  EXPECT_EQ(x86.exit_status, 3);
  EXPECT_NE(x86.output.find("32-bit images are not supported (result 10)"), std::string::npos) << x86.output;
  CommandResult loaded = PdbTool({"addr", TargetFile("sym_c.exe"), "0"});
  EXPECT_EQ(SplitLines(loaded.output).at(0), "Symbols loaded");
}
