#include "expr/format_spec.h"

#include <string.h>

const FormatSpecifier kFormatSpecifiers[kFormatSpecifierCount] = {
    {"_", kDisplayFlagNone, 0, 0, 0},
    {"x", kDisplayFlagHexLower, 0, 0, 0},
    {"X", kDisplayFlagHexUpper, 0, 0, 0},
    {"d", kDisplayFlagDecimal, 0, 0, 0},
    {"b", kDisplayFlagBinary, 0, 0, 0},
    {"str", kDisplayFlagString, 0, 0, 0},
    {"wstr", kDisplayFlagWideString, 0, 0, 0},
    {"hr", kDisplayFlagHResult, 0, 0, 0},
    // Memory views: "Bytes w/ASCII", "Double-words w/ASCII", "Double-words", "Doubles", "Floats",
    // "Quad-words", "Words", "Words w/ASCII", "Binary w/bytes", "Binary w/double-words".
    {"db", kDisplayFlagMemory, 1, 0, 0},
    {"dc", kDisplayFlagMemory, 2, 0, 0},
    {"dd", kDisplayFlagMemory, 3, 0, 0},
    {"dD", kDisplayFlagMemory, 4, 0, 0},
    {"df", kDisplayFlagMemory, 5, 0, 0},
    {"dq", kDisplayFlagMemory, 6, 0, 0},
    {"dw", kDisplayFlagMemory, 7, 0, 0},
    {"dW", kDisplayFlagMemory, 8, 0, 0},
    {"dyb", kDisplayFlagMemory, 9, 0, 0},
    {"dyd", kDisplayFlagMemory, 10, 0, 0},
    // Matrices: 4x4, 4x3 (rows x columns), 3x4.
    {"mtx", kDisplayFlagMatrix, 0, 0, 0},
    {"mtx4x3", kDisplayFlagMatrix, 0, 0, 1},
    {"mtx3x4", kDisplayFlagMatrix, 0, 0, 2},
    // Vector lanes; the hex bits combine with the vector bit.
    {"ps", kDisplayFlagVector, 0, 1, 0},
    {"pd", kDisplayFlagVector, 0, 2, 0},
    {"epi8", kDisplayFlagVector, 0, 3, 0},
    {"epi16", kDisplayFlagVector, 0, 4, 0},
    {"epi32", kDisplayFlagVector, 0, 5, 0},
    {"epi64", kDisplayFlagVector, 0, 6, 0},
    {"epu8", kDisplayFlagVector, 0, 7, 0},
    {"epu16", kDisplayFlagVector, 0, 8, 0},
    {"epu32", kDisplayFlagVector, 0, 9, 0},
    {"epu64", kDisplayFlagVector, 0, 10, 0},
    {"epu8x", kDisplayFlagVector | kDisplayFlagHexLower, 0, 7, 0},
    {"epu16x", kDisplayFlagVector | kDisplayFlagHexLower, 0, 8, 0},
    {"epu32x", kDisplayFlagVector | kDisplayFlagHexLower, 0, 9, 0},
    {"epu64x", kDisplayFlagVector | kDisplayFlagHexLower, 0, 10, 0},
    {"epu8X", kDisplayFlagVector | kDisplayFlagHexUpper, 0, 7, 0},
    {"epu16X", kDisplayFlagVector | kDisplayFlagHexUpper, 0, 8, 0},
    {"epu32X", kDisplayFlagVector | kDisplayFlagHexUpper, 0, 9, 0},
    {"epu64X", kDisplayFlagVector | kDisplayFlagHexUpper, 0, 10, 0},
};

s32 FindFormatSpecifier(const char *text, u32 length) {
  for (s32 i = 0; i < kFormatSpecifierCount; i++) {
    const char *name = kFormatSpecifiers[i].name;
    if (strlen(name) == length && memcmp(name, text, length) == 0) return i;
  }
  return -1;
}
