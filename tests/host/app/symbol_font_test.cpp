// The symbol font the build draws: a TrueType file that Dear ImGui's rasterizer reads, with one
// distinct, inked glyph for every run-control label code point.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_files.h"

#define STB_TRUETYPE_IMPLEMENTATION
#define STBTT_STATIC
#include "imstb_truetype.h"

namespace {

const int kFirstSymbol = 0xE005, kLastSymbol = 0xE00D;

TEST(SymbolFont, EveryRunControlSymbolHasItsOwnInkedGlyph) {
  bool read = false;
  std::string text = ReadFile(KTRN_SYMBOL_FONT, &read);
  ASSERT_TRUE(read && text.size() > 12) << KTRN_SYMBOL_FONT;
  std::vector<unsigned char> font(text.begin(), text.end());
  // The whole file sums to the font checksum constant once head's adjustment is in.
  unsigned sum = 0;
  for (size_t i = 0; i + 4 <= font.size(); i += 4)
    sum += (unsigned)font[i] << 24 | (unsigned)font[i + 1] << 16 | (unsigned)font[i + 2] << 8 | font[i + 3];
  EXPECT_EQ(sum, 0xB1B0AFBAu);

  stbtt_fontinfo info;
  ASSERT_TRUE(stbtt_InitFont(&info, font.data(), 0));
  float scale = stbtt_ScaleForPixelHeight(&info, 14.0f);
  std::vector<std::string> bitmaps;
  for (int code = kFirstSymbol; code <= kLastSymbol; code++) {
    SCOPED_TRACE(testing::Message() << std::hex << code);
    EXPECT_NE(stbtt_FindGlyphIndex(&info, code), 0);
    int width = 0, height = 0;
    unsigned char *pixels = stbtt_GetCodepointBitmap(&info, 0, scale, code, &width, &height, nullptr, nullptr);
    ASSERT_NE(pixels, nullptr);
    std::string bitmap((const char *)pixels, (size_t)width * height);
    stbtt_FreeBitmap(pixels, nullptr);
    size_t inked = 0;
    for (char c : bitmap) inked += (unsigned char)c > 128;
    EXPECT_GT(inked, bitmap.size() / 8) << "a glyph too faint to read at the UI size";
    EXPECT_LT(inked, bitmap.size()) << "a glyph that fills its whole box";
    for (const std::string &earlier : bitmaps) EXPECT_NE(bitmap, earlier);
    bitmaps.push_back(bitmap);
  }
  EXPECT_EQ(stbtt_FindGlyphIndex(&info, kLastSymbol + 1), 0);
  EXPECT_EQ(stbtt_FindGlyphIndex(&info, 'A'), 0);
}

}  // namespace
