// ktrn-pdb locals against llvm-pdbutil: the scopes, variables and def ranges that `llvm-pdbutil
// dump -symbols` prints are read back here into a scope tree, and at every address where some
// variable's place changes (procedure and block starts, def-range starts and ends, gap bounds)
// the variables of each frame that ktrn-pdb lists must be those the tree holds there, in the same
// order, each in the place its def ranges give. Type names come from the library (they are
// checked against llvm-pdbutil elsewhere); everything else comes from llvm-pdbutil's text.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <set>

#include "oracle.h"
#include "symbols/pdb_type_records.h"
#include "symbols/type_names.h"

namespace {

// [SECTION] llvm-pdbutil's records

struct Record {
  uint32_t offset = 0, size = 0;
  std::string kind, name, text;  // text: the lines after the record's first, joined by ", "
};

// The value after "key = " up to the next ',' (or the end).
std::string Field(const std::string &text, const std::string &key) {
  size_t at = text.find(key + " = ");
  if (at == std::string::npos) return "";
  at += key.size() + 3;
  size_t end = text.find(',', at);
  std::string value = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
  while (!value.empty() && value.back() == ' ') value.pop_back();
  return value;
}

long long Number(const std::string &text, const std::string &key) { return strtoll(Field(text, key).c_str(), nullptr, 0); }

// Modules in order, each its records in order.
std::vector<std::vector<Record>> ReadSymbols(const std::string &pdb, std::string *failure) {
  std::vector<std::vector<Record>> modules;
  CommandResult run = RunCommand("llvm-pdbutil-14 dump -symbols " + Quote(pdb) + " 2>&1");
  if (run.exit_status != 0) return *failure = "llvm-pdbutil failed", modules;
  for (const std::string &line : SplitLines(run.output)) {
    if (line.rfind("Mod ", 0) == 0 || line.find("  Mod ") == 0) {
      modules.emplace_back();
      continue;
    }
    unsigned offset;
    char kind[64];
    size_t bar = line.find(" | S_");
    if (bar != std::string::npos && sscanf(line.c_str(), " %u | %63s", &offset, kind) == 2 && !modules.empty()) {
      Record r;
      r.offset = offset, r.kind = kind;
      const char *size = strstr(line.c_str(), "[size = ");
      if (size) r.size = (uint32_t)atoi(size + 8);
      size_t open = line.find('`'), close = line.rfind('`');
      if (open != std::string::npos && close > open) r.name = line.substr(open + 1, close - open - 1);
      size_t size_end = line.find("] ");
      if (size_end != std::string::npos && open == std::string::npos) r.text = line.substr(size_end + 2);
      modules.back().push_back(r);
    } else if (!modules.empty() && !modules.back().empty()) {
      size_t first = line.find_first_not_of(' ');
      if (first != std::string::npos) modules.back().back().text += ", " + line.substr(first);
    }
  }
  return modules;
}

// [SECTION] The scope tree

struct DefRange {
  std::string kind, reg;
  long long offset = 0;
  unsigned section = 0, start = 0, length = 0, parent_offset = 0;
  bool full_scope = false, part = false;
  bool gaps_complete = true;  // false: llvm-pdbutil printed fewer gaps than the record holds
  std::vector<std::pair<unsigned, unsigned>> gaps;
};

struct Variable {
  Record record;
  std::vector<DefRange> ranges;
};

struct Scope {
  std::string kind;
  uint32_t record = 0;
  unsigned section = 0, start = 0, size = 0;  // procedures and blocks
  int parent = -1;
  std::vector<int> children;
  std::vector<Variable> variables;
  std::string local_fp, param_fp;  // procedures
  uint32_t type = 0;               // procedures
};

struct ModuleScopes {
  std::vector<Scope> scopes;
  std::map<uint32_t, int> by_record;
  std::vector<int> procedures;
};

// "range = [0001:1339,+213)" and "gaps = [(17,32), (5,3)]".
void ReadRange(const std::string &text, DefRange *d) {
  size_t at = text.find("range = [");
  if (at == std::string::npos) at = text.find("range start = ");
  if (text.compare(at, 9, "range = [") == 0) {
    sscanf(text.c_str() + at, "range = [%u:%u,+%u)", &d->section, &d->start, &d->length);
  } else {
    sscanf(text.c_str() + at, "range start = %u:%u, length = %u", &d->section, &d->start, &d->length);
  }
  size_t gaps = text.find("gaps = [");
  for (size_t p = gaps == std::string::npos ? std::string::npos : text.find('(', gaps);
       p != std::string::npos && p < text.find(']', gaps); p = text.find('(', p + 1)) {
    unsigned start, length;
    if (sscanf(text.c_str() + p, "(%u,%u)", &start, &length) == 2) d->gaps.push_back({start, length});
  }
}

DefRange ReadDefRange(const Record &r) {
  DefRange d;
  d.kind = r.kind;
  d.reg = Field(r.text, "register");
  if (r.kind == "S_DEFRANGE_FRAMEPOINTER_REL_FULL_SCOPE") {
    d.full_scope = true;
    d.offset = Number(r.text, "offset");
    return d;
  }
  ReadRange(r.text, &d);
  d.offset = Number(r.text, "offset");
  d.parent_offset = (unsigned)Number(r.text, "offset in parent");
  // llvm-pdbutil 14 prints only some of the gaps of long MSVC records; where it left gaps out,
  // its text cannot tell whether an address lies in one.
  unsigned fixed = r.kind == "S_DEFRANGE_SUBFIELD_REGISTER" || r.kind == "S_DEFRANGE_REGISTER_REL" ? 20 : 16;
  d.gaps_complete = r.size == fixed + 4 * d.gaps.size();
  d.part = r.kind == "S_DEFRANGE_SUBFIELD_REGISTER" ||
           (r.kind == "S_DEFRANGE_REGISTER_REL" && Field(r.text, "has spilled udt") == "true");
  return d;
}

bool IsVariable(const std::string &kind) {
  static const std::set<std::string> kinds = {"S_LOCAL",   "S_FILESTATIC", "S_REGREL32", "S_BPREL32",
                                              "S_REGISTER", "S_LDATA32",   "S_LTHREAD32", "S_CONSTANT"};
  return kinds.count(kind) != 0;
}

ModuleScopes BuildScopes(const std::vector<Record> &records) {
  ModuleScopes m;
  std::vector<int> open;
  for (const Record &r : records) {
    bool procedure = r.kind == "S_GPROC32" || r.kind == "S_LPROC32";
    bool block = r.kind == "S_BLOCK32", site = r.kind == "S_INLINESITE" || r.kind == "S_INLINESITE2";
    if (procedure || ((block || site) && !open.empty())) {
      Scope s;
      s.kind = r.kind, s.record = r.offset;
      s.parent = open.empty() ? -1 : open.back();
      if (!site) {
        sscanf(strstr(r.text.c_str(), "addr = ") ? strstr(r.text.c_str(), "addr = ") : "", "addr = %u:%u", &s.section,
               &s.start);
        s.size = (unsigned)Number(r.text, "code size");
      }
      if (procedure) s.type = (uint32_t)strtoul(Field(r.text, "type").c_str() + 1, nullptr, 16);
      int index = (int)m.scopes.size();
      m.scopes.push_back(s);
      m.by_record[r.offset] = index;
      if (s.parent >= 0) m.scopes[s.parent].children.push_back(index);
      if (procedure) m.procedures.push_back(index);
      open.push_back(index);
      continue;
    }
    if (open.empty()) continue;
    Scope &top = m.scopes[open.back()];
    bool top_is_site = top.kind == "S_INLINESITE" || top.kind == "S_INLINESITE2";
    if ((r.kind == "S_END" && !top_is_site) || (r.kind == "S_INLINESITE_END" && top_is_site)) {
      open.pop_back();
    } else if (r.kind == "S_FRAMEPROC") {
      top.local_fp = Field(r.text, "local fp reg"), top.param_fp = Field(r.text, "param fp reg");
    } else if (IsVariable(r.kind)) {
      top.variables.push_back({r, {}});
    } else if (r.kind.rfind("S_DEFRANGE", 0) == 0 && !top.variables.empty() &&
               (top.variables.back().record.kind == "S_LOCAL" || top.variables.back().record.kind == "S_FILESTATIC")) {
      top.variables.back().ranges.push_back(ReadDefRange(r));
    }
  }
  return m;
}

// [SECTION] Where a variable is, as llvm-pdbutil's text says

std::string RegisterName(std::string name, bool x86) {
  if (name == "NONE" || name.empty()) return x86 ? "esp" : "rsp";  // no frame register: the stack pointer
  unsigned number;
  if (sscanf(name.c_str(), "unknown (%u)", &number) == 1) return "reg#" + std::to_string(number);
  for (char &c : name) c = (char)tolower((unsigned char)c);
  if (name.size() > 2 && name[0] == 'r' && isdigit((unsigned char)name[1]) && name.back() == 'b') name.back() = 'l';
  if (name.rfind("amd64_", 0) == 0) name = name.substr(6);
  return name;
}

std::string Relative(const std::string &reg, long long offset) {
  char text[64];
  snprintf(text, sizeof(text), "[%s%c0x%llX]", reg.c_str(), offset < 0 ? '-' : '+', offset < 0 ? -offset : offset);
  return text;
}

const char *const kUnknownStorage = "?";

bool Covers(const DefRange &d, unsigned section, unsigned offset) {
  if (d.section != section || offset < d.start || offset - d.start >= d.length) return false;
  for (auto &[start, length] : d.gaps)
    if (offset - d.start >= start && offset - d.start - start < length) return false;
  return true;
}

struct Context {
  const PdbTypes *types;
  bool x86;
};

std::string Storage(const Context &c, const Scope &procedure, const Variable &v, bool parameter, unsigned section,
                    unsigned offset) {
  const Record &r = v.record;
  char text[64];
  // llvm-pdbutil prints the displacement of S_REGREL32 unsigned; it is a signed 32-bit number.
  if (r.kind == "S_REGREL32")
    return Relative(RegisterName(Field(r.text, "register"), c.x86), (int32_t)Number(r.text, "offset"));
  if (r.kind == "S_BPREL32") return "frame " + Relative(c.x86 ? "ebp" : "rbp", Number(r.text, "offset"));
  if (r.kind == "S_REGISTER") return "reg " + RegisterName(Field(r.text, "register"), c.x86);
  if (r.kind == "S_LDATA32" || r.kind == "S_LTHREAD32") {
    unsigned s = 0, o = 0;
    const char *addr = strstr(r.text.c_str(), "addr = ");
    if (addr) sscanf(addr, "addr = %u:%u", &s, &o);
    snprintf(text, sizeof(text), "%s %04X:%08X", r.kind == "S_LDATA32" ? "static" : "tls", s, o);
    return text;
  }
  if (r.kind == "S_CONSTANT") return "const " + Field(r.text, "value");
  if (Field(r.text, "flags").find("optimized away") != std::string::npos) return "unavailable";
  std::string frame_register = RegisterName(parameter ? procedure.param_fp : procedure.local_fp, c.x86);
  std::string whole;
  std::vector<std::pair<unsigned, std::string>> parts;
  for (const DefRange &d : v.ranges) {
    if (!d.full_scope && !Covers(d, section, offset)) continue;
    if (!d.gaps_complete) return kUnknownStorage;
    std::string place;
    if (d.kind == "S_DEFRANGE_FRAMEPOINTER_REL" || d.full_scope) place = "frame " + Relative(frame_register, d.offset);
    else if (d.kind == "S_DEFRANGE_REGISTER" || d.kind == "S_DEFRANGE_SUBFIELD_REGISTER") place = RegisterName(d.reg, c.x86);
    else if (d.kind == "S_DEFRANGE_REGISTER_REL") place = Relative(RegisterName(d.reg, c.x86), d.offset);
    else continue;
    if (d.part) {
      bool known = false;
      for (auto &p : parts) known = known || p.first == d.parent_offset;
      if (!known) parts.push_back({d.parent_offset, place});
    } else if (whole.empty()) {
      whole = d.kind == "S_DEFRANGE_REGISTER" ? "reg " + place : place;
    }
  }
  if (!whole.empty()) return whole;
  if (parts.empty()) return "unavailable";
  std::string all = "parts";
  for (auto &[at, place] : parts) all += " " + place + "@" + std::to_string(at);
  return all;
}

// Records without a parameter flag list the procedure's parameters first (`this` first for a method).
unsigned PositionalParameters(const PdbTypes *types, uint32_t type) {
  TypeRecord t;
  if (!PdbDecodeType(types, type, &t)) return 0;
  if (t.leaf == kLF_PROCEDURE) return t.member_count;
  if (t.leaf == kLF_MFUNCTION) return t.member_count + (t.this_type ? 1 : 0);
  return 0;
}

// "type=0x0074 (int)" for S_LOCAL, "type = 0x0074 (int)" for the other kinds.
uint32_t TypeIndexOf(const Record &r) {
  size_t at = r.text.find("type");
  if (at == std::string::npos) return 0;
  at = r.text.find_first_not_of(" =", at + 4);
  return r.text.compare(at, 2, "0x") == 0 ? (uint32_t)strtoul(r.text.c_str() + at, nullptr, 16) : 0;
}

bool IsSite(const Scope &s) { return s.kind == "S_INLINESITE" || s.kind == "S_INLINESITE2"; }

bool Holds(const Scope &s, unsigned section, unsigned offset) {
  return s.section == section && offset >= s.start && offset - s.start < s.size;
}

// The variable lines of the frame whose function opens at `root`: the blocks inside it that hold the
// address (not entering inline sites), innermost first, then the root itself.
std::vector<std::string> ExpectedFrame(const Context &c, const ModuleScopes &m, int root, int procedure,
                                       unsigned section, unsigned offset) {
  std::vector<int> chain = {root};
  for (bool deeper = true; deeper;) {
    deeper = false;
    for (int child : m.scopes[chain.back()].children)
      if (!IsSite(m.scopes[child]) && Holds(m.scopes[child], section, offset)) {
        chain.push_back(child);
        deeper = true;
        break;
      }
  }
  std::vector<std::string> lines;
  unsigned positional = PositionalParameters(c.types, m.scopes[procedure].type);
  std::vector<bool> procedure_parameters;
  for (const Variable &v : m.scopes[procedure].variables) {
    bool positional_kind = v.record.kind == "S_REGREL32" || v.record.kind == "S_BPREL32" || v.record.kind == "S_REGISTER";
    procedure_parameters.push_back(positional_kind && positional ? (positional--, true) : false);
  }
  static char type[4096];
  for (size_t k = chain.size(); k-- > 0;) {
    const Scope &s = m.scopes[chain[k]];
    for (size_t i = 0; i < s.variables.size(); i++) {
      const Variable &v = s.variables[i];
      bool parameter = v.record.kind == "S_LOCAL" ? Field(v.record.text, "flags").find("param") != std::string::npos
                                                  : chain[k] == procedure && procedure_parameters[i];
      TypeNameFormat(c.types, TypeIndexOf(v.record), type, sizeof(type));
      lines.push_back(v.record.name + " | " + type + " | " + (parameter ? "param" : "local") + " | " +
                      Storage(c, m.scopes[procedure], v, parameter, section, offset));
    }
  }
  return lines;
}

// Addresses where some variable's place can change, within each procedure.
std::vector<std::pair<unsigned, unsigned>> QueryAddresses(const ModuleScopes &m) {
  std::set<std::pair<unsigned, unsigned>> at;
  for (int p : m.procedures) {
    const Scope &procedure = m.scopes[p];
    if (!procedure.size) continue;
    std::vector<int> work = {p};
    while (!work.empty()) {
      const Scope &s = m.scopes[work.back()];
      work.pop_back();
      for (int child : s.children) work.push_back(child);
      if (!IsSite(s)) at.insert({s.section, s.start});
      for (const Variable &v : s.variables)
        for (const DefRange &d : v.ranges) {
          if (d.full_scope) continue;
          std::vector<unsigned> points = {d.start, d.start + d.length - 1, d.start + d.length};
          for (auto &[start, length] : d.gaps) points.push_back(d.start + start), points.push_back(d.start + start + length);
          for (unsigned point : points)
            if (d.section == procedure.section && Holds(procedure, d.section, point)) at.insert({d.section, point});
        }
    }
  }
  return {at.begin(), at.end()};
}

// [SECTION] The comparison

struct Frame {
  unsigned module = 0, record = 0;
  std::vector<std::string> lines;
};

void ExpectLocalsAgree(const std::string &pdb_path, size_t most_addresses) {
  SCOPED_TRACE(pdb_path);
  std::string failure;
  std::vector<std::vector<Record>> modules = ReadSymbols(pdb_path, &failure);
  ASSERT_TRUE(failure.empty()) << failure;
  OpenedPdb opened(pdb_path);
  ASSERT_EQ(opened.status, kPdbOk);
  Context c = {&opened.pdb.types, opened.pdb.dbi.machine == 0x14C};

  std::vector<ModuleScopes> scopes;
  std::vector<std::string> queries;
  std::vector<unsigned> query_module;
  for (size_t i = 0; i < modules.size(); i++) {
    scopes.push_back(BuildScopes(modules[i]));
    for (auto &[section, offset] : QueryAddresses(scopes.back())) {
      char text[32];
      snprintf(text, sizeof(text), "%04X:%08X", section, offset);
      queries.push_back(text);
      query_module.push_back((unsigned)i);
    }
  }
  // A fixed sample of the largest files.
  if (queries.size() > most_addresses) {
    std::vector<std::string> sample;
    std::vector<unsigned> sample_module;
    for (size_t k = 0, i = 0; k < most_addresses; i = ++k * queries.size() / most_addresses)
      sample.push_back(queries[i]), sample_module.push_back(query_module[i]);
    queries.swap(sample), query_module.swap(sample_module);
  }
  ASSERT_FALSE(queries.empty());

  int differences = 0, variables = 0, frames_seen = 0, unknown_storage = 0;
  for (size_t first = 0; first < queries.size(); first += 400) {
    size_t last = std::min(queries.size(), first + 400);
    std::string addresses;
    for (size_t i = first; i < last; i++) addresses += " " + queries[i];
    CommandResult ours = PdbTool({"locals", pdb_path}, addresses);
    ASSERT_EQ(ours.exit_status, 0);
    // Group our lines: per address, its frames.
    std::map<std::string, std::vector<Frame>> by_address;
    std::string address;
    for (const std::string &line : SplitLines(ours.output)) {
      char text[16];
      unsigned frame, module, record;
      const char *paren = strstr(line.c_str(), " (module ");
      if (line.find(" | ") == std::string::npos && sscanf(line.c_str(), "%13s frame %u", text, &frame) == 2 && paren &&
          sscanf(paren, " (module %u record %u)", &module, &record) == 2) {
        address = text;
        by_address[address].push_back({module, record, {}});
      } else if (line.find(" | ") != std::string::npos && !address.empty()) {
        by_address[address].back().lines.push_back(line);
      }
    }
    for (size_t i = first; i < last; i++) {
      unsigned section = 0, offset = 0;
      sscanf(queries[i].c_str(), "%x:%x", &section, &offset);
      const std::vector<Frame> &frames = by_address[queries[i]];
      EXPECT_FALSE(frames.empty()) << queries[i] << ": no frames listed";
      for (const Frame &f : frames) {
        frames_seen++;
        ASSERT_LT(f.module, scopes.size());
        const ModuleScopes &m = scopes[f.module];
        auto root = m.by_record.find(f.record);
        ASSERT_NE(root, m.by_record.end()) << queries[i] << ": frame record " << f.record << " is no scope";
        int procedure = root->second;
        while (m.scopes[procedure].parent >= 0) procedure = m.scopes[procedure].parent;
        std::vector<std::string> expected = ExpectedFrame(c, m, root->second, procedure, section, offset);
        variables += (int)expected.size();
        bool same = f.lines.size() == expected.size();
        for (size_t k = 0; same && k < expected.size(); k++) {
          size_t tail = expected[k].size() - 1;
          bool unknown = expected[k].compare(tail, 1, kUnknownStorage) == 0 && expected[k].compare(tail - 3, 3, " | ") == 0;
          if (unknown) unknown_storage++;
          same = unknown ? f.lines[k].compare(0, tail, expected[k], 0, tail) == 0 : f.lines[k] == expected[k];
        }
        if (!same && differences++ < 10) {
          std::string ours_text, theirs_text;
          for (auto &l : f.lines) ours_text += "\n    " + l;
          for (auto &l : expected) theirs_text += "\n    " + l;
          ADD_FAILURE() << queries[i] << " record " << f.record << "\n  ours:" << ours_text << "\n  expected:" << theirs_text;
        }
      }
    }
  }
  EXPECT_EQ(differences, 0);
  printf("%s: %zu addresses, %d frames, %d variables (%d whose gaps llvm-pdbutil does not print in full)\n",
         pdb_path.c_str(), queries.size(), frames_seen, variables, unknown_storage);
}

}  // namespace

// The test programs: the frames program built by clang and clang-cl, unoptimised and optimised,
// and every other program the tests debug.
TEST(LocalsOracle, TestProgramsAgreeWithLlvmPdbutil) {
  ASSERT_FALSE(TargetsDir().empty());
  std::vector<std::string> pdbs = FilesIn(TargetsDir(), ".pdb");
  for (const char *name : {"frames_o0.pdb", "frames_o2.pdb", "frames_msvc_od.pdb", "frames_msvc_o2.pdb"})
    EXPECT_NE(std::find(pdbs.begin(), pdbs.end(), TargetFile(name)), pdbs.end()) << name;
  for (const std::string &pdb : pdbs) ExpectLocalsAgree(pdb, 4000);
}

// Our own optimised programs: a sample of the addresses of the largest.
TEST(LocalsOracle, OwnProgramsAgreeWithLlvmPdbutil) {
  ASSERT_FALSE(TargetsDir().empty());
  for (const char *name : {"kestrune.pdb", "ktrn-pdb.pdb"}) ExpectLocalsAgree(OwnProgramFile(name), 3000);
}

// PDBs written by MSVC (x64 and x86): S_REGREL32, S_BPREL32, S_REGISTER, full-scope frame ranges,
// thread-local statics and constants.
TEST(LocalsOracle, CorpusPdbsAgreeWithLlvmPdbutil) {
  for (const char *name : {"crash.pdb", "CrashWithException.pdb", "ds_basic32-min.pdb", "ds_dump_syms_regtest64.pdb",
                           "rz_pdb_exceptions-test.pdb", "rz_pdb_vs2019_cpp_override.pdb", "rz_pdb_Project1.pdb",
                           "rz_pe_microsoft_seh_tests_x64_xcpt4.pdb", "rz_pe_microsoft_seh_tests_x86_xcpt4.pdb",
                           "r2_r_bp.pdb", "r2_r_cons.pdb"})
    ExpectLocalsAgree(CorpusFile(name), 3000);
}
