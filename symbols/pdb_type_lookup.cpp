// [SECTION] Modifiers and definitions
// [SECTION] Sizes
// [SECTION] Pointers
// [SECTION] Look-up by name
#include "symbols/pdb_type_lookup.h"

#include <string.h>

#include "symbols/pdb_raw.h"
#include "symbols/type_names.h"

// [SECTION] Modifiers and definitions

u32 PdbTypeLookThrough(const PdbTypes *types, u32 type_index) {
  for (u32 step = 0; step < kTypeLookThroughMaxSteps; step++) {
    const u8 *r = PdbTypeRecord(types, type_index);
    if (!r || ReadU16(r + kTypeRecordLeaf) != kLF_MODIFIER || ReadU16(r) + 2u < kModifierBytes) return type_index;
    type_index = ReadU32(r + kModifierType);
  }
  return type_index;
}

// Kinds that may stand for each other between a forward reference and its definition.
static bool SameTagFamily(u16 a, u16 b) {
  if (TypeLeafIsClassLike(a)) return TypeLeafIsClassLike(b);
  return a == b;
}

// The version-1 hash puts similar names ("ns0::S0_194", "ns0::S0_297") in one bucket, so a bucket
// often holds dozens of records scattered through the stream: their offsets and then their headers
// are requested from memory all at once before the first is compared.
static void PrefetchBucket(const PdbTypes *types, u32 start, u32 n) {
  const u32 *list = types->bucket_list + start;
  for (u32 k = 0; k < n; k++) {
    u32 i = list[k] - types->first_index;
    if (i < types->count) __builtin_prefetch(&types->offsets[i]);
  }
  for (u32 k = 0; k < n; k++) {
    u32 i = list[k] - types->first_index;
    if (i < types->count && types->offsets[i] < types->record_bytes) __builtin_prefetch(types->records + types->offsets[i]);
  }
}

// Walks one bucket from its last entry to its first.
static u32 FindDefinitionInBucket(const PdbTypes *types, u32 bucket, const TypeRecord *forward) {
  u32 start = (u32)types->buckets[bucket], n = (u32)(types->buckets[bucket] >> 32);
  bool by_unique = (forward->properties & kTypePropUniqueName) && forward->unique_name.length;
  PrefetchBucket(types, start, n);
  for (u32 k = n; k-- > 0;) {
    u32 candidate = types->bucket_list[start + k];
    const u8 *r = PdbTypeRecord(types, candidate);
    if (!r || (!by_unique && !TypeRecordNameEquals(r, ReadU16(r) + 2u, forward->name))) continue;
    TypeRecord c;
    if (!PdbDecodeType(types, candidate, &c) || !SameTagFamily(forward->leaf, c.leaf)) continue;
    if (c.properties & kTypePropForwardRef) continue;
    bool match = by_unique && (c.properties & kTypePropUniqueName) ? TypeTextEquals(c.unique_name, forward->unique_name)
                                                                   : TypeTextEquals(c.name, forward->name);
    if (match) return candidate;
  }
  return 0;
}

u32 PdbTypeDefinition(const PdbTypes *types, u32 type_index) {
  TypeRecord t;
  if (!PdbDecodeType(types, type_index, &t) || !TypeLeafIsTag(t.leaf)) return type_index;
  if (!(t.properties & kTypePropForwardRef) || types->bucket_count == 0) return type_index;
  // A definition is hashed by its name unless scoped or anonymous, else by its unique name.
  u32 found = 0;
  if (!(t.properties & kTypePropScoped) && t.name.length)
    found = FindDefinitionInBucket(types, PdbNameHashV1(t.name.text, t.name.length) % types->bucket_count, &t);
  if (!found && (t.properties & kTypePropUniqueName) && t.unique_name.length) {
    u32 bucket = PdbNameHashV1(t.unique_name.text, t.unique_name.length) % types->bucket_count;
    found = FindDefinitionInBucket(types, bucket, &t);
  }
  return found ? found : type_index;
}

// [SECTION] Sizes

u64 BuiltinTypeSize(u32 type_index) {
  u32 mode = (type_index >> kBuiltinPointerModeShift) & 7;
  switch (mode) {
    case 0: break;
    case 1: return 2;                  // near
    case 2: case 3: case 4: return 4;  // far, huge, 32-bit
    case 5: return 6;                  // 32-bit far
    case 6: return 8;                  // 64-bit
    default: return 16;                // 128-bit near
  }
  switch (type_index & 0xFF) {
    case 0x08: return 4;  // HRESULT
    case 0x10: case 0x20: case 0x30: case 0x68: case 0x69: case 0x70: case 0x7C: return 1;
    case 0x11: case 0x21: case 0x31: case 0x71: case 0x72: case 0x73: case 0x7A: case 0x46: return 2;
    case 0x12: case 0x22: case 0x32: case 0x74: case 0x75: case 0x7B: case 0x40: case 0x45: case 0x56: return 4;
    case 0x44: return 6;  // 48-bit real
    case 0x13: case 0x23: case 0x33: case 0x76: case 0x77: case 0x41: case 0x50: return 8;
    case 0x42: return 10;  // 80-bit real
    case 0x14: case 0x24: case 0x34: case 0x78: case 0x79: case 0x43: case 0x51: return 16;
    case 0x52: return 20;
    case 0x53: return 32;
  }
  return 0;  // void, notype and the unknown kinds
}

// The evaluator's classes: 8-bit bool, wchar_t, char16_t and char32_t compute as signed on
// purpose; the 128-bit kinds follow their names.
bool BuiltinTypeIsSigned(u32 type_index) {
  switch (type_index) {
    case 0x10: case 0x30: case 0x68: case 0x70:  // 8-bit
    case 0x11: case 0x71: case 0x72: case 0x7A:  // 16-bit
    case 0x12: case 0x74: case 0x7B:             // 32-bit
    case 0x13: case 0x76:                        // 64-bit
    case 0x14: case 0x78: return true;           // 128-bit
  }
  return false;
}

static u64 SizeOf(const PdbTypes *types, u32 type_index, u32 depth) {
  if (type_index < types->first_index) return BuiltinTypeSize(type_index);
  if (depth > kTypeLookThroughMaxSteps) return 0;
  TypeRecord t;
  if (!PdbDecodeType(types, type_index, &t)) return 0;
  switch (t.leaf) {
    case kLF_MODIFIER: case kLF_BITFIELD: case kLF_ENUM: case kLF_ALIAS:
      return SizeOf(types, t.type, depth + 1);
    case kLF_POINTER: {
      // A data pointer or reference is as wide as its kind says; the size field is not to be
      // trusted there (clang writes the referent's size for some references, rustc 16 for
      // 32-bit pointers). Pointers to members vary with the class (4 to 24 bytes): the field.
      u32 mode = (t.properties >> 5) & 7, kind = t.properties & 0x1F;
      u64 field = (t.properties >> 13) & 0x3F;
      if ((mode == 2 || mode == 3) && field) return field;
      switch (kind) {
        case 0x00: return 2;                    // near 16-bit
        case 0x01: case 0x02: case 0x0A: return 4;  // far and huge 16-bit, 32-bit
        case 0x0B: return 6;                    // far 32-bit
        case 0x0C: return 8;                    // 64-bit
      }
      return field ? field : 8;
    }
    case kLF_ARRAY:
      return t.size;
  }
  if (TypeLeafIsClassLike(t.leaf) || t.leaf == kLF_UNION) {
    if (!(t.properties & kTypePropForwardRef)) return t.size;
    u32 definition = PdbTypeDefinition(types, type_index);
    if (definition == type_index || !PdbDecodeType(types, definition, &t)) return 0;
    return t.size;
  }
  return 0;
}

u64 PdbTypeSize(const PdbTypes *types, u32 type_index) { return SizeOf(types, type_index, 0); }

// [SECTION] Pointers

bool PdbTypeIsPointer(const PdbTypes *types, u32 type_index, u32 *pointee) {
  type_index = PdbTypeLookThrough(types, type_index);
  u32 target = 0;
  bool is_pointer = false;
  if (type_index < types->first_index) {
    is_pointer = type_index < 0x1000 && ((type_index >> kBuiltinPointerModeShift) & 7) != 0;
    target = type_index & 0xFF;
  } else {
    TypeRecord t;
    is_pointer = PdbDecodeType(types, type_index, &t) && t.leaf == kLF_POINTER;
    target = t.type;
  }
  if (is_pointer && pointee) *pointee = target;
  return is_pointer;
}

bool PdbTypeIsArray(const PdbTypes *types, u32 type_index, u32 *element, u64 *count) {
  TypeRecord t;
  if (!PdbDecodeType(types, PdbTypeLookThrough(types, type_index), &t) || t.leaf != kLF_ARRAY) return false;
  u64 element_size = PdbTypeSize(types, t.type);
  if (element) *element = t.type;
  if (count) *count = element_size ? t.size / element_size : 0;
  return true;
}

u32 PdbTypePointerTo(const PdbTypes *types, u32 type_index) {
  (void)types;
  if (type_index < 0x100) return kBuiltinPointer64 | type_index;
  if (TypeIndexIsSynthetic(type_index)) {
    u32 depth = (type_index & ~kSyntheticPointer) >> kSyntheticDepthShift;
    return depth + 1 < kSyntheticMaxDepth ? type_index + (1u << kSyntheticDepthShift) : 0;
  }
  return type_index <= kSyntheticBaseMask ? kSyntheticPointer | type_index : 0;
}

// [SECTION] Look-up by name

u32 PdbFindTypeRecord(const PdbTypes *types, const char *name, u32 length) {
  if (types->bucket_count == 0 || length == 0) return 0;
  u32 bucket = PdbNameHashV1(name, length) % types->bucket_count;
  u32 start = (u32)types->buckets[bucket], n = (u32)(types->buckets[bucket] >> 32);
  PrefetchBucket(types, start, n);
  TypeText wanted = {name, length};
  u32 forward = 0;
  for (u32 k = n; k-- > 0;) {
    u32 candidate = types->bucket_list[start + k];
    const u8 *r = PdbTypeRecord(types, candidate);
    if (!r || !TypeRecordNameEquals(r, ReadU16(r) + 2u, wanted)) continue;
    TypeRecord c;
    if (!PdbDecodeType(types, candidate, &c) || !TypeLeafIsTag(c.leaf) || !TypeTextEquals(c.name, wanted)) continue;
    if (!(c.properties & kTypePropForwardRef)) return candidate;
    if (!forward) forward = candidate;
  }
  return forward ? PdbTypeDefinition(types, forward) : 0;
}

u32 PdbFindForwardOnly(const PdbTypes *types, const char *name, u32 length) {
  if (!types->forward_count || length == 0) return 0;
  TypeText wanted = {name, length};
  u64 key = (u64)PdbNameHashV1(name, length) << 32;
  u32 lo = 0, hi = types->forward_count;
  while (lo < hi) {
    u32 mid = lo + (hi - lo) / 2;
    if (types->forwards[mid] < key) lo = mid + 1;
    else hi = mid;
  }
  for (u32 k = lo; k < types->forward_count && (types->forwards[k] >> 32) == (key >> 32); k++) {
    const u8 *r = PdbTypeRecord(types, (u32)types->forwards[k]);
    if (r && TypeRecordNameEquals(r, ReadU16(r) + 2u, wanted)) return (u32)types->forwards[k];
  }
  return 0;
}

static bool IsSpace(char c) { return c == ' ' || c == '\t'; }

// Removes a leading word (followed by a blank) from the text; true when it was there.
static bool TakeWord(const char **text, u32 *length, const char *word) {
  u32 n = (u32)strlen(word);
  if (*length <= n || memcmp(*text, word, n) != 0 || !IsSpace((*text)[n])) return false;
  *text += n + 1, *length -= n + 1;
  while (*length && IsSpace(**text)) ++*text, --*length;
  return true;
}

// Removes a trailing word (preceded by a blank or '*').
static bool DropTrailingWord(const char *text, u32 *length, const char *word) {
  u32 n = (u32)strlen(word);
  if (*length <= n || memcmp(text + *length - n, word, n) != 0) return false;
  char before = text[*length - n - 1];
  if (!IsSpace(before) && before != '*') return false;
  *length -= n;
  while (*length && IsSpace(text[*length - 1])) --*length;
  return true;
}

// C spellings of the built-in types that the debugger's own names do not cover.
static const struct {
  const char *name;
  u32 index;
} kBuiltinSpellings[] = {
    {"unsigned", 0x75},       {"signed", 0x74},           {"signed int", 0x74},
    {"long int", 0x12},       {"unsigned long int", 0x22}, {"short int", 0x11},
    {"unsigned short int", 0x21}, {"long long", 0x13},    {"signed long long", 0x13},
    {"__int64", 0x13},        {"unsigned long long", 0x23}, {"unsigned __int64", 0x23},
    {"__int8", 0x68},         {"unsigned __int8", 0x69},  {"__int16", 0x72},
    {"unsigned __int16", 0x73}, {"__int32", 0x74},         {"unsigned __int32", 0x75},
    {"bool", 0x30},           {"char16_t", 0x7A},         {"char32_t", 0x7B},
    {"char8_t", 0x7C},        {"long double", 0x41},
};

static u32 FindBuiltin(const char *text, u32 length) {
  if (length > 24) return 0;  // longer than any built-in spelling
  for (const auto &s : kBuiltinSpellings)
    if (s.name[0] == text[0] && strlen(s.name) == length && memcmp(s.name, text, length) == 0) return s.index;
  // The debugger's own names ("int", "u64", "wchar_t", ...): the first index that prints so.
  for (u32 index = 1; index <= 0x7B; index++) {
    const char *name = BuiltinTypeName(index);
    if (strlen(name) == length && memcmp(name, text, length) == 0 && strcmp(name, "TBI") != 0) return index;
  }
  return 0;
}

// Copies text without the blanks that touch ',', '<' or '>' (at most 4096 bytes); returns the
// new length.
static u32 PackTemplateBlanks(const char *text, u32 length, char *out) {
  u32 n = 0;
  for (u32 i = 0; i < length; i++) {
    char c = text[i];
    if (IsSpace(c)) {
      char before = n ? out[n - 1] : 0, after = i + 1 < length ? text[i + 1] : 0;
      if (before == ',' || before == '<' || after == ',' || after == '>' || after == '<') continue;
    }
    out[n++] = c;
  }
  return n;
}

u32 PdbLookupType(const PdbTypes *types, const PdbGlobals *globals, const char *text, u32 length) {
  while (length && IsSpace(*text)) text++, length--;
  while (length && IsSpace(text[length - 1])) length--;
  u32 stars = 0;
  for (;;) {
    if (length && text[length - 1] == '*') {
      stars++, length--;
      while (length && IsSpace(text[length - 1])) length--;
    } else if (!DropTrailingWord(text, &length, "const") && !DropTrailingWord(text, &length, "volatile")) {
      break;
    }
  }
  while (TakeWord(&text, &length, "const") || TakeWord(&text, &length, "volatile")) {}
  if (!TakeWord(&text, &length, "struct") && !TakeWord(&text, &length, "class"))
    if (!TakeWord(&text, &length, "union")) TakeWord(&text, &length, "enum");
  if (length == 0 || length > 4096) return 0;

  // Records first: most names looked up are records, and no record is named like a built-in.
  u32 index = PdbFindTypeRecord(types, text, length);
  if (!index) index = FindBuiltin(text, length);
  char name[4097];
  if (!index && globals && globals->udt_capacity) {
    memcpy(name, text, length);
    name[length] = 0;
    index = PdbFindUdt(globals, name);
  }
  if (!index) {
    // Compilers write template arguments without blanks ("Buffer<short,5>"); users may not.
    u32 packed = PackTemplateBlanks(text, length, name);
    if (packed != length) index = PdbFindTypeRecord(types, name, packed);
    // Last, a type the program only declares: its forward reference is in no name bucket.
    if (!index) index = PdbFindForwardOnly(types, text, length);
    if (!index && packed != length) index = PdbFindForwardOnly(types, name, packed);
  }
  for (u32 i = 0; i < stars && index; i++) {
    u32 base = PdbTypeLookThrough(types, index);
    index = PdbTypePointerTo(types, base < types->first_index && base < 0x100 ? base : index);
  }
  return index;
}
