// Module symbols: each module's symbol bytes (and the C13 line area kept for the line loader),
// procedure and block scopes with their first-record/count pairs, the procedure name table and
// the procedure address list sorted by section and start.
#pragma once
#include "base/arena.h"
#include "symbols/msf.h"
#include "symbols/pdb_dbi.h"

// A scope of a procedure: the procedure itself (kPdbNoBlock), a block (its index in the block
// array) or an inline site (kPdbInlineScope + its index in the inline-site array).
typedef u32 PdbScopeRef;
enum : u32 { kPdbNoBlock = 0xFFFFFFFF, kPdbInlineScope = 0x80000000 };
static inline bool PdbScopeIsInline(PdbScopeRef ref) { return ref != kPdbNoBlock && (ref & kPdbInlineScope); }
static inline bool PdbScopeIsBlock(PdbScopeRef ref) { return !(ref & kPdbInlineScope); }
static inline u32 PdbScopeIndex(PdbScopeRef ref) { return ref & ~kPdbInlineScope; }

typedef struct PdbModuleSymbols {
  const u8 *symbols;  // the records after the stream's 4-byte signature; record offsets in the
  u32 symbol_bytes;   //   stream are therefore (pointer - symbols) + 4
  u32 c13_bytes;
  const u8 *c13;      // the C13 debug subsections, null when the module has none
} PdbModuleSymbols;

// What a scope holds itself (not its nested blocks and inline sites): first record and count of
// each kind of local.
typedef struct PdbScopeLocals {
  const u8 *first_regrel;   // S_REGREL32 relative to RBP or RSP
  const u8 *first_local;    // S_LOCAL
  const u8 *first_ldata;    // S_LDATA32 (static locals)
  const u8 *first_lthread;  // S_LTHREAD32
  u32 frame_regrel_count;   // S_REGREL32 relative to RBP or RSP
  u32 local_count;
  u32 defrange_count;       // every S_DEFRANGE kind
  u32 ldata_count;
  u32 lthread_count;
  u32 padding;
} PdbScopeLocals;

typedef struct PdbProcScope {
  const u8 *record;     // S_LPROC32 / S_GPROC32
  const u8 *end;        // its S_END, or the end of the module's symbols when it has none
  const u8 *frameproc;  // S_FRAMEPROC, null when absent
  PdbScopeLocals locals;
  u32 name_hash;
  u32 module_index;
  u32 first_block;  // index in the block array; the procedure's blocks follow in the order met
  u32 block_count;
  u32 first_inline;  // index in the inline-site array; its inline sites follow in the order met
  u32 inline_count;
} PdbProcScope;

typedef struct PdbBlockScope {
  const u8 *record;  // S_BLOCK32
  const u8 *end;     // the S_END that closes it (the procedure's end when none does)
  PdbScopeLocals locals;
  PdbScopeRef parent_block;  // kPdbNoBlock: the procedure itself; may be an inline site
  u32 procedure;     // index of the procedure in the procedure array
} PdbBlockScope;

// Code of another function inlined into a procedure: the site owns the inlined function's locals.
typedef struct PdbInlineScope {
  const u8 *record;  // S_INLINESITE / S_INLINESITE2
  const u8 *end;     // the S_INLINESITE_END that closes it (the procedure's end when none does)
  PdbScopeLocals locals;
  PdbScopeRef parent;
  u32 procedure;
  u32 code_start, code_end;  // offsets from the procedure's start that bound all of the site's code
} PdbInlineScope;

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
  PdbInlineScope *inlines;
  u32 inline_count;
  u32 padding;
  PdbProcAddress *addresses;  // procedure_count entries, by section then start
} PdbScopes;

// Reads every module's symbols and builds the scopes. A module whose stream is missing, too short
// or unreadable contributes nothing. 0, or kPdbUnreadable when memory is refused.
PdbError PdbLoadModuleSymbols(SymbolArena *arena, const MsfFile *msf, const PdbModuleList *modules, PdbScopes *out);

// Name of a procedure or block scope's record.
const char *PdbProcName(const PdbProcScope *procedure);
// The procedure whose code holds (section, offset), or null.
const PdbProcScope *PdbProcedureAt(const PdbScopes *scopes, u32 section, u32 offset);
// The scope that holds a scope (kPdbNoBlock for the procedure's own children and the procedure).
PdbScopeRef PdbScopeParent(const PdbScopes *scopes, PdbScopeRef scope);
// The records a scope holds: from after its opening record up to its closing one.
void PdbScopeRecords(const PdbScopes *scopes, const PdbProcScope *procedure, PdbScopeRef scope, const u8 **begin,
                     const u8 **end);
// Procedures of that name in probe order: the first when after is null, else the next one.
const PdbProcScope *PdbFindProcedure(const PdbScopes *scopes, const char *name, const PdbProcScope *after);
