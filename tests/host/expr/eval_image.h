// A fixed target for the evaluator's tests and fuzzer: a memory image with named variables, a few
// type records (a structure, a class with a base, an array, a union, an enum) and registers.
#pragma once
#include "expr/expr_eval.h"

#include <string.h>

#include <initializer_list>

namespace eval_image {

const u64 kBase = 0x10000, kSize = 0x100;
enum : u32 { kPoint = 0x1000, kPointPtr, kIntArray, kDerived, kUnion, kEnum, kDerivedPtr };

struct Variable {
  const char *name;
  u32 type;
  u64 address;
};
// Where each variable lives; the values are written by Image().
const Variable kVariables[] = {
    {"c", 0x70, 0x10000},   {"uc", 0x20, 0x10001},  {"s", 0x11, 0x10002},          {"i", 0x74, 0x10004},
    {"u", 0x75, 0x10008},   {"ll", 0x76, 0x10010},  {"ull", 0x77, 0x10018},        {"f", 0x40, 0x10020},
    {"d", 0x41, 0x10028},   {"nan", 0x41, 0x10030}, {"pt", kPoint, 0x10040},       {"pp", kPointPtr, 0x10048},
    {"arr", kIntArray, 0x10050}, {"pi", 0x674, 0x10060}, {"ps", 0x611, 0x10068},   {"der", kDerived, 0x10070},
    {"un", kUnion, 0x10080}, {"color", kEnum, 0x10084}, {"bad", 0x674, 0x10088},   {"pd", kDerivedPtr, 0x10090},
};

struct Field {
  u32 owner;
  const char *name;
  u64 offset;
  u32 type;
};
// Derived's base Point sits at offset 0: its fields are found through Derived too.
const Field kFields[] = {{kPoint, "x", 0, 0x74}, {kPoint, "y", 4, 0x11}, {kDerived, "z", 8, 0x74},
                         {kUnion, "i", 0, 0x74}, {kUnion, "f", 0, 0x40}};

struct Image {
  u8 bytes[kSize];
  u64 registers[kExprRegisterCount];
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
  for (u32 r = 0; r < kExprRegisterCount; r++) image->registers[r] = 0x1111111111111111ull * (r + 1);
  image->registers[kExprRegRax] = 0x1122334455667788ull;
  image->registers[kExprRegR10] = 0xA0B0C0D0E0F00102ull;
}

inline bool ReadMemory(void *context, u64 address, void *out, u32 size) {
  Image *image = (Image *)context;
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

inline u32 FindName(void *, const char *name, u32 length, ExprValue *out, char *error, u32 error_size) {
  for (const Variable &v : kVariables)
    if (Equal(name, length, v.name)) {
      memset(out, 0, sizeof *out);
      out->type = v.type;
      out->is_location = 1;
      out->address = v.address;
      return kExprEvalOk;
    }
  // A local whose storage has no live range here: the lookup's own message stops evaluation.
  if (Equal(name, length, "gone")) {
    strncpy(error, "Variable \"gone\" is not available here", error_size - 1);
    return kExprEvalFailed;
  }
  return kExprEvalFailed;
}

inline u32 FindType(void *, const char *name, u32 length) {
  if (Equal(name, length, "Point")) return kPoint;
  if (Equal(name, length, "Derived")) return kDerived;
  return 0;
}

inline bool DescribeType(void *, u32 type, ExprTypeFacts *out) {
  switch (type) {
    case kPoint: *out = {kExprTypeRecord, 0, 8}; return true;
    case kPointPtr: *out = {kExprTypePointer, kPoint, 8}; return true;
    case kIntArray: *out = {kExprTypeArray, 0x74, 16}; return true;
    case kDerived: *out = {kExprTypeRecord, 0, 12}; return true;
    case kUnion: *out = {kExprTypeUnion, 0, 4}; return true;
    case kEnum: *out = {kExprTypeEnum, 0x74, 4}; return true;
    case kDerivedPtr: *out = {kExprTypePointer, kDerived, 8}; return true;
    default: return false;
  }
}

inline u32 PointerTo(void *, u32 type) { return type == kPoint ? kPointPtr : type == kDerived ? kDerivedPtr : 0; }

inline bool FindField(void *, u32 type, const char *name, u32 length, u64 *offset, u32 *field_type) {
  for (u32 owner : {type, type == kDerived ? (u32)kPoint : 0u})
    for (const Field &f : kFields)
      if (f.owner == owner && Equal(name, length, f.name)) {
        *offset = f.offset;
        *field_type = f.type;
        return true;
      }
  return false;
}

inline void TypeName(void *, u32 type, char *out, u32 size) {
  const char *name = type == kPoint ? "Point" : type == kDerived ? "Derived" : type == 0x74 ? "int" : "";
  strncpy(out, name, size - 1);
  out[size - 1] = 0;
}

inline ExprEvalHost Host(Image *image) {
  return {image, ReadMemory, ReadRegister, FindName, FindType, DescribeType, PointerTo, FindField, TypeName};
}

}  // namespace eval_image
