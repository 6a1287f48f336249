#include "oracle.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <set>

// [SECTION] The files

std::vector<std::string> CorpusFiles(const std::string &suffix) {
  std::vector<std::string> files;
  for (std::string folder : {"/pdb-corpus", "/pdb-corpus/llvm"})
    for (const std::string &file : FilesIn(KTRN_DATA_DIR + folder, suffix))
      if (file.find(".txt") == std::string::npos && file.find(".md") == std::string::npos) files.push_back(file);
  return files;
}
std::string CorpusFile(const std::string &name) { return std::string(KTRN_DATA_DIR) + "/pdb-corpus/" + name; }
std::string TargetsDir() { return KTRN_TARGETS_DIR; }
std::string TargetFile(const std::string &name) { return TargetsDir() + "/" + name; }
std::string OwnProgramFile(const std::string &name) { return TargetsDir() + "/../../bin/" + name; }

CommandResult PdbTool(std::initializer_list<std::string> arguments, const std::string &shell_tail) {
  std::string command = Quote(KTRN_PDB_TOOL);
  for (const std::string &a : arguments) command += " " + Quote(a);
  return RunCommand(command + " " + shell_tail);
}

// [SECTION] llvm-objdump

bool Disassemble(const std::string &exe, const std::string &range_options, uint64_t image_base,
                 std::vector<uint32_t> *out) {
  CommandResult code = RunCommand("llvm-objdump-14 -d --no-show-raw-insn " + range_options + " " + Quote(exe) + " 2>&1");
  if (code.exit_status != 0) return false;
  size_t before = out->size();
  for (const std::string &line : SplitLines(code.output)) {
    unsigned long long va;
    char colon;
    if (sscanf(line.c_str(), " %llx%c", &va, &colon) == 2 && colon == ':' && va >= image_base)
      out->push_back((uint32_t)(va - image_base));
  }
  return out->size() > before;
}

bool ReadLayout(const std::string &exe, Layout *out, std::string *failure) {
  CommandResult headers = RunCommand("llvm-objdump-14 -h -p " + Quote(exe) + " 2>&1");
  if (headers.exit_status != 0) return *failure = "llvm-objdump -h -p failed", false;
  std::vector<uint64_t> vmas;
  for (const std::string &line : SplitLines(headers.output)) {
    unsigned long long base;
    unsigned index;
    char name[64];
    unsigned long long size, vma;
    if (sscanf(line.c_str(), "ImageBase %llx", &base) == 1) out->image_base = base;
    else if (sscanf(line.c_str(), " %u %63s %llx %llx", &index, name, &size, &vma) == 4 && index == vmas.size())
      vmas.push_back(vma);
  }
  if (!out->image_base || vmas.empty()) return *failure = "no image base or sections in llvm-objdump's headers", false;
  for (uint64_t vma : vmas) out->section_rvas.push_back((uint32_t)(vma - out->image_base));

  if (!Disassemble(exe, "", out->image_base, &out->instructions))
    return *failure = "no instructions in llvm-objdump's disassembly", false;
  std::sort(out->instructions.begin(), out->instructions.end());
  return true;
}

// [SECTION] llvm-pdbutil

// "  136 | S_GPROC32 [size = 48] `function`": the kind and the name between the first backtick
// after the size and the last backtick of the line.
static bool ParseRecordLine(const std::string &line, std::string *kind, std::string *name) {
  size_t bar = line.find(" | ");
  if (bar == std::string::npos) return false;
  size_t kind_at = bar + 3, kind_end = line.find(' ', kind_at);
  if (kind_end == std::string::npos) return false;
  *kind = line.substr(kind_at, kind_end - kind_at);
  size_t size_end = line.find("] `", kind_end);
  size_t last = line.rfind('`');
  if (size_end == std::string::npos || last <= size_end + 2) return false;
  *name = line.substr(size_end + 3, last - size_end - 3);
  return true;
}

OracleDump RunOracle(const std::string &pdb_path) {
  OracleDump dump;
  CommandResult run = RunCommand("llvm-pdbutil-14 dump -symbols -globals " + Quote(pdb_path) + " 2>&1");
  if (run.exit_status != 0) {
    dump.failure = "llvm-pdbutil exit status " + std::to_string(run.exit_status);
    return dump;
  }
  std::vector<std::string> lines = SplitLines(run.output);
  enum { kNone, kGlobals, kSymbols } section = kNone;
  for (size_t i = 0; i < lines.size(); i++) {
    const std::string &line = lines[i];
    std::string trimmed = Trim(line);
    if (trimmed == "Global Symbols") section = kGlobals;
    else if (trimmed == "Symbols") section = kSymbols;
    // Its own errors start a line; a module without a stream is reported but is no failure.
    bool absent_module = trimmed.find("Module stream not present") != std::string::npos;
    if ((trimmed.rfind("Error", 0) == 0 && !absent_module) || trimmed.rfind("llvm-pdbutil:", 0) == 0) {
      dump.failure = "llvm-pdbutil: " + trimmed;
      return dump;
    }
    std::string kind, name;
    if (section == kNone || !ParseRecordLine(line, &kind, &name) || i + 1 >= lines.size()) continue;
    const std::string &detail = lines[i + 1];
    if (section == kSymbols && (kind == "S_GPROC32" || kind == "S_LPROC32")) {
      unsigned section_number = 0, offset = 0, size = 0;
      const char *addr = strstr(detail.c_str(), "addr = ");
      if (!addr || sscanf(addr, "addr = %u:%u, code size = %u", &section_number, &offset, &size) != 3) continue;
      dump.procedures.push_back(Format("%04X:%08X %08X ", section_number, offset, size) + name);
    } else if (section == kGlobals && (kind == "S_GDATA32" || kind == "S_LDATA32")) {
      unsigned type = 0, section_number = 0, offset = 0;
      const char *at = strstr(detail.c_str(), "type = ");
      const char *addr = strstr(detail.c_str(), "addr = ");
      bool no_type = at && strncmp(at, "type = <no type>", 16) == 0;  // type index 0
      if (!at || !addr || (!no_type && sscanf(at, "type = %x", &type) != 1) ||
          sscanf(addr, "addr = %u:%u", &section_number, &offset) != 2)
        continue;
      dump.globals.push_back(Format("%04X:%08X %08X ", section_number, offset, type) + name);
    }
  }
  dump.ok = true;
  return dump;
}

std::string DescribeDifference(const std::vector<std::string> &ours, const std::vector<std::string> &oracle,
                               const std::string &oracle_name) {
  if (ours == oracle) return "";
  std::string text = "ours " + std::to_string(ours.size()) + " lines, " + oracle_name + " " + std::to_string(oracle.size());
  std::multiset<std::string> a(ours.begin(), ours.end()), b(oracle.begin(), oracle.end());
  int shown = 0;
  for (auto &line : a)
    if (b.count(line) < a.count(line) && shown++ < 5) text += "\n  only ours: " + line;
  for (auto &line : b)
    if (a.count(line) < b.count(line) && shown++ < 10) text += "\n  only " + oracle_name + ": " + line;
  if (!shown) {
    for (size_t i = 0; i < std::min(ours.size(), oracle.size()); i++)
      if (ours[i] != oracle[i]) {
        text += "\n  order differs at line " + std::to_string(i) + ": " + ours[i] + " / " + oracle[i];
        break;
      }
  }
  return text;
}

// One block of `dump -l`: "  SSSS:START-END, line/addr entries = N" under a file line, then
// "LINE ADDRESS [!]" triples. The raw line records become line entries as the reader merges them:
// a line at the address of the previous entry replaces its number, a repeated number extends it,
// and the last entry runs to the end of the subsection.
static void AddBlock(const std::string &path, unsigned section, unsigned end,
                     const std::vector<std::pair<uint32_t, uint32_t>> &raw, std::vector<std::string> *out) {
  struct Entry {
    uint32_t line, offset, length;
  };
  std::vector<Entry> entries;
  for (auto &[line, address] : raw) {
    if (!entries.empty()) {
      Entry &previous = entries.back();
      if (previous.offset == address) {
        previous.line = line;
        continue;
      }
      if (previous.line == line) continue;
      previous.length = address - previous.offset;
    }
    entries.push_back({line, address, 0});
  }
  if (!entries.empty()) entries.back().length = end - entries.back().offset;
  for (const Entry &e : entries) out->push_back(Format("%04X:%08X %08X %u ", section, e.offset, e.length, e.line) + path);
}

LineBlockDump RunLineBlockOracle(const std::string &pdb_path) {
  LineBlockDump dump;
  CommandResult run = RunCommand("llvm-pdbutil-14 dump -l " + Quote(pdb_path) + " 2>&1");
  if (run.exit_status != 0) {
    dump.failure = "llvm-pdbutil exit status " + std::to_string(run.exit_status);
    return dump;
  }
  std::string path;
  bool stale = false;  // llvm-pdbutil repeats an earlier module's lines for modules without any
  bool in_block = false;
  LineBlock block;
  auto flush = [&] {
    if (in_block && !stale) dump.blocks.push_back(block);
    in_block = false;
    block.raw.clear();
  };
  for (const std::string &line : SplitLines(run.output)) {
    std::string trimmed = Trim(line);
    if (trimmed.rfind("Error", 0) == 0 || trimmed.rfind("llvm-pdbutil:", 0) == 0) {
      dump.failure = "llvm-pdbutil: " + trimmed;
      return dump;
    }
    if (trimmed.empty() || trimmed.rfind("Mod ", 0) == 0) {
      flush();
      continue;
    }
    unsigned s = 0, b = 0, e = 0;
    if (trimmed.find(" entries = ") != std::string::npos && sscanf(trimmed.c_str(), "%x:%x-%x, ", &s, &b, &e) == 3) {
      flush();
      block.path = path;
      block.section = s, block.start = b, block.end = e;
      in_block = true;
      continue;
    }
    if (in_block) {
      // Pairs "LINE ADDRESS", with "!" after statements; the two special line numbers are printed
      // as ASI (always step into, 0xFEEFEE) and NSI (never step into, 0xF00F00).
      const char *p = trimmed.c_str();
      char word[16];
      unsigned address;
      int used;
      while (sscanf(p, "%15s %x%n", word, &address, &used) == 2) {
        uint32_t number = strcmp(word, "ASI") == 0   ? 0xFEEFEE
                          : strcmp(word, "NSI") == 0 ? 0xF00F00
                                                     : (uint32_t)atoi(word);
        block.raw.push_back({number, address});
        p += used;
        while (*p == ' ' || *p == '!') p++;
      }
      continue;
    }
    if (trimmed.rfind("(unknown file name offset", 0) == 0) {
      stale = true;
      continue;
    }
    size_t paren = trimmed.rfind(" (");
    if (paren != std::string::npos && trimmed.back() == ')') {
      path = trimmed.substr(0, paren);
      stale = false;
    }
  }
  flush();
  dump.ok = true;
  return dump;
}

LineDump RunLineOracle(const std::string &pdb_path) {
  LineDump dump;
  LineBlockDump blocks = RunLineBlockOracle(pdb_path);
  dump.failure = blocks.failure;
  if (!blocks.ok) return dump;
  for (const LineBlock &b : blocks.blocks) AddBlock(b.path, b.section, b.end, b.raw, &dump.lines);
  dump.ok = true;
  return dump;
}

// Ours come by section and offset; those at one address may come in any order, so both sides are
// compared sorted.
static void ExpectSameByAddress(std::vector<std::string> ours, std::vector<std::string> oracle, const char *what) {
  EXPECT_TRUE(std::is_sorted(ours.begin(), ours.end(), [](const std::string &a, const std::string &b) {
    return a.compare(0, 13, b, 0, 13) < 0;
  })) << what << " by section and offset";
  std::sort(ours.begin(), ours.end());
  std::sort(oracle.begin(), oracle.end());
  EXPECT_EQ(DescribeDifference(ours, oracle), "") << what;
}

bool ExpectAgreesWithLlvmPdbutil(const std::string &pdb, std::string *oracle_failure) {
  OracleDump oracle = RunOracle(pdb);
  *oracle_failure = oracle.failure;
  if (!oracle.ok) return false;
  CommandResult procs = PdbTool({"procs", pdb}), globals = PdbTool({"globals", pdb}), lines = PdbTool({"lines", pdb});
  EXPECT_EQ(procs.exit_status + globals.exit_status + lines.exit_status, 0);
  ExpectSameByAddress(SplitLines(procs.output), oracle.procedures, "procedures");
  EXPECT_EQ(DescribeDifference(SplitLines(globals.output), oracle.globals), "") << "globals";
  LineDump line_oracle = RunLineOracle(pdb);
  EXPECT_TRUE(line_oracle.ok) << line_oracle.failure;
  ExpectSameByAddress(SplitLines(lines.output), line_oracle.lines, "line entries");
  return true;
}
