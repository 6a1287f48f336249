// A module load leaves no file open, whatever became of its PDB: loaded, out of sync, missing, or
// a file that is no PDB at all (whose rejected superblock keeps the file in the container record).
// The debugger loads modules for as long as it runs, so one handle per load would pile up.
#include <dirent.h>
#include <gtest/gtest.h>

#include "oracle.h"
#include "symbols/module_symbols.h"

static int OpenFileCount() {
  int count = 0;
  DIR *dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  while (readdir(dir)) count++;
  closedir(dir);
  return count;
}

TEST(ModuleFiles, NoFileStaysOpenAfterAnyLoad) {
  std::string image = TargetFile("sym_c.exe"), other_pdb = TargetFile("sym_cpp.pdb");
  std::string not_a_pdb = std::string(KTRN_SOURCE_DIR) + "/README.md";
  struct {
    const char *override_path;
    u32 status;
    int pdb_result;
  } cases[] = {
      {nullptr, kSymbolsLoaded, kPdbOk},
      {other_pdb.c_str(), kSymbolsLoaded, kPdbOk},  // picked by the user: no GUID check
      {not_a_pdb.c_str(), kSymbolsFailed, kPdbBadFormat},
      {"/nonexistent/x.pdb", kSymbolsFailed, kPdbUnreadable},
  };
  static ModuleSymbols module;
  for (auto &c : cases) {
    SCOPED_TRACE(c.override_path ? c.override_path : "(CodeView path)");
    OsFile file;
    ASSERT_EQ(OsFileOpenRead(image.c_str(), &file), kOsOk) << image;
    ImageSource source = ImageSourceFromFile(&file);
    int before = OpenFileCount();
    for (int i = 0; i < 3; i++) {
      ASSERT_EQ(LoadModuleSymbols(&module, &source, image.c_str(), 0x140000000ull, c.override_path), kPeOk);
      EXPECT_EQ(module.status, c.status);
      EXPECT_EQ(module.pdb_result, c.pdb_result);
      UnloadModuleSymbols(&module);
    }
    EXPECT_EQ(OpenFileCount(), before);
    OsFileClose(&file);
  }
}
