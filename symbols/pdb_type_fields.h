// Field lists: stepping through the entries of an LF_FIELDLIST (members, static members, base
// classes, virtual bases, virtual-table entries, enumerators, methods, nested types and the rest),
// following LF_INDEX continuations, and the data members of an aggregate with its base classes'
// members flattened in at their offsets.
#pragma once
#include "symbols/pdb_type_records.h"

// One field-list entry. Which fields mean something depends on the leaf.
typedef struct TypeField {
  u16 leaf;
  u16 attributes;    // access and method properties (CV_fldattr); LF_METHOD: overload count
  u32 type;          // member, static member, base, nested type, method type or method list
  u64 offset;        // member: byte offset; base class: offset in the derived object;
                     // virtual base: vbptr offset; enumerator: value; LF_VFUNCOFF: offset
  u64 vbase_index;   // virtual base: index in the virtual-base table
  u32 vbptr_type;    // virtual base: type of the vbptr
  s32 vftable_offset;  // introducing virtual method: offset in the virtual-function table
  bool value_signed;   // enumerator: read offset as s64
  u8 value_width;      // enumerator: bytes the value was written in
  TypeText name;
} TypeField;

// A walk over one field list and its continuations. A malformed or unknown entry ends the walk
// with `broken` set; a continuation chain is followed at most kFieldListMaxContinuations times.
enum { kFieldListMaxContinuations = 1024 };
typedef struct FieldWalk {
  const PdbTypes *types;
  const u8 *at;
  const u8 *end;
  u32 continuations;
  bool broken;
} FieldWalk;

void FieldWalkBegin(FieldWalk *walk, const PdbTypes *types, u32 field_list);
// The next entry, or false at the end. LF_INDEX entries are followed, never returned.
bool FieldWalkNext(FieldWalk *walk, TypeField *out);

// An enumerator's value as a value of the enumeration's underlying type: the leaf's bits cut to
// that type's width and sign-extended when it is signed (MSVC writes -3 of an int enumeration as
// LF_ULONG 0xFFFFFFFD, 32768 as LF_USHORT). *negative says whether to print it as s64.
u64 EnumeratorValue(const TypeField *enumerator, u32 underlying_type, bool *negative);

// [SECTION] Data members, base classes first
// A data member met while flattening: the member itself, and its offset in the outermost object.
typedef struct DataMember {
  const TypeField *field;
  u64 offset;
  u32 depth;  // 0 for the type's own members, 1 for its bases' members, ...
} DataMember;
typedef bool (*DataMemberFn)(void *user, const DataMember *member);  // false stops the walk

// Hostile field lists (a class that is its own base, lists that continue into themselves) could
// make the walk exponential: it stops after kDataMemberMaxEntries entries in all.
enum { kDataMemberMaxDepth = 32, kDataMemberMaxEntries = 1 << 20 };
// Calls fn for each non-static data member of the class, structure or union (forward references
// resolved), in record order with each direct base class's members (recursively) at the place of
// the base entry. Virtual bases lie at offsets known only at run time and are not entered.
// Returns false when fn stopped the walk.
bool PdbForEachDataMember(const PdbTypes *types, u32 type_index, DataMemberFn fn, void *user);

// [SECTION] Member by name
typedef struct FoundMember {
  u16 leaf;     // LF_MEMBER, or LF_STMEMBER for a static member (which has no offset)
  u32 type;     // the member's type index (an LF_BITFIELD for a bit field)
  u64 offset;   // in the outermost object, base-class offsets added
  u32 depth;    // 0: the type's own member; 1: a direct base's; ...
} FoundMember;

// Finds a data member (or static member) by name as C++ name look-up does: the type's own
// members first, then each direct base class in order, depth first, so that a derived class's
// member hides a base's of the same name. Virtual bases are not searched (their offset is known
// only at run time). False when no member has that name.
bool PdbFindMember(const PdbTypes *types, u32 type_index, const char *name, u32 length, FoundMember *out);
