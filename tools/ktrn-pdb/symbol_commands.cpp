// The symbol subcommands: info, procs, globals, find.
#include <stdio.h>
#include <string.h>

#include "ktrn_pdb.h"
#include "symbols/pdb_kinds.h"
#include "symbols/pdb_raw.h"

enum { kExitLoadFailed = 3, kExitNotFound = 1 };

static void PrintProcedure(const PdbProcScope *procedure) {
  const u8 *r = procedure->record;
  printf("%04X:%08X %08X %s\n", ReadU16(r + kProcSymSection), ReadU32(r + kProcSymOffset),
         ReadU32(r + kProcSymLength), PdbProcName(procedure));
}

static void PrintDataRecord(const u8 *record) {
  printf("%04X:%08X %08X %s\n", ReadU16(record + kDataSymSection), ReadU32(record + kDataSymOffset),
         ReadU32(record + kDataSymType), (const char *)record + kDataSymName);
}

static bool IsData(u16 kind) { return kind == kS_LDATA32 || kind == kS_GDATA32; }

int CommandInfo(int argc, char **argv) {
  LoadedPdb l;
  bool ok = LoadPdb(argv[0], &l);
  printf("status: %d\n", l.status);
  if (ok) {
    const PdbGlobals &g = l.pdb.globals;
    printf("modules: %u\n", l.summary.module_count);
    printf("procedures: %u\n", l.summary.procedure_count);
    printf("blocks: %u\n", l.summary.block_count);
    printf("lines: %u\n", l.summary.line_count);
    printf("source_files: %u\n", l.pdb.source_files.used);
    printf("globals: %u\n", g.data_count);
    printf("constants: %u\n", g.constant_count);
    printf("udts: %u\n", g.udt_count);
    printf("threaddata: %u\n", g.thread_count);
    printf("contributions: %u\n", l.pdb.modules.contribution_count);
    printf("arena_bytes: %llu\n", (unsigned long long)SymbolArenaUsedBytes(&l.arena));
    printf("load_ms: %.3f\n", l.load_ms);
  }
  UnloadPdb(&l);
  return ok ? 0 : kExitLoadFailed;
}

int CommandProcs(int argc, char **argv) {
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) return kExitLoadFailed;
  const PdbScopes &s = l.pdb.scopes;
  for (u32 i = 0; i < s.procedure_count; i++) PrintProcedure(s.addresses[i].procedure);
  UnloadPdb(&l);
  return 0;
}

int CommandGlobals(int argc, char **argv) {
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) return kExitLoadFailed;
  const PdbGlobals &g = l.pdb.globals;
  for (u32 i = 0; i < g.hash_record_count; i++) {
    u16 kind;
    const u8 *record = PdbGlobalRecord(&g, i, &kind);
    if (record && IsData(kind)) PrintDataRecord(record);
  }
  UnloadPdb(&l);
  return 0;
}

int CommandFind(int argc, char **argv) {
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) return kExitLoadFailed;
  const char *name = argv[1];
  u32 found = 0;
  for (const PdbProcScope *p = PdbFindProcedure(&l.pdb.scopes, name, nullptr); p;
       p = PdbFindProcedure(&l.pdb.scopes, name, p), found++)
    PrintProcedure(p);
  const PdbGlobals &g = l.pdb.globals;
  for (const PdbDataEntry *e = PdbFindData(&g, name, nullptr); e; e = PdbFindData(&g, name, e), found++)
    PrintDataRecord(g.records + e->record_offset_plus_one - 1);
  UnloadPdb(&l);
  return found ? 0 : kExitNotFound;
}
