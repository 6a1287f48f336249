#include "symbols/pdb_file.h"

#include <string.h>

#include "symbols/pdb_error.h"

// The type stream depends on nothing loaded after "/names": a large one loads on a worker thread,
// into an arena of its own, while the modules and line tables load on the caller's thread. Small
// ones are not worth a thread.
enum : u32 { kTypesOnWorkerBytes = 8u << 20 };

typedef struct TypeLoad {
  SymbolArena arena;
  const MsfFile *msf;
  const PdbStringTable *strings;
  PdbTypes types;
  PdbTypes ids;
  PdbError result;
} TypeLoad;

// The ids are optional: a PDB whose IPI stream cannot be read loads without them.
static PdbError LoadTypesAndIds(SymbolArena *arena, const MsfFile *msf, const PdbStringTable *strings, PdbTypes *types,
                           PdbTypes *ids) {
  PdbError error = PdbLoadTypes(arena, msf, strings, types);
  if (!error && PdbLoadIds(arena, msf, ids) != kPdbOk) memset(ids, 0, sizeof(*ids));
  return error;
}

static void LoadTypesOnWorker(void *context) {
  TypeLoad *load = (TypeLoad *)context;
  load->result = LoadTypesAndIds(&load->arena, load->msf, load->strings, &load->types, &load->ids);
}

PdbError PdbOpen(SymbolArena *arena, const CodeViewIdentity *expected, const char *path, bool ignore_signature,
            PdbFile *out, PdbSummary *summary) {
  memset(out, 0, sizeof(*out));
  memset(summary, 0, sizeof(*summary));
  out->arena = arena;
  PdbError error = MsfOpen(arena, path, &out->msf);
  if (error) return error;
  MsfFile *msf = &out->msf;

  s32 names_stream = -1;
  if (PdbReadInfoStream(arena, expected, msf, &names_stream, ignore_signature) != kPdbOk) {
    MsfClose(msf);
    return kPdbSignatureMismatch;
  }
  error = PdbLoadStringTable(arena, msf, names_stream, &out->strings, &out->source_files);
  if (!error) error = PdbReadDbiHeader(msf, &out->dbi);
  if (error) {
    MsfClose(msf);
    return error;
  }
  TypeLoad type_load = {};
  type_load.msf = msf;
  type_load.strings = &out->strings;
  OsThread worker = {};
  bool on_worker = MsfStreamSize(msf, kPdbTypeStream) >= kTypesOnWorkerBytes &&
                   OsThreadStart(LoadTypesOnWorker, &type_load, &worker) == kOsOk;

  // The global tables are optional: when they cannot be built they stay empty.
  (void)PdbLoadGlobals(arena, msf, out->dbi.global_stream, out->dbi.symbol_record_stream, &out->globals);
  error = PdbLoadModules(arena, msf, &out->dbi, &out->modules);
  if (!error) error = PdbLoadModuleSymbols(arena, msf, &out->modules, &out->scopes);
  if (!error) error = PdbLoadLines(arena, &out->scopes, &out->strings, &out->source_files, &out->lines);
  if (on_worker) {
    OsThreadJoin(&worker);
    SymbolArenaAppend(arena, &type_load.arena);  // the types belong to the PDB's arena, failed or not
    if (!error) error = type_load.result;
    out->types = type_load.types;
    out->ids = type_load.ids;
  } else if (!error) {
    error = LoadTypesAndIds(arena, msf, &out->strings, &out->types, &out->ids);
  }
  MsfClose(msf);
  if (error) return error;

  summary->module_count = out->modules.module_count;
  summary->procedure_count = out->scopes.procedure_count;
  summary->block_count = out->scopes.block_count;
  summary->data_count = out->globals.data_count;
  summary->line_count = out->lines.count;
  summary->type_count = out->types.count;
  return kPdbOk;
}
