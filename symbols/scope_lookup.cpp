#include "symbols/scope_lookup.h"

#include <string.h>

#include "symbols/pdb_inline.h"
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

// After a call the offset is a return address, which may sit just past the end of the block that
// made the call: then the end counts as inside (the same as looking up the byte before).
static bool BlockHolds(const PdbBlockScope *block, u32 offset, bool return_address) {
  const u8 *record = block->record;
  if ((u32)ReadU16(record) + 2 < kBlockSymOffset + 4) return false;
  u64 start = ReadU32(record + kBlockSymOffset);
  u64 stop = start + ReadU32(record + kBlockSymLength);
  return return_address ? (start < offset && offset <= stop) : (start <= offset && offset < stop);
}

static u32 BlockEnd(const PdbScopes *scopes, const PdbProcScope *procedure) {
  u32 end = procedure->first_block + procedure->block_count;
  return end > scopes->block_count ? scopes->block_count : end;
}

// Blocks are stored in the order they open, so the last one that holds the offset is the most
// deeply nested.
static const PdbBlockScope *InnermostBlock(const PdbScopes *scopes, const PdbProcScope *procedure, u32 offset,
                                           bool return_address) {
  const PdbBlockScope *innermost = nullptr;
  for (u32 i = procedure->first_block; i < BlockEnd(scopes, procedure); i++)
    if (BlockHolds(&scopes->blocks[i], offset, return_address)) innermost = &scopes->blocks[i];
  return innermost;
}

// Inline sites are stored in the order they open: the last that holds the offset is the deepest.
static u32 InnermostInlineSite(const PdbFile *pdb, const PdbProcScope *procedure, u32 offset) {
  const PdbScopes *scopes = &pdb->scopes;
  u32 end = procedure->first_inline + procedure->inline_count;
  if (end > scopes->inline_count) end = scopes->inline_count;
  u32 procedure_start = ReadU32(procedure->record + kProcSymOffset);
  if (offset < procedure_start) return kPdbNoBlock;
  for (u32 i = end; i-- > procedure->first_inline;)
    if (PdbInlineSiteContains(pdb, &scopes->inlines[i], offset - procedure_start)) return kPdbInlineScope | i;
  return kPdbNoBlock;
}

// The inline site or procedure whose function a scope belongs to.
static PdbScopeRef FunctionOf(const PdbScopes *scopes, PdbScopeRef scope) {
  for (u32 steps = 0; scope != kPdbNoBlock && !PdbScopeIsInline(scope) && steps <= scopes->block_count; steps++)
    scope = PdbScopeParent(scopes, scope);
  return PdbScopeIsInline(scope) ? scope : kPdbNoBlock;
}

void PdbScopeChainAt(const PdbFile *pdb, const PdbProcScope *procedure, u32 offset, s32 mode, ScopeChain *out) {
  memset(out, 0, sizeof(*out));
  const PdbScopes *scopes = &pdb->scopes;
  out->block = InnermostBlock(scopes, procedure, offset, mode > 0);
  // A return address follows the call: the call itself, one byte before, is what was inlined and
  // whose blocks hold the caller's variables.
  out->offset = mode > 0 && offset ? offset - 1 : offset;
  PdbScopeRef at = procedure->inline_count ? InnermostInlineSite(pdb, procedure, out->offset) : kPdbNoBlock;
  for (u32 steps = 0; at != kPdbNoBlock && steps <= scopes->block_count + scopes->inline_count; steps++) {
    if (PdbScopeIsInline(at) && out->inline_count < kScopeMaxInlineDepth)
      out->inlines[out->inline_count++] = &scopes->inlines[PdbScopeIndex(at)];
    at = PdbScopeParent(scopes, at);
  }
}

PdbScopeRef ScopeChainFrameRoot(const PdbScopes *scopes, const ScopeChain *chain, u32 frame) {
  if (frame >= chain->inline_count) return kPdbNoBlock;
  return kPdbInlineScope | (u32)(chain->inlines[frame] - scopes->inlines);
}

PdbScopeRef ScopeChainFrameInnermost(const PdbScopes *scopes, const PdbProcScope *procedure, const ScopeChain *chain,
                                     u32 frame) {
  PdbScopeRef root = ScopeChainFrameRoot(scopes, chain, frame);
  PdbScopeRef innermost = root;
  for (u32 i = procedure->first_block; i < BlockEnd(scopes, procedure); i++)
    if (BlockHolds(&scopes->blocks[i], chain->offset, false) && FunctionOf(scopes, i) == root) innermost = i;
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
  const PdbProcScope *procedure = PdbProcedureAt(&pdb->scopes, section, offset);
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
