// The debug-information stream (stream 3): its header, the module list and the section
// contributions.
#pragma once
#include "base/arena.h"
#include "symbols/msf.h"
#include "symbols/pdb_raw.h"

typedef struct PdbModuleList {
  const DbiModuleInfo **modules;  // in stream order; each record is followed by its two names
  u32 module_count;
  u32 padding;
  const SectionContribution *contributions;
  u32 contribution_count;
  u32 contribution_version;  // the substream's version word, 0 when it had none we know
} PdbModuleList;

// Reads the 64-byte header and checks it: the new-format signature (else 14) and a stream size
// equal to the header plus its substreams (else 13).
PdbError PdbReadDbiHeader(const MsfFile *msf, DbiHeader *out);

// Loads the module records and the section contributions. 0, 13, 14 or kPdbUnreadable.
PdbError PdbLoadModules(SymbolArena *arena, const MsfFile *msf, const DbiHeader *header, PdbModuleList *out);

// The module's name and object-file name, which follow its fixed part.
const char *DbiModuleName(const DbiModuleInfo *module);
const char *DbiModuleObjectName(const DbiModuleInfo *module);
