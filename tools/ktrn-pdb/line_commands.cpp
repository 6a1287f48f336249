// The line subcommands: lines, line2addr.
#include <stdio.h>
#include <stdlib.h>

#include "ktrn_pdb.h"

enum { kExitLoadFailed = 3, kExitNotFound = 1, kExitUsage = 2 };

int CommandLines(int argc, char **argv) {
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) return kExitLoadFailed;
  const PdbLines &lines = l.pdb.lines;
  for (u32 i = 0; i < lines.count; i++) {
    const PdbLineEntry *e = &lines.by_address[i];
    const char *path = e->file ? PdbStringAt(&l.pdb.strings, PdbLineFileOffset(e)) : "?";
    printf("%04X:%08X %08X %u %s\n", e->section, e->offset, e->length, e->line, path);
  }
  UnloadPdb(&l);
  return 0;
}

int CommandLineToAddress(int argc, char **argv) {
  char *end = nullptr;
  unsigned long line = strtoul(argv[2], &end, 10);
  if (!*argv[2] || *end || line > 0xFFFFFF) {
    fprintf(stderr, "ktrn-pdb: '%s' is not a line number\n", argv[2]);
    return kExitUsage;
  }
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) return kExitLoadFailed;
  u32 file = PdbFindSourceFile(&l.pdb.source_files, argv[1]);
  const PdbLineEntry *e = PdbAddressOfLine(&l.pdb.lines, file, (u32)line);
  if (e)
    printf("%04X:%08X %u\n", e->section, e->offset, e->line);
  else
    printf("none\n");
  UnloadPdb(&l);
  return e ? 0 : kExitNotFound;
}
