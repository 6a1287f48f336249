// One loaded PDB: everything that lookups need, read once into the PDB's SymbolArena. The file
// itself is closed when PdbOpen returns; the PdbFile is read-only afterwards.
#pragma once
#include "base/arena.h"
#include "symbols/msf.h"
#include "symbols/pdb_dbi.h"
#include "symbols/pdb_globals.h"
#include "symbols/pdb_info.h"
#include "symbols/pdb_lines.h"
#include "symbols/pdb_names.h"
#include "symbols/pdb_scopes.h"
#include "symbols/pdb_types.h"

typedef struct PdbFile {
  SymbolArena *arena;  // owns everything below
  MsfFile msf;         // its file is closed, except after a rejected superblock (see MsfOpen)
  PdbStringTable strings;
  PdbSourceFileTable source_files;  // sized here, filled by the line loader
  DbiHeader dbi;
  PdbGlobals globals;
  PdbModuleList modules;
  PdbScopes scopes;
  PdbLines lines;
  PdbTypes types;
  PdbTypes ids;  // the IPI stream: inlined functions' ids; empty when the PDB has none
} PdbFile;

// The counts that the module list and the status line show.
typedef struct PdbSummary {
  u32 module_count;
  u32 procedure_count;
  u32 block_count;
  u32 data_count;
  u32 line_count;
  u32 type_count;
} PdbSummary;

// Opens, checks and loads a PDB into the arena. Any failure of the information stream is
// reported as kPdbSignatureMismatch. On failure whatever was allocated stays in the arena for the
// caller to release or reuse.
PdbError PdbOpen(SymbolArena *arena, const CodeViewIdentity *expected, const char *path, bool ignore_signature,
            PdbFile *out, PdbSummary *summary);
