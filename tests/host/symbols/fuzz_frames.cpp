// libFuzzer target: PdbOpen over arbitrary bytes, then what a stop asks of each procedure: the
// scope chain at a few of its addresses (start, blocks, def-range starts, end), every frame's
// variables there, each inline site's line table, name and line, and pointers to the variables'
// types with their names.
#include <stdio.h>
#include <string.h>

#include "fuzz_input_file.h"

#include "symbols/pdb_inline.h"
#include "symbols/pdb_locals.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_lookup.h"
#include "symbols/type_names.h"

namespace {

enum { kMaxProcedures = 256, kMaxAddresses = 16 };

struct Visit {
  const PdbFile *pdb;
  u32 variables;
};

bool TouchVariable(void *user, const LocalVariable *v) {
  Visit *visit = (Visit *)user;
  char text[256];
  u32 pointer = PdbTypePointerTo(&visit->pdb->types, v->type_index);
  TypeNameFormat(&visit->pdb->types, pointer, text, sizeof(text));
  (void)strlen(v->name);
  return ++visit->variables < 4096;
}

bool CountRow(void *user, const InlineRow *row) {
  (*(u32 *)user) += row->end - row->start;
  return true;
}

void AskAt(const PdbFile *pdb, const PdbProcScope *procedure, u32 section, u32 offset, s32 mode) {
  ScopeChain chain;
  PdbScopeChainAt(pdb, procedure, offset, mode, &chain);
  Visit visit = {pdb, 0};
  u32 start = ReadU32(procedure->record + kProcSymOffset);
  char name[256];
  for (u32 frame = 0; frame <= chain.inline_count; frame++) {
    PdbForEachLocal(pdb, procedure, &chain, section, offset, frame, TouchVariable, &visit);
    if (frame == chain.inline_count) break;
    PdbInlineeName(pdb, PdbInlineSiteInlinee(chain.inlines[frame]), name, sizeof(name));
    u32 line;
    const u8 *file;
    PdbInlineSiteLineAt(pdb, chain.inlines[frame], offset - start, &line, &file);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *path = WriteFuzzInput("frames", data, size);
  if (!path) return 0;

  SymbolArena arena = {};
  PdbFile pdb;
  PdbSummary summary;
  CodeViewIdentity none = {};
  if (PdbOpen(&arena, &none, path, true, &pdb, &summary) == kPdbOk) {
    const PdbScopes *scopes = &pdb.scopes;
    for (u32 i = 0; i < scopes->procedure_count && i < kMaxProcedures; i++) {
      const PdbProcAddress *a = &scopes->addresses[i];
      const PdbProcScope *p = a->procedure;
      u32 offsets[kMaxAddresses], count = 0;
      offsets[count++] = a->start;
      if (a->end > a->start) offsets[count++] = a->end - 1, offsets[count++] = a->start + (a->end - a->start) / 2;
      for (u32 b = 0; b < p->block_count && count < kMaxAddresses && p->first_block + b < scopes->block_count; b++) {
        const u8 *record = scopes->blocks[p->first_block + b].record;
        if (ReadU16(record) + 2u >= kBlockSymOffset + 4) offsets[count++] = ReadU32(record + kBlockSymOffset);
      }
      for (u32 k = 0; k < count; k++) {
        AskAt(&pdb, p, a->section, offsets[k], kScopeExact);
        AskAt(&pdb, p, a->section, offsets[k], kScopeReturnAddress);
      }
      for (u32 s = 0; s < p->inline_count && p->first_inline + s < scopes->inline_count; s++) {
        u32 covered = 0;
        PdbInlineSiteRows(&pdb, &scopes->inlines[p->first_inline + s], CountRow, &covered);
      }
    }
  }
  MsfClose(&pdb.msf);  // open only after a rejected superblock
  SymbolArenaRelease(&arena);
  return 0;
}
