// The type subcommands: type-records, type, types.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ktrn_pdb.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_fields.h"
#include "symbols/pdb_type_lookup.h"
#include "symbols/type_names.h"

enum { kExitLoadFailed = 3, kExitNotFound = 1, kNameBytes = 4096 };

// One line per type index: 0xINDEX, leaf kind and record length (the 16-bit length field), all
// hexadecimal; "-" for an index whose record lies outside the stream.
int CommandTypeRecords(int argc, char **argv) {
  (void)argc;
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) return kExitLoadFailed;
  const PdbTypes *types = &l.pdb.types;
  for (u32 i = 0; i < types->count; i++) {
    const u8 *record = PdbTypeRecord(types, types->first_index + i);
    if (record)
      printf("0x%X\t0x%04X\t0x%X\n", types->first_index + i, ReadU16(record + 2), ReadU16(record));
    else
      printf("0x%X\t-\t-\n", types->first_index + i);
  }
  UnloadPdb(&l);
  return 0;
}

// builtin, pointer, array, struct, class, union, enum, procedure, modifier, bitfield; "other"
// for records that are not types of values (field lists, argument lists, ...).
static const char *KindWord(const PdbTypes *types, u32 index) {
  if (index < types->first_index) return "builtin";
  TypeRecord t;
  if (!PdbDecodeType(types, index, &t)) return "other";
  switch (t.leaf) {
    case kLF_POINTER: return "pointer";
    case kLF_ARRAY: return "array";
    case kLF_STRUCTURE: case kLF_STRUCTURE2: return "struct";
    case kLF_CLASS: case kLF_CLASS2: case kLF_INTERFACE: return "class";
    case kLF_UNION: return "union";
    case kLF_ENUM: return "enum";
    case kLF_PROCEDURE: case kLF_MFUNCTION: return "procedure";
    case kLF_MODIFIER: return "modifier";
    case kLF_BITFIELD: return "bitfield";
  }
  return "other";
}

static void PrintTypeLine(const PdbTypes *types, u32 index, const char *prefix) {
  static char name[kNameBytes];
  TypeNameFormat(types, index, name, sizeof(name));
  printf("%s0x%X\t%s\t%llu\t%s\n", prefix, index, KindWord(types, index),
         (unsigned long long)PdbTypeSize(types, index), name);
}

// Every type index of the stream: 0xINDEX, kind, size, name.
int CommandTypes(int argc, char **argv) {
  (void)argc;
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) return kExitLoadFailed;
  const PdbTypes *types = &l.pdb.types;
  for (u32 i = 0; i < types->count; i++) PrintTypeLine(types, types->first_index + i, "");
  UnloadPdb(&l);
  return 0;
}

static bool PrintMember(void *user, const DataMember *m) {
  const PdbTypes *types = (const PdbTypes *)user;
  static char name[kNameBytes];
  u32 type = PdbTypeLookThrough(types, m->field->type);
  TypeRecord t;
  if (PdbDecodeType(types, type, &t) && t.leaf == kLF_BITFIELD) {
    TypeNameFormat(types, t.type, name, sizeof(name));
    printf("bitfield\t%llu\t%llu\t%s\t%.*s\t%u\t%u\n", (unsigned long long)m->offset,
           (unsigned long long)PdbTypeSize(types, t.type), name, (int)m->field->name.length, m->field->name.text,
           t.bit_position, t.bit_length);
  } else {
    TypeNameFormat(types, m->field->type, name, sizeof(name));
    printf("member\t%llu\t%llu\t%s\t%.*s\n", (unsigned long long)m->offset,
           (unsigned long long)PdbTypeSize(types, m->field->type), name, (int)m->field->name.length,
           m->field->name.text);
  }
  return true;
}

static void PrintEnumerators(const PdbTypes *types, const TypeRecord *e) {
  FieldWalk walk;
  FieldWalkBegin(&walk, types, e->field_list);
  TypeField f;
  while (FieldWalkNext(&walk, &f)) {
    if (f.leaf != kLF_ENUMERATE) continue;
    bool negative = false;
    u64 value = EnumeratorValue(&f, PdbTypeLookThrough(types, e->type), &negative);
    if (negative)
      printf("enumerator\t%lld\t%.*s\n", (long long)value, (int)f.name.length, f.name.text);
    else
      printf("enumerator\t%llu\t%.*s\n", (unsigned long long)value, (int)f.name.length, f.name.text);
  }
}

// One type by 0xINDEX or by name (a name gives the definition): its line, then its data members
// (base classes' members first, flattened) or its enumerators.
int CommandType(int argc, char **argv) {
  (void)argc;
  LoadedPdb l;
  if (!LoadPdb(argv[0], &l)) return kExitLoadFailed;
  const PdbTypes *types = &l.pdb.types;
  const char *what = argv[1];
  u32 index = 0;
  bool known = false;
  if (what[0] == '0' && (what[1] == 'x' || what[1] == 'X')) {
    char *end = nullptr;
    unsigned long long value = strtoull(what + 2, &end, 16);
    index = (u32)value;
    known = end && *end == 0 && end != what + 2 && value <= 0xFFFFFFFFull &&
            (index < types->first_index || PdbTypeRecord(types, index) != nullptr);
  } else {
    index = PdbTypeDefinition(types, PdbLookupType(types, &l.pdb.globals, what, (u32)strlen(what)));
    known = index != 0;
  }
  if (!known) {
    fprintf(stderr, "ktrn-pdb: no type '%s'\n", what);
    UnloadPdb(&l);
    return kExitNotFound;
  }
  PrintTypeLine(types, index, "type\t");
  TypeRecord t;
  if (PdbDecodeType(types, PdbTypeDefinition(types, index), &t)) {
    if (TypeLeafIsClassLike(t.leaf) || t.leaf == kLF_UNION) PdbForEachDataMember(types, index, PrintMember, (void *)types);
    if (t.leaf == kLF_ENUM) PrintEnumerators(types, &t);
  }
  UnloadPdb(&l);
  return 0;
}
