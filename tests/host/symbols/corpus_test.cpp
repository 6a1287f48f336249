// Real PDBs made by many compilers: each file loads or fails with a PdbError, never crashes or
// hangs; what loads agrees with llvm-pdbutil (procedures, globals and line entries). Files that
// llvm-pdbutil itself cannot dump are listed in the test output and only have to load without harm.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "oracle.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_file.h"

namespace {

const std::string kCorpus = std::string(KTRN_DATA_DIR) + "/pdb-corpus";
const std::string kTool = KTRN_PDB_TOOL;

std::vector<std::string> CorpusFiles() {
  std::vector<std::string> files;
  for (std::string folder : {kCorpus, kCorpus + "/llvm"}) {
    DIR *dir = opendir(folder.c_str());
    if (!dir) continue;
    while (dirent *e = readdir(dir)) {
      std::string name = e->d_name;
      if (name == "." || name == ".." || name == "llvm" || name == "README.md" || name == "MANIFEST.txt") continue;
      files.push_back(folder + "/" + name);
    }
    closedir(dir);
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool EndsWith(const std::string &s, const char *tail) {
  size_t n = strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

std::vector<std::string> Tool(const char *command, const std::string &pdb) {
  CommandResult r = RunCommand(Quote(kTool) + " " + command + " " + Quote(pdb));
  EXPECT_EQ(r.exit_status, 0) << command << " " << pdb;
  return SplitLines(r.output);
}

}  // namespace

// Every file of the corpus, PDB or not, goes through PdbOpen in this process (sanitizers watch).
TEST(PdbCorpus, EveryFileLoadsOrFailsWithACode) {
  std::vector<std::string> files = CorpusFiles();
  ASSERT_GE(files.size(), 50u) << "corpus at " << kCorpus;
  int loaded_count = 0;
  for (const std::string &path : files) {
    SymbolArena arena = {};
    PdbFile pdb;
    PdbSummary summary;
    CodeViewIdentity none = {};
    int status = PdbOpen(&arena, &none, path.c_str(), true, &pdb, &summary);
    const int known[] = {kPdbOk, kPdbUnreadable, kPdbBadFormat, kPdbUnsupportedVersion, kPdbSignatureMismatch,
                         kPdbStreamMissing};
    EXPECT_NE(std::find(std::begin(known), std::end(known), status), std::end(known)) << path;
    if (EndsWith(path, ".pdb") && status != kPdbOk) printf("  not loaded (%d): %s\n", status, path.c_str());
    loaded_count += status == kPdbOk;
    MsfClose(&pdb.msf);
    SymbolArenaRelease(&arena);
  }
  EXPECT_GE(loaded_count, 40);
}

TEST(PdbCorpus, LoadedFilesAgreeWithLlvmPdbutil) {
  int compared = 0, oracle_failed = 0;
  for (const std::string &path : CorpusFiles()) {
    if (!EndsWith(path, ".pdb")) continue;
    SymbolArena arena = {};
    PdbFile pdb;
    PdbSummary summary;
    CodeViewIdentity none = {};
    int status = PdbOpen(&arena, &none, path.c_str(), true, &pdb, &summary);
    MsfClose(&pdb.msf);
    SymbolArenaRelease(&arena);
    if (status != kPdbOk) continue;
    OracleDump oracle = RunOracle(path);
    if (!oracle.ok) {
      printf("  llvm-pdbutil cannot dump %s (%s): only loading is checked\n", path.c_str(), oracle.failure.c_str());
      oracle_failed++;
      continue;
    }
    SCOPED_TRACE(path);
    std::vector<std::string> procs = Tool("procs", path);
    std::sort(procs.begin(), procs.end());
    std::sort(oracle.procedures.begin(), oracle.procedures.end());
    EXPECT_EQ(DescribeDifference(procs, oracle.procedures), "");
    EXPECT_EQ(DescribeDifference(Tool("globals", path), oracle.globals), "");
    LineDump line_oracle = RunLineOracle(path);
    EXPECT_TRUE(line_oracle.ok) << line_oracle.failure;
    std::vector<std::string> lines = Tool("lines", path);
    std::sort(lines.begin(), lines.end());
    std::sort(line_oracle.lines.begin(), line_oracle.lines.end());
    EXPECT_EQ(DescribeDifference(lines, line_oracle.lines), "");
    compared++;
  }
  printf("  compared with llvm-pdbutil: %d files; llvm-pdbutil failed on %d\n", compared, oracle_failed);
  EXPECT_GE(compared, 30);
}
