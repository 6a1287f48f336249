// [SECTION] Numeric leaves and texts
// [SECTION] Decoding one record
// [SECTION] Classification
// [SECTION] Record hash
#include "symbols/pdb_type_records.h"

#include <string.h>

#include "symbols/pdb_raw.h"

// [SECTION] Numeric leaves and texts

NumericLeaf ReadNumericLeaf(const u8 *p, u32 available) {
  NumericLeaf n = {0, false, 0, 0};
  if (available < 2) return n;
  u16 leaf = ReadU16(p);
  if (leaf < 0x8000) {
    n.value = leaf, n.bytes = 2, n.width = 2;
    return n;
  }
  u32 payload = 0;
  switch (leaf) {
    case 0x8000: payload = 1; n.is_signed = true; break;   // LF_CHAR
    case 0x8001: payload = 2; n.is_signed = true; break;   // LF_SHORT
    case 0x8002: payload = 2; break;                       // LF_USHORT
    case 0x8003: payload = 4; n.is_signed = true; break;   // LF_LONG
    case 0x8004: payload = 4; break;                       // LF_ULONG
    case 0x8009: payload = 8; n.is_signed = true; break;   // LF_QUADWORD
    case 0x800A: payload = 8; break;                       // LF_UQUADWORD
    case 0x8017: payload = 16; n.is_signed = true; break;  // LF_OCTWORD
    case 0x8018: payload = 16; break;                      // LF_UOCTWORD
    // Reals, complex numbers, decimals and dates: stepped over, value 0.
    case 0x801C: payload = 2; break;                       // LF_REAL16
    case 0x8005: payload = 4; break;                       // LF_REAL32
    case 0x800B: payload = 6; break;                       // LF_REAL48
    case 0x8006: case 0x800C: case 0x801A: payload = 8; break;
    case 0x8007: payload = 10; break;                      // LF_REAL80
    case 0x8008: case 0x800D: case 0x8019: payload = 16; break;
    case 0x800E: payload = 20; break;                      // LF_COMPLEX80
    case 0x800F: payload = 32; break;                      // LF_COMPLEX128
    case 0x8010:                                           // LF_VARSTRING: 16-bit length, bytes
      if (available < 4) return n;
      payload = 2 + ReadU16(p + 2);
      break;
    case 0x801B: {                                         // LF_UTF8STRING: terminated
      const void *end = memchr(p + 2, 0, available - 2);
      if (!end) return n;
      payload = (u32)((const u8 *)end - (p + 2)) + 1;
      break;
    }
    default: return n;  // unknown: the caller cannot step over it
  }
  if (payload > available - 2) return n;
  n.bytes = 2 + payload;
  if (leaf > 0x800A && leaf != 0x8017 && leaf != 0x8018) return n;
  if (leaf >= 0x8005 && leaf <= 0x8008) return n;
  u32 width = payload > 8 ? 8 : payload;
  n.width = width;
  u64 v = 0;
  memcpy(&v, p + 2, width);
  if (n.is_signed && width < 8 && (v >> (width * 8 - 1)) & 1) v |= ~0ull << (width * 8);
  n.value = v;
  return n;
}

TypeText ReadTypeText(const u8 *p, u32 available, u32 *bytes) {
  TypeText t = {(const char *)p, 0};
  const void *end = memchr(p, 0, available);
  t.length = end ? (u32)((const u8 *)end - p) : available;
  *bytes = end ? t.length + 1 : available;
  return t;
}

bool TypeTextEquals(TypeText a, TypeText b) {
  return a.length == b.length && (a.length == 0 || memcmp(a.text, b.text, a.length) == 0);
}

// [SECTION] Decoding one record

// The size leaf, the name and, when the properties say so, the unique name, from `at` on.
static void DecodeSizeAndNames(const u8 *r, u32 count, u32 at, bool has_size, TypeRecord *out) {
  if (has_size) {
    NumericLeaf n = ReadNumericLeaf(r + at, count - at);
    if (!n.bytes) return;
    out->size = n.value;
    at += n.bytes;
  }
  u32 used = 0;
  out->name = ReadTypeText(r + at, count - at, &used);
  at += used;
  if (out->properties & kTypePropUniqueName) out->unique_name = ReadTypeText(r + at, count - at, &used);
}

bool PdbDecodeTypeBytes(const u8 *r, u32 count, TypeRecord *out) {
  memset(out, 0, sizeof(*out));
  if (count < 4) return false;
  out->bytes = r;
  out->byte_count = count;
  out->leaf = ReadU16(r + kTypeRecordLeaf);
  out->name.text = out->unique_name.text = "";
  switch (out->leaf) {
    case kLF_MODIFIER:
      if (count < kModifierBytes) return false;
      out->type = ReadU32(r + kModifierType), out->properties = ReadU16(r + kModifierAttributes);
      return true;
    case kLF_POINTER: {
      if (count < kPointerBytes) return false;
      out->type = ReadU32(r + kPointerReferent), out->properties = ReadU32(r + kPointerAttributes);
      u32 mode = (out->properties >> kPointerModeShift) & 7;
      if ((mode == 2 || mode == 3) && count >= kPointerBytes + 4) out->index_type = ReadU32(r + kPointerMemberClass);
      return true;
    }
    case kLF_PROCEDURE:
      if (count < kProcedureBytes) return false;
      out->type = ReadU32(r + kProcedureReturn), out->member_count = ReadU16(r + kProcedureParameterCount);
      out->index_type = ReadU32(r + kProcedureArguments);
      return true;
    case kLF_MFUNCTION:
      if (count < kMemberFunctionBytes) return false;
      out->type = ReadU32(r + kMemberFunctionReturn), out->derived = ReadU32(r + kMemberFunctionClass);
      out->this_type = ReadU32(r + kMemberFunctionThis);
      out->member_count = ReadU16(r + kMemberFunctionParameterCount);
      out->index_type = ReadU32(r + kMemberFunctionArguments);
      return true;
    case kLF_ARGLIST:
      if (count < kArgListFirst) return false;
      out->size = ReadU32(r + kArgListCount);
      if (out->size > (count - kArgListFirst) / 4) out->size = (count - kArgListFirst) / 4;  // only those present
      return true;
    case kLF_BITFIELD:
      if (count < kBitFieldBytes) return false;
      out->type = ReadU32(r + kBitFieldType), out->bit_length = r[kBitFieldLength];
      out->bit_position = r[kBitFieldPosition];
      return true;
    case kLF_ARRAY:
      if (count < kArraySize) return false;
      out->type = ReadU32(r + kArrayElement), out->index_type = ReadU32(r + kArrayIndex);
      DecodeSizeAndNames(r, count, kArraySize, true, out);
      return true;
    case kLF_CLASS: case kLF_STRUCTURE: case kLF_INTERFACE:
      if (count < kClassSize) return false;
      out->member_count = ReadU16(r + kClassCount), out->properties = ReadU16(r + kClassProperties);
      out->field_list = ReadU32(r + kClassFields), out->derived = ReadU32(r + kClassDerived);
      out->vshape = ReadU32(r + kClassShape);
      DecodeSizeAndNames(r, count, kClassSize, true, out);
      return true;
    case kLF_CLASS2: case kLF_STRUCTURE2:
      if (count < kClass2Size) return false;
      out->properties = ReadU32(r + kClass2Properties), out->field_list = ReadU32(r + kClass2Fields);
      out->derived = ReadU32(r + kClass2Derived), out->vshape = ReadU32(r + kClass2Shape);
      out->member_count = ReadU16(r + kClass2Count);
      DecodeSizeAndNames(r, count, kClass2Size, true, out);
      return true;
    case kLF_UNION:
      if (count < kUnionSize) return false;
      out->member_count = ReadU16(r + kUnionCount), out->properties = ReadU16(r + kUnionProperties);
      out->field_list = ReadU32(r + kUnionFields);
      DecodeSizeAndNames(r, count, kUnionSize, true, out);
      return true;
    case kLF_ENUM:
      if (count < kEnumName) return false;
      out->member_count = ReadU16(r + kEnumCount), out->properties = ReadU16(r + kEnumProperties);
      out->type = ReadU32(r + kEnumUnderlying), out->field_list = ReadU32(r + kEnumFields);
      DecodeSizeAndNames(r, count, kEnumName, false, out);
      return true;
    case kLF_ALIAS:
      if (count < kAliasName) return false;
      out->type = ReadU32(r + kAliasType);
      DecodeSizeAndNames(r, count, kAliasName, false, out);
      return true;
    case kLF_VTSHAPE:
      if (count < kVtShapeBytes) return false;
      out->member_count = ReadU16(r + kVtShapeCount);
      return true;
  }
  return true;  // field lists, method lists and kinds not interpreted: the header is all
}

// Where a tag record's size leaf (or, for an enumeration, its name) starts; 0 for other leaves.
static u32 TagTailOffset(u16 leaf, bool *has_size) {
  *has_size = true;
  switch (leaf) {
    case kLF_CLASS: case kLF_STRUCTURE: case kLF_INTERFACE: return kClassSize;
    case kLF_CLASS2: case kLF_STRUCTURE2: return kClass2Size;
    case kLF_UNION: return kUnionSize;
    case kLF_ENUM: *has_size = false; return kEnumName;
  }
  return 0;
}

bool TypeRecordNameEquals(const u8 *r, u32 count, TypeText name) {
  if (count < 4) return false;
  bool has_size;
  u32 at = TagTailOffset(ReadU16(r + kTypeRecordLeaf), &has_size);
  if (at == 0 || at > count) return false;
  if (has_size) {
    NumericLeaf n = ReadNumericLeaf(r + at, count - at);
    if (!n.bytes) return false;
    at += n.bytes;
  }
  return count - at > name.length && memcmp(r + at, name.text, name.length) == 0 && r[at + name.length] == 0;
}

bool PdbDecodeType(const PdbTypes *types, u32 type_index, TypeRecord *out) {
  const u8 *r = TypeIndexIsSynthetic(type_index) ? nullptr : PdbTypeRecord(types, type_index);
  if (!r) {
    memset(out, 0, sizeof(*out));
    out->name.text = out->unique_name.text = "";
    if (!TypeIndexIsSynthetic(type_index)) return false;
    // A pointer made up for a type the stream has no pointer to: a plain 64-bit one, no record.
    out->leaf = kLF_POINTER;
    out->type = SyntheticPointee(type_index);
    out->properties = kPointerKind64 | 8u << kPointerSizeShift;
    return true;
  }
  return PdbDecodeTypeBytes(r, ReadU16(r) + 2u, out);
}

u32 SyntheticPointee(u32 type_index) {
  u32 depth = (type_index & ~kSyntheticPointer) >> kSyntheticDepthShift;
  return depth ? type_index - (1u << kSyntheticDepthShift) : type_index & kSyntheticBaseMask;
}

// [SECTION] Classification

bool TypeLeafIsClassLike(u16 leaf) {
  return leaf == kLF_CLASS || leaf == kLF_STRUCTURE || leaf == kLF_INTERFACE || leaf == kLF_CLASS2 ||
         leaf == kLF_STRUCTURE2;
}

bool TypeLeafIsTag(u16 leaf) { return TypeLeafIsClassLike(leaf) || leaf == kLF_UNION || leaf == kLF_ENUM; }

static bool EndsWith(TypeText t, const char *suffix) {
  u32 n = (u32)strlen(suffix);
  return t.length >= n && memcmp(t.text + t.length - n, suffix, n) == 0;
}

// The names MSVC gives types declared without one: "<unnamed-tag>" and "__unnamed", also nested
// ("Outer::<unnamed-tag>"). Clang's "<unnamed-type-u>" and MSVC's "<unnamed-enum-X>" are names
// derived from a member or enumerator and are hashed like any other name.
bool TypeNameIsAnonymous(TypeText t) {
  static const char *const kNames[] = {"<unnamed-tag>", "__unnamed"};
  for (const char *name : kNames) {
    u32 n = (u32)strlen(name);
    if (t.length == n && memcmp(t.text, name, n) == 0) return true;
    if (t.length >= n + 2 && memcmp(t.text + t.length - n - 2, "::", 2) == 0 && EndsWith(t, name)) return true;
  }
  return false;
}

const char *TypeLeafName(u16 leaf) {
  switch (leaf) {
#define KTRN_LEAF_NAME(name, value) \
  case value: return #name;
    KTRN_TYPE_LEAVES(KTRN_LEAF_NAME)
#undef KTRN_LEAF_NAME
  }
  return nullptr;
}

// [SECTION] Record hash

struct Crc32Table {
  u32 entries[256];
  constexpr Crc32Table() : entries() {
    for (u32 i = 0; i < 256; i++) {
      u32 c = i;
      for (int k = 0; k < 8; k++) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      entries[i] = c;
    }
  }
};
static constexpr Crc32Table kCrc32;

u32 Crc32(const u8 *bytes, u32 count) {
  u32 crc = 0;
  for (u32 i = 0; i < count; i++) crc = kCrc32.entries[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
  return crc;
}

u32 PdbTypeRecordHashBytes(const u8 *record, u32 byte_count) {
  TypeRecord t;
  if (PdbDecodeTypeBytes(record, byte_count, &t) && TypeLeafIsTag(t.leaf)) {
    bool forward = t.properties & kTypePropForwardRef;
    bool anonymous = (t.properties & kTypePropUniqueName) && TypeNameIsAnonymous(t.name);
    if (!forward && !(t.properties & kTypePropScoped) && !anonymous)
      return PdbNameHashV1(t.name.text, t.name.length);
    if (!forward && (t.properties & kTypePropUniqueName) && !anonymous)
      return PdbNameHashV1(t.unique_name.text, t.unique_name.length);
  }
  return Crc32(record, byte_count);
}

u32 PdbTypeRecordHash(const PdbTypes *types, u32 type_index) {
  const u8 *record = PdbTypeRecord(types, type_index);
  if (!record) return 0;
  // A modifier stands for what it modifies; chains are followed a bounded number of steps.
  for (int step = 0; step < 16 && ReadU16(record + kTypeRecordLeaf) == kLF_MODIFIER &&
                     ReadU16(record) + 2u >= kModifierBytes;
       step++) {
    const u8 *modified = PdbTypeRecord(types, ReadU32(record + kModifierType));
    if (!modified) break;
    record = modified;
  }
  return PdbTypeRecordHashBytes(record, ReadU16(record) + 2u);
}
