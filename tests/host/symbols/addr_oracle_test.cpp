// ktrn-pdb addr against llvm-symbolizer: every instruction start of every procedure of the test
// programs (a fixed sample of our own programs') and of two corpus images is looked up by both, and
// the procedure name and the line must agree. llvm-objdump gives the instruction starts and the
// section layout, llvm-pdbutil the procedures and the raw line records, so that the only side
// that is ours is the answer being checked.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "oracle.h"

namespace {

// The linear sweep runs out of step after data in the code section (jump tables, which this
// toolchain puts there); a procedure whose start the sweep missed is disassembled again from its
// own start.
void Resynchronise(const std::string &exe, const Layout &layout, uint32_t start, uint32_t length,
                   std::vector<uint32_t> *instructions) {
  std::string range = Format("--start-address=0x%llx --stop-address=0x%llx", (unsigned long long)(layout.image_base + start),
                             (unsigned long long)(layout.image_base + start + length));
  std::vector<uint32_t> own;
  if (!Disassemble(exe, range, layout.image_base, &own)) return;
  auto from = std::lower_bound(instructions->begin(), instructions->end(), start);
  auto to = std::lower_bound(from, instructions->end(), start + length);
  from = instructions->erase(from, to);
  instructions->insert(from, own.begin(), own.end());
}

// [SECTION] llvm-symbolizer's JSON lines

struct SymbolizerAnswer {
  std::string function;
  std::string file;
  unsigned line = 0;
};

// The value of "key":"..." (JSON string escapes undone) or of "key":N.
bool JsonField(const std::string &json, const std::string &key, std::string *out) {
  size_t at = json.find("\"" + key + "\":");
  if (at == std::string::npos) return false;
  at += key.size() + 3;
  out->clear();
  if (at < json.size() && json[at] != '"') {
    while (at < json.size() && json[at] != ',' && json[at] != '}') *out += json[at++];
    return true;
  }
  for (at++; at < json.size() && json[at] != '"'; at++) {
    char c = json[at];
    if (c == '\\' && at + 1 < json.size()) {
      c = json[++at];
      if (c == 'n') c = '\n';
      else if (c == 't') c = '\t';
      else if (c == 'u') return false;  // never in our images' names and paths
    }
    *out += c;
  }
  return true;
}

bool ParseAnswer(const std::string &json, SymbolizerAnswer *out) {
  std::string line;
  return JsonField(json, "FunctionName", &out->function) && JsonField(json, "FileName", &out->file) &&
         JsonField(json, "Line", &line) && (out->line = (unsigned)atoi(line.c_str()), true);
}

// [SECTION] The raw line records, by address

struct RawLines {
  // per section: (block start, block index), ascending
  std::map<unsigned, std::vector<std::pair<unsigned, size_t>>> by_section;
  std::vector<LineBlock> blocks;
};

const LineBlock *BlockAt(const RawLines &raw, unsigned section, unsigned offset) {
  auto s = raw.by_section.find(section);
  if (s == raw.by_section.end()) return nullptr;
  const LineBlock *hit = nullptr;
  for (auto &[start, index] : s->second) {
    if (start > offset) break;
    const LineBlock &b = raw.blocks[index];
    if (offset < b.end) hit = &b;
  }
  return hit;
}

// The first raw record after offset in the section, below limit: (line, path), or line 0.
std::pair<unsigned, std::string> FirstRecordAfter(const RawLines &raw, unsigned section, unsigned offset,
                                                  unsigned limit) {
  std::pair<unsigned, std::string> best = {0, ""};
  unsigned best_at = limit;
  auto s = raw.by_section.find(section);
  if (s == raw.by_section.end()) return best;
  for (auto &[start, index] : s->second) {
    if (start >= limit) break;
    for (auto &[line, at] : raw.blocks[index].raw)
      if (at > offset && at < best_at) best_at = at, best = {line, raw.blocks[index].path};
  }
  return best;
}

// [SECTION] The comparison

struct Image {
  std::string exe, pdb;
  unsigned every = 1;  // each procedure's first instruction, then every N-th
};

struct Procedure {
  unsigned section, offset, length;
  std::string name;
};

void ExpectAddressesAgree(const Image &image) {
  SCOPED_TRACE(image.exe);
  ASSERT_TRUE(FileExists(image.exe) && FileExists(image.pdb)) << image.exe << " or its PDB is missing";
  Layout layout;
  std::string failure;
  ASSERT_TRUE(ReadLayout(image.exe, &layout, &failure)) << failure;

  // The procedures as llvm-pdbutil lists them (the same list `ktrn-pdb procs` must give).
  OracleDump symbols = RunOracle(image.pdb);
  ASSERT_TRUE(symbols.ok) << symbols.failure;
  std::vector<Procedure> procedures;
  for (const std::string &line : symbols.procedures) {
    Procedure p;
    ASSERT_EQ(sscanf(line.c_str(), "%x:%x %x", &p.section, &p.offset, &p.length), 3) << line;
    p.name = line.substr(23);
    if (p.section >= 1 && p.section <= layout.section_rvas.size() && p.length) procedures.push_back(p);
  }
  ASSERT_FALSE(procedures.empty());

  struct Query {
    uint32_t rva;
    const Procedure *procedure;
  };
  std::vector<Query> queries;
  for (const Procedure &p : procedures) {
    uint32_t start = layout.section_rvas[p.section - 1] + p.offset;
    auto at = std::lower_bound(layout.instructions.begin(), layout.instructions.end(), start);
    if (at == layout.instructions.end() || *at != start) {
      Resynchronise(image.exe, layout, start, p.length, &layout.instructions);
      at = std::lower_bound(layout.instructions.begin(), layout.instructions.end(), start);
    }
    EXPECT_TRUE(at != layout.instructions.end() && *at == start)
        << p.name << " at " << Format("0x%08X", start) << " does not start an instruction in llvm-objdump's disassembly";
    for (unsigned k = 0; at != layout.instructions.end() && *at < start + p.length; ++at, ++k)
      if (k % image.every == 0) queries.push_back({*at, &p});
  }
  ASSERT_GE(queries.size(), procedures.size());

  // Both tools read the same addresses from stdin.
  TempDir directory;
  std::string ours_text, theirs_text;
  for (const Query &q : queries) ours_text += Format("%X\n", q.rva), theirs_text += Format("0x%X\n", q.rva);
  std::string ours_input = directory.Write("ours.txt", ours_text), theirs_input = directory.Write("theirs.txt", theirs_text);
  // llvm-symbolizer opens the PDB at the CodeView path only. The corpus images name Windows paths,
  // which on this host are plain file names relative to the current directory: a link of that name
  // in the run's directory leads it to the PDB beside the image.
  CommandResult debug = RunCommand("llvm-readobj-14 --coff-debug-directory " + Quote(image.exe));
  size_t name_at = debug.output.find("PDBFileName: ");
  ASSERT_NE(name_at, std::string::npos) << "no CodeView record";
  std::string codeview_path = debug.output.substr(name_at + 13, debug.output.find('\n', name_at) - name_at - 13);
  if (codeview_path.find('\\') != std::string::npos)
    ASSERT_EQ(symlink(image.pdb.c_str(), (directory.path + "/" + codeview_path).c_str()), 0);

  CommandResult ours = PdbTool({"addr", image.exe}, "< " + Quote(ours_input));
  CommandResult theirs = RunCommand("cd " + Quote(directory.path) + " && llvm-symbolizer-14 --obj=" + Quote(image.exe) +
                                    " --relative-address --no-inlines --functions=short --output-style=JSON < " +
                                    Quote(theirs_input) + " 2>&1");
  ASSERT_EQ(ours.exit_status, 0);
  ASSERT_EQ(theirs.exit_status, 0);
  std::vector<std::string> our_lines = SplitLines(ours.output), their_lines = SplitLines(theirs.output);
  ASSERT_EQ(our_lines.size(), queries.size() + 1);
  ASSERT_EQ(their_lines.size(), queries.size()) << theirs.output.substr(0, 400);
  EXPECT_EQ(our_lines[0], "Symbols loaded");

  LineBlockDump blocks = RunLineBlockOracle(image.pdb);
  ASSERT_TRUE(blocks.ok) << blocks.failure;
  RawLines raw;
  raw.blocks = blocks.blocks;
  for (size_t i = 0; i < raw.blocks.size(); i++) raw.by_section[raw.blocks[i].section].push_back({raw.blocks[i].start, i});
  for (auto &[section, list] : raw.by_section) std::sort(list.begin(), list.end());

  int differences = 0, same_address = 0, before_first_line = 0;
  for (size_t i = 0; i < queries.size(); i++) {
    const Query &q = queries[i];
    const Procedure &p = *q.procedure;
    unsigned offset = q.rva - layout.section_rvas[p.section - 1];
    SymbolizerAnswer answer;
    ASSERT_TRUE(ParseAnswer(their_lines[i], &answer)) << their_lines[i];
    EXPECT_EQ(answer.function, p.name) << "llvm-symbolizer and llvm-pdbutil name the procedure differently";
    // In inlined code the inlined function comes first; the procedure's part follows " @ ".
    std::string line = our_lines[i + 1];
    if (line.find(" @ ") != std::string::npos) line = line.substr(0, 11) + line.substr(line.find(" @ ") + 3);
    std::string offset_text = Format("+0x%X", offset - p.offset);

    // Where the two tools follow different conventions, the raw line records decide.
    std::string file = answer.file;
    unsigned number = answer.line;
    const LineBlock *block = BlockAt(raw, p.section, offset);
    unsigned at = 0, first = 0, last = 0, count = 0;  // the records at the last address <= offset
    if (block)
      for (auto &[n, o] : block->raw)
        if (o <= offset && o >= at) {
          if (o > at || count == 0) at = o, first = n, count = 0;
          last = n, count++;
        }
    if (count > 1 && answer.line == first && last != first) {
      // Several records at one address (a function's opening line and its first statement, both
      // at the first instruction): llvm-symbolizer reports the first, our line tables keep the last
      // one, the line the code at that address belongs to.
      number = last, same_address++;
    } else if (count == 0 && answer.line) {
      // No record covers the address (code before a function's first line record, such as code
      // inlined from another file, whose lines only the inline-site records hold): llvm-symbolizer
      // asks for the lines of the whole function's length from here and reports the first one it
      // meets; a line lookup must not answer for code that no record covers.
      auto next = FirstRecordAfter(raw, p.section, offset, p.offset + p.length);
      if (next.first == answer.line && next.second == answer.file) number = 0, before_first_line++;
    }
    // A record of line 0 (compiler-made code such as a dynamic initializer) is still a line
    // record: the address has a line, numbered 0.
    bool has_line = number || (count && last == 0);
    std::string tail = has_line ? " " + file + ":" + std::to_string(number) : std::string(" ?");
    std::string expected = Format("0x%08X", q.rva) + " " + answer.function + offset_text + tail;
    if (line != expected && differences++ < 20)
      ADD_FAILURE() << "ours: " << line << "\n  expected: " << expected << "\n  llvm-symbolizer: " << answer.function
                    << " " << answer.file << ":" << answer.line;
  }
  EXPECT_EQ(differences, 0) << "of " << queries.size() << " addresses";
  printf("%s: %zu addresses, %d with several line records at the address, %d before a function's first line record\n",
         image.exe.c_str(), queries.size(), same_address, before_first_line);
}

}  // namespace

// Every test program of every area, every instruction of every procedure.
TEST(AddrOracle, TestProgramsAgreeWithLlvmSymbolizer) {
  std::vector<std::string> images = FilesIn(TargetsDir(), ".exe");
  for (const std::string &image : images) ExpectAddressesAgree({image, image.substr(0, image.size() - 4) + ".pdb"});
  EXPECT_GE(images.size(), 2u) << TargetsDir();
}

// Our own optimised programs: kestrune.exe, the largest, each procedure's first instruction and
// every 16th after it; ktrn-pdb.exe every 4th. And images made by MSVC-compatible tools elsewhere,
// whose CodeView paths do not exist here: the PDB is found beside the image.
TEST(AddrOracle, OwnProgramsAndCorpusImagesAgreeWithLlvmSymbolizer) {
  ExpectAddressesAgree({OwnProgramFile("kestrune.exe"), OwnProgramFile("kestrune.pdb"), 16});
  ExpectAddressesAgree({OwnProgramFile("ktrn-pdb.exe"), OwnProgramFile("ktrn-pdb.pdb"), 4});
  for (const char *name : {"llvm_test_tools_llvm-symbolizer_pdb_test-columns", "llvm_unittests_DebugInfo_PDB_SimpleTest"})
    ExpectAddressesAgree({CorpusFile("llvm/") + name + ".exe", CorpusFile("llvm/") + name + ".pdb"});
}
