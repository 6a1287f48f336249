#include "symbols/scope_lookup.h"

#include <string.h>

#include "symbols/pdb_raw.h"

// Sections are searched in their file order, which linkers keep sorted by address. The upper bound
// is inclusive: an address exactly at a section's end (a return address after the last instruction
// of a section, say) still belongs to it.
bool PeSectionOffsetOfRva(const PeImage *image, u32 rva, u32 *out_section, u32 *out_offset) {
  u32 lo = 0, hi = image->section_count;
  while (lo < hi) {
    u32 mid = lo + (hi - lo) / 2;
    const PeSectionHeader *s = &image->sections[mid];
    if (rva < s->virtual_address) {
      hi = mid;
    } else if ((u64)rva > (u64)s->virtual_address + s->virtual_size) {
      lo = mid + 1;
    } else {
      *out_section = mid + 1;
      *out_offset = rva - s->virtual_address;
      return true;
    }
  }
  return false;
}

static const PdbProcScope *ProcedureAt(const PdbScopes *scopes, u32 section, u32 offset) {
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

// Blocks are stored in the order they open, so the last one that holds the offset is the most
// deeply nested. After a call the offset is a return address, which may sit just past the end of
// the block that made the call: then the end counts as inside.
static const PdbBlockScope *InnermostBlock(const PdbScopes *scopes, const PdbProcScope *procedure, u32 offset,
                                           bool return_address) {
  const PdbBlockScope *innermost = nullptr;
  u32 end = procedure->first_block + procedure->block_count;
  if (end > scopes->block_count) end = scopes->block_count;
  for (u32 i = procedure->first_block; i < end; i++) {
    const u8 *record = scopes->blocks[i].record;
    if ((u32)ReadU16(record) + 2 < kBlockSymOffset + 4) continue;
    u64 start = ReadU32(record + kBlockSymOffset);
    u64 stop = start + ReadU32(record + kBlockSymLength);
    bool inside = return_address ? (start < offset && offset <= stop) : (start <= offset && offset < stop);
    if (inside) innermost = &scopes->blocks[i];
  }
  return innermost;
}

void FindScopeAtAddress(const ModuleSymbols *module, ScopeQueryContext *context, u64 address, s32 mode,
                        ScopeAtAddress *out) {
  memset(out, 0, sizeof(*out));
  if (!module || address < module->load_base || address - module->load_base > 0xFFFFFFFFull) return;
  u32 section = 0, offset = 0;
  if (!PeSectionOffsetOfRva(&module->image, (u32)(address - module->load_base), &section, &offset)) return;
  out->section = section;
  out->offset = offset;
  if (module->status != kSymbolsLoaded) return;

  const PdbFile *pdb = &module->pdb;
  const PdbProcScope *procedure = ProcedureAt(&pdb->scopes, section, offset);
  // The line search does not depend on the procedure: it runs while the procedure's scope record
  // is on its way from memory, since on a large PDB each of these reads is a cache miss.
  if (procedure) __builtin_prefetch(procedure);
  out->line_entry = PdbLineAtAddress(&pdb->lines, section, offset);
  out->line = out->line_entry ? out->line_entry->line : 0;
  if (procedure) {
    out->procedure = procedure;
    bool copy_name = mode != kScopeExact && context && context->procedure_name[0] == 0;
    if (copy_name) __builtin_prefetch(procedure->record);
    if (mode >= 0 && procedure->block_count && procedure->first_block < pdb->scopes.block_count)
      __builtin_prefetch(&pdb->scopes.blocks[procedure->first_block]);
    if (copy_name) {
      const char *name = PdbProcName(procedure);
      u64 length = strnlen(name, kScopeNameCapacity - 1);
      memcpy(context->procedure_name, name, length);
      context->procedure_name[length] = 0;
    }
    if (mode >= 0) out->block = InnermostBlock(&pdb->scopes, procedure, offset, mode > 0);
  }
}
