// The Breakpad symbol files of the corpus (made by another PDB reader from the same PDBs) as an
// independent reference for procedures and line entries: every FUNC record must be a procedure of
// `ktrn-pdb procs` at the same address, with the same length and name, and the line records must
// be the line entries of `ktrn-pdb lines`. Breakpad speaks in rvas; the PDB's own copy of the
// section headers (as llvm-pdbutil prints them) turns our section:offset pairs into rvas.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "oracle.h"

namespace {

struct Function {
  uint32_t rva, length;
  std::string name;
};
std::string Extent(const Function &f) { return Format("%08x %x", f.rva, f.length); }
std::string LineText(uint32_t rva, uint32_t length, uint32_t number, const std::string &path) {
  return Format("%08x %x %u ", rva, length, number) + path;
}

// Sorted, as Breakpad lists them by its own order.
std::string Differences(std::vector<std::string> ours, std::vector<std::string> breakpad) {
  std::sort(ours.begin(), ours.end());
  std::sort(breakpad.begin(), breakpad.end());
  return DescribeDifference(ours, breakpad, "Breakpad");
}

// Breakpad writes "(anonymous namespace)" where the PDB's procedure records, which we print, hold
// "`anonymous namespace'"; and, when its PDB has the function's type, the parameter list after
// the name. So a Breakpad name matches ours as it is or without its last parenthesised group.
bool SameName(std::string breakpad, const std::string &ours) {
  const std::string from = "(anonymous namespace)", to = "`anonymous namespace'";
  for (size_t at; (at = breakpad.find(from)) != std::string::npos;) breakpad.replace(at, from.size(), to);
  if (breakpad == ours) return true;
  if (breakpad.empty() || breakpad.back() != ')') return false;
  int depth = 0;
  for (size_t i = breakpad.size(); i-- > 0;) {
    if (breakpad[i] == ')') depth++;
    else if (breakpad[i] == '(' && --depth == 0) return breakpad.compare(0, i, ours) == 0 && i == ours.size();
  }
  return false;
}

struct BreakpadFile {
  std::vector<Function> functions;
  std::vector<std::string> lines;
};

bool ReadBreakpad(const std::string &path, BreakpadFile *out) {
  std::ifstream in(path);
  if (!in) return false;
  std::map<unsigned, std::string> files;
  std::string text;
  while (std::getline(in, text)) {
    if (!text.empty() && text.back() == '\r') text.pop_back();
    unsigned number, rva, length, line, file;
    int used = 0;
    if (sscanf(text.c_str(), "FILE %u %n", &number, &used) == 1 && used) {
      files[number] = text.substr(used);
    } else if (text.rfind("FUNC ", 0) == 0) {
      const char *p = text.c_str() + 5;
      if (strncmp(p, "m ", 2) == 0) p += 2;  // several names folded at one address
      unsigned parameters;
      if (sscanf(p, "%x %x %x %n", &rva, &length, &parameters, &used) == 3 && used)
        out->functions.push_back({rva, length, p + used});
    } else if (sscanf(text.c_str(), "%x %x %u %u%n", &rva, &length, &line, &file, &used) == 4 &&
               used == (int)text.size()) {
      out->lines.push_back(LineText(rva, length, line, files.count(file) ? files[file] : "?"));
    }
  }
  return true;
}

// The virtual addresses of the section headers that the PDB keeps, by section number - 1.
std::vector<uint32_t> SectionRvas(const std::string &pdb) {
  std::vector<uint32_t> rvas;
  CommandResult run = RunCommand("llvm-pdbutil-14 dump --section-headers " + Quote(pdb));
  for (const std::string &line : SplitLines(run.output)) {
    unsigned value;
    char rest[32];
    if (sscanf(line.c_str(), " %x %31[a-z ]", &value, rest) == 2 && strcmp(rest, "virtual address") == 0)
      rvas.push_back(value);
  }
  return rvas;
}

// "SSSS:OOOOOOOO LLLLLLLL rest" of ktrn-pdb as (rva, length, rest).
bool ParseOurs(const std::string &line, const std::vector<uint32_t> &rvas, uint32_t *rva, uint32_t *length,
               std::string *rest) {
  unsigned section, offset;
  if (line.size() < 24 || sscanf(line.c_str(), "%x:%x %x", &section, &offset, length) != 3 || section == 0 ||
      section > rvas.size())
    return false;
  *rva = rvas[section - 1] + offset;
  *rest = line.substr(23);
  return true;
}

void ExpectAgreesWithBreakpad(const std::string &name, size_t least_functions, size_t least_lines) {
  SCOPED_TRACE(name);
  std::string pdb = CorpusFile(name + ".pdb");
  BreakpadFile breakpad;
  ASSERT_TRUE(ReadBreakpad(CorpusFile(name + ".sym"), &breakpad));
  ASSERT_GE(breakpad.functions.size(), least_functions);
  ASSERT_GE(breakpad.lines.size(), least_lines);
  std::vector<uint32_t> rvas = SectionRvas(pdb);
  ASSERT_FALSE(rvas.empty()) << "llvm-pdbutil printed no section headers";

  CommandResult procs = PdbTool({"procs", pdb});
  ASSERT_EQ(procs.exit_status, 0);
  std::vector<Function> functions;
  for (const std::string &line : SplitLines(procs.output)) {
    Function f;
    ASSERT_TRUE(ParseOurs(line, rvas, &f.rva, &f.length, &f.name)) << line;
    functions.push_back(f);
  }
  // Same extents; then the names, which Breakpad writes its own way.
  std::vector<std::string> extents, their_extents;
  for (const Function &f : functions) extents.push_back(Extent(f));
  for (const Function &f : breakpad.functions) their_extents.push_back(Extent(f));
  EXPECT_EQ(Differences(extents, their_extents), "");
  std::map<std::pair<uint32_t, uint32_t>, std::vector<std::string>> names;
  for (const Function &f : functions) names[{f.rva, f.length}].push_back(f.name);
  int misnamed = 0;
  for (const Function &f : breakpad.functions) {
    const std::vector<std::string> &candidates = names[{f.rva, f.length}];
    bool named = std::any_of(candidates.begin(), candidates.end(), [&](const std::string &n) { return SameName(f.name, n); });
    if (!named && misnamed++ < 8)
      ADD_FAILURE() << "Breakpad: " << Extent(f) << " " << f.name << "\n  ours: " << (candidates.empty() ? "-" : candidates[0]);
  }
  EXPECT_EQ(misnamed, 0);

  // Breakpad gives each line record to the function that holds it and ends it with that function:
  // the bytes between a function's end and the next line record (padding, or code of no
  // function) are in no line record. Our entries run to the next record, so they are cut at the
  // end of the function they start in before comparing; the entries that start in no function
  // have no Breakpad counterpart.
  std::vector<Function> by_rva = breakpad.functions;
  std::sort(by_rva.begin(), by_rva.end(), [](const Function &a, const Function &b) { return a.rva < b.rva; });
  CommandResult lines = PdbTool({"lines", pdb});
  ASSERT_EQ(lines.exit_status, 0);
  std::vector<std::string> entries;
  for (const std::string &text : SplitLines(lines.output)) {
    uint32_t rva, length, number;
    std::string rest;
    int used = 0;
    ASSERT_TRUE(ParseOurs(text, rvas, &rva, &length, &rest)) << text;
    ASSERT_EQ(sscanf(rest.c_str(), "%u %n", &number, &used), 1) << text;
    auto after = std::upper_bound(by_rva.begin(), by_rva.end(), rva,
                                  [](uint32_t at, const Function &f) { return at < f.rva; });
    if (after == by_rva.begin() || rva >= (after - 1)->rva + (after - 1)->length) continue;
    entries.push_back(LineText(rva, std::min(length, (after - 1)->rva + (after - 1)->length - rva), number, rest.substr(used)));
  }
  EXPECT_EQ(Differences(entries, breakpad.lines), "");
}

}  // namespace

// A 64-bit MSVC program with its C runtime: functions and lines; a 32-bit DLL whose PDB has no line
// records: its functions, read through the PDB alone.
TEST(BreakpadOracle, FunctionsAndLinesAgree) {
  ExpectAgreesWithBreakpad("ds_dump_syms_regtest64", 200, 3000);
  ExpectAgreesWithBreakpad("ds_basic32-min", 700, 0);
}
