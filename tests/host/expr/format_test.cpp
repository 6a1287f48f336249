// The specifier after the comma: the 39 names in their order, memory-view options, the put-back
// before '.' and '->', and the count expression.
#include "expr_test_util.h"

#include "expr/format_spec.h"

#include <string>

// Written out by hand (not derived from the table) so that a changed entry shows here.
static const struct {
  const char *name;
  const char *flags;
} kExpectedSpecifiers[] = {
    {"_", "0x0"},          {"x", "0x400"},        {"X", "0x800"},        {"d", "0x40000"},
    {"b", "0x10000"},      {"str", "0x80"},       {"wstr", "0x20"},      {"hr", "0x80000"},
    {"db", "0x1000"},      {"dc", "0x1000"},      {"dd", "0x1000"},      {"dD", "0x1000"},
    {"df", "0x1000"},      {"dq", "0x1000"},      {"dw", "0x1000"},      {"dW", "0x1000"},
    {"dyb", "0x1000"},     {"dyd", "0x1000"},     {"mtx", "0x40"},       {"mtx4x3", "0x40"},
    {"mtx3x4", "0x40"},    {"ps", "0x2000"},      {"pd", "0x2000"},      {"epi8", "0x2000"},
    {"epi16", "0x2000"},   {"epi32", "0x2000"},   {"epi64", "0x2000"},   {"epu8", "0x2000"},
    {"epu16", "0x2000"},   {"epu32", "0x2000"},   {"epu64", "0x2000"},   {"epu8x", "0x2400"},
    {"epu16x", "0x2400"},  {"epu32x", "0x2400"},  {"epu64x", "0x2400"},  {"epu8X", "0x2800"},
    {"epu16X", "0x2800"},  {"epu32X", "0x2800"},  {"epu64X", "0x2800"},
};

TEST(ExprFormat, EveryNameInTableOrder) {
  ASSERT_EQ(KTRN_ARRAY_COUNT(kExpectedSpecifiers), (size_t)kFormatSpecifierCount);
  for (s32 i = 0; i < kFormatSpecifierCount; i++) {
    const char *name = kExpectedSpecifiers[i].name;
    EXPECT_EQ(FindFormatSpecifier(name, (u32)strlen(name)), i) << name;
    std::string expected = std::string("(id v) (format ") + name + " " + kExpectedSpecifiers[i].flags + " cols=0 count=0 -)";
    EXPECT_EQ(ParseAndPrint(std::string("v, ") + name).printed, expected);
  }
}

TEST(ExprFormat, KindsOfTheTable) {
  struct Case {
    const char *name;
    u32 memory_kind, vector_kind, matrix_kind;
  } cases[] = {
      {"db", 1, 0, 0},  {"dyd", 10, 0, 0}, {"dW", 8, 0, 0},    {"mtx", 0, 0, 0},     {"mtx4x3", 0, 0, 1},
      {"mtx3x4", 0, 0, 2}, {"ps", 0, 1, 0}, {"epi64", 0, 6, 0}, {"epu8x", 0, 7, 0}, {"epu64X", 0, 10, 0},
  };
  for (const Case &c : cases) {
    s32 i = FindFormatSpecifier(c.name, (u32)strlen(c.name));
    ASSERT_GE(i, 0) << c.name;
    EXPECT_EQ(kFormatSpecifiers[i].memory_kind, c.memory_kind) << c.name;
    EXPECT_EQ(kFormatSpecifiers[i].vector_kind, c.vector_kind) << c.name;
    EXPECT_EQ(kFormatSpecifiers[i].matrix_kind, c.matrix_kind) << c.name;
  }
}

TEST(ExprFormat, NamesAndTheRestOfTheText) {
  static const TextCase cases[] = {
      {"p, str", "(id p) (format str 0x80 cols=0 count=0 -)"},
      {"p,str", "(id p) (format str 0x80 cols=0 count=0 -)"},
      {"p, str.len", "(id p) (format - 0x0 cols=0 count=0 (. (id str) len))"},
      {"p, x->n", "(id p) (format - 0x0 cols=0 count=0 (-> (id x) n))"},
      {"p, str 16", "(id p) (format str 0x80 cols=0 count=0 (int 0x74 16))"},
      {"p, wstr n*2", "(id p) (format wstr 0x20 cols=0 count=0 (* (id n) (int 0x74 2)))"},
      {"p, 16", "(id p) (format - 0x0 cols=0 count=0 (int 0x74 16))"},
      {"p, n", "(id p) (format - 0x0 cols=0 count=0 (id n))"},
      {"p, _ 4", "(id p) (format _ 0x0 cols=0 count=0 (int 0x74 4))"},
      {"p,", "(id p) (format - 0x0 cols=0 count=0 -)"},
      {"p, Str", "(id p) (format - 0x0 cols=0 count=0 (id Str))"},
      {"p, strx", "(id p) (format - 0x0 cols=0 count=0 (id strx))"},
      {"p, x::y", "(id p) (format - 0x0 cols=0 count=0 (id x::y))"},
      {"p, hr, x", "parse error"},
      {"p, 1 2", "parse error"},
      {"p, x [1]", "parse error"},  // "x" is taken as the name; "[1]" is no expression
      {"a+b, d", "(+ (id a) (id b)) (format d 0x40000 cols=0 count=0 -)"},
      {", x", "parse error"},
  };
  ExpectTrees(cases);
}

TEST(ExprFormat, VectorAndMatrixNamesEndTheText) {
  static const TextCase cases[] = {
      {"v, epi32", "(id v) (format epi32 0x2000 cols=0 count=0 -)"},
      {"v, epu32X", "(id v) (format epu32X 0x2800 cols=0 count=0 -)"},
      {"v, epi32 3", "parse error"},
      {"v, ps /c4", "parse error"},
      {"m, mtx 4", "parse error"},
      {"m, mtx4x3 ", "(id m) (format mtx4x3 0x40 cols=0 count=0 -)"},
      {"v, epi32.x", "(id v) (format - 0x0 cols=0 count=0 (. (id epi32) x))"},
  };
  ExpectTrees(cases);
}

TEST(ExprFormat, MemoryViewOptions) {
  static const TextCase cases[] = {
      {"p, db /c16 /n256", "(id p) (format db 0x1000 cols=16 count=256 -)"},
      {"p, db/c8/n64", "(id p) (format db 0x1000 cols=8 count=64 -)"},
      {"p, dd /n4", "(id p) (format dd 0x1000 cols=0 count=4 -)"},
      {"p, dq /c0x10", "(id p) (format dq 0x1000 cols=16 count=0 -)"},
      {"p, dw /c010", "(id p) (format dw 0x1000 cols=8 count=0 -)"},
      {"p, dc /c4 /c2", "(id p) (format dc 0x1000 cols=2 count=0 -)"},
      {"p, db p+64", "(id p) (format db 0x1000 cols=0 count=0 (+ (id p) (int 0x74 64)))"},
      {"p, db /c16 q", "(id p) (format db 0x1000 cols=16 count=0 (id q))"},
      {"p, db q /c16", "(id p) (format db 0x1000 cols=0 count=0 (/ (id q) (id c16)))"},
      {"p, db /n4 q", "parse error"},
      {"p, db /n0 q", "parse error"},
      {"p, db /c 16", "parse error"},
      {"p, db /x16", "parse error"},
      {"p, db /C16", "parse error"},
      {"p, db /cx", "parse error"},
      {"p, db /c019", "parse error"},
      {"p, db /c1.5", "parse error"},
      {"p, db /", "parse error"},
      {"p, db /16", "parse error"},
      {"p, db /n16u", "parse error"},
      {"p, db /columns", "parse error"},
      {"p, str /c16", "parse error"},  // options belong to the memory views
  };
  ExpectTrees(cases);
}
