#include "symbols/module_symbols.h"

#include <string.h>

#include "symbols/pdb_error.h"

static const char *const kStatusNames[] = {"PdbLoaded", "PdbOutOfSync", "NoPdb", "PdbFail"};
static const char *const kStatusTexts[] = {"Symbols loaded", "Symbols out of sync", "Cannot find or open PDB file",
                                           "Cannot find or open PDB file"};
static const char *const kStatusSuffixes[] = {"(symbols loaded)", "(no symbols loaded -- PDB out of sync)", "", ""};

const char *SymbolStatusName(u32 status) { return status <= kSymbolsFailed ? kStatusNames[status] : "?"; }
const char *SymbolStatusText(u32 status) { return status <= kSymbolsFailed ? kStatusTexts[status] : "?"; }
const char *SymbolStatusSuffix(u32 status) { return status <= kSymbolsFailed ? kStatusSuffixes[status] : ""; }

static bool CopyPath(char *out, const char *path) {
  u64 length = path ? strlen(path) : 0;
  if (length >= kModulePathCapacity) {
    out[0] = 0;
    return false;
  }
  memcpy(out, path ? path : "", length + 1);
  return true;
}

static const char *NameOfPath(const char *path) {
  const char *name = path;
  for (const char *p = path; *p; p++)
    if (*p == '\\' || *p == '/') name = p + 1;
  return name;
}

// Whether the PDB at path belongs to the image: its information stream carries the image's GUID.
// The check runs in a small arena on a static buffer, so that a usual look costs no system memory;
// the directory of a large PDB spills into chunks that are given back at once.
static bool PdbMatchesImage(const char *path, const CodeViewIdentity *identity) {
  alignas(16) static u8 buffer[32 * 1024];
  SymbolArena arena;
  SymbolArenaBeginFixed(&arena, buffer, sizeof(buffer));
  MsfFile msf;
  bool matches = false;
  if (MsfOpen(&arena, path, &msf) == kPdbOk) {
    s32 names_stream = -1;
    matches = PdbReadInfoStream(&arena, identity, &msf, &names_stream, false) == kPdbOk;
  }
  MsfClose(&msf);  // also closes the file a rejected superblock leaves open
  SymbolArenaReleaseFixed(&arena);
  return matches;
}

// The image's path with its last three characters replaced by "pdb": app.exe gives app.pdb.
static bool PathBesideImage(const char *image_path, char *out) {
  u64 length = strlen(image_path);
  if (length < 3 || length >= kModulePathCapacity) return false;
  memcpy(out, image_path, length - 3);
  memcpy(out + length - 3, "pdb", 4);
  return true;
}

PeResult LoadModuleSymbols(ModuleSymbols *module, const ImageSource *source, const char *image_path, u64 load_base,
                      const char *override_pdb_path) {
  memset(module, 0, sizeof(*module));
  PeResult result = PeReadImage(source, load_base, &module->image);
  if (result != kPeOk) {
    memset(module, 0, sizeof(*module));
    return result;
  }
  const PeImage *image = &module->image;
  module->load_base = load_base;
  module->extent_end = PeImageExtentEnd(image, load_base);
  if (image->exception_rva) {
    module->exception_address = load_base + image->exception_rva;
    module->exception_entry_count = image->exception_entry_count;
  }
  CopyPath(module->image_path, image_path);
  module->name = NameOfPath(module->image_path);

  if (!image->has_codeview) {
    module->status = kSymbolsNoPdb;
    return kPeOk;
  }

  // The CodeView path; when it does not exist, the PDB beside the image if its GUID matches; a
  // path the user picked replaces either, unchecked.
  bool ignore_signature = false;
  CopyPath(module->pdb_path, image->pdb_path);
  if (!OsFileExists(module->pdb_path)) {
    char beside[kModulePathCapacity];
    if (PathBesideImage(module->image_path, beside) && PdbMatchesImage(beside, &image->identity))
      memcpy(module->pdb_path, beside, strlen(beside) + 1);
  }
  // A picked path too long to keep is not used: the searched one stands.
  if (override_pdb_path && strlen(override_pdb_path) < kModulePathCapacity) {
    CopyPath(module->pdb_path, override_pdb_path);
    ignore_signature = true;
  }

  module->pdb_result =
      PdbOpen(&module->arena, &image->identity, module->pdb_path, ignore_signature, &module->pdb, &module->summary);
  if (module->pdb_result == kPdbOk) {
    module->status = kSymbolsLoaded;
  } else {
    module->status = module->pdb_result == kPdbSignatureMismatch ? kSymbolsOutOfSync : kSymbolsFailed;
    // The module stays, without symbols: nothing of the failed load is kept. A file whose
    // superblock was rejected (not a PDB, or an old-format one) is still open in the MsfFile.
    MsfClose(&module->pdb.msf);
    SymbolArenaRelease(&module->arena);
    memset(&module->pdb, 0, sizeof(module->pdb));
    memset(&module->summary, 0, sizeof(module->summary));
  }
  return kPeOk;
}

// [SECTION] The user's pick

static void Lock(PdbPathOverride *pick) {
  while (__atomic_exchange_n(&pick->lock, 1u, __ATOMIC_ACQUIRE)) {
  }
}
static void Unlock(PdbPathOverride *pick) { __atomic_store_n(&pick->lock, 0u, __ATOMIC_RELEASE); }

bool PdbPathOverrideSet(PdbPathOverride *pick, const char *path) {
  u64 length = strlen(path);
  if (length >= kModulePathCapacity) return false;
  Lock(pick);
  memcpy(pick->path, path, length + 1);
  pick->is_set = 1;
  Unlock(pick);
  return true;
}

bool PdbPathOverrideTake(PdbPathOverride *pick, char out[kModulePathCapacity]) {
  Lock(pick);
  bool taken = pick->is_set != 0;
  if (taken) memcpy(out, pick->path, kModulePathCapacity);
  pick->is_set = 0;
  Unlock(pick);
  return taken;
}

PeResult LoadModuleSymbolsWithPick(ModuleSymbols *module, const ImageSource *source, const char *image_path,
                              u64 load_base, PdbPathOverride *pick) {
  char picked[kModulePathCapacity];
  bool have_pick = pick && PdbPathOverrideTake(pick, picked);
  return LoadModuleSymbols(module, source, image_path, load_base, have_pick ? picked : nullptr);
}

void UnloadModuleSymbols(ModuleSymbols *module) {
  SymbolArenaRelease(&module->arena);
  memset(module, 0, sizeof(*module));
}
