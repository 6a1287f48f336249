// The user's one-time PDB pick: stored, read by the next module load whatever its GUID, then gone.
#include <gtest/gtest.h>

#include "pdb_builder.h"
#include "test_files.h"
#include "symbols/module_symbols.h"

namespace {

u32 LoadWithPick(const std::string &image, PdbPathOverride *pick, ModuleSymbols *module) {
  OsFile file;
  if (OsFileOpenRead(image.c_str(), &file) != kOsOk) return ~0u;
  ImageSource source = ImageSourceFromFile(&file);
  int result = LoadModuleSymbolsWithPick(module, &source, image.c_str(), 0x180000000ull, pick);
  OsFileClose(&file);
  return result == kPeOk ? module->status : ~0u;
}

}  // namespace

TEST(PdbPick, TheNextLoadReadsThePickedPdbAndClearsThePick) {
  PdbSpec own, other;
  other.guid[0] = 0x77;
  PeSpec pe;
  pe.pdb_path = WriteTempFile(BuildPdb(own), "pick_own.pdb");
  std::string picked = WriteTempFile(BuildPdb(other), "pick_other.pdb");
  std::string image = WriteTempFile(BuildPe(pe).bytes, "pick.exe");

  static PdbPathOverride pick;
  ASSERT_TRUE(PdbPathOverrideSet(&pick, picked.c_str()));
  static ModuleSymbols module;
  EXPECT_EQ(LoadWithPick(image, &pick, &module), kSymbolsLoaded);
  EXPECT_EQ(module.pdb_path, picked);
  UnloadModuleSymbols(&module);
  // The pick was used once: the next load takes the image's own PDB.
  EXPECT_EQ(LoadWithPick(image, &pick, &module), kSymbolsLoaded);
  EXPECT_EQ(module.pdb_path, pe.pdb_path);
  UnloadModuleSymbols(&module);

  // Without a pick the GUID check is back: the other build's PDB is out of sync.
  pe.pdb_path = picked;
  image = WriteTempFile(BuildPe(pe).bytes, "pick_stale.exe");
  EXPECT_EQ(LoadWithPick(image, &pick, &module), kSymbolsOutOfSync);
  UnloadModuleSymbols(&module);

  // A path too long to keep is refused and leaves no pick behind.
  EXPECT_FALSE(PdbPathOverrideSet(&pick, std::string(kModulePathCapacity, 'p').c_str()));
  char taken[kModulePathCapacity];
  EXPECT_FALSE(PdbPathOverrideTake(&pick, taken));
}
