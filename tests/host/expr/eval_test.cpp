// The evaluator against a fixed memory image: values with their types, and every failure's message.
#include <gtest/gtest.h>

#include <stdio.h>

#include <memory>
#include <string>

#include "expr/expr_eval.h"
#include "expr/expr_parser.h"
#include "eval_image.h"

namespace {

struct Evaluator {
  eval_image::Image image;
  ExprEvalHost host;
  std::unique_ptr<ExprPool> pool{new ExprPool};
  explicit Evaluator(bool split = false) {
    eval_image::Fill(&image);
    image.split = split;
    host = eval_image::Host(&image);
    InitExprPool(pool.get());
  }
  // "TYPE VALUE" in hex type and decimal (or %g) value, "0x.." for pointers, "@0x.." for an
  // aggregate left in memory; or the failure's message.
  std::string Run(const char *text) {
    ExprParseResult parsed;
    if (!ExprParse(pool.get(), text, &parsed)) return "parse error";
    ExprEvalContext context = {&host, 0, {}, nullptr};
    ExprValue value;
    std::string out;
    if (ExprEvaluate(&context, parsed.tree, &value) != kExprEvalOk || ExprLoadValue(&context, &value, &value) != kExprEvalOk)
      out = context.error;
    else
      out = Show(&context, value);
    ExprFreeTree(pool.get(), parsed.tree);
    ExprFreeTree(pool.get(), parsed.format);
    return out;
  }
  std::string Show(ExprEvalContext *context, const ExprValue &value) {
    char text[96];
    ExprTypeFacts facts;
    ExprDescribeType(context, value.type, &facts);
    u64 bits = ExprValueBits(context, &value);
    if (facts.kind == kExprTypeEnum) ExprDescribeType(context, facts.element, &facts);
    if (value.is_location) {
      snprintf(text, sizeof text, "%X @0x%llX", value.type, (unsigned long long)value.address);
    } else if (facts.kind == kExprTypePointer) {
      snprintf(text, sizeof text, "%X 0x%llX", value.type, (unsigned long long)bits);
    } else if (facts.element == 0x40) {
      f32 f;
      memcpy(&f, value.bytes, 4);
      snprintf(text, sizeof text, "%X %g", value.type, f);
    } else if (facts.element == 0x41) {
      f64 d;
      memcpy(&d, value.bytes, 8);
      snprintf(text, sizeof text, "%X %g", value.type, d);
    } else {
      bool is_unsigned = (facts.element >= 0x20 && facts.element <= 0x23) || facts.element == 0x69 ||
                         facts.element == 0x73 || facts.element == 0x75 || facts.element == 0x77;
      snprintf(text, sizeof text, is_unsigned ? "%X %llu" : "%X %lld", value.type, (unsigned long long)bits);
    }
    return text;
  }
};

struct Case {
  const char *text;
  const char *expected;
};

TEST(Evaluator, ValuesAndTheirTypes) {
  const Case cases[] = {
      // Literals and the operators' conversions: no promotion to int, the wider type wins, at equal
      // width the unsigned one, and with a wider signed side the signed one.
      {"1 + 2 * 3", "74 7"},
      {"c + c", "70 -56"},                 // two 8-bit chars wrap in 8 bits
      {"c * 3", "74 300"},                 // int is wider than char
      {"uc + uc", "20 144"},
      {"s + u", "75 4"},                   // -3 + 7 at 32 bits, unsigned
      {"i + ll", "76 -8"},
      {"u + ll", "76 6"},                  // the wider signed type wins over a narrower unsigned one
      {"i + ull", "77 18446744073709551593"},
      {"i / 2", "74 -3"},
      {"i % 4", "74 -3"},
      {"u >> 1", "75 3"},
      {"i >> 1", "74 -4"},                 // arithmetic for a signed operand
      {"s << 14", "74 -49152"},            // short converts to the wider int
      {"~uc", "20 55"},
      {"-c", "70 -100"},
      {"!i", "30 0"},
      {"0x7fffffffffffffff + 1", "77 9223372036854775808"},
      {"ll / -1", "76 1"},
      {"f * 2", "40 5"},
      {"f + d", "41 2"},
      {"d < 0", "30 1"},
      {"nan == nan", "30 0"},
      {"nan != nan", "30 1"},
      {"i < u", "30 0"},                   // compared as unsigned: 0xFFFFFFF9 > 7
      {"s < 0", "30 1"},
      {"nan || 0", "30 0"},                // a NaN is false
      {"i && d", "30 1"},
      {"'A' + 'B'", "10 -125"},
      // Casts and sizeof.
      {"(unsigned char)i", "20 249"},
      {"(short)70000", "72 4464"},
      {"(double)i / 2", "41 -3.5"},
      {"(int)d", "74 0"},
      {"(int)-2.75", "74 -2"},
      {"(unsigned long long)ll", "77 18446744073709551615"},
      {"(int*)0x10050", "674 0x10050"},
      {"*(int*)0x10054", "74 2"},
      {"(Point*)pp", "1001 0x10040"},
      {"sizeof(long long)", "23 8"},
      {"sizeof(Point)", "23 8"},
      {"sizeof arr", "23 16"},
      {"sizeof c", "23 1"},
      {"sizeof(d)", "23 8"},               // no type has the name: the variable's size
      {"sizeof(der)", "23 12"},
      // Memory: members through a base, arrays, pointers and their arithmetic.
      {"pt.x", "74 10"},
      {"pt.y * pt.y", "11 4"},
      {"pp->y", "11 -2"},
      {"der.x + der.z", "74 12"},
      {"pd->y", "11 6"},
      {"un.i", "74 1065353216"},
      {"un.f", "40 1"},
      {"arr[2]", "74 3"},
      {"pi[3]", "74 4"},
      {"*(pi + 1)", "74 2"},
      {"*(2 + pi)", "74 3"},
      {"*(arr + 3)", "74 4"},
      {"(pi + 3) - pi", "76 3"},
      {"pi == arr", "30 1"},
      {"&arr[1]", "674 0x10054"},
      {"&pt", "1001 0x10040"},
      {"*pp", "1000 @0x10040"},
      {"*ps", "11 -3"},
      {"color + 1", "74 3"},
      {"arr[color]", "74 3"},
      {"pi != (int*)0", "30 1"},
      // Registers: any case, an optional '$', every width.
      {"rax", "23 1234605616436508552"},
      {"$RAX == Rax", "30 1"},
      {"eax", "75 1432778632"},
      {"ah", "69 119"},
      {"al", "69 136"},
      {"r10l", "69 2"},
      {"R10W", "73 258"},
      {"r10d", "75 3773825282"},
  };
  Evaluator evaluator;
  for (const Case &c : cases) EXPECT_EQ(evaluator.Run(c.text), c.expected) << c.text;
}

TEST(Evaluator, EveryFailureHasItsMessage) {
  const Case cases[] = {
      {"1/0", "Divide by zero"},
      {"5%0", "Divide by zero"},
      {"c / (c - c)", "Divide by zero"},
      {"ps - pi", "Failed computing pointer difference: size mismatch (2 vs. 4)"},
      {"1 - pi", "Operand does not support integral type on left and pointer type on right"},
      {"pp->x + pt->x", "Expected '.' but got '->'"},
      {"pp.x", "Expression is pointer type (dot operator does not apply)"},
      {"i.x", "Expected struct or union type"},
      {"pt.w", "Structure field 'w' not found"},
      {"un.w", "Union field not found"},
      {"&3", "Address-of operator requires lvalue type"},
      {"*i", "Cannot dereference non-pointer type (int)"},
      {"~f", "Unary operand '~' requires integral type"},
      {"!pt", "Unary operand '!' requires arithmetic or pointer type"},
      {"-pi", "Unary operand '-' requires arithmetic type"},
      {"+pt", "Unary operand '+' requires arithmetic type"},
      {"f % 2", "Operand requires integral types"},
      {"d << 1", "Operand requires integral types"},
      {"pi * 2", "Operand requires arithmetic types"},
      {"pt + 1", "Operand requires arithmetic or pointer types"},
      {"pi + pi", "Operand requires arithmetic or pointer types"},
      {"pi < pp", "Cannot compare two differing pointer types."},
      {"pi == 0 == pi", "Operand requires pointer type on RHS"},
      {"pi == 1", "Operand requires pointer type on RHS"},
      {"arr[d]", "Index type is not an integer constant, integral type, or enum type"},
      {"i[0]", "Expression is not a pointer or array type"},
      {"(Missing)i", "Type name not found"},
      {"sizeof(Missing)", "Type name not found"},
      {"sizeof(Missing*)", "Type name not found"},
      {"(int*)d", "Cannot cast this type (expecting pointer, array, or integer literal)"},
      {"(int)pt", "Cannot cast expression of this type"},
      {"(Point)i", "Cannot cast expression to this type"},
      {"*bad", "Error reading memory"},
      {"bad[1] + 1", "Error reading memory"},
      {"pt && 1", "Unable to convert expression to boolean result"},
      {"nowhere + 1", "Identifier \"nowhere\" not found"},
      {"$TID", "Identifier \"$TID\" not found"},
      {"r16", "Identifier \"r16\" not found"},
      {"r10x", "Identifier \"r10x\" not found"},
      {"gone + 1", "Variable \"gone\" is not available here"},
      {"nowhere + gone", "Identifier \"nowhere\" not found"},  // the left side's failure comes first
  };
  Evaluator evaluator;
  for (const Case &c : cases) EXPECT_EQ(evaluator.Run(c.text), c.expected) << c.text;
}

TEST(Evaluator, ConditionsAsBooleans) {
  const struct {
    const char *text;
    int expected;  // 1 true, 0 false, -1 fails
  } cases[] = {{"i", 1}, {"i + 7", 0}, {"pi", 1}, {"(int*)0", 0}, {"d", 1}, {"nan", 0}, {"0.0", 0}, {"pt", -1}, {"1/0", -1}};
  Evaluator evaluator;
  for (const auto &c : cases) {
    ExprParseResult parsed;
    ASSERT_TRUE(ExprParse(evaluator.pool.get(), c.text, &parsed)) << c.text;
    ExprEvalContext context = {&evaluator.host, 0, {}, nullptr};
    bool truth = false;
    int got = ExprEvaluateToBoolean(&context, parsed.tree, &truth) == kExprEvalOk ? (int)truth : -1;
    EXPECT_EQ(got, c.expected) << c.text << ": " << context.error;
    ExprFreeTree(evaluator.pool.get(), parsed.tree);
  }
}

// The kinds of names in their order: locals, members of this, pseudo-variables, registers, vector
// registers, the frame groups, globals; and bit fields, which load shifted and masked.
TEST(Evaluator, NamesInTheirOrderAndBitFields) {
  const Case cases[] = {
      {"$tid", "75 4660"},
      {"$pid + 1", "75 67"},
      {"$err", "75 5"},
      {"$handles", "75 77"},
      {"$Tid", "Identifier \"$Tid\" not found"},
      {"y", "11 6"},             // this->y
      {"z", "74 -7"},            // a global answered by find_name comes before this
      {"efl", "75 582"},
      {"$EFLAGS & 0x40", "75 64"},
      {"sizeof xmm0", "23 16"},
      {"sizeof YMM15", "23 32"},
      {"xmm0 + 1", "Operand requires arithmetic or pointer types"},
      {"zmm31", "AVX-512 Feature Set not supported on this processor"},
      {"zmm32", "Identifier \"zmm32\" not found"},
      {"ymm16", "Identifier \"ymm16\" not found"},
      {"xmm01", "Identifier \"xmm01\" not found"},
      {"__locals + 1", "Operand requires arithmetic or pointer types"},
      {"flags.lo", "75 1"},
      {"flags.mid", "75 5"},
      {"flags.neg", "74 -1"},
      {"flags.neg * 3", "74 -3"},
      {"flags.lo + flags.mid", "75 6"},
      {"sizeof flags.mid", "23 4"},
      {"(char)flags.mid", "70 5"},
      {"&flags.mid", "Address-of operator requires lvalue type"},
  };
  Evaluator evaluator;
  for (const Case &c : cases) EXPECT_EQ(evaluator.Run(c.text), c.expected) << c.text;
  evaluator.image.avx = false;
  EXPECT_EQ(evaluator.Run("ymm0"), "AVX Feature Set not supported on this processor");
  EXPECT_EQ(evaluator.Run("xmm15 == xmm15"), "Operand requires arithmetic or pointer types");

  // With globals asked apart, a member of this and a register hide a global of the same name.
  Evaluator split(true);
  const Case split_cases[] = {{"z", "74 7"}, {"g", "74 2"}, {"i + g", "74 -5"}, {"rax == $rax", "30 1"}, {"$tid", "75 4660"}};
  for (const Case &c : split_cases) EXPECT_EQ(split.Run(c.text), c.expected) << c.text;
  split.host.frame_variable_at = nullptr;
  EXPECT_EQ(split.Run("__locals"), "No local variables found in current frame");
  EXPECT_EQ(split.Run("__params"), "No function parameters found in current frame");
}

TEST(Evaluator, EvaluateAsConvertsOrSaysWhy) {
  Evaluator evaluator;
  const struct {
    const char *text;
    u32 wanted;
    bool ok;
    u64 bits;  // the converted value's bytes
  } cases[] = {{"pi", 0x23, true, 0x10050},        {"arr[1] * 2", 0x23, true, 4},       {"d", 0x74, true, 0},
               {"c + c", 0x75, true, 0xFFFFFFC8},   {"(char)-1", 0x623, true, ~0ull},    {"i", 0x41, true, 0xC01C000000000000ull},
               {"pt", 0x23, false, 0},              {"nowhere", 0x23, false, 0},         {"i", 0x1000, false, 0}};
  for (const auto &c : cases) {
    ExprParseResult parsed;
    ASSERT_TRUE(ExprParse(evaluator.pool.get(), c.text, &parsed)) << c.text;
    ExprEvalContext context = {&evaluator.host, 0, {}, nullptr};
    u64 out = 0;
    u32 result = ExprEvaluateAs(&context, parsed.tree, c.wanted, &out, sizeof out);
    ExprFreeTree(evaluator.pool.get(), parsed.tree);
    EXPECT_EQ(result, c.ok ? kExprEvalOk : kExprEvalFailed) << c.text << ": " << context.error;
    if (c.ok) EXPECT_EQ(out, c.bits) << c.text;
    else EXPECT_STREQ(context.error, "Unable to evaluate and/or convert expression to the appropriate type") << c.text;
  }
}

}  // namespace
