// Questions about types by index and by name: the definition behind a forward reference (found
// through the name index), sizes, pointers and pointees, and look-up of a type by its name.
#pragma once
#include "symbols/pdb_globals.h"
#include "symbols/pdb_type_records.h"

enum : u32 {
  kBuiltinPointerModeShift = 8,  // built-in index: kind in bits 0-7, pointer mode in bits 8-10
  kBuiltinPointer64 = 0x600,     // mode 6: 64-bit pointer
  kTypeLookThroughMaxSteps = 64, // chains of modifiers longer than this are hostile
};

// The type itself after its modifiers (const, volatile, unaligned) are looked through.
u32 PdbTypeLookThrough(const PdbTypes *types, u32 type_index);

// The definition of a class, structure, interface, union or enumeration given as a forward
// reference: among the candidates of the name's bucket (the bucket of the unique name for scoped
// types), the last that has the same kind and name (unique name when both have one) and is not a
// forward reference, since the hash adjusters put the type the linker chose last. The index
// itself when it is no forward reference or no definition is found.
u32 PdbTypeDefinition(const PdbTypes *types, u32 type_index);

// Bytes a value of the type takes: built-in sizes by kind and pointer mode, a pointer's size
// field, an array's or aggregate's size leaf (of the definition), an enumeration's underlying
// type, a bit field's base type, a modifier's modified type. 0 for void, functions, records that
// are not types and unknown indices.
u64 PdbTypeSize(const PdbTypes *types, u32 type_index);
u64 BuiltinTypeSize(u32 type_index);
// The kinds the evaluator computes as signed: the signed integers, char, 8-bit bool, wchar_t,
// char16_t and char32_t; false for the unsigned kinds, pointers and everything else.
bool BuiltinTypeIsSigned(u32 type_index);

// True for a pointer (a built-in pointer mode or LF_POINTER, modifiers looked through); the
// pointee's type index goes to *pointee (may be null).
bool PdbTypeIsPointer(const PdbTypes *types, u32 type_index, u32 *pointee);
// An array's element type and element count (size / element size; 0 when the element has no
// size), modifiers looked through; false for anything that is not an array.
bool PdbTypeIsArray(const PdbTypes *types, u32 type_index, u32 *element, u64 *count);
// A 64-bit pointer type to the given type: 0x600 + kind for a plain built-in, else a synthetic
// pointer (see pdb_type_records.h), which every type question answers like an LF_POINTER record;
// 0 only past the depth or index that one can hold. Pointer types are therefore compared by
// what they point to, not by index.
u32 PdbTypePointerTo(const PdbTypes *types, u32 type_index);

// [SECTION] Look-up by name
// The record of a class, structure, union or enumeration whose name (qualified as written in the
// record: "ns::Outer::Inner") is exactly name, through the name index; a definition is preferred
// over a forward reference. 0 when none.
u32 PdbFindTypeRecord(const PdbTypes *types, const char *name, u32 length);
// A class, structure, union or enumeration that the stream holds only as a forward reference (a
// type the program declares and never defines), through the forward-reference index. 0 when none
// has that name.
u32 PdbFindForwardOnly(const PdbTypes *types, const char *name, u32 length);

// A type named as a user writes it: built-in spellings ("int", "unsigned long long", "u64"),
// records by qualified name, typedefs (S_UDT of the globals, may be null), an optional "struct",
// "class", "union" or "enum" keyword, const and volatile (ignored: look-up gives the unqualified
// type) and trailing '*'s (pointer types, made up when the stream has none). 0 when not found.
u32 PdbLookupType(const PdbTypes *types, const PdbGlobals *globals, const char *text, u32 length);
