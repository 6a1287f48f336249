// libFuzzer target: PdbOpen over arbitrary bytes (written to a file, as the loader reads files),
// then the lookups over whatever loaded.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz_input_file.h"

#include "symbols/pdb_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *path = WriteFuzzInput("pdb", data, size);
  if (!path) return 0;

  SymbolArena arena = {};
  PdbFile pdb;
  PdbSummary summary;
  CodeViewIdentity identity = {};
  if (size >= 24) memcpy(identity.bytes, data, 24);
  int status = PdbOpen(&arena, &identity, path, (size & 1) != 0, &pdb, &summary);
  if (status == 0) {
    // Walk what the lookups of later stages walk.
    const PdbGlobals &g = pdb.globals;
    for (u32 i = 0; i < g.hash_record_count; i++) {
      u16 kind;
      if (const u8 *record = PdbGlobalRecord(&g, i, &kind)) {
        const char *name = PdbGlobalRecordName(record);
        for (const PdbDataEntry *e = PdbFindData(&g, name, nullptr); e; e = PdbFindData(&g, name, e)) {
        }
        PdbFindConstant(&g, name);
        PdbFindThreadData(&g, name);
        PdbFindUdt(&g, name);
      }
    }
    for (u32 i = 0; i < pdb.scopes.procedure_count; i++) {
      const PdbProcScope *p = pdb.scopes.addresses[i].procedure;
      const char *name = PdbProcName(p);
      for (const PdbProcScope *q = PdbFindProcedure(&pdb.scopes, name, nullptr); q;
           q = PdbFindProcedure(&pdb.scopes, name, q)) {
      }
      for (u32 b = 0; b < p->block_count; b++) (void)pdb.scopes.blocks[p->first_block + b].parent_block;
    }
    for (u32 m = 0; m < pdb.modules.module_count; m++) (void)strlen(DbiModuleObjectName(pdb.modules.modules[m]));
  }
  MsfClose(&pdb.msf);  // open only after a rejected superblock
  SymbolArenaRelease(&arena);
  return 0;
}
