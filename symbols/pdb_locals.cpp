#include "symbols/pdb_locals.h"

#include <string.h>

#include "symbols/cv_registers.h"
#include "symbols/pdb_kinds.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_record.h"

enum : u16 { kMachineX86 = 0x14C };

// [SECTION] Frame base registers

u16 PdbFrameBaseRegister(const PdbFile *pdb, const PdbProcScope *procedure, bool for_parameters) {
  bool x86 = pdb->dbi.machine == kMachineX86;
  const u8 *frameproc = procedure->frameproc;
  if (!frameproc || ReadU16(frameproc) + 2u < kFrameProcSymBytes) return x86 ? kCvReg_esp : kCvReg_rsp;
  u32 flags = ReadU32(frameproc + kFrameProcSymFlags);
  u32 code = flags >> (for_parameters ? kFrameProcParamBaseShift : kFrameProcLocalBaseShift) & kFrameProcBaseMask;
  static const u16 kX64[] = {kCvReg_rsp, kCvReg_rsp, kCvReg_rbp, kCvReg_r13};
  static const u16 kX86[] = {kCvReg_esp, kCvReg_vframe, kCvReg_ebp, kCvReg_ebx};
  return x86 ? kX86[code] : kX64[code];
}

// [SECTION] Def ranges

typedef struct AddressRange {
  u16 section;
  u32 start, length;
  const u8 *gaps, *gaps_end;
} AddressRange;

static bool RangeHolds(const AddressRange *range, u32 section, u32 offset) {
  if (range->section != section || offset < range->start || offset - range->start >= range->length) return false;
  u32 into = offset - range->start;
  for (const u8 *gap = range->gaps; range->gaps_end - gap >= kDefRangeGapBytes; gap += kDefRangeGapBytes) {
    u32 gap_start = ReadU16(gap + kDefRangeGapStart), gap_length = ReadU16(gap + kDefRangeGapLength);
    if (into >= gap_start && into - gap_start < gap_length) return false;
  }
  return true;
}

// The range of a def-range record whose range starts at `at`; false when the record is too short.
static bool ReadRange(const u8 *record, u32 bytes, u32 at, AddressRange *out) {
  if (bytes < at + kDefRangeRangeBytes) return false;
  out->start = ReadU32(record + at + kDefRangeRangeOffset);
  out->section = ReadU16(record + at + kDefRangeRangeSection);
  out->length = ReadU16(record + at + kDefRangeRangeLength);
  out->gaps = record + at + kDefRangeRangeBytes;
  out->gaps_end = record + bytes;
  return true;
}

static void AddPart(LocalVariable *v, u32 storage, u16 reg, s32 offset, u32 parent_offset) {
  for (u32 i = 0; i < v->part_count; i++)
    if (v->parts[i].parent_offset == parent_offset) return;  // the first range for a part wins
  if (v->part_count >= kLocalMaxParts) return;
  LocalPart *part = &v->parts[v->part_count++];
  memset(part, 0, sizeof(*part));
  part->storage = storage, part->reg = reg, part->offset = offset, part->parent_offset = parent_offset;
}

typedef struct DefRangeQuery {
  u32 section, offset;
  u16 frame_register;  // the base of frame-relative ranges for this variable
} DefRangeQuery;

// Applies one def range of the variable, when it covers the address. The first range that places
// the whole value wins; ranges that place parts are gathered.
static void ApplyDefRange(const u8 *r, u32 bytes, const DefRangeQuery *q, LocalVariable *v) {
  u16 kind = ReadU16(r + 2);
  AddressRange range;
  bool whole_known = v->storage != kLocalUnavailable;
  switch (kind) {
    case kS_DEFRANGE_FRAMEPOINTER_REL_FULL_SCOPE:
      if (bytes < kDefRangeFrameSymOffset + 4 || whole_known) return;
      v->storage = kLocalFrameRelative, v->reg = q->frame_register, v->offset = (s32)ReadU32(r + kDefRangeFrameSymOffset);
      v->def_range = r;
      return;
    case kS_DEFRANGE_FRAMEPOINTER_REL:
      if (whole_known || !ReadRange(r, bytes, kDefRangeFrameSymRange, &range) || !RangeHolds(&range, q->section, q->offset))
        return;
      v->storage = kLocalFrameRelative, v->reg = q->frame_register, v->offset = (s32)ReadU32(r + kDefRangeFrameSymOffset);
      v->def_range = r;
      return;
    case kS_DEFRANGE_REGISTER:
      if (whole_known || !ReadRange(r, bytes, kDefRangeRegisterSymRange, &range) ||
          !RangeHolds(&range, q->section, q->offset))
        return;
      v->storage = kLocalRegister, v->reg = ReadU16(r + kDefRangeRegisterSymRegister);
      v->def_range = r;
      return;
    case kS_DEFRANGE_REGISTER_REL: {
      if (!ReadRange(r, bytes, kDefRangeRegRelSymRange, &range) || !RangeHolds(&range, q->section, q->offset)) return;
      u16 reg = ReadU16(r + kDefRangeRegRelSymRegister), flags = ReadU16(r + kDefRangeRegRelSymFlags);
      s32 displacement = (s32)ReadU32(r + kDefRangeRegRelSymOffset);
      if (flags & kRegRelFlagSubfield) {
        AddPart(v, kLocalRegisterRelative, reg, displacement, flags >> kRegRelParentOffsetShift);
      } else if (!whole_known) {
        v->storage = kLocalRegisterRelative, v->reg = reg, v->offset = displacement;
        v->def_range = r;
      }
      return;
    }
    case kS_DEFRANGE_SUBFIELD_REGISTER:
      if (!ReadRange(r, bytes, kDefRangeSubfieldSymRange, &range) || !RangeHolds(&range, q->section, q->offset)) return;
      AddPart(v, kLocalRegister, ReadU16(r + kDefRangeSubfieldSymRegister), 0,
              ReadU32(r + kDefRangeSubfieldSymParentOffset) & kSubfieldParentOffsetMask);
      return;
  }
  // S_DEFRANGE and S_DEFRANGE_SUBFIELD describe the value by a program of the old debug engine:
  // not read, the value counts as unavailable there.
}

// [SECTION] Variables of one scope

typedef struct FrameWalk {
  const PdbFile *pdb;
  const PdbProcScope *procedure;
  u32 section, offset;
  u16 local_base, parameter_base;
  u32 scope_depth;
  u32 positional_parameters;  // S_REGREL32/S_BPREL32/S_REGISTER of the procedure itself that are parameters
  LocalFn fn;
  void *user;
} FrameWalk;

// The procedure's parameter count from its type: records without a parameter flag list the
// parameters first (`this` before them for a method).
static u32 ParameterCount(const PdbFile *pdb, const PdbProcScope *procedure) {
  TypeRecord t;
  if (!PdbDecodeType(&pdb->types, ReadU32(procedure->record + kProcSymType), &t)) return 0;
  if (t.leaf == kLF_PROCEDURE) return t.member_count;
  if (t.leaf == kLF_MFUNCTION) return t.member_count + (t.this_type != 0 ? 1u : 0u);
  return 0;
}

static void BeginVariable(LocalVariable *v, const u8 *record, u32 type_at, u32 name_at, const FrameWalk *w) {
  memset(v, 0, sizeof(*v));
  v->record = record;
  v->type_index = ReadU32(record + type_at);
  v->name = (const char *)record + name_at;
  v->scope_depth = w->scope_depth;
}

// Fills v from the variable record r (which holds a terminated name); false for records that are
// not variables.
static bool ReadVariable(FrameWalk *w, const u8 *r, u32 bytes, bool procedure_scope, LocalVariable *v) {
  u16 kind = ReadU16(r + 2);
  switch (kind) {
    case kS_LOCAL: {
      if (!SymbolRecordHasName(r, bytes, kLocalSymName)) return false;
      BeginVariable(v, r, kLocalSymType, kLocalSymName, w);
      v->is_parameter = (ReadU16(r + kLocalSymFlags) & kLocalFlagParameter) != 0;
      return true;
    }
    case kS_FILESTATIC:
      if (!SymbolRecordHasName(r, bytes, kFileStaticSymName)) return false;
      BeginVariable(v, r, kFileStaticSymType, kFileStaticSymName, w);
      return true;
    case kS_REGREL32: case kS_BPREL32: case kS_REGISTER: {
      u32 name_at = kind == kS_REGREL32 ? kRegRelSymName : kind == kS_BPREL32 ? kBpRelSymName : kRegisterSymName;
      if (!SymbolRecordHasName(r, bytes, name_at)) return false;
      BeginVariable(v, r, kind == kS_REGREL32 ? kRegRelSymType : kind == kS_BPREL32 ? kBpRelSymType : kRegisterSymType,
                    name_at, w);
      if (kind == kS_REGREL32) {
        v->storage = kLocalRegisterRelative, v->reg = ReadU16(r + kRegRelSymRegister);
        v->offset = (s32)ReadU32(r + kRegRelSymOffset);
      } else if (kind == kS_BPREL32) {
        v->storage = kLocalFrameRelative, v->offset = (s32)ReadU32(r + kBpRelSymOffset);
        v->reg = w->pdb->dbi.machine == kMachineX86 ? kCvReg_ebp : kCvReg_rbp;
      } else {
        v->storage = kLocalRegister, v->reg = ReadU16(r + kRegisterSymRegister);
      }
      if (procedure_scope && w->positional_parameters) {
        v->is_parameter = true;
        w->positional_parameters--;
      }
      return true;
    }
    case kS_LDATA32: case kS_LTHREAD32:
      if (!SymbolRecordHasName(r, bytes, kDataSymName)) return false;
      BeginVariable(v, r, kDataSymType, kDataSymName, w);
      v->storage = kind == kS_LDATA32 ? kLocalStatic : kLocalThreadStatic;
      v->section = ReadU16(r + kDataSymSection), v->section_offset = ReadU32(r + kDataSymOffset);
      return true;
    case kS_CONSTANT: {
      if (bytes < kConstSymValue + 2) return false;
      NumericLeaf value = ReadNumericLeaf(r + kConstSymValue, bytes - kConstSymValue);
      if (!value.bytes || !SymbolRecordHasName(r, bytes, kConstSymValue + value.bytes)) return false;
      BeginVariable(v, r, kConstSymType, kConstSymValue + value.bytes, w);
      v->storage = kLocalConstant, v->constant = value;
      return true;
    }
  }
  return false;
}

// Visits the variables that the scope holds itself, skipping its nested scopes.
static bool VisitScope(FrameWalk *w, PdbScopeRef scope) {
  const u8 *begin, *end;
  PdbScopeRecords(&w->pdb->scopes, w->procedure, scope, &begin, &end);
  if (end < begin) return true;
  u64 size = (u64)(end - begin);
  u32 depth = 0;
  for (u64 at = 0, bytes; (bytes = SymbolRecordBytes(begin, size, at)); at += bytes) {
    const u8 *r = begin + at;
    u16 kind = ReadU16(r + 2);
    if (SymbolKindOpensScope(kind)) {
      depth++;
      continue;
    }
    if (kind == kS_END || kind == kS_INLINESITE_END) {
      if (depth) depth--;
      continue;
    }
    LocalVariable v;
    if (depth || !ReadVariable(w, r, (u32)bytes, scope == kPdbNoBlock, &v)) continue;
    if (kind == kS_LOCAL || kind == kS_FILESTATIC) {
      DefRangeQuery q = {w->section, w->offset, v.is_parameter ? w->parameter_base : w->local_base};
      for (u64 next = at + bytes, n; (n = SymbolRecordBytes(begin, size, next)); next += n) {
        if (!SymbolKindIsDefRange(ReadU16(begin + next + 2))) break;
        ApplyDefRange(begin + next, (u32)n, &q, &v);
      }
      if (v.storage == kLocalUnavailable && v.part_count) v.storage = kLocalParts;
      u16 flags = ReadU16(r + (kind == kS_LOCAL ? kLocalSymFlags : kFileStaticSymFlags));
      if (flags & kLocalFlagOptimizedOut) v.storage = kLocalUnavailable, v.part_count = 0;
    }
    if (!w->fn(w->user, &v)) return false;
  }
  return true;
}

bool PdbForEachLocal(const PdbFile *pdb, const PdbProcScope *procedure, const ScopeChain *chain, u32 section,
                     u32 offset, u32 frame, LocalFn fn, void *user) {
  if (frame > chain->inline_count) return false;
  FrameWalk w = {};
  w.pdb = pdb, w.procedure = procedure, w.section = section, w.offset = offset, w.fn = fn, w.user = user;
  w.local_base = PdbFrameBaseRegister(pdb, procedure, false);
  w.parameter_base = PdbFrameBaseRegister(pdb, procedure, true);
  w.positional_parameters = ParameterCount(pdb, procedure);
  const PdbScopes *scopes = &pdb->scopes;
  PdbScopeRef root = ScopeChainFrameRoot(scopes, chain, frame);
  PdbScopeRef at = ScopeChainFrameInnermost(scopes, procedure, chain, frame);
  for (u32 steps = 0; steps <= scopes->block_count; steps++) {
    if (!VisitScope(&w, at)) return false;
    w.scope_depth++;
    if (at == root) break;
    at = PdbScopeParent(scopes, at);
  }
  return true;
}
