// The PDBs of the test programs, of our own programs and of the corpus, read by ktrn-pdb and by
// llvm-pdbutil: procedures, data globals and line entries must agree exactly, and the name and line
// lookups must find every one of them. Every file of the corpus, PDB or not, goes through PdbOpen in
// this process (sanitizers watch): it loads or fails with a PdbError, never crashes or hangs.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "oracle.h"

TEST(OracleTargets, TheTargetsDirectoryIsConfigured) {
  ASSERT_FALSE(TargetsDir().empty()) << "configure the host build with -DKTRN_TARGETS_DIR=<windows build>/tests/targets";
  ASSERT_TRUE(FileExists(TargetFile("sym_c.pdb"))) << TargetsDir() << " has no test programs: build the Windows tree";
}

// Every test program's PDB (other areas' too) and our own programs' (kestrune.exe, the largest
// program we build, and ktrn-pdb.exe) agree with llvm-pdbutil; so does every corpus PDB that loads,
// where llvm-pdbutil can dump it.
TEST(PdbOracle, ProceduresGlobalsAndLinesAgreeWithLlvmPdbutil) {
  std::vector<std::string> ours = FilesIn(TargetsDir(), ".pdb");
  ASSERT_GE(ours.size(), 2u);
  for (const char *name : {"kestrune.pdb", "ktrn-pdb.pdb"}) ours.push_back(OwnProgramFile(name));
  std::string failure;
  for (const std::string &pdb : ours) {
    SCOPED_TRACE(pdb);
    EXPECT_TRUE(ExpectAgreesWithLlvmPdbutil(pdb, &failure)) << failure;
  }
  int compared = 0, oracle_failed = 0;
  for (const std::string &pdb : CorpusFiles(".pdb")) {
    SCOPED_TRACE(pdb);
    if (OpenedPdb(pdb).status != kPdbOk) continue;
    if (ExpectAgreesWithLlvmPdbutil(pdb, &failure)) {
      compared++;
    } else {
      printf("  llvm-pdbutil cannot dump %s (%s): only loading is checked\n", pdb.c_str(), failure.c_str());
      oracle_failed++;
    }
  }
  printf("  corpus compared with llvm-pdbutil: %d files; llvm-pdbutil failed on %d\n", compared, oracle_failed);
  EXPECT_GE(compared, 30);
}

TEST(PdbCorpus, EveryFileLoadsOrFailsWithACode) {
  std::vector<std::string> files = CorpusFiles("");
  ASSERT_GE(files.size(), 50u) << "corpus at " << CorpusFile("");
  const int known[] = {kPdbOk, kPdbUnreadable, kPdbBadFormat, kPdbUnsupportedVersion, kPdbSignatureMismatch,
                       kPdbStreamMissing};
  int loaded = 0;
  for (const std::string &path : files) {
    OpenedPdb opened(path);
    EXPECT_NE(std::find(std::begin(known), std::end(known), opened.status), std::end(known)) << path;
    if (path.find(".pdb") != std::string::npos && opened.status != kPdbOk)
      printf("  not loaded (%d): %s\n", opened.status, path.c_str());
    loaded += opened.status == kPdbOk;
  }
  EXPECT_GE(loaded, 40);
}

// What the test programs were written to contain.
TEST(OracleTargets, TheTestProgramsHoldWhatTheyWereWrittenFor) {
  OpenedPdb c(TargetFile("sym_c.pdb"));
  ASSERT_EQ(c.status, kPdbOk);
  const PdbGlobals &g = c.pdb.globals;
  const PdbScopes &scopes = c.pdb.scopes;
  int counters = 0, helpers = 0;
  for (const PdbDataEntry *e = PdbFindData(&g, "counter", nullptr); e; e = PdbFindData(&g, "counter", e)) counters++;
  EXPECT_EQ(counters, 3) << "file statics of the same name in three modules";
  for (const PdbProcScope *p = PdbFindProcedure(&scopes, "Helper", nullptr); p; p = PdbFindProcedure(&scopes, "Helper", p))
    helpers++;
  EXPECT_EQ(helpers, 2) << "static functions of the same name in two modules";
  EXPECT_TRUE(PdbFindData(&g, "gr\xC3\xB6\xC3\x9F" "e", nullptr)) << "UTF-8 identifier";
  EXPECT_TRUE(PdbFindThreadData(&g, "t_depth") && PdbFindThreadData(&g, "t_util_calls") && PdbFindUdt(&g, "PointAlias"));
  const PdbProcScope *nested = PdbFindProcedure(&scopes, "Nested", nullptr), *more = PdbFindProcedure(&scopes, "MoreCompute", nullptr);
  ASSERT_TRUE(nested && more);
  EXPECT_GE(nested->block_count, 2u);
  ASSERT_EQ(more->block_count, 2u);
  EXPECT_EQ(scopes.blocks[more->first_block + 1].parent_block, more->first_block) << "nested block";

  OpenedPdb cpp(TargetFile("sym_cpp.pdb"));
  ASSERT_EQ(cpp.status, kPdbOk);
  EXPECT_TRUE(PdbFindConstant(&cpp.pdb.globals, "app::kMaxFrames") &&
              PdbFindData(&cpp.pdb.globals, "shapes::Shape::s_created", nullptr) &&
              PdbFindThreadData(&cpp.pdb.globals, "app::t_frame_local") &&
              PdbFindProcedure(&cpp.pdb.scopes, "shapes::Circle::Area", nullptr));

  CommandResult found = PdbTool({"find", TargetFile("sym_c.pdb"), "counter"});
  EXPECT_EQ(found.exit_status, 0);
  EXPECT_EQ(SplitLines(found.output).size(), 3u);
  EXPECT_EQ(PdbTool({"find", TargetFile("sym_c.pdb"), "no_such_name"}).exit_status, 1);
}

// Every procedure and data global that llvm-pdbutil lists is found through the name tables, with
// the same address (and type for data).
TEST(OracleTargets, LookupsFindEveryListedName) {
  for (std::string pdb : {TargetFile("sym_c.pdb"), TargetFile("sym_cpp.pdb"), OwnProgramFile("ktrn-pdb.pdb")}) {
    SCOPED_TRACE(pdb);
    OracleDump oracle = RunOracle(pdb);
    ASSERT_TRUE(oracle.ok) << oracle.failure;
    OpenedPdb loaded(pdb);
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
           p = PdbFindProcedure(&loaded.pdb.scopes, name.c_str(), p))
        hit = ReadU32(p->record + 32) == offset && ReadU16(p->record + 36) == section;
      EXPECT_TRUE(hit) << line;
    }
  }
}

// Bad usage and files that do not load: one line on stderr, a non-zero exit, nothing on stdout
// but the status line of info.
TEST(KtrnPdbTool, UsageAndLoadFailures) {
  std::string pdb = Quote(TargetFile("sym_c.pdb")), missing = Quote("/nonexistent/dir/x.pdb");
  std::string not_a_pdb = Quote(std::string(KTRN_SOURCE_DIR) + "/tests/host/symbols/oracle.h");
  struct {
    std::string args;
    int status;
    const char *stdout_text;
  } cases[] = {
      {"", 2, ""},
      {"frobnicate " + pdb, 2, ""},
      {"procs", 2, ""},
      {"find " + pdb, 2, ""},
      {"procs " + missing, 3, ""},
      {"globals " + not_a_pdb, 3, ""},
      {"info " + missing, 3, "status: 2\n"},
      {"info " + not_a_pdb, 3, "status: 13\n"},
  };
  for (auto &c : cases) {
    CommandResult out = PdbTool({}, c.args + " 2>/dev/null");
    EXPECT_EQ(out.exit_status, c.status) << c.args;
    EXPECT_EQ(out.output, c.stdout_text) << c.args;
    CommandResult err = PdbTool({}, c.args + " 2>&1 >/dev/null");
    EXPECT_GE(err.output.size(), 10u) << c.args;
    if (c.status == 3) EXPECT_EQ(std::count(err.output.begin(), err.output.end(), '\n'), 1) << c.args;
  }
}

// info reports what the loader built.
TEST(KtrnPdbTool, InfoMatchesTheLoadedFile) {
  OpenedPdb loaded(TargetFile("sym_cpp.pdb"));
  ASSERT_EQ(loaded.status, kPdbOk);
  CommandResult info = PdbTool({"info", TargetFile("sym_cpp.pdb")});
  ASSERT_EQ(info.exit_status, 0);
  const PdbGlobals &g = loaded.pdb.globals;
  const PdbSummary &s = loaded.summary;
  std::string expected =
      Format("status: 0\nmodules: %u\nprocedures: %u\nblocks: %u\nlines: %u\nsource_files: %u\nglobals: %u\n"
             "constants: %u\nudts: %u\nthreaddata: %u\ncontributions: %u\narena_bytes: ",
             s.module_count, s.procedure_count, s.block_count, s.line_count, loaded.pdb.source_files.used,
             g.data_count, g.constant_count, g.udt_count, g.thread_count, loaded.pdb.modules.contribution_count);
  EXPECT_EQ(info.output.substr(0, expected.size()), expected);
  std::vector<std::string> lines = SplitLines(info.output);
  ASSERT_EQ(lines.size(), 13u);
  EXPECT_EQ(lines[12].rfind("load_ms: ", 0), 0u);
}

// For every file of the line tables and every line from 1 to one past its last line with code,
// the file-and-line search lands on the first line with code among the next ten (llvm-pdbutil's
// entries decide which lines have code, and where); ktrn-pdb line2addr prints the same for a few.
TEST(OracleTargets, LineToAddressFindsTheNextLineWithCode) {
  for (std::string pdb : {TargetFile("sym_c.pdb"), TargetFile("sym_cpp.pdb")}) {
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
    OpenedPdb loaded(pdb);
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
          std::string at = Format("%04X:%08X", e->section, e->offset);
          EXPECT_EQ(e->line, next->first) << path << ":" << wanted;
          EXPECT_TRUE(next->second.count(at)) << path << ":" << wanted << " at " << at;
          expected = at + " " + std::to_string(e->line);
        }
        if (wanted % 7 == 0 && tool_checks < 12) {
          tool_checks++;
          CommandResult r = PdbTool({"line2addr", pdb, path, std::to_string(wanted)});
          EXPECT_EQ(SplitLines(r.output), std::vector<std::string>{expected}) << path << ":" << wanted;
          EXPECT_EQ(r.exit_status, e ? 0 : 1) << path << ":" << wanted;
        }
      }
    }
    EXPECT_GT(tool_checks, 4);
  }
}
