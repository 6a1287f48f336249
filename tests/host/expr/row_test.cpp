// Watch rows against the fixed memory image: the three texts of rows and of their children
// (golden/rows.txt), basic values in every display mode, and the costs that must stay bounded.
#include <gtest/gtest.h>

#include <float.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "eval_image.h"
#include "expr/expr_parser.h"
#include "expr/expr_row.h"
#include "expr/format_spec.h"
#include "expr/value_format.h"
#include "test_files.h"

namespace {

struct Rows {
  eval_image::Image image;
  ExprEvalHost host;
  ExprEvalContext context;
  std::unique_ptr<ExprPool> pool{new ExprPool};
  u32 flags = 0;
  explicit Rows(bool split = false) {
    eval_image::Fill(&image);
    image.split = split;
    host = eval_image::Host(&image);
    context = {&host, 0, {}, nullptr};
    InitExprPool(pool.get());
    ExprClearErrorMessages();
  }
  // The row of text, or of its descendant along path ("2.0": child 0 of child 2).
  bool Evaluate(const std::string &text, const std::string &path, ExprRow *row) {
    ExprParseResult parsed;
    if (!ExprParse(pool.get(), text.c_str(), &parsed)) return false;
    ExprEvaluateRow(&context, text.c_str(), parsed.tree, parsed.format, flags, row);
    ExprFreeTree(pool.get(), parsed.tree);
    ExprFreeTree(pool.get(), parsed.format);
    for (const std::string &step : path.empty() ? std::vector<std::string>() : Split(path, '.')) {
      ExprRow child;
      if (!ExprRowChild(&context, row, std::stoull(step), &child)) return false;
      *row = child;
    }
    return true;
  }
  std::string Line(const std::string &text, const std::string &path = "") {
    ExprRow row;
    if (!Evaluate(text, path, &row)) return "no such row";
    char line[1200];
    ExprRowLine(&row, line, sizeof line);
    return line + std::string(row.child_count ? Format(" +%llu", (unsigned long long)row.child_count) : "");
  }
};

// golden/rows.txt: a text, optionally the path of a child, and the row line with " +N" for a row
// with N children. "mode:FLAGS" lines set the window's display flags (hex digits) for the lines
// after them. KTRN_UPDATE_GOLDEN=1 writes what the rows show back into the file, for review.
TEST(WatchRows, GoldenRowsAndChildren) {
  Rows rows;
  int checked = 0;
  const std::string file = "tests/host/expr/golden/rows.txt";
  std::vector<std::string> text = Split(ReadFile(std::string(KTRN_SOURCE_DIR) + "/" + file), '\n');
  bool update = getenv("KTRN_UPDATE_GOLDEN") != nullptr;
  for (const GoldenLine &g : ReadGolden(file)) {
    if (g.fields[0].rfind("mode:", 0) == 0) {
      rows.flags = (u32)std::stoul(g.fields[0].substr(5), nullptr, 16);
      continue;
    }
    ASSERT_GE(g.fields.size(), 2u) << "line " << g.number;
    std::string path = g.fields.size() > 2 ? g.fields[1] : "", expected = g.fields.back();
    std::string got = rows.Line(g.fields[0], path);
    EXPECT_EQ(got, expected) << "line " << g.number << ": " << g.fields[0] << " " << path;
    text[g.number - 1] = g.fields[0] + (g.fields.size() > 2 ? "\t" + path : "") + "\t" + got;
    checked++;
  }
  if (update) {
    std::string joined;
    for (size_t i = 0; i < text.size(); i++) joined += text[i] + (i + 1 < text.size() ? "\n" : "");
    FILE *f = fopen((std::string(KTRN_SOURCE_DIR) + "/" + file).c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite(joined.data(), 1, joined.size(), f);
    fclose(f);
  }
  EXPECT_GE(checked, 100);
}

TEST(WatchRows, BasicValuesInEveryMode) {
  const u32 kHex = kDisplayFlagHexLower, kHEX = kDisplayFlagHexUpper, kBin = kDisplayFlagBinary, kDec = 0;
  const struct {
    u32 type;
    u64 bits;
    u32 flags;
    const char *expected;
  } cases[] = {
      {0x74, 0x7FFFFFFF, kDec, "INT_MAX (2147483647)"},
      {0x74, 0x7FFFFFFF, kHex, "INT_MAX (0x7fffffff)"},
      {0x74, 0x80000000, kHEX, "INT_MIN (0x80000000)"},
      {0x74, 0x7FFFFFFE, kDec, "2147483646"},
      {0x12, 0x80000000, kDec, "LONG_MIN (-2147483648)"},
      {0x12, 0x7FFFFFFF, kHex, "LONG_MAX (0x7fffffff)"},
      {0x22, 0xFFFFFFFF, kHex, "ULONG_MAX (0xffffffff)"},
      {0x75, 0xFFFFFFFF, kDec, "UINT_MAX (4294967295)"},
      {0x11, 0x8000, kHex, "SHRT_MIN (0x8000)"},
      {0x72, 0x7FFF, kDec, "SHRT_MAX (32767)"},
      {0x21, 0xFFFF, kDec, "USHRT_MAX (65535)"},
      {0x76, 0x8000000000000000ull, kDec, "LLONG_MIN (-9223372036854775808)"},
      {0x13, 0x7FFFFFFFFFFFFFFFull, kHex, "LLONG_MAX (0x7fffffffffffffff)"},
      {0x77, ~0ull, kDec, "ULLONG_MAX (18446744073709551615)"},
      {0x11, 0xFFFE, kHex, "0xfffe"},
      {0x11, 0xFFFE, kDec, "-2"},
      {0x72, 0x0102, kBin, "0b00000001`00000010"},
      {0x68, 0xFF, kDec, "-1"},
      {0x69, 0xFF, kHEX, "0xFF"},
      {0x30, 0, kDec, "false"},
      {0x30, 2, kDec, "true"},
      {0x70, 0, kDec, "0 '\\0'"},
      {0x70, 0, kHex, "0x00 '\\0'"},
      {0x70, 0, kBin, "0b00000000 '\\0'"},
      {0x70, 'A', kHEX, "0x41 'A'"},
      {0x70, '\n', kDec, "10 '\\n'"},
      {0x70, '\'', kDec, "39 '\\''"},
      {0x10, 0xE9, kDec, "-23 '\\xe9'"},
      {0x20, 0xE9, kDec, "233 '\\xe9'"},
      {0x71, 0, kHex, "0x0000 '\\0'"},
      {0x71, 0, kDec, "0 '\\0'"},
      {0x71, 0, kBin, "0b00000000`00000000 '\\0'"},
      {0x71, 0x263A, kHEX, "0x263A '\xe2\x98\xba'"},
      {0x7A, 0xE9, kDec, "233 '\xc3\xa9'"},
      {0x7B, 0x1F600, kHex, "0x0001f600 '\xf0\x9f\x98\x80'"},
      {0x603, 0x10050, kDec, "0x0000000000010050"},
      {0x674, 0x10050, kHex, "0x0000000000010050"},
      {0x674, 0x8001, kBin, "0b00000000`00000000`00000000`00000000`00000000`00000000`10000000`00000001"},
      {0x08, 0x80070005u, kDec, "0x80070005: Access is denied"},
      {0x74, 5, kDisplayFlagHResult, "5: Access is denied"},
      {0x74, 6, kDisplayFlagHResult, "6"},
      {0x14, 1, kDec, "Unknown Type"},
  };
  Rows rows;
  for (const auto &c : cases) {
    u8 bytes[8];
    memcpy(bytes, &c.bits, 8);
    char text[256];
    ExprFormatBasic(&rows.context, c.type, bytes, c.flags, text, sizeof text);
    EXPECT_STREQ(text, c.expected) << std::hex << c.type << " " << c.bits << " flags " << c.flags;
  }
  const struct {
    bool is_double;
    f64 value;
    u32 flags;
    const char *expected;
  } floats[] = {
      {false, FLT_MAX, kDec, "FLT_MAX (3.4028235e+38)"},
      {false, -FLT_MAX, kDec, "-FLT_MAX (-3.4028235e+38)"},
      {false, FLT_MIN, kHex, "FLT_MIN (0x1p-126)"},
      {false, -FLT_MIN, kHEX, "-FLT_MIN (-0X1P-126)"},
      {false, 0.1, kDec, "0.1"},
      {false, 1.0 / 3, kDec, "0.33333334"},
      {true, 1.0 / 3, kDec, "0.3333333333333333"},
      {true, DBL_MAX, kDec, "DBL_MAX (1.797693134862316e+308)"},
      {true, -DBL_MIN, kDec, "-DBL_MIN (-2.225073858507201e-308)"},
      {true, 2.5, kHex, "0x1.4p+1"},
  };
  for (const auto &c : floats) {
    u8 bytes[8];
    f32 narrow = (f32)c.value;
    if (c.is_double) memcpy(bytes, &c.value, 8);
    else memcpy(bytes, &narrow, 4);
    char text[256];
    ExprFormatBasic(&rows.context, c.is_double ? 0x41 : 0x40, bytes, c.flags, text, sizeof text);
    EXPECT_STREQ(text, c.expected) << c.value;
  }
}

// The type column's basic names (the symbol layer's one table), pointers to them, the octets' old
// pointer spelling and the vector registers' names, which only values have.
TEST(WatchRows, BasicTypeNames) {
  const struct {
    u32 type;
    const char *expected;
  } cases[] = {{0x00, "notype"}, {0x03, "void"}, {0x08, "HRESULT"}, {0x10, "signed char"}, {0x13, "s64"},
               {0x14, "octect"}, {0x24, "unsigned octect"}, {0x33, "b64"}, {0x70, "char"}, {0x76, "s64"},
               {0x77, "u64"}, {0x78, "s128"}, {0x7A, "char16"}, {0x7B, "char32"}, {0x42, "f80"},
               {0x670, "char *"}, {0x623, "u64 *"}, {0x114, "octect near*"}, {0x124, "unsigned octect near*"}, {0x614, "TBI"},
               {0x79, "u128"}, {kExprTypeVector256, "u256"}, {kExprTypeVector512, "u512"}};
  Rows rows;
  for (const auto &c : cases) {
    char text[64];
    ExprTypeText(&rows.context, c.type, text, sizeof text);
    EXPECT_STREQ(text, c.expected) << std::hex << c.type;
  }
}

// Texts are cut at their buffers, a message that does not fit is left out, and every row line
// fits the caller's buffer.
TEST(WatchRows, TextsAreCutToTheirBuffers) {
  Rows rows;
  char small[8];
  u8 bytes[8] = {5};
  ExprFormatBasic(&rows.context, 0x74, bytes, kDisplayFlagHResult, small, sizeof small);
  EXPECT_STREQ(small, "5");
  ExprFormatBasic(&rows.context, 0x74, bytes, kDisplayFlagBinary, small, sizeof small);
  EXPECT_STREQ(small, "0b00000");
  ExprRow row;
  ASSERT_TRUE(rows.Evaluate("v, epi8", "", &row));
  char line[24];
  EXPECT_EQ(ExprRowLine(&row, line, sizeof line), 23u);
  EXPECT_EQ(std::string(line), "v, epi8;{ 0, 0, -64, 63");
}

// Children are made one index at a time: the last of a million elements costs one read, and its
// unreadable memory keeps the row.
TEST(WatchRows, AMillionElementsCostOnlyTheRowsAskedFor) {
  Rows rows;
  ExprRow row, child;
  ASSERT_TRUE(rows.Evaluate("big", "", &row));
  EXPECT_EQ(row.child_count, 1000000u);
  u32 before = rows.image.reads;
  ASSERT_TRUE(ExprRowChild(&rows.context, &row, 999999, &child));
  EXPECT_EQ(rows.image.reads - before, 1u);
  EXPECT_STREQ(child.name, "[999999]");
  EXPECT_STREQ(child.value_text, "??? (unable to read process memory)");
  EXPECT_STREQ(child.type_text, "int");
  EXPECT_TRUE(child.unreadable);
  EXPECT_FALSE(ExprRowChild(&rows.context, &row, 1000000, &child));
}

// The message cache asks the host once per code, and still answers when all its slots are taken.
TEST(WatchRows, ErrorMessagesAreCachedByCode) {
  static u32 asked;
  asked = 0;
  Rows rows;
  rows.host.error_message = [](void *, u32 code, char *out, u32 size) {
    asked++;
    snprintf(out, size, "message %u", code);
    return (code >> 16) % 2 == 0;
  };
  for (u32 round = 0; round < 2; round++)
    for (u32 code = 0; code < 200; code++) {
      const char *text = ExprErrorMessage(&rows.context, code * 0x10000);
      EXPECT_EQ(std::string(text), code % 2 ? "" : Format("message %u", code * 0x10000));
    }
  EXPECT_EQ(asked, 200u);
  for (u32 code = 200; code < 300; code++) ExprErrorMessage(&rows.context, code * 0x10000);
  EXPECT_STREQ(ExprErrorMessage(&rows.context, 298 * 0x10000), "message 19529728");
  EXPECT_EQ(asked, 301u);
}

}  // namespace
