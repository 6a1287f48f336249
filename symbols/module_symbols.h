// Module load: reads a loaded image's headers, finds its PDB (CodeView path, then beside the image
// with a GUID check, then a one-shot override picked by the user), loads it and sets the module's
// symbol status. Everything a module owns lives in its SymbolArena.
#pragma once
#include "symbols/pdb_file.h"
#include "symbols/pe_image.h"

enum SymbolStatus : u32 {
  kSymbolsLoaded = 0,     // "PdbLoaded"
  kSymbolsOutOfSync = 1,  // "PdbOutOfSync"
  kSymbolsNoPdb = 2,      // "NoPdb": the image has no CodeView record
  kSymbolsFailed = 3,     // "PdbFail"
};

enum : u32 { kModulePathCapacity = 1024 };

typedef struct ModuleSymbols {
  SymbolArena arena;       // the PDB's data; empty when no PDB is loaded
  u64 load_base;
  u64 extent_end;          // load base + last section end, rounded up to 4096
  // Paths are kept in the module itself, so that a module without symbols allocates nothing.
  char image_path[kModulePathCapacity];  // UTF-8; "" when unknown or too long
  const char *name;        // in image_path: after the last '\' (or '/')
  char pdb_path[kModulePathCapacity];    // the path chosen for the PDB; "" without a CodeView record
  u32 status;              // SymbolStatus
  int pdb_result;          // PdbOpen's result (a PdbError), 0 when no PDB was tried
  u64 exception_address;   // load base + the exception directory's rva, 0 when absent
  u32 exception_entry_count;
  PdbSummary summary;
  PdbFile pdb;             // valid when status is kSymbolsLoaded
  PeImage image;
} ModuleSymbols;

// Loads the module at load_base from its image. image_path is the image's file path as the
// system names it (may be null). override_pdb_path, when not null, replaces the searched path and
// switches off the GUID check. The module is cleared first. Returns a PeResult: 2, 10 or 11 leave
// nothing allocated; 0 means the module stands, with or without symbols (see status).
PeResult LoadModuleSymbols(ModuleSymbols *module, const ImageSource *source, const char *image_path, u64 load_base,
                      const char *override_pdb_path);
// [SECTION] The user's pick
// A PDB path the user picked for a module: the next load takes it (GUID check off) and clears it.
// Set on the user-interface thread, taken on the debugger thread.
typedef struct PdbPathOverride {
  u32 lock;    // 0 free, 1 held
  u32 is_set;
  char path[kModulePathCapacity];
} PdbPathOverride;
// Stores the path for the next load; false (and nothing stored) when it is too long to keep.
[[nodiscard]] bool PdbPathOverrideSet(PdbPathOverride *pick, const char *path);
// Copies the stored path into out and clears it; false when none is stored.
bool PdbPathOverrideTake(PdbPathOverride *pick, char out[kModulePathCapacity]);
// LoadModuleSymbols with the pick, when one is stored, as its override; the pick is cleared.
PeResult LoadModuleSymbolsWithPick(ModuleSymbols *module, const ImageSource *source, const char *image_path,
                              u64 load_base, PdbPathOverride *pick);

// Releases everything the module owns and clears it.
void UnloadModuleSymbols(ModuleSymbols *module);

const char *SymbolStatusName(u32 status);    // "PdbLoaded", ...
const char *SymbolStatusText(u32 status);    // the status line's text
const char *SymbolStatusSuffix(u32 status);  // the output window's suffix after a module load

