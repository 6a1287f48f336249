// The type subcommands: type-records.
#include <stdio.h>

#include "ktrn_pdb.h"
#include "symbols/pdb_raw.h"

enum { kExitLoadFailed = 3 };

// One line per type index: 0xINDEX, leaf kind and record length (the 16-bit length field), all
// hexadecimal; "-" for an index whose record lies outside the stream.
int CommandTypeRecords(int argc, char **argv) {
  (void)argc;
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) {
    UnloadPdb(&l);
    return kExitLoadFailed;
  }
  const PdbTypes *types = &l.pdb.types;
  for (u32 i = 0; i < types->count; i++) {
    const u8 *record = PdbTypeRecord(types, types->first_index + i);
    if (record)
      printf("0x%X\t0x%04X\t0x%X\n", types->first_index + i, ReadU16(record + 2), ReadU16(record));
    else
      printf("0x%X\t-\t-\n", types->first_index + i);
  }
  UnloadPdb(&l);
  return 0;
}
