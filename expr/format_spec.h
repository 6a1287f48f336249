// Format specifiers: the names that may follow a comma in an expression, and the display flags
// they set. The same flag bits are used by watch options and value formatting.
#pragma once
#include "base/types.h"

enum DisplayFlag : u32 {
  DisplayFlag_None = 0,
  DisplayFlag_WideString = 0x20,
  DisplayFlag_Matrix = 0x40,
  DisplayFlag_String = 0x80,
  DisplayFlag_HexLower = 0x400,
  DisplayFlag_HexUpper = 0x800,
  DisplayFlag_Memory = 0x1000,
  DisplayFlag_Vector = 0x2000,
  DisplayFlag_Binary = 0x10000,
  DisplayFlag_Decimal = 0x40000,
  DisplayFlag_HResult = 0x80000,
};

struct FormatSpecifier {
  const char *name;
  u32 flags;        // DisplayFlag bits
  u32 memory_kind;  // 1..10 for the memory views ("db" .. "dyd"), else 0
  u32 vector_kind;  // 1..10 for the vector lanes ("ps" .. "epu64X"), else 0
  u32 matrix_kind;  // 0 4x4, 1 4x3, 2 3x4 (meaningful with DisplayFlag_Matrix only)
};

enum { kFormatSpecifierCount = 39 };
// Searched in this order; the first exact, whole match wins.
extern const FormatSpecifier kFormatSpecifiers[kFormatSpecifierCount];

// Index of the specifier spelled exactly text[0..length), or -1.
s32 FindFormatSpecifier(const char *text, u32 length);
