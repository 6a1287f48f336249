// [SECTION] Built-in names
// [SECTION] Declarations
#include "symbols/type_names.h"

#include <stdio.h>
#include <string.h>

#include "symbols/pdb_type_lookup.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_records.h"

// [SECTION] Built-in names

// Names of the base kinds (pointer mode 0). The spellings, "octect" included, are the debugger's.
static const char *BaseKindName(u32 kind) {
  switch (kind) {
    case 0x00: return "notype";
    case 0x01: return "abs";
    case 0x02: return "segment";
    case 0x03: return "void";
    case 0x07: return "not translated by cvpack";
    case 0x08: return "HRESULT";
    case 0x10: return "signed char";
    case 0x11: return "short";
    case 0x12: return "long";
    case 0x13: case 0x76: return "s64";
    case 0x14: return "octect";
    case 0x20: return "unsigned char";
    case 0x21: return "unsigned short";
    case 0x22: return "unsigned long";
    case 0x23: case 0x77: return "u64";
    case 0x24: return "unsigned octect";
    case 0x30: return "b8";
    case 0x31: return "b16";
    case 0x32: return "b32";
    case 0x33: return "b64";
    case 0x40: return "float";
    case 0x41: return "double";
    case 0x42: return "f80";
    case 0x68: return "s8";
    case 0x69: return "u8";
    case 0x70: return "char";
    case 0x71: return "wchar_t";
    case 0x72: return "s16";
    case 0x73: return "u16";
    case 0x74: return "int";
    case 0x75: return "unsigned int";
    case 0x78: return "s128";
    case 0x79: return "u128";
    case 0x7A: return "char16";
    case 0x7B: return "char32";
  }
  return nullptr;
}

// 64-bit pointers to these kinds print as the kind's name and " *"; a pointer to "signed char"
// (0x10) prints as "char *" on purpose.
static const char *Pointer64Name(u32 kind) {
  switch (kind) {
    case 0x03: return "void *";
    case 0x08: return "HRESULT *";
    case 0x10: case 0x70: return "char *";
    case 0x11: return "short *";
    case 0x12: return "long *";
    case 0x13: case 0x76: return "s64 *";
    case 0x20: return "unsigned char *";
    case 0x21: return "unsigned short *";
    case 0x22: return "unsigned long *";
    case 0x23: case 0x77: return "u64 *";
    case 0x30: return "b8 *";
    case 0x31: return "b16 *";
    case 0x32: return "b32 *";
    case 0x33: return "b64 *";
    case 0x40: return "float *";
    case 0x41: return "double *";
    case 0x42: return "f80 *";
    case 0x68: return "s8 *";
    case 0x69: return "u8 *";
    case 0x71: return "wchar_t *";
    case 0x72: return "s16 *";
    case 0x73: return "u16 *";
    case 0x74: return "int *";
    case 0x75: return "unsigned int *";
    case 0x78: return "s128 *";
    case 0x79: return "u128 *";
    case 0x7A: return "char16 *";
    case 0x7B: return "char32 *";
  }
  return nullptr;
}

const char *BuiltinTypeName(u32 type_index) {
  const char *name = nullptr;
  if (type_index < 0x100) {
    name = BaseKindName(type_index);
  } else if ((type_index & ~0xFFu) == kBuiltinPointer64) {
    name = Pointer64Name(type_index & 0xFF);
  } else {
    switch (type_index) {
      case 0x103: name = "void *"; break;
      case 0x114: name = "octect near*"; break;
      case 0x124: name = "unsigned octect near*"; break;
      case 0x214: name = "octect far*"; break;
      case 0x224: name = "unsigned octect far*"; break;
      case 0x314: name = "octect huge*"; break;
      case 0x324: name = "unsigned octect huge*"; break;
      case 0x414: name = "32poct"; break;
      case 0x424: name = "32puoct"; break;
      case 0x514: name = "32pfoct"; break;
      case 0x524: name = "32pfuoct"; break;
    }
  }
  return name ? name : "TBI";
}

// [SECTION] Declarations

typedef struct NameOut {
  char *text;
  u32 capacity;  // bytes usable, the terminator's excluded
  u32 length;
  u32 *visits;   // types left to visit, shared by every scratch output of one name
} NameOut;

static void Put(NameOut *out, const char *text, u32 length) {
  u32 room = out->capacity - out->length;
  if (length > room) length = room;
  memcpy(out->text + out->length, text, length);
  out->length += length;
  out->text[out->length] = 0;
}
static void PutZ(NameOut *out, const char *text) { Put(out, text, (u32)strlen(text)); }

enum : u32 { kConst = 1, kVolatile = 2 };

static void PutQualifiers(NameOut *out, u32 cv) {
  if (cv & kConst) PutZ(out, "const ");
  if (cv & kVolatile) PutZ(out, "volatile ");
}

// A base name with the qualifiers in front and the declarator after a blank.
static void PutBase(NameOut *out, u32 cv, const char *name, u32 length, const char *declarator) {
  PutQualifiers(out, cv);
  Put(out, name, length);
  if (*declarator) PutZ(out, " "), PutZ(out, declarator);
}

static void Format(const PdbTypes *types, u32 index, const char *inner, u32 cv, u32 pointer_cv, u32 depth,
                   NameOut *out);

// "*", "&", "&&" or "Class::*", the pointer's own qualifiers, then what was declared inside.
static void FormatPointer(const PdbTypes *types, u32 referent, const char *symbol, u32 member_class, u32 own_cv,
                          const char *inner, u32 depth, NameOut *out) {
  char declarator[kTypeNameScratchBytes];
  NameOut d = {declarator, sizeof(declarator) - 1, 0, out->visits};
  declarator[0] = 0;
  if (member_class) {
    Format(types, member_class, "", 0, 0, depth + 1, &d);
    PutZ(&d, "::");
  }
  PutZ(&d, symbol);
  if (own_cv & kConst) PutZ(&d, "const");
  if (own_cv & kVolatile) PutZ(&d, own_cv & kConst ? " volatile" : "volatile");
  if (*inner) {
    if (own_cv) PutZ(&d, " ");
    PutZ(&d, inner);
  }
  Format(types, referent, declarator, 0, 0, depth + 1, out);
}

// A declarator that binds weaker than [] and (): "*p" inside "int (*)[3]".
static void PutWrapped(NameOut *d, const char *inner) {
  if (inner[0] == '*' || inner[0] == '&' || strstr(inner, "::*")) {
    PutZ(d, "("), PutZ(d, inner), PutZ(d, ")");
  } else {
    PutZ(d, inner);
  }
}

static void FormatProcedure(const PdbTypes *types, const TypeRecord *t, const char *inner, u32 depth,
                            NameOut *out) {
  char declarator[kTypeNameScratchBytes];
  NameOut d = {declarator, sizeof(declarator) - 1, 0, out->visits};
  declarator[0] = 0;
  PutWrapped(&d, inner);
  PutZ(&d, "(");
  TypeRecord args;
  u32 count = PdbDecodeType(types, t->index_type, &args) && args.leaf == kLF_ARGLIST ? (u32)args.size : 0;
  for (u32 i = 0; i < count; i++) {
    u32 arg = 0;
    memcpy(&arg, args.bytes + kArgListFirst + 4 * i, 4);
    if (i) PutZ(&d, ", ");
    if (arg == 0 && i == count - 1) {
      PutZ(&d, "...");  // a variadic function's last argument is notype
    } else {
      Format(types, arg, "", 0, 0, depth + 1, &d);
    }
  }
  if (count == 0) PutZ(&d, "void");
  PutZ(&d, ")");
  Format(types, t->type, declarator, 0, 0, depth + 1, out);
}

static void Format(const PdbTypes *types, u32 index, const char *inner, u32 cv, u32 pointer_cv, u32 depth,
                   NameOut *out) {
  if (depth > kTypeNameMaxDepth || *out->visits == 0) {
    PutBase(out, 0, "...", 3, inner);
    return;
  }
  --*out->visits;
  if (index < types->first_index) {
    const char *name = BuiltinTypeName(index);
    u32 length = (u32)strlen(name);
    bool pointer = index >= 0x100 && length > 2 && memcmp(name + length - 2, " *", 2) == 0;
    if (!pointer) {
      PutBase(out, cv, name, length, inner);
      return;
    }
    // A qualified built-in pointer ("int *const"): the kind's name, then the declarator.
    char declarator[kTypeNameScratchBytes];
    NameOut d = {declarator, sizeof(declarator) - 1, 0, out->visits};
    declarator[0] = 0;
    PutZ(&d, "*");
    if (pointer_cv & kConst) PutZ(&d, "const");
    if (pointer_cv & kVolatile) PutZ(&d, pointer_cv & kConst ? " volatile" : "volatile");
    if (*inner) {
      if (pointer_cv) PutZ(&d, " ");
      PutZ(&d, inner);
    }
    PutBase(out, 0, name, length - 2, declarator);
    return;
  }
  TypeRecord t;
  if (!PdbDecodeType(types, index, &t)) {
    char text[32];
    snprintf(text, sizeof(text), "<type 0x%X>", index);
    PutBase(out, cv, text, (u32)strlen(text), inner);
    return;
  }
  switch (t.leaf) {
    case kLF_MODIFIER: {
      u32 qualifiers = t.properties & (kConst | kVolatile);
      if (PdbTypeIsPointer(types, t.type, nullptr))
        Format(types, t.type, inner, cv, pointer_cv | qualifiers, depth + 1, out);
      else
        Format(types, t.type, inner, cv | qualifiers, 0, depth + 1, out);
      return;
    }
    case kLF_POINTER: {
      u32 mode = (t.properties >> 5) & 7;
      const char *symbol = mode == 1 ? "&" : mode == 4 ? "&&" : "*";
      u32 own_cv = pointer_cv | ((t.properties >> 10) & 1 ? kConst : 0) | ((t.properties >> 9) & 1 ? kVolatile : 0);
      u32 member_class = mode == 2 || mode == 3 ? t.index_type : 0;
      FormatPointer(types, t.type, symbol, member_class, own_cv, inner, depth, out);
      return;
    }
    case kLF_ARRAY: {
      char declarator[kTypeNameScratchBytes];
      NameOut d = {declarator, sizeof(declarator) - 1, 0, out->visits};
      declarator[0] = 0;
      PutWrapped(&d, inner);
      u64 element = PdbTypeSize(types, t.type);
      char count[32];
      snprintf(count, sizeof(count), "[%llu]", (unsigned long long)(element ? t.size / element : 0));
      PutZ(&d, count);
      Format(types, t.type, declarator, cv, 0, depth + 1, out);
      return;
    }
    case kLF_PROCEDURE: case kLF_MFUNCTION:
      FormatProcedure(types, &t, inner, depth, out);
      return;
    case kLF_BITFIELD: {
      // The watch tree's text: the field's type and the bits it takes.
      Format(types, t.type, inner, cv, 0, depth + 1, out);
      char bits[48];
      if (t.bit_length == 1)
        snprintf(bits, sizeof(bits), " (Bit %u)", t.bit_position);
      else
        snprintf(bits, sizeof(bits), " (Bits %u..%u)", t.bit_position, t.bit_position + t.bit_length - 1);
      PutZ(out, bits);
      return;
    }
  }
  if (TypeLeafIsTag(t.leaf) || t.leaf == kLF_ALIAS) {
    PutBase(out, cv, t.name.text, t.name.length, inner);
    return;
  }
  const char *leaf = TypeLeafName(t.leaf);
  char text[48];
  if (leaf)
    snprintf(text, sizeof(text), "<%s>", leaf);
  else
    snprintf(text, sizeof(text), "<leaf 0x%04X>", t.leaf);
  PutBase(out, cv, text, (u32)strlen(text), inner);
}

u32 TypeNameFormat(const PdbTypes *types, u32 type_index, char *text, u32 capacity) {
  if (capacity == 0) return 0;
  u32 visits = kTypeNameMaxVisits;
  NameOut out = {text, capacity - 1, 0, &visits};
  text[0] = 0;
  Format(types, type_index, "", 0, 0, 0, &out);
  return out.length;
}
