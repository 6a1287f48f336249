// libFuzzer target: the C13 line loader over an arbitrary module area (copied to a buffer of its
// exact size so that any read past it is caught), then the lookups and the invariants of the two
// orders: both sorted, and every entry found again by its address range and by its file and line.
#include <stdlib.h>
#include <string.h>

#include "symbols/pdb_alloc.h"
#include "symbols/pdb_lines.h"

static const char kNames[] = "\0c:\\src\\a.c\0C:/SRC/A.C\0b.c\0";

static void Check(bool condition) {
  if (!condition) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > (1u << 20)) return 0;
  u8 *area = (u8 *)malloc(size ? size : 1);
  memcpy(area, data, size);
  SymbolArena arena = {};
  PdbModuleSymbols module = {};
  module.c13 = size ? area : nullptr;
  module.c13_bytes = (u32)size;
  PdbScopes scopes = {};
  scopes.modules = &module;
  scopes.module_count = 1;
  PdbStringTable strings = {kNames, sizeof(kNames) - 1};
  PdbSourceFileTable files = {};
  files.capacity = 3;  // small, so that a full table is met too
  files.name_hashes = (u64 *)PdbAllocate(&arena, 3 * 8);
  files.name_offsets = (u64 *)PdbAllocate(&arena, 3 * 8);
  memset(files.name_hashes, 0, 3 * 8);
  PdbLines lines;
  if (PdbLoadLines(&arena, &scopes, &strings, &files, &lines) == 0) {
    Check(files.used <= files.capacity);
    for (u32 i = 0; i < lines.count; i++) {
      const PdbLineEntry *a = &lines.by_address[i];
      if (i) {
        const PdbLineEntry *p = &lines.by_address[i - 1];
        Check(p->section < a->section || (p->section == a->section && p->offset <= a->offset));
        const PdbLineEntry *f = &lines.by_file[i], *g = &lines.by_file[i - 1];
        u32 ff = PdbLineFileOffset(f), gf = PdbLineFileOffset(g);
        Check(gf < ff || (gf == ff && g->line <= f->line));
      }
      PdbLineAtAddress(&lines, a->section, a->offset);
      const PdbLineEntry *b = &lines.by_file[i];
      u32 file = PdbLineFileOffset(b);
      const PdbLineEntry *found = PdbAddressOfLine(&lines, file, b->line);
      if (file) Check(found && found->line == b->line && PdbLineFileOffset(found) == file);
    }
    static const char *const kPaths[] = {"c:/src/a.c", "b.c", "B.C", "x"};
    for (const char *path : kPaths) PdbFindSourceFile(&files, path);
  }
  SymbolArenaRelease(&arena);
  free(area);
  return 0;
}
