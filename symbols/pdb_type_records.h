// Type records decoded: the CodeView leaf kinds the reader understands, numeric leaves, one
// record's fields in a flat struct, and the hash the PDB writer gives each record (the value the
// name index is built from). Layouts follow LLVM's public CodeView type-record notes.
#pragma once
#include "base/types.h"
#include "symbols/pdb_types.h"

// X(name, value). Records of other kinds are kept by index but not interpreted.
#define KTRN_TYPE_LEAVES(X)            \
  X(LF_VTSHAPE, 0x000A)                \
  X(LF_MODIFIER, 0x1001)               \
  X(LF_POINTER, 0x1002)                \
  X(LF_PROCEDURE, 0x1008)              \
  X(LF_MFUNCTION, 0x1009)              \
  X(LF_ARGLIST, 0x1201)                \
  X(LF_FIELDLIST, 0x1203)              \
  X(LF_BITFIELD, 0x1205)               \
  X(LF_METHODLIST, 0x1206)             \
  X(LF_BCLASS, 0x1400)                 \
  X(LF_VBCLASS, 0x1401)                \
  X(LF_IVBCLASS, 0x1402)               \
  X(LF_INDEX, 0x1404)                  \
  X(LF_VFUNCTAB, 0x1409)               \
  X(LF_FRIENDCLS, 0x140B)              \
  X(LF_VFUNCOFF, 0x140C)               \
  X(LF_ENUMERATE, 0x1502)              \
  X(LF_ARRAY, 0x1503)                  \
  X(LF_CLASS, 0x1504)                  \
  X(LF_STRUCTURE, 0x1505)              \
  X(LF_UNION, 0x1506)                  \
  X(LF_ENUM, 0x1507)                   \
  X(LF_ALIAS, 0x150A)                  \
  X(LF_FRIENDFCN, 0x150C)              \
  X(LF_MEMBER, 0x150D)                 \
  X(LF_STMEMBER, 0x150E)               \
  X(LF_METHOD, 0x150F)                 \
  X(LF_NESTTYPE, 0x1510)               \
  X(LF_ONEMETHOD, 0x1511)              \
  X(LF_NESTTYPEEX, 0x1512)             \
  X(LF_MEMBERMODIFY, 0x1513)           \
  X(LF_INTERFACE, 0x1519)              \
  X(LF_BINTERFACE, 0x151A)             \
  X(LF_FUNC_ID, 0x1601)                \
  X(LF_MFUNC_ID, 0x1602)               \
  X(LF_BUILDINFO, 0x1603)              \
  X(LF_SUBSTR_LIST, 0x1604)            \
  X(LF_STRING_ID, 0x1605)              \
  X(LF_UDT_SRC_LINE, 0x1606)           \
  X(LF_UDT_MOD_SRC_LINE, 0x1607)       \
  X(LF_CLASS2, 0x1608)                 \
  X(LF_STRUCTURE2, 0x1609)

enum TypeLeaf : u16 {
#define KTRN_LEAF_ENUM(name, value) k##name = value,
  KTRN_TYPE_LEAVES(KTRN_LEAF_ENUM)
#undef KTRN_LEAF_ENUM
};

// Class, structure, union and enumeration properties.
enum : u32 {
  kTypePropForwardRef = 0x80,
  kTypePropScoped = 0x100,
  kTypePropUniqueName = 0x200,
};

// Text inside a record: not necessarily terminated where the record ends.
typedef struct TypeText {
  const char *text;
  u32 length;
} TypeText;

// One record's fields. Which fields mean something depends on the leaf (see PdbDecodeType).
typedef struct TypeRecord {
  u16 leaf;
  u16 member_count;  // class, union, enum: field count; procedure: parameter count
  u32 properties;    // class, union, enum: properties; modifier: 1 const, 2 volatile, 4 unaligned;
                     // pointer: attributes (kind bits 0-4, mode 5-7, 8 flat, 9 volatile, 10 const,
                     // 11 unaligned, 12 restrict, size 13-18)
  u32 type;          // modifier: modified; pointer: referent; array: element; enum: underlying;
                     // bit field: base; procedure and member function: return type
  u32 index_type;    // array: index type; procedure and member function: argument list;
                     // pointer to member: containing class
  u32 field_list;
  u32 derived;       // member function: its class
  u32 this_type;     // member function: the type of `this` (0 for a static method)
  u32 vshape;
  u64 size;          // class, union, array: the size leaf
  u8 bit_length, bit_position;
  TypeText name, unique_name;
  const u8 *bytes;   // the whole record, its length field included
  u32 byte_count;
} TypeRecord;

// [SECTION] Pointers without a record
// The pointer-to of a type the stream holds no pointer to is an index of its own, made up without
// scanning the stream: bit 31 set, the pointer depth less one in bits 24-30, the type pointed to
// through all of them in bits 0-23. Decoding gives a plain 64-bit LF_POINTER without bytes.
enum : u32 {
  kSyntheticPointer = 0x80000000,
  kSyntheticDepthShift = 24,
  kSyntheticMaxDepth = 128,
  kSyntheticBaseMask = 0xFFFFFF,
};
static inline bool TypeIndexIsSynthetic(u32 type_index) { return (type_index & kSyntheticPointer) != 0; }
// The type a synthetic pointer points to (itself a synthetic pointer below the first level).
u32 SyntheticPointee(u32 type_index);

// LF_POINTER attributes: kind in bits 0-4, mode in bits 5-7, the flags, size in bits 13-18.
enum : u32 { kPointerKind64 = 0x0C, kPointerModeShift = 5, kPointerSizeShift = 13 };

// Decodes the record of a type index; false when it has no record or its fixed part is cut
// short. Names missing from a short record come back empty.
bool PdbDecodeType(const PdbTypes *types, u32 type_index, TypeRecord *out);
// The same for a record already bounds-checked (byte_count = its length field + 2, at least 4).
bool PdbDecodeTypeBytes(const u8 *record, u32 byte_count, TypeRecord *out);

// True when the record is a class, structure, interface, union or enumeration named exactly name
// (terminator included): the quick test that look-ups make before decoding a candidate.
bool TypeRecordNameEquals(const u8 *record, u32 byte_count, TypeText name);

// [SECTION] Classification
bool TypeLeafIsClassLike(u16 leaf);  // class, structure, interface and their 32-bit-property kinds
bool TypeLeafIsTag(u16 leaf);        // class-like, union or enumeration
bool TypeNameIsAnonymous(TypeText name);
const char *TypeLeafName(u16 leaf);  // "LF_POINTER"; null for an unknown leaf

// [SECTION] Numeric leaves
typedef struct NumericLeaf {
  u64 value;       // wider kinds keep their low 64 bits; reals give 0
  bool is_signed;  // the value is to be read as s64
  u32 bytes;       // bytes taken, the leaf word included; 0 when it does not fit
  u32 width;       // bytes of the value itself (2 for a value below 0x8000)
} NumericLeaf;
NumericLeaf ReadNumericLeaf(const u8 *p, u32 available);
// The terminated name at p, cut at available bytes; *bytes gets what it takes (its terminator
// included when present).
TypeText ReadTypeText(const u8 *p, u32 available, u32 *bytes);
bool TypeTextEquals(TypeText a, TypeText b);

// [SECTION] Record hash: what the writer put in the hash-value buffer for this record (before
// the modulo by the bucket count). A modifier hashes as the record it modifies.
u32 PdbTypeRecordHash(const PdbTypes *types, u32 type_index);
u32 PdbTypeRecordHashBytes(const u8 *record, u32 byte_count);
u32 Crc32(const u8 *bytes, u32 count);  // reflected 0xEDB88320, initial 0, no final inversion
