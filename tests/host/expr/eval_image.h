// A fixed target for the evaluator's tests, fuzzer and benchmark: a memory image with named
// variables, type records (structures, a class with a base, nested structures, arrays, a union,
// an enum, bit fields, a vector-sized union), registers, vector registers, pseudo-variables, the
// frame's locals and parameters and a method's this, and a few system messages.
#pragma once
#include "expr/expr_eval.h"

#include <string.h>

namespace eval_image {

const u64 kBase = 0x10000, kSize = 0x200;
enum : u32 {
  kPoint = 0x1000, kPointPtr, kIntArray, kDerived, kUnion, kEnum, kDerivedPtr, kFlags, kBitLo, kBitMid, kBitNeg,
  kOuter, kMiddle, kCharArray, kWideArray, kMatrix, kBuffer, kBufferPtr, kBigArray, kUnionPtr, kM128, kTypeEnd
};

struct Variable {
  const char *name;
  u32 type;
  u64 address;
  bool global;  // answered by find_global when the image splits the look-ups
};
// Where each variable lives; the values are written by Fill().
const Variable kVariables[] = {
    {"c", 0x70, 0x10000, false},       {"uc", 0x20, 0x10001, false},       {"s", 0x11, 0x10002, false},
    {"i", 0x74, 0x10004, false},       {"u", 0x75, 0x10008, false},        {"ll", 0x76, 0x10010, false},
    {"ull", 0x77, 0x10018, false},     {"f", 0x40, 0x10020, false},        {"d", 0x41, 0x10028, false},
    {"nan", 0x41, 0x10030, false},     {"pt", kPoint, 0x10040, false},     {"pp", kPointPtr, 0x10048, false},
    {"arr", kIntArray, 0x10050, false}, {"pi", 0x674, 0x10060, false},     {"ps", 0x611, 0x10068, false},
    {"der", kDerived, 0x10070, false}, {"un", kUnion, 0x10080, false},     {"color", kEnum, 0x10084, false},
    {"bad", 0x674, 0x10088, false},    {"pd", kDerivedPtr, 0x10090, false}, {"this", kDerivedPtr, 0x10090, false},
    {"flags", kFlags, 0x10100, false}, {"imax", 0x74, 0x10104, false},     {"lmin", 0x12, 0x10108, false},
    {"hr", 0x08, 0x1010C, false},      {"a", kOuter, 0x10110, false},      {"k", 0x74, 0x10124, false},
    {"flt", 0x40, 0x10128, false},     {"usmax", 0x73, 0x1012C, false},    {"ch0", 0x70, 0x1012E, false},
    {"nl", 0x70, 0x1012F, false},      {"dmin", 0x41, 0x10130, false},     {"wc", 0x71, 0x10138, false},
    {"text", kCharArray, 0x10140, false}, {"str", 0x670, 0x10150, false}, {"wstr", 0x671, 0x10158, false},
    {"wtext", kWideArray, 0x10160, false}, {"pu", kUnionPtr, 0x10170, false}, {"pv", 0x603, 0x10178, false},
    {"m", kMatrix, 0x10180, false},    {"buf", kBuffer, 0x101C0, false},   {"v", kM128, 0x101D0, false},
    {"pb", kBufferPtr, 0x101E0, false}, {"pbad", kBufferPtr, 0x101E8, false}, {"big", kBigArray, 0x10050, false},
    {"e7", kEnum, 0x101F0, false},     {"llmin", 0x13, 0x101F8, false},
    // Globals; "z" is also a member of this, which hides it when the look-ups are split.
    {"g", 0x74, 0x10124, true},        {"z", 0x74, 0x10004, true},
};

struct TypeRecord {
  u32 type;
  ExprTypeFacts facts;
  const char *name;
};
const TypeRecord kTypes[] = {
    {kPoint, {kExprTypeRecord, 0, 8}, "Point"},        {kPointPtr, {kExprTypePointer, kPoint, 8}, "Point *"},
    {kIntArray, {kExprTypeArray, 0x74, 16}, ""},       {kDerived, {kExprTypeRecord, 0, 12}, "Derived"},
    {kUnion, {kExprTypeUnion, 0, 4}, "Number"},        {kEnum, {kExprTypeEnum, 0x74, 4}, "Color"},
    {kDerivedPtr, {kExprTypePointer, kDerived, 8}, "Derived *"}, {kFlags, {kExprTypeRecord, 0, 4}, "Flags"},
    {kOuter, {kExprTypeRecord, 0, 20}, "Outer"},       {kMiddle, {kExprTypeRecord, 0, 16}, "Middle"},
    {kCharArray, {kExprTypeArray, 0x70, 16}, ""},      {kWideArray, {kExprTypeArray, 0x71, 16}, ""},
    {kMatrix, {kExprTypeArray, 0x40, 64}, ""},         {kBuffer, {kExprTypeRecord, 0, 16}, "Buffer"},
    {kBufferPtr, {kExprTypePointer, kBuffer, 8}, "Buffer *"}, {kBigArray, {kExprTypeArray, 0x74, 4000000}, ""},
    {kUnionPtr, {kExprTypePointer, kUnion, 8}, "Number *"}, {kM128, {kExprTypeUnion, 0, 16}, "__m128"},
};

// Bit fields of Flags: "unsigned lo : 1", "unsigned mid : 3" at bit 4, "int neg : 3" at bit 8.
const ExprBitField kBitFields[] = {{0x75, 0, 1, {}}, {0x75, 4, 3, {}}, {0x74, 8, 3, {}}};

struct Field {
  u32 owner;
  const char *name;
  u64 offset;
  u32 type;
};
// Each owner's members in record order, base classes' members first (Derived: Point's x and y).
const Field kFields[] = {
    {kPoint, "x", 0, 0x74},     {kPoint, "y", 4, 0x11},       {kDerived, "x", 0, 0x74},   {kDerived, "y", 4, 0x11},
    {kDerived, "z", 8, 0x74},   {kUnion, "i", 0, 0x74},       {kUnion, "f", 0, 0x40},     {kFlags, "lo", 0, kBitLo},
    {kFlags, "mid", 0, kBitMid}, {kFlags, "neg", 0, kBitNeg}, {kOuter, "tag", 0, 0x74},   {kOuter, "b", 4, kMiddle},
    {kMiddle, "c", 0, kIntArray}, {kBuffer, "data", 0, 0x674}, {kBuffer, "size", 8, 0x74}, {kM128, "m128_i32", 0, kIntArray},
};

struct Image {
  u8 bytes[kSize];
  u64 registers[kExprRegisterCount];
  bool split;      // locals through find_name, globals through find_global
  bool avx;        // ymm registers readable
  u32 reads;       // read_memory calls, for the benchmark
};

template <typename T>
inline void Put(Image *image, u64 address, T value) {
  memcpy(image->bytes + (address - kBase), &value, sizeof value);
}

inline void Fill(Image *image) {
  memset(image, 0, sizeof *image);
  Put<s8>(image, 0x10000, 100);
  Put<u8>(image, 0x10001, 200);
  Put<s16>(image, 0x10002, -3);
  Put<s32>(image, 0x10004, -7);
  Put<u32>(image, 0x10008, 7);
  Put<s64>(image, 0x10010, -1);
  Put<u64>(image, 0x10018, 0xFFFFFFFFFFFFFFF0ull);
  Put<f32>(image, 0x10020, 2.5f);
  Put<f64>(image, 0x10028, -0.5);
  Put<u64>(image, 0x10030, 0x7FF8000000000000ull);  // a quiet NaN
  Put<s32>(image, 0x10040, 10);
  Put<s16>(image, 0x10044, -2);
  Put<u64>(image, 0x10048, 0x10040);
  for (s32 k = 0; k < 4; k++) Put<s32>(image, 0x10050 + 4 * k, k + 1);
  Put<u64>(image, 0x10060, 0x10050);
  Put<u64>(image, 0x10068, 0x10002);
  Put<s32>(image, 0x10070, 5);
  Put<s16>(image, 0x10074, 6);
  Put<s32>(image, 0x10078, 7);
  Put<f32>(image, 0x10080, 1.0f);
  Put<s32>(image, 0x10084, 2);
  Put<u64>(image, 0x10088, 0xDEAD0000);  // points nowhere readable
  Put<u64>(image, 0x10090, 0x10070);
  Put<u32>(image, 0x10100, 1u | 5u << 4 | 7u << 8);  // lo 1, mid 5, neg binary 111
  Put<s32>(image, 0x10104, 0x7FFFFFFF);
  Put<u32>(image, 0x10108, 0x80000000u);
  Put<u32>(image, 0x1010C, 5);
  Put<s32>(image, 0x10110, 9);
  for (s32 k = 0; k < 4; k++) Put<s32>(image, 0x10114 + 4 * k, 11 + k);
  Put<s32>(image, 0x10124, 2);
  Put<u32>(image, 0x10128, 0x7F7FFFFFu);  // FLT_MAX
  Put<u16>(image, 0x1012C, 0xFFFF);
  Put<u8>(image, 0x1012F, '\n');
  Put<u64>(image, 0x10130, 0x0010000000000000ull);  // DBL_MIN
  Put<u16>(image, 0x10138, 0x263A);
  memcpy(image->bytes + 0x140, "hello\n\"w\"", 10);
  Put<u64>(image, 0x10150, 0x10140);
  Put<u64>(image, 0x10158, 0x10160);
  const u16 wide[] = {'w', 'i', 0xD83D, 0xDE00, 0x263A, 0};
  memcpy(image->bytes + 0x160, wide, sizeof wide);
  Put<u64>(image, 0x10170, 0x10080);
  Put<u64>(image, 0x10178, 0x10000);
  for (u32 k = 0; k < 16; k++) Put<f32>(image, 0x10180 + 4 * k, k % 5 == 0 ? 1.0f : (f32)k / 4);
  Put<u64>(image, 0x101C0, 0x10050);
  Put<s32>(image, 0x101C8, 3);
  const f32 lanes[] = {1.5f, -2.0f, 3.0f, 4.25f};
  memcpy(image->bytes + 0x1D0, lanes, sizeof lanes);
  Put<u64>(image, 0x101E0, 0x101C0);
  Put<u64>(image, 0x101E8, 0xDEAD0000);
  Put<s32>(image, 0x101F0, 7);
  Put<u64>(image, 0x101F8, 0x8000000000000000ull);
  for (u32 r = 0; r < kExprRegisterCount; r++) image->registers[r] = 0x1111111111111111ull * (r + 1);
  image->registers[kExprRegRax] = 0x1122334455667788ull;
  image->registers[kExprRegR10] = 0xA0B0C0D0E0F00102ull;
  image->registers[kExprRegEflags] = 0x246;
  image->avx = true;
}

inline bool ReadMemory(void *context, u64 address, void *out, u32 size) {
  Image *image = (Image *)context;
  image->reads++;
  if (address < kBase || address - kBase > kSize || size > kSize - (address - kBase)) return false;
  memcpy(out, image->bytes + (address - kBase), size);
  return true;
}

inline bool ReadRegister(void *context, u32 reg, u64 *out) {
  if (reg >= kExprRegisterCount) return false;
  *out = ((Image *)context)->registers[reg];
  return true;
}

inline bool Equal(const char *text, u32 length, const char *name) { return strlen(name) == length && !memcmp(text, name, length); }

inline u32 Find(Image *image, bool globals, const char *name, u32 length, ExprValue *out, char *error, u32 error_size) {
  for (const Variable &v : kVariables)
    if (Equal(name, length, v.name) && (!image->split || v.global == globals)) {
      memset(out, 0, sizeof *out);
      out->type = v.type;
      out->is_location = 1;
      out->address = v.address;
      return kExprEvalOk;
    }
  // A local whose storage has no live range here: the lookup's own message stops evaluation.
  if (!globals && Equal(name, length, "gone")) {
    strncpy(error, "Variable \"gone\" is not available here", error_size - 1);
    return kExprEvalFailed;
  }
  return kExprEvalFailed;
}

inline u32 FindName(void *context, const char *name, u32 length, ExprValue *out, char *error, u32 error_size) {
  return Find((Image *)context, false, name, length, out, error, error_size);
}

inline u32 FindGlobal(void *context, const char *name, u32 length, ExprValue *out, char *error, u32 error_size) {
  return Find((Image *)context, true, name, length, out, error, error_size);
}

inline u32 FindType(void *, const char *name, u32 length) {
  for (const TypeRecord &t : kTypes)
    if (t.name[0] && t.facts.kind != kExprTypePointer && Equal(name, length, t.name)) return t.type;
  return 0;
}

inline bool DescribeType(void *, u32 type, ExprTypeFacts *out) {
  for (const TypeRecord &t : kTypes)
    if (t.type == type) {
      *out = t.facts;
      return true;
    }
  return false;
}

inline u32 PointerTo(void *, u32 type) {
  for (const TypeRecord &t : kTypes)
    if (t.facts.kind == kExprTypePointer && t.facts.element == type) return t.type;
  return 0;
}

inline bool FindField(void *, u32 type, const char *name, u32 length, u64 *offset, u32 *field_type) {
  for (const Field &f : kFields)
    if (f.owner == type && Equal(name, length, f.name)) {
      *offset = f.offset;
      *field_type = f.type;
      return true;
    }
  return false;
}

inline void TypeName(void *, u32 type, char *out, u32 size) {
  out[0] = 0;
  for (const TypeRecord &t : kTypes)
    if (t.type == type) {
      strncpy(out, t.name, size - 1);
      out[size - 1] = 0;
    }
}

inline bool BitField(void *, u32 type, ExprBitField *out) {
  if (type < kBitLo || type > kBitNeg) return false;
  *out = kBitFields[type - kBitLo];
  return true;
}

inline bool FieldAt(void *, u32 type, u32 index, ExprField *out) {
  for (const Field &f : kFields)
    if (f.owner == type && index-- == 0) {
      *out = {f.name, (u32)strlen(f.name), f.type, f.offset};
      return true;
    }
  return false;
}

inline bool EnumeratorName(void *, u32 type, s64 value, char *out, u32 size) {
  static const char *const kNames[] = {"Red", "Green", "Blue"};
  if (type != kEnum || value < 0 || value > 2) return false;
  strncpy(out, kNames[value], size - 1);
  out[size - 1] = 0;
  return true;
}

inline bool IsClassLike(void *, u32 type) { return type == kPoint || type == kDerived || type == kBuffer || type == kOuter; }

// xmm and ymm registers hold the bytes number * 16 + i; there is no AVX-512.
inline u32 ReadVectorRegister(void *context, u32 bank, u32 number, u8 *out) {
  if (bank == kExprVectorZmm) return kExprVectorNoAvx512;
  if (bank == kExprVectorYmm && !((Image *)context)->avx) return kExprVectorNoAvx;
  for (u32 i = 0; i < (bank == kExprVectorXmm ? 16u : 32u); i++) out[i] = (u8)(number * 16 + i);
  return kExprVectorOk;
}

inline bool ReadPseudo(void *, u32 pseudo, u32 *out) {
  static const u32 kValues[] = {0x1234, 0x42, 5, 77};
  if (pseudo > kExprPseudoHandles) return false;
  *out = kValues[pseudo];
  return true;
}

// Parameters: this and k; locals: pt, then gone (not available here).
inline bool FrameVariableAt(void *context, bool parameters, u32 index, const char **name, ExprValue *value, bool *ok,
                            char *error, u32 error_size) {
  static const char *const kParameters[] = {"this", "k"}, *const kLocals[] = {"pt", "gone"};
  const char *const *names = parameters ? kParameters : kLocals;
  if (index >= 2) return false;
  *name = names[index];
  *ok = FindName(context, names[index], (u32)strlen(names[index]), value, error, error_size) == kExprEvalOk;
  return true;
}

inline bool ErrorMessage(void *, u32 code, char *out, u32 size) {
  if (code != 5 && code != 0x80070005u) return false;
  strncpy(out, "Access is denied", size - 1);
  out[size - 1] = 0;
  return true;
}

inline ExprEvalHost Host(Image *image) {
  ExprEvalHost host = {image, ReadMemory, ReadRegister, FindName, FindType, DescribeType, PointerTo, FindField, TypeName};
  host.bit_field = BitField;
  host.field_at = FieldAt;
  host.enumerator_name = EnumeratorName;
  host.is_class_like = IsClassLike;
  host.read_vector_register = ReadVectorRegister;
  host.read_pseudo = ReadPseudo;
  host.frame_variable_at = FrameVariableAt;
  host.error_message = ErrorMessage;
  host.find_global = image->split ? FindGlobal : nullptr;
  return host;
}

}  // namespace eval_image
