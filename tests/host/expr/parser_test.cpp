// The parser through the tree printer: text in, tree out. The cases are in golden/parser.txt,
// grouped by what they exercise; those with bytes a text file should not hold, the type
// descriptor, the limits and the pool are here.
#include "base/hash.h"
#include "expr/expr_token.h"
#include "expr/format_spec.h"
#include "expr_test_util.h"

TEST(ExprParser, GoldenCases) {
  for (const GoldenCase &c : ExprGoldenCases("parser.txt"))
    EXPECT_EQ(ParseAndPrint(c.text).printed, c.expected) << "parser.txt:" << c.line << ": " << c.text;
  EXPECT_EQ(ParseAndPrint("a\xC3\xA9").printed, "parse error");
  EXPECT_EQ(ParseAndPrint("'\xFF\xFF\xFF\xFF'").printed, "(int 0x77 4294967295)");
}

// Every name of the specifier table is found, and a text that ends with it prints it.
TEST(ExprFormat, EveryNameOfTheTable) {
  for (s32 i = 0; i < kFormatSpecifierCount; i++) {
    const char *name = kFormatSpecifiers[i].name;
    EXPECT_EQ(FindFormatSpecifier(name, (u32)strlen(name)), i) << name;
    std::string printed = ParseAndPrint(std::string("v, ") + name).printed;
    EXPECT_EQ(printed.rfind(std::string("(id v) (format ") + name + " 0x", 0), 0u) << printed;
  }
}

// The type descriptor holds what evaluation needs without re-reading the text.
TEST(ExprParser, CastTypeDescriptor) {
  struct Case {
    const char *text;
    u32 keywords;
    const char *rest;  // long count, the name (its hash checked), pointer depth, const pointer bits
  } cases[] = {
      {"(unsigned long long **)p", kExprTypeKeywordUnsigned | kExprTypeKeywordLong, "long 2, -, depth 2, const 0"},
      {"(const ns::Foo * const * const *)p", kExprTypeKeywordConst, "long 0, ns::Foo, depth 3, const 3"},
      {"(Foo * * const)p", 0, "long 0, Foo, depth 2, const 2"},
      {"(struct Node*)p", kExprTypeKeywordStruct, "long 0, Node, depth 1, const 0"},
      {"(void*)0", kExprTypeKeywordVoid, "long 0, -, depth 1, const 0"},
      {"(int)x", kExprTypeKeywordInt, "long 0, -, depth 0, const 0"},
      {"(u64)x", 0, "long 0, u64, depth 0, const 0"},
  };
  for (const Case &c : cases) {
    std::unique_ptr<ExprPool> pool(new ExprPool);
    InitExprPool(pool.get());
    ExprParseResult result;
    ASSERT_TRUE(ExprParse(pool.get(), c.text, &result)) << c.text;
    ASSERT_EQ(result.tree->kind, (u32)kExprNodeCast) << c.text;
    const ExprTypeDesc &t = result.tree->cast.type;
    std::string name = t.name ? std::string(t.name, t.name_length) : "-";
    if (t.name && t.name_hash != HashNameZ(name.c_str())) name += " (hash differs)";
    EXPECT_EQ(t.keywords, c.keywords) << c.text;
    EXPECT_EQ(Format("long %u, %s, depth %u, const %X", t.long_count, name.c_str(), t.pointer_depth, t.const_pointers),
              c.rest);
    ExprFreeTree(pool.get(), result.tree);
    EXPECT_EQ(pool->free_count, (u32)kExprPoolCapacity);
  }
}

TEST(ExprParser, NodesPointIntoTheTextAndIdentifiersStartClean) {
  const char *text = "  foo.bar + ns::baz";
  ExprPool *pool = new ExprPool;
  InitExprPool(pool);
  ExprParseResult result;
  ASSERT_TRUE(ExprParse(pool, text, &result));
  ASSERT_EQ(result.tree->kind, (u32)kExprNodeBinary);
  EXPECT_EQ(result.tree->binary.op, (u32)kExprTokenPlus);
  const ExprNode *member = result.tree->binary.left;
  ASSERT_EQ(member->kind, (u32)kExprNodeMember);
  EXPECT_EQ(member->member.op, (u32)kExprTokenDot);
  EXPECT_EQ(member->member.name, text + 6);
  EXPECT_EQ(member->member.name_length, 3u);
  const ExprNode *id = result.tree->binary.right;
  ASSERT_EQ(id->kind, (u32)kExprNodeIdentifier);
  EXPECT_EQ(id->identifier.text, text + 12);
  EXPECT_EQ(id->identifier.length, 7u);
  EXPECT_EQ(id->identifier.hash, HashNameZ("ns::baz"));
  for (u64 field : id->identifier.evaluator_data) EXPECT_EQ(field, 0u);
  ExprFreeTree(pool, result.tree);
  delete pool;
}

// The engine refuses 256 characters and more, but the parser itself takes any length.
TEST(ExprParser, LongTexts) {
  std::string sum255 = "a";
  while (sum255.size() + 2 <= 255) sum255 += "+a";  // 255 characters, 128 identifiers
  ASSERT_EQ(sum255.size(), 255u);
  ParsedText parsed = ParseAndPrint(sum255);
  EXPECT_EQ(parsed.failure, (u32)kExprParseOk);
  EXPECT_EQ(parsed.printed.substr(0, 8), "(+ (+ (+");

  std::string name256(256, 'x');
  EXPECT_EQ(ParseAndPrint(name256).printed, "(id " + name256 + ")");
  std::string name255(255, 'x');
  EXPECT_EQ(ParseAndPrint(name255).printed, "(id " + name255 + ")");

  // 254 minus signs nest 255 unary levels: still within the limit.
  std::string negations = std::string(254, '-') + "a";
  EXPECT_EQ(ParseAndPrint(negations).failure, (u32)kExprParseOk);
  std::string parens = std::string(127, '(') + "a" + std::string(127, ')');
  EXPECT_EQ(ParseAndPrint(parens).failure, (u32)kExprParseOk);

  std::string huge_number = std::string(5000, '0') + "1.5";
  EXPECT_EQ(ParseAndPrint(huge_number).printed, "(double 1.5)");
}

TEST(ExprParser, FailsCleanlyBeyondItsLimits) {
  struct Case {
    std::string text;
    u32 failure;
  } cases[] = {
      {std::string(100000, '-') + "a", kExprParseTooDeep},
      {std::string(20000, '(') + "a" + std::string(20000, ')'), kExprParseTooDeep},
      {std::string(20000, '(') + "char*)p", kExprParseTooDeep},
      {"sizeof " + std::string(1000, '*') + "p", kExprParseTooDeep},
      {std::string(20000, '[') , kExprParseSyntax},
  };
  for (const Case &c : cases) EXPECT_EQ(ParseAndPrint(c.text).failure, c.failure) << c.text.substr(0, 40);
  std::string brackets = "a";
  for (int i = 0; i < 1000; i++) brackets += "[a";
  brackets += std::string(1000, ']');
  EXPECT_EQ(ParseAndPrint(brackets).failure, (u32)kExprParseTooDeep);

  // More nodes than the pool holds: a long flat sum (no nesting at all).
  std::string sum = "a";
  for (int i = 0; i < kExprPoolCapacity; i++) sum += "+a";
  EXPECT_EQ(ParseAndPrint(sum).failure, (u32)kExprParseOutOfNodes);
  EXPECT_EQ(ParseAndPrint("p, " + sum).failure, (u32)kExprParseOutOfNodes);
  EXPECT_EQ(ParseAndPrint("(" + sum + ")x").failure, (u32)kExprParseOutOfNodes);
  // Exactly the capacity: one negation, 128 identifiers and 127 additions; one more term fails.
  std::string fits = "-a";
  for (int i = 0; i < (kExprPoolCapacity - 2) / 2; i++) fits += "+a";
  EXPECT_EQ(ParseAndPrint(fits).failure, (u32)kExprParseOk);
  EXPECT_EQ(ParseAndPrint(fits + "+a").failure, (u32)kExprParseOutOfNodes);
}
