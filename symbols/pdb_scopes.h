// Module symbols: each module's symbol bytes (and the C13 line area kept for the line loader),
// procedure and block scopes with their first-record/count pairs, the procedure name table and
// the procedure address list sorted by section and start.
#pragma once
#include "base/arena.h"
#include "symbols/msf.h"
#include "symbols/pdb_dbi.h"

enum : u32 { kPdbNoBlock = 0xFFFFFFFF };

typedef struct PdbModuleSymbols {
  const u8 *symbols;  // the records after the stream's 4-byte signature; record offsets in the
  u32 symbol_bytes;   //   stream are therefore (pointer - symbols) + 4
  u32 c13_bytes;
  const u8 *c13;      // the C13 debug subsections, null when the module has none
} PdbModuleSymbols;

// What a scope holds: first record and count of each kind of local.
typedef struct PdbScopeLocals {
  const u8 *first_regrel;   // S_REGREL32
  const u8 *first_local;    // S_LOCAL
  const u8 *first_ldata;    // S_LDATA32 (static locals)
  const u8 *first_lthread;  // S_LTHREAD32
  u32 frame_regrel_count;   // S_REGREL32 relative to RBP or RSP
  u32 local_count;
  u32 defrange_count;       // S_DEFRANGE_REGISTER, _FRAMEPOINTER_REL, _REGISTER_REL
  u32 ldata_count;
  u32 lthread_count;
  u32 padding;
} PdbScopeLocals;

typedef struct PdbProcScope {
  const u8 *record;     // S_LPROC32 / S_GPROC32
  const u8 *frameproc;  // S_FRAMEPROC, null when absent
  PdbScopeLocals locals;
  u32 name_hash;
  u32 module_index;
  u32 first_block;  // index in the block array; the procedure's blocks follow in the order met
  u32 block_count;
} PdbProcScope;

typedef struct PdbBlockScope {
  const u8 *record;  // S_BLOCK32
  PdbScopeLocals locals;
  u32 parent_block;  // kPdbNoBlock: the procedure itself
  u32 procedure;     // index of the procedure in the procedure array
} PdbBlockScope;

// One slot of the procedure name table; index_plus_one 0 = empty.
typedef struct PdbProcSlot {
  u32 name_hash;
  u32 index_plus_one;
} PdbProcSlot;

typedef struct PdbProcAddress {
  u16 section;
  u16 padding;
  u32 start;
  u32 end;  // start + length
  u32 padding2;
  const PdbProcScope *procedure;
} PdbProcAddress;
static_assert(sizeof(PdbProcAddress) == 24, "procedure address entry");

// The procedure name table is open-addressed with linear probing (capacity max(n + n/2, 8), slot =
// name hash mod capacity). Its slots are 8 bytes and point into the procedure array, so a probe
// touches a small table rather than whole scope records.
typedef struct PdbScopes {
  PdbModuleSymbols *modules;  // one per module of the module list
  u32 module_count;
  u32 procedure_capacity;  // at least 8
  PdbProcSlot *procedure_table;
  PdbProcScope *procedures;  // procedure_count scopes, in the order met
  u32 procedure_count;
  u32 block_count;
  PdbBlockScope *blocks;
  PdbProcAddress *addresses;  // procedure_count entries, by section then start
} PdbScopes;

// Reads every module's symbols and builds the scopes. A module whose stream is missing, too short
// or unreadable contributes nothing. 0, or kPdbUnreadable when memory is refused.
int PdbLoadModuleSymbols(SymbolArena *arena, const MsfFile *msf, const PdbModuleList *modules, PdbScopes *out);

// Name of a procedure or block scope's record.
const char *PdbProcName(const PdbProcScope *procedure);
// Procedures of that name in probe order: the first when after is null, else the next one.
const PdbProcScope *PdbFindProcedure(const PdbScopes *scopes, const char *name, const PdbProcScope *after);
