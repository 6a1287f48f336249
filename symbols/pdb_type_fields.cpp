#include "symbols/pdb_type_fields.h"

#include <string.h>

#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_lookup.h"

static void EnterList(FieldWalk *walk, u32 field_list) {
  walk->at = walk->end = nullptr;
  TypeRecord list;
  if (!PdbDecodeType(walk->types, field_list, &list) || list.leaf != kLF_FIELDLIST) return;
  walk->at = list.bytes + 4;
  walk->end = list.bytes + list.byte_count;
}

void FieldWalkBegin(FieldWalk *walk, const PdbTypes *types, u32 field_list) {
  memset(walk, 0, sizeof(*walk));
  walk->types = types;
  EnterList(walk, field_list);
}

// Reads one numeric leaf at *at, advancing it; false when it does not fit.
static bool TakeNumeric(const u8 **at, const u8 *end, u64 *value, bool *is_signed, u8 *width = nullptr) {
  NumericLeaf n = ReadNumericLeaf(*at, (u32)(end - *at));
  if (!n.bytes) return false;
  *value = n.value;
  if (is_signed) *is_signed = n.is_signed;
  if (width) *width = (u8)n.width;
  *at += n.bytes;
  return true;
}

static void TakeName(const u8 **at, const u8 *end, TypeText *name) {
  u32 used = 0;
  *name = ReadTypeText(*at, (u32)(end - *at), &used);
  *at += used;
}

// Method properties that carry a virtual-function-table offset: introducing and pure introducing.
static bool IntroducesVirtual(u16 attributes) {
  u16 mprop = (attributes >> 2) & 7;
  return mprop == 4 || mprop == 6;
}

// Decodes the entry at p (leaf word included) into out; returns the byte after it, or null.
static const u8 *DecodeEntry(const u8 *p, const u8 *end, TypeField *out) {
  memset(out, 0, sizeof(*out));
  out->name.text = "";
  if (end - p < 2) return nullptr;
  out->leaf = ReadU16(p);
  const u8 *at = p + 2;
  u32 left = (u32)(end - at);
  switch (out->leaf) {
    case kLF_MEMBER:  // attributes, type, offset, name
      if (left < 6) return nullptr;
      out->attributes = ReadU16(at), out->type = ReadU32(at + 2), at += 6;
      if (!TakeNumeric(&at, end, &out->offset, nullptr)) return nullptr;
      TakeName(&at, end, &out->name);
      return at;
    case kLF_STMEMBER: case kLF_NESTTYPEEX: case kLF_MEMBERMODIFY:  // attributes, type, name
    case kLF_NESTTYPE: case kLF_FRIENDFCN:                           // padding, type, name
      if (left < 6) return nullptr;
      out->attributes = ReadU16(at), out->type = ReadU32(at + 2), at += 6;
      TakeName(&at, end, &out->name);
      return at;
    case kLF_BCLASS: case kLF_BINTERFACE:  // attributes, type, offset
      if (left < 6) return nullptr;
      out->attributes = ReadU16(at), out->type = ReadU32(at + 2), at += 6;
      return TakeNumeric(&at, end, &out->offset, nullptr) ? at : nullptr;
    case kLF_VBCLASS: case kLF_IVBCLASS:  // attributes, base, vbptr type, vbptr offset, table index
      if (left < 10) return nullptr;
      out->attributes = ReadU16(at), out->type = ReadU32(at + 2), out->vbptr_type = ReadU32(at + 6), at += 10;
      if (!TakeNumeric(&at, end, &out->offset, nullptr)) return nullptr;
      return TakeNumeric(&at, end, &out->vbase_index, nullptr) ? at : nullptr;
    case kLF_ENUMERATE:  // attributes, value, name
      if (left < 2) return nullptr;
      out->attributes = ReadU16(at), at += 2;
      if (!TakeNumeric(&at, end, &out->offset, &out->value_signed, &out->value_width)) return nullptr;
      TakeName(&at, end, &out->name);
      return at;
    case kLF_METHOD:  // overload count, method list, name
      if (left < 6) return nullptr;
      out->attributes = ReadU16(at), out->type = ReadU32(at + 2), at += 6;
      TakeName(&at, end, &out->name);
      return at;
    case kLF_ONEMETHOD:  // attributes, type, [vftable offset], name
      if (left < 6) return nullptr;
      out->attributes = ReadU16(at), out->type = ReadU32(at + 2), at += 6;
      if (IntroducesVirtual(out->attributes)) {
        if (end - at < 4) return nullptr;
        out->vftable_offset = (s32)ReadU32(at), at += 4;
      }
      TakeName(&at, end, &out->name);
      return at;
    case kLF_VFUNCTAB: case kLF_INDEX: case kLF_FRIENDCLS:  // padding, type
      if (left < 6) return nullptr;
      out->type = ReadU32(at + 2);
      return at + 6;
    case kLF_VFUNCOFF:  // padding, type, offset
      if (left < 10) return nullptr;
      out->type = ReadU32(at + 2), out->offset = ReadU32(at + 6);
      return at + 10;
  }
  return nullptr;  // an entry we cannot measure: nothing after it can be found
}

bool FieldWalkNext(FieldWalk *walk, TypeField *out) {
  while (walk->at && !walk->broken) {
    // Entries are padded to 4 bytes with LF_PADn bytes (0xF0 + n), n the bytes to skip.
    while (walk->at < walk->end && *walk->at > 0xF0) {
      u32 skip = *walk->at & 0x0F;
      if (skip > (u32)(walk->end - walk->at)) skip = (u32)(walk->end - walk->at);
      walk->at += skip;
    }
    if (walk->end - walk->at < 2) return false;
    const u8 *next = DecodeEntry(walk->at, walk->end, out);
    if (!next) {
      walk->broken = true;
      return false;
    }
    walk->at = next;
    if (out->leaf != kLF_INDEX) return true;
    if (++walk->continuations > kFieldListMaxContinuations) {
      walk->broken = true;
      return false;
    }
    EnterList(walk, out->type);
  }
  return false;
}

u64 EnumeratorValue(const TypeField *f, u32 underlying_type, bool *negative) {
  u64 value = f->offset;
  u32 bits = (u32)BuiltinTypeSize(underlying_type) * 8;
  bool is_signed = BuiltinTypeIsSigned(underlying_type);
  if (bits == 0) {  // not an integer type: the leaf decides
    is_signed = f->value_signed;
  } else if (bits < 64) {
    value &= (1ull << bits) - 1;
    if (is_signed && (value >> (bits - 1)) & 1) value |= ~0ull << bits;
  }
  *negative = is_signed && (s64)value < 0;
  return value;
}

// [SECTION] Data members, base classes first

static bool WalkMembers(const PdbTypes *types, u32 type_index, u64 base_offset, u32 depth, u32 *budget,
                        DataMemberFn fn, void *user) {
  if (depth > kDataMemberMaxDepth) return true;
  TypeRecord t;
  if (!PdbDecodeType(types, PdbTypeDefinition(types, PdbTypeLookThrough(types, type_index)), &t)) return true;
  if (!TypeLeafIsClassLike(t.leaf) && t.leaf != kLF_UNION) return true;
  FieldWalk walk;
  FieldWalkBegin(&walk, types, t.field_list);
  TypeField field;
  while (FieldWalkNext(&walk, &field)) {
    if (*budget == 0) return true;
    --*budget;
    if (field.leaf == kLF_BCLASS || field.leaf == kLF_BINTERFACE) {
      if (!WalkMembers(types, field.type, base_offset + field.offset, depth + 1, budget, fn, user)) return false;
    } else if (field.leaf == kLF_MEMBER) {
      DataMember m = {&field, base_offset + field.offset, depth};
      if (!fn(user, &m)) return false;
    }
  }
  return true;
}

bool PdbForEachDataMember(const PdbTypes *types, u32 type_index, DataMemberFn fn, void *user) {
  u32 budget = kDataMemberMaxEntries;
  return WalkMembers(types, type_index, 0, 0, &budget, fn, user);
}

// [SECTION] Member by name

static bool FindMember(const PdbTypes *types, u32 type_index, TypeText name, u64 base_offset, u32 depth,
                       u32 *budget, FoundMember *out) {
  if (depth > kDataMemberMaxDepth) return false;
  TypeRecord t;
  if (!PdbDecodeType(types, PdbTypeDefinition(types, PdbTypeLookThrough(types, type_index)), &t)) return false;
  if (!TypeLeafIsClassLike(t.leaf) && t.leaf != kLF_UNION) return false;
  FieldWalk walk;
  TypeField f;
  FieldWalkBegin(&walk, types, t.field_list);
  while (FieldWalkNext(&walk, &f) && *budget) {
    --*budget;
    if ((f.leaf == kLF_MEMBER || f.leaf == kLF_STMEMBER) && TypeTextEquals(f.name, name)) {
      out->leaf = f.leaf, out->type = f.type, out->depth = depth;
      out->offset = f.leaf == kLF_MEMBER ? base_offset + f.offset : 0;
      return true;
    }
  }
  FieldWalkBegin(&walk, types, t.field_list);
  while (FieldWalkNext(&walk, &f) && *budget) {
    --*budget;
    if ((f.leaf == kLF_BCLASS || f.leaf == kLF_BINTERFACE) &&
        FindMember(types, f.type, name, base_offset + f.offset, depth + 1, budget, out))
      return true;
  }
  return false;
}

bool PdbFindMember(const PdbTypes *types, u32 type_index, const char *name, u32 length, FoundMember *out) {
  memset(out, 0, sizeof(*out));
  u32 budget = kDataMemberMaxEntries;
  TypeText wanted = {name, length};
  return length && FindMember(types, type_index, wanted, 0, 0, &budget, out);
}
