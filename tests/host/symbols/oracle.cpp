#include "oracle.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include <algorithm>
#include <set>

static std::string Trim(const std::string &s) {
  size_t a = s.find_first_not_of(' '), b = s.find_last_not_of(' ');
  return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

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
    char text[64];
    if (section == kSymbols && (kind == "S_GPROC32" || kind == "S_LPROC32")) {
      unsigned section_number = 0, offset = 0, size = 0;
      const char *addr = strstr(detail.c_str(), "addr = ");
      if (!addr || sscanf(addr, "addr = %u:%u, code size = %u", &section_number, &offset, &size) != 3) continue;
      snprintf(text, sizeof(text), "%04X:%08X %08X ", section_number, offset, size);
      dump.procedures.push_back(text + name);
    } else if (section == kGlobals && (kind == "S_GDATA32" || kind == "S_LDATA32")) {
      unsigned type = 0, section_number = 0, offset = 0;
      const char *at = strstr(detail.c_str(), "type = ");
      const char *addr = strstr(detail.c_str(), "addr = ");
      bool no_type = at && strncmp(at, "type = <no type>", 16) == 0;  // type index 0
      if (!at || !addr || (!no_type && sscanf(at, "type = %x", &type) != 1) ||
          sscanf(addr, "addr = %u:%u", &section_number, &offset) != 2)
        continue;
      snprintf(text, sizeof(text), "%04X:%08X %08X ", section_number, offset, type);
      dump.globals.push_back(text + name);
    }
  }
  dump.ok = true;
  return dump;
}

std::string DescribeDifference(const std::vector<std::string> &ours, const std::vector<std::string> &oracle) {
  if (ours == oracle) return "";
  std::string text = "ours " + std::to_string(ours.size()) + " lines, llvm-pdbutil " + std::to_string(oracle.size());
  std::multiset<std::string> a(ours.begin(), ours.end()), b(oracle.begin(), oracle.end());
  int shown = 0;
  for (auto &line : a)
    if (b.count(line) < a.count(line) && shown++ < 5) text += "\n  only ours: " + line;
  for (auto &line : b)
    if (a.count(line) < b.count(line) && shown++ < 10) text += "\n  only llvm-pdbutil: " + line;
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
  char text[64];
  for (const Entry &e : entries) {
    snprintf(text, sizeof(text), "%04X:%08X %08X %u ", section, e.offset, e.length, e.line);
    out->push_back(text + path);
  }
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
