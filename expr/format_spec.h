// Format specifiers: the names that may follow a comma in an expression, and the display flags
// they set. The same flag bits are used by watch options and value formatting.
#pragma once
#include "base/types.h"

enum DisplayFlag : u32 {
  kDisplayFlagNone = 0,
  kDisplayFlagWideString = 0x20,
  kDisplayFlagMatrix = 0x40,
  kDisplayFlagString = 0x80,
  kDisplayFlagHexLower = 0x400,
  kDisplayFlagHexUpper = 0x800,
  kDisplayFlagMemory = 0x1000,
  kDisplayFlagVector = 0x2000,
  kDisplayFlagBinary = 0x10000,
  kDisplayFlagDecimal = 0x40000,
  kDisplayFlagHResult = 0x80000,
  // The watch window's "Column Major Display": no specifier sets it. A matrix's rows are then its
  // columns.
  kDisplayFlagColumnMajor = 0x100000,
};

struct FormatSpecifier {
  const char *name;
  u32 flags;        // DisplayFlag bits
  u32 memory_kind;  // 1..10 for the memory views ("db" .. "dyd"), else 0
  u32 vector_kind;  // 1..10 for the vector lanes ("ps" .. "epu64X"), else 0
  u32 matrix_kind;  // 0 4x4, 1 4x3, 2 3x4 (meaningful with kDisplayFlagMatrix only)
};

enum { kFormatSpecifierCount = 39 };
// Searched in this order; the first exact, whole match wins.
extern const FormatSpecifier kFormatSpecifiers[kFormatSpecifierCount];

// Index of the specifier spelled exactly text[0..length), or -1.
s32 FindFormatSpecifier(const char *text, u32 length);
