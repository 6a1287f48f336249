#include "symbols/pdb_scopes.h"

#include <string.h>

#include "base/hash.h"
#include "symbols/cv_registers.h"
#include "symbols/pdb_alloc.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_inline.h"
#include "symbols/pdb_kinds.h"
#include "symbols/pdb_record.h"

// [SECTION] Reading the module streams

static void ReadModule(SymbolArena *arena, const MsfFile *msf, const DbiModuleInfo *info, PdbModuleSymbols *out) {
  memset(out, 0, sizeof(*out));
  if (info->symbol_stream == kNoStream || info->symbol_bytes < 4) return;
  const MsfStream *stream = MsfStreamAt(msf, info->symbol_stream);
  if (!stream) return;
  // The symbols (after their signature), the old C11 lines and the C13 lines lie back to back.
  u64 wanted = (u64)info->symbol_bytes - 4 + info->c11_line_bytes + info->c13_line_bytes;
  u32 size = MsfStreamSize(msf, info->symbol_stream);
  if (size < 4 || size - 4 < wanted || size > msf->file_size) return;
  u8 *bytes = (u8 *)PdbAllocate(arena, wanted);
  if (!bytes || MsfReadStream(msf, stream, bytes, wanted, 4)) return;
  out->symbols = bytes;
  out->symbol_bytes = info->symbol_bytes - 4;
  if (info->c13_line_bytes) {
    out->c13 = bytes + out->symbol_bytes + info->c11_line_bytes;
    out->c13_bytes = info->c13_line_bytes;
  }
}

static bool IsProcedureKind(u16 kind) { return kind == kS_LPROC32 || kind == kS_GPROC32; }

static bool IsUsableProcedure(const u8 *record, u32 bytes) {
  return IsProcedureKind(ReadU16(record + 2)) && SymbolRecordHasName(record, bytes, kProcSymName);
}

// [SECTION] Scope building

typedef struct ScopeBuild {
  PdbScopes *scopes;
  u32 block_limit;
  u32 inline_limit;
  u32 address_limit;
} ScopeBuild;

static PdbScopeLocals *LocalsOf(PdbScopes *scopes, PdbProcScope *procedure, PdbScopeRef scope) {
  if (scope == kPdbNoBlock) return &procedure->locals;
  if (PdbScopeIsInline(scope)) return &scopes->inlines[PdbScopeIndex(scope)].locals;
  return &scopes->blocks[scope].locals;
}

static void Note(const u8 **first, u32 *count, const u8 *record) {
  if (!*first) *first = record;
  (*count)++;
}

// Closes the current scope at `record` when its kind of end matches: a block (or the procedure) by
// S_END, an inline site by S_INLINESITE_END. Returns the scope that is current afterwards; an end
// record of the other kind changes nothing.
static PdbScopeRef CloseScope(PdbScopes *scopes, PdbScopeRef current, u16 kind, const u8 *record) {
  if (PdbScopeIsInline(current)) {
    if (kind != kS_INLINESITE_END) return current;
    PdbInlineScope *site = &scopes->inlines[PdbScopeIndex(current)];
    site->end = record;
    return site->parent;
  }
  if (kind != kS_END || current == kPdbNoBlock) return current;
  PdbBlockScope *block = &scopes->blocks[current];
  block->end = record;
  return block->parent_block;
}

// Walks the records of the procedure at `at` up to its end; returns the offset after its end
// record (or the end of the symbols when it has none).
static u32 BuildProcedure(ScopeBuild *b, const PdbModuleSymbols *module, u32 module_index, u32 at, u32 bytes) {
  PdbScopes *scopes = b->scopes;
  const u8 *record = module->symbols + at;
  u32 hash_value = HashNameZ((const char *)record + kProcSymName);
  u32 index = scopes->procedure_count++;  // the name table is filled after the walk
  PdbProcScope *procedure = &scopes->procedures[index];
  memset(procedure, 0, sizeof(*procedure));
  procedure->record = record;
  procedure->name_hash = hash_value;
  procedure->module_index = module_index;
  procedure->first_block = scopes->block_count;
  procedure->first_inline = scopes->inline_count;

  PdbProcAddress *address = &scopes->addresses[b->address_limit++];
  memset(address, 0, sizeof(*address));
  address->section = ReadU16(record + kProcSymSection);
  address->start = ReadU32(record + kProcSymOffset);
  address->end = address->start + ReadU32(record + kProcSymLength);
  address->procedure = procedure;

  // The end field is the stream offset of the procedure's S_END; a value outside the procedure's
  // own extent is ignored and the walk ends at the S_END that closes the procedure instead.
  u64 end_at = (u64)ReadU32(record + kProcSymEnd) - 4;
  PdbScopeRef current = kPdbNoBlock;
  u32 size = module->symbol_bytes, after = size;
  at += bytes;
  while (u32 rec_bytes = SymbolRecordBytes(module->symbols, size, at)) {
    const u8 *r = module->symbols + at;
    u16 kind = ReadU16(r + 2);
    u32 next = at + rec_bytes;
    if (at == end_at || (kind == kS_END && current == kPdbNoBlock)) {
      procedure->end = r;
      after = next;
      break;
    }
    PdbScopeLocals *locals = LocalsOf(scopes, procedure, current);
    switch (kind) {
      case kS_FRAMEPROC:
        if (!procedure->frameproc) procedure->frameproc = r;
        break;
      case kS_REGREL32:
        if (rec_bytes >= kRegRelSymRegister + 2) {
          u16 reg = ReadU16(r + kRegRelSymRegister);
          if (reg == kCvReg_rbp || reg == kCvReg_rsp) Note(&locals->first_regrel, &locals->frame_regrel_count, r);
        }
        break;
      case kS_LOCAL: Note(&locals->first_local, &locals->local_count, r); break;
      case kS_LDATA32: Note(&locals->first_ldata, &locals->ldata_count, r); break;
      case kS_LTHREAD32: Note(&locals->first_lthread, &locals->lthread_count, r); break;
      case kS_BLOCK32: {
        if (scopes->block_count >= b->block_limit) break;  // cannot happen: counted beforehand
        u32 block_index = scopes->block_count++;
        PdbBlockScope *block = &scopes->blocks[block_index];
        memset(block, 0, sizeof(*block));
        block->record = r;
        block->parent_block = current;
        block->procedure = index;
        procedure->block_count++;
        current = block_index;
      } break;
      case kS_INLINESITE: case kS_INLINESITE2: {
        if (scopes->inline_count >= b->inline_limit) break;  // cannot happen: counted beforehand
        u32 site_index = scopes->inline_count++;
        PdbInlineScope *site = &scopes->inlines[site_index];
        memset(site, 0, sizeof(*site));
        site->record = r;
        site->parent = current;
        site->procedure = index;
        // Its extent, so that address lookups decode only the sites that may hold an address.
        InlineSiteRecordExtent(r, &site->code_start, &site->code_end);
        procedure->inline_count++;
        current = kPdbInlineScope | site_index;
      } break;
      case kS_END: case kS_INLINESITE_END: current = CloseScope(scopes, current, kind, r); break;
      default:
        if (SymbolKindIsDefRange(kind)) locals->defrange_count++;
        break;
    }
    at = next;
  }
  if (!procedure->end) procedure->end = module->symbols + at;
  // Scopes left open end where the procedure ends.
  for (u32 i = procedure->first_block; i < scopes->block_count; i++)
    if (!scopes->blocks[i].end) scopes->blocks[i].end = procedure->end;
  for (u32 i = procedure->first_inline; i < scopes->inline_count; i++)
    if (!scopes->inlines[i].end) scopes->inlines[i].end = procedure->end;
  return after;
}

static bool AddressBefore(const PdbProcAddress &x, const PdbProcAddress &y) {
  return x.section != y.section ? x.section < y.section : x.start < y.start;
}

// Stable merge sort through a scratch buffer; procedures usually arrive in address order already
// (modules in link order), which the first check turns into one pass.
static void SortAddresses(PdbProcAddress *items, u32 count) {
  bool sorted = true;
  for (u32 i = 1; i < count && sorted; i++) sorted = !AddressBefore(items[i], items[i - 1]);
  if (sorted) return;
  ScratchBegin();
  PdbProcAddress *buffer = (PdbProcAddress *)ScratchAllocate((u64)count * sizeof(PdbProcAddress));
  if (buffer) {
    PdbProcAddress *from = items, *to = buffer;
    for (u32 width = 1; width < count; width *= 2) {
      for (u32 lo = 0; lo < count; lo += 2 * width) {
        u32 mid = (u32)MinU64((u64)lo + width, count), hi = (u32)MinU64((u64)lo + 2 * width, count);
        u32 i = lo, j = mid, k = lo;
        while (i < mid && j < hi) to[k++] = AddressBefore(from[j], from[i]) ? from[j++] : from[i++];
        while (i < mid) to[k++] = from[i++];
        while (j < hi) to[k++] = from[j++];
      }
      PdbProcAddress *swap = from;
      from = to;
      to = swap;
    }
    if (from != items) memcpy(items, from, (u64)count * sizeof(PdbProcAddress));
  }
  ScratchEnd();
}

PdbError PdbLoadModuleSymbols(SymbolArena *arena, const MsfFile *msf, const PdbModuleList *list, PdbScopes *out) {
  memset(out, 0, sizeof(*out));
  PdbScopes s = {};
  s.module_count = list->module_count;
  s.modules = (PdbModuleSymbols *)PdbAllocate(arena, (u64)list->module_count * sizeof(PdbModuleSymbols));
  if (!s.modules && list->module_count) return kPdbUnreadable;
  u64 procedure_total = 0, block_total = 0, inline_total = 0;
  for (u32 m = 0; m < list->module_count; m++) {
    ReadModule(arena, msf, list->modules[m], &s.modules[m]);
    const PdbModuleSymbols *module = &s.modules[m];
    for (u32 at = 0, bytes; (bytes = SymbolRecordBytes(module->symbols, module->symbol_bytes, at)); at += bytes) {
      const u8 *r = module->symbols + at;
      u16 kind = ReadU16(r + 2);
      if (kind == kS_BLOCK32) block_total++;
      else if (SymbolKindIsInlineSite(kind)) inline_total++;
      else if (IsUsableProcedure(r, bytes)) procedure_total++;
    }
  }
  u64 capacity = MaxU64(procedure_total + procedure_total / 2, 8);
  s.procedure_capacity = (u32)capacity;
  s.procedure_table = (PdbProcSlot *)PdbAllocate(arena, capacity * sizeof(PdbProcSlot));
  s.procedures = (PdbProcScope *)PdbAllocate(arena, procedure_total * sizeof(PdbProcScope));
  s.blocks = (PdbBlockScope *)PdbAllocate(arena, block_total * sizeof(PdbBlockScope));
  s.inlines = (PdbInlineScope *)PdbAllocate(arena, inline_total * sizeof(PdbInlineScope));
  s.addresses = (PdbProcAddress *)PdbAllocate(arena, procedure_total * sizeof(PdbProcAddress));
  if (!s.procedure_table || !s.procedures || !s.blocks || !s.inlines || !s.addresses) return kPdbUnreadable;
  memset(s.procedure_table, 0, capacity * sizeof(PdbProcSlot));

  ScopeBuild build = {&s, (u32)block_total, (u32)inline_total, 0};
  for (u32 m = 0; m < s.module_count; m++) {
    const PdbModuleSymbols *module = &s.modules[m];
    u32 at = 0, bytes;
    while ((bytes = SymbolRecordBytes(module->symbols, module->symbol_bytes, at))) {
      const u8 *r = module->symbols + at;
      if (IsUsableProcedure(r, bytes)) at = BuildProcedure(&build, module, m, at, bytes);
      else at += bytes;
    }
  }
  // Names go into the table in the order met. Looking a few procedures ahead lets the cache
  // misses of the random slots overlap.
  enum { kLookAhead = 16 };
  for (u32 i = 0; i < s.procedure_count; i++) {
    if (i + kLookAhead < s.procedure_count)
      __builtin_prefetch(&s.procedure_table[s.procedures[i + kLookAhead].name_hash % s.procedure_capacity], 1);
    u32 slot = s.procedures[i].name_hash % s.procedure_capacity;
    while (s.procedure_table[slot].index_plus_one)
      if (++slot == s.procedure_capacity) slot = 0;
    s.procedure_table[slot].name_hash = s.procedures[i].name_hash;
    s.procedure_table[slot].index_plus_one = i + 1;
  }
  SortAddresses(s.addresses, s.procedure_count);
  *out = s;
  return kPdbOk;
}

// [SECTION] Lookups

const char *PdbProcName(const PdbProcScope *procedure) { return (const char *)procedure->record + kProcSymName; }

const PdbProcScope *PdbProcedureAt(const PdbScopes *scopes, u32 section, u32 offset) {
  u32 lo = 0, hi = scopes->procedure_count;
  while (lo < hi) {
    u32 mid = lo + (hi - lo) / 2;
    const PdbProcAddress *a = &scopes->addresses[mid];
    if (a->section > section || (a->section == section && a->start > offset))
      hi = mid;
    else if (a->section == section && offset < a->end)
      return a->procedure;
    else
      lo = mid + 1;
  }
  return nullptr;
}

PdbScopeRef PdbScopeParent(const PdbScopes *scopes, PdbScopeRef scope) {
  if (scope == kPdbNoBlock) return kPdbNoBlock;
  if (PdbScopeIsInline(scope)) return scopes->inlines[PdbScopeIndex(scope)].parent;
  return scopes->blocks[scope].parent_block;
}

void PdbScopeRecords(const PdbScopes *scopes, const PdbProcScope *procedure, PdbScopeRef scope, const u8 **begin,
                     const u8 **end) {
  const u8 *opening = procedure->record, *closing = procedure->end;
  if (PdbScopeIsInline(scope)) {
    opening = scopes->inlines[PdbScopeIndex(scope)].record;
    closing = scopes->inlines[PdbScopeIndex(scope)].end;
  } else if (scope != kPdbNoBlock) {
    opening = scopes->blocks[scope].record;
    closing = scopes->blocks[scope].end;
  }
  *begin = opening + ReadU16(opening) + 2;
  *end = closing;
}

const PdbProcScope *PdbFindProcedure(const PdbScopes *scopes, const char *name, const PdbProcScope *after) {
  if (!scopes->procedure_capacity || !scopes->procedure_table) return nullptr;
  u32 hash_value = HashNameZ(name);
  u32 after_index_plus_one = after ? (u32)(after - scopes->procedures) + 1 : 0;
  bool passed = !after;
  u32 slot = hash_value % scopes->procedure_capacity;
  for (u32 probes = 0; probes < scopes->procedure_capacity; probes++) {
    const PdbProcSlot *s = &scopes->procedure_table[slot];
    if (!s->index_plus_one) return nullptr;
    if (!passed) {
      passed = s->index_plus_one == after_index_plus_one;
    } else if (s->name_hash == hash_value) {
      const PdbProcScope *p = &scopes->procedures[s->index_plus_one - 1];
      if (strcmp(PdbProcName(p), name) == 0) return p;
    }
    if (++slot == scopes->procedure_capacity) slot = 0;
  }
  return nullptr;
}
