// The test programs' PDBs and our own programs' PDBs, read by ktrn-pdb and by llvm-pdbutil: the
// procedures and data globals must agree exactly; the name lookups must find every one of them.
#include <dirent.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <set>

#include "test_files.h"
#include "oracle.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_file.h"

namespace {

const std::string kTargetsDir = KTRN_TARGETS_DIR;
const std::string kTool = KTRN_PDB_TOOL;

bool Exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

std::vector<std::string> ToolLines(const std::string &command, const std::string &pdb, int *status,
                                   const std::string &argument = "") {
  std::string line = Quote(kTool) + " " + command + " " + Quote(pdb);
  if (!argument.empty()) line += " " + Quote(argument);
  CommandResult r = RunCommand(line);
  *status = r.exit_status;
  return SplitLines(r.output);
}

// Line entries: ours come by section and offset; llvm-pdbutil prints them module by module, so
// both sides are compared sorted.
void ExpectLinesAgree(const std::string &pdb) {
  LineDump oracle = RunLineOracle(pdb);
  ASSERT_TRUE(oracle.ok) << oracle.failure;
  int status = 0;
  std::vector<std::string> lines = ToolLines("lines", pdb, &status);
  ASSERT_EQ(status, 0);
  EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end(), [](const std::string &a, const std::string &b) {
    return a.compare(0, 13, b, 0, 13) < 0;
  })) << "line entries by section and offset";
  std::sort(lines.begin(), lines.end());
  std::sort(oracle.lines.begin(), oracle.lines.end());
  EXPECT_EQ(DescribeDifference(lines, oracle.lines), "");
}

// Procedures: ours come by address; procedures at the same address may come in any order, so
// both sides are compared sorted. Globals: exactly, in the order of the hash records.
void ExpectAgreesWithOracle(const std::string &pdb) {
  SCOPED_TRACE(pdb);
  OracleDump oracle = RunOracle(pdb);
  ASSERT_TRUE(oracle.ok) << oracle.failure;
  int status = 0;
  std::vector<std::string> procs = ToolLines("procs", pdb, &status);
  ASSERT_EQ(status, 0);
  EXPECT_TRUE(std::is_sorted(procs.begin(), procs.end(), [](const std::string &a, const std::string &b) {
    return a.compare(0, 13, b, 0, 13) < 0;
  })) << "procedures by section and offset";
  std::sort(procs.begin(), procs.end());
  std::sort(oracle.procedures.begin(), oracle.procedures.end());
  EXPECT_EQ(DescribeDifference(procs, oracle.procedures), "");
  std::vector<std::string> globals = ToolLines("globals", pdb, &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(DescribeDifference(globals, oracle.globals), "");
  ExpectLinesAgree(pdb);
}

std::string TargetPdb(const char *name) { return kTargetsDir + "/" + name + ".pdb"; }
std::string OwnBinPdb(const char *name) { return kTargetsDir + "/../../bin/" + name + ".pdb"; }

struct InProcess {
  SymbolArena arena = {};
  PdbFile pdb = {};
  PdbSummary summary = {};
  int status = -1;
  explicit InProcess(const std::string &path) {
    CodeViewIdentity none = {};
    status = PdbOpen(&arena, &none, path.c_str(), true, &pdb, &summary);
  }
  ~InProcess() {
    MsfClose(&pdb.msf);
    SymbolArenaRelease(&arena);
  }
};

}  // namespace

TEST(OracleTargets, TheTargetsDirectoryIsConfigured) {
  ASSERT_FALSE(kTargetsDir.empty()) << "configure the host build with -DKTRN_TARGETS_DIR=<windows build>/tests/targets";
  ASSERT_TRUE(Exists(kTargetsDir)) << kTargetsDir << " is missing: build the Windows tree first";
}

TEST(OracleTargets, TestProgramsAgreeWithLlvmPdbutil) {
  ASSERT_FALSE(kTargetsDir.empty());
  for (const char *name : {"sym_c", "sym_cpp"}) ASSERT_TRUE(Exists(TargetPdb(name))) << TargetPdb(name);
  // Every test program's PDB, those of other areas included.
  std::vector<std::string> pdbs = FilesIn(kTargetsDir, ".pdb");
  for (const std::string &pdb : pdbs) ExpectAgreesWithOracle(pdb);
  EXPECT_GE(pdbs.size(), 2u);
}

// kestrune.exe's own PDB (the largest program we build) and ktrn-pdb.exe's, beside them in the
// Windows build's bin folder.
TEST(OracleTargets, OwnProgramsAgreeWithLlvmPdbutil) {
  ASSERT_FALSE(kTargetsDir.empty());
  for (const char *name : {"kestrune", "ktrn-pdb"}) {
    std::string pdb = OwnBinPdb(name);
    ASSERT_TRUE(Exists(pdb)) << pdb << " is missing: build " << name << ".exe in the Windows tree";
    ExpectAgreesWithOracle(pdb);
  }
}

// What the test programs were written to contain.
TEST(OracleTargets, TheTestProgramsHoldWhatTheyWereWrittenFor) {
  ASSERT_FALSE(kTargetsDir.empty());
  InProcess c(TargetPdb("sym_c"));
  ASSERT_EQ(c.status, kPdbOk);
  const PdbGlobals &g = c.pdb.globals;
  int counters = 0;
  for (const PdbDataEntry *e = PdbFindData(&g, "counter", nullptr); e; e = PdbFindData(&g, "counter", e)) counters++;
  EXPECT_EQ(counters, 3) << "file statics of the same name in three modules";
  EXPECT_TRUE(PdbFindData(&g, "gr\xC3\xB6\xC3\x9F" "e", nullptr)) << "UTF-8 identifier";
  EXPECT_TRUE(PdbFindThreadData(&g, "t_depth"));
  EXPECT_TRUE(PdbFindThreadData(&g, "t_util_calls"));
  EXPECT_TRUE(PdbFindUdt(&g, "PointAlias"));
  int helpers = 0;
  for (const PdbProcScope *p = PdbFindProcedure(&c.pdb.scopes, "Helper", nullptr); p;
       p = PdbFindProcedure(&c.pdb.scopes, "Helper", p))
    helpers++;
  EXPECT_EQ(helpers, 2) << "static functions of the same name in two modules";
  const PdbProcScope *nested = PdbFindProcedure(&c.pdb.scopes, "Nested", nullptr);
  ASSERT_TRUE(nested);
  EXPECT_GE(nested->block_count, 2u);
  const PdbProcScope *more = PdbFindProcedure(&c.pdb.scopes, "MoreCompute", nullptr);
  ASSERT_TRUE(more);
  ASSERT_EQ(more->block_count, 2u);
  EXPECT_EQ(c.pdb.scopes.blocks[more->first_block + 1].parent_block, more->first_block) << "nested block";

  InProcess cpp(TargetPdb("sym_cpp"));
  ASSERT_EQ(cpp.status, kPdbOk);
  EXPECT_TRUE(PdbFindConstant(&cpp.pdb.globals, "app::kMaxFrames"));
  EXPECT_TRUE(PdbFindData(&cpp.pdb.globals, "shapes::Shape::s_created", nullptr));
  EXPECT_TRUE(PdbFindThreadData(&cpp.pdb.globals, "app::t_frame_local"));
  EXPECT_TRUE(PdbFindProcedure(&cpp.pdb.scopes, "shapes::Circle::Area", nullptr));

  int status = 0;
  std::vector<std::string> found = ToolLines("find", TargetPdb("sym_c"), &status, "counter");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(found.size(), 3u);
  ToolLines("find", TargetPdb("sym_c"), &status, "no_such_name");
  EXPECT_EQ(status, 1);
}

// Every procedure and data global that llvm-pdbutil lists is found through the name tables, with
// the same address (and type for data).
TEST(OracleTargets, LookupsFindEveryListedName) {
  ASSERT_FALSE(kTargetsDir.empty());
  for (std::string pdb : {TargetPdb("sym_c"), TargetPdb("sym_cpp"), OwnBinPdb("ktrn-pdb")}) {
    SCOPED_TRACE(pdb);
    OracleDump oracle = RunOracle(pdb);
    ASSERT_TRUE(oracle.ok) << oracle.failure;
    InProcess loaded(pdb);
    ASSERT_EQ(loaded.status, kPdbOk);
    for (const std::string &line : oracle.globals) {
      unsigned section, offset, type;
      ASSERT_EQ(sscanf(line.c_str(), "%x:%x %x", &section, &offset, &type), 3);
      std::string name = line.substr(23);
      bool hit = false;
      for (const PdbDataEntry *e = PdbFindData(&loaded.pdb.globals, name.c_str(), nullptr); e && !hit;
           e = PdbFindData(&loaded.pdb.globals, name.c_str(), e))
        hit = e->section_minus_1 + 1u == section && e->offset == offset && e->type_index == type;
      EXPECT_TRUE(hit) << line;
    }
    for (const std::string &line : oracle.procedures) {
      unsigned section, offset, length;
      ASSERT_EQ(sscanf(line.c_str(), "%x:%x %x", &section, &offset, &length), 3);
      std::string name = line.substr(23);
      bool hit = false;
      for (const PdbProcScope *p = PdbFindProcedure(&loaded.pdb.scopes, name.c_str(), nullptr); p && !hit;
           p = PdbFindProcedure(&loaded.pdb.scopes, name.c_str(), p)) {
        u32 at = (u32)(p->record[32] | p->record[33] << 8 | p->record[34] << 16 | (u32)p->record[35] << 24);
        hit = at == offset && (p->record[36] | p->record[37] << 8) == (int)section;
      }
      EXPECT_TRUE(hit) << line;
    }
  }
}

// Bad usage and files that do not load: one line on stderr, a non-zero exit, nothing on stdout
// but the status line of info.
TEST(KtrnPdbTool, UsageAndLoadFailures) {
  std::string pdb = kTargetsDir.empty() ? std::string("/nonexistent.pdb") : TargetPdb("sym_c");
  std::string missing = "/nonexistent/dir/x.pdb";
  std::string not_a_pdb = std::string(KTRN_SOURCE_DIR) + "/tests/host/symbols/oracle.h";
  struct {
    std::string args;
    int status;
    const char *stdout_text;
  } cases[] = {
      {"", 2, ""},
      {"frobnicate " + Quote(pdb), 2, ""},
      {"procs", 2, ""},
      {"find " + Quote(pdb), 2, ""},
      {"procs " + Quote(missing), 3, ""},
      {"globals " + Quote(not_a_pdb), 3, ""},
      {"info " + Quote(missing), 3, "status: 2\n"},
      {"info " + Quote(not_a_pdb), 3, "status: 13\n"},
  };
  for (auto &c : cases) {
    CommandResult out = RunCommand(Quote(kTool) + " " + c.args + " 2>/dev/null");
    EXPECT_EQ(out.exit_status, c.status) << c.args;
    EXPECT_EQ(out.output, c.stdout_text) << c.args;
    CommandResult err = RunCommand(Quote(kTool) + " " + c.args + " 2>&1 >/dev/null");
    EXPECT_GE(err.output.size(), 10u) << c.args;
    if (c.status == 3) EXPECT_EQ(std::count(err.output.begin(), err.output.end(), '\n'), 1) << c.args;
  }
}

// info reports what the loader built.
TEST(KtrnPdbTool, InfoMatchesTheLoadedFile) {
  ASSERT_FALSE(kTargetsDir.empty());
  InProcess loaded(TargetPdb("sym_cpp"));
  ASSERT_EQ(loaded.status, kPdbOk);
  int status = 0;
  std::vector<std::string> lines = ToolLines("info", TargetPdb("sym_cpp"), &status);
  ASSERT_EQ(status, 0);
  const PdbGlobals &g = loaded.pdb.globals;
  std::vector<std::string> expected = {
      "status: 0",
      "modules: " + std::to_string(loaded.summary.module_count),
      "procedures: " + std::to_string(loaded.summary.procedure_count),
      "blocks: " + std::to_string(loaded.summary.block_count),
      "lines: " + std::to_string(loaded.summary.line_count),
      "source_files: " + std::to_string(loaded.pdb.source_files.used),
      "globals: " + std::to_string(g.data_count),
      "constants: " + std::to_string(g.constant_count),
      "udts: " + std::to_string(g.udt_count),
      "threaddata: " + std::to_string(g.thread_count),
      "contributions: " + std::to_string(loaded.pdb.modules.contribution_count),
  };
  ASSERT_EQ(lines.size(), expected.size() + 2);
  for (size_t i = 0; i < expected.size(); i++) EXPECT_EQ(lines[i], expected[i]);
  EXPECT_EQ(lines[expected.size()].rfind("arena_bytes: ", 0), 0u);
  EXPECT_EQ(lines[expected.size() + 1].rfind("load_ms: ", 0), 0u);
}

// For every file of the line tables and every line from 1 to one past its last line with code,
// the file-and-line search lands on the first line with code among the next ten (llvm-pdbutil's
// entries decide which lines have code, and where); ktrn-pdb line2addr prints the same for a few.
TEST(OracleTargets, LineToAddressFindsTheNextLineWithCode) {
  ASSERT_FALSE(kTargetsDir.empty());
  for (std::string pdb : {TargetPdb("sym_c"), TargetPdb("sym_cpp")}) {
    SCOPED_TRACE(pdb);
    LineDump oracle = RunLineOracle(pdb);
    ASSERT_TRUE(oracle.ok) << oracle.failure;
    // path -> line -> the "SSSS:OOOOOOOO" of each entry of that line
    std::map<std::string, std::map<unsigned, std::set<std::string>>> code;
    for (const std::string &line : oracle.lines) {
      unsigned number = 0;
      int path_at = 0;
      ASSERT_EQ(sscanf(line.c_str() + 23, "%u %n", &number, &path_at), 1) << line;
      code[line.substr(23 + path_at)][number].insert(line.substr(0, 13));
    }
    ASSERT_GE(code.size(), 2u);
    InProcess loaded(pdb);
    ASSERT_EQ(loaded.status, kPdbOk);
    int tool_checks = 0;
    for (auto &[path, lines] : code) {
      u32 file = PdbFindSourceFile(&loaded.pdb.source_files, path.c_str());
      ASSERT_NE(file, 0u) << path;
      unsigned last = lines.rbegin()->first;
      for (unsigned wanted = 1; wanted <= last + 1; wanted++) {
        auto next = lines.lower_bound(wanted);
        bool expect_found = next != lines.end() && next->first <= wanted + 9;
        const PdbLineEntry *e = PdbAddressOfLine(&loaded.pdb.lines, file, wanted);
        ASSERT_EQ(e != nullptr, expect_found) << path << ":" << wanted;
        std::string expected = "none";
        if (e) {
          char at[32];
          snprintf(at, sizeof(at), "%04X:%08X", e->section, e->offset);
          EXPECT_EQ(e->line, next->first) << path << ":" << wanted;
          EXPECT_TRUE(next->second.count(at)) << path << ":" << wanted << " at " << at;
          expected = std::string(at) + " " + std::to_string(e->line);
        }
        if (wanted % 7 == 0 && tool_checks < 12) {
          tool_checks++;
          std::string command = Quote(kTool) + " line2addr " + Quote(pdb) + " " + Quote(path) + " " +
                                std::to_string(wanted);
          CommandResult r = RunCommand(command);
          EXPECT_EQ(SplitLines(r.output), std::vector<std::string>{expected}) << command;
          EXPECT_EQ(r.exit_status, e ? 0 : 1) << command;
        }
      }
    }
    EXPECT_GT(tool_checks, 4);
  }
}
