#include "expr/format_spec.h"

#include <string.h>

const FormatSpecifier kFormatSpecifiers[kFormatSpecifierCount] = {
    {"_", DisplayFlag_None, 0, 0, 0},
    {"x", DisplayFlag_HexLower, 0, 0, 0},
    {"X", DisplayFlag_HexUpper, 0, 0, 0},
    {"d", DisplayFlag_Decimal, 0, 0, 0},
    {"b", DisplayFlag_Binary, 0, 0, 0},
    {"str", DisplayFlag_String, 0, 0, 0},
    {"wstr", DisplayFlag_WideString, 0, 0, 0},
    {"hr", DisplayFlag_HResult, 0, 0, 0},
    // Memory views: "Bytes w/ASCII", "Double-words w/ASCII", "Double-words", "Doubles", "Floats",
    // "Quad-words", "Words", "Words w/ASCII", "Binary w/bytes", "Binary w/double-words".
    {"db", DisplayFlag_Memory, 1, 0, 0},
    {"dc", DisplayFlag_Memory, 2, 0, 0},
    {"dd", DisplayFlag_Memory, 3, 0, 0},
    {"dD", DisplayFlag_Memory, 4, 0, 0},
    {"df", DisplayFlag_Memory, 5, 0, 0},
    {"dq", DisplayFlag_Memory, 6, 0, 0},
    {"dw", DisplayFlag_Memory, 7, 0, 0},
    {"dW", DisplayFlag_Memory, 8, 0, 0},
    {"dyb", DisplayFlag_Memory, 9, 0, 0},
    {"dyd", DisplayFlag_Memory, 10, 0, 0},
    // Matrices: 4x4, 4x3 (rows x columns), 3x4.
    {"mtx", DisplayFlag_Matrix, 0, 0, 0},
    {"mtx4x3", DisplayFlag_Matrix, 0, 0, 1},
    {"mtx3x4", DisplayFlag_Matrix, 0, 0, 2},
    // Vector lanes; the hex bits combine with the vector bit.
    {"ps", DisplayFlag_Vector, 0, 1, 0},
    {"pd", DisplayFlag_Vector, 0, 2, 0},
    {"epi8", DisplayFlag_Vector, 0, 3, 0},
    {"epi16", DisplayFlag_Vector, 0, 4, 0},
    {"epi32", DisplayFlag_Vector, 0, 5, 0},
    {"epi64", DisplayFlag_Vector, 0, 6, 0},
    {"epu8", DisplayFlag_Vector, 0, 7, 0},
    {"epu16", DisplayFlag_Vector, 0, 8, 0},
    {"epu32", DisplayFlag_Vector, 0, 9, 0},
    {"epu64", DisplayFlag_Vector, 0, 10, 0},
    {"epu8x", DisplayFlag_Vector | DisplayFlag_HexLower, 0, 7, 0},
    {"epu16x", DisplayFlag_Vector | DisplayFlag_HexLower, 0, 8, 0},
    {"epu32x", DisplayFlag_Vector | DisplayFlag_HexLower, 0, 9, 0},
    {"epu64x", DisplayFlag_Vector | DisplayFlag_HexLower, 0, 10, 0},
    {"epu8X", DisplayFlag_Vector | DisplayFlag_HexUpper, 0, 7, 0},
    {"epu16X", DisplayFlag_Vector | DisplayFlag_HexUpper, 0, 8, 0},
    {"epu32X", DisplayFlag_Vector | DisplayFlag_HexUpper, 0, 9, 0},
    {"epu64X", DisplayFlag_Vector | DisplayFlag_HexUpper, 0, 10, 0},
};

s32 FindFormatSpecifier(const char *text, u32 length) {
  for (s32 i = 0; i < kFormatSpecifierCount; i++) {
    const char *name = kFormatSpecifiers[i].name;
    if (strlen(name) == length && memcmp(name, text, length) == 0) return i;
  }
  return -1;
}
