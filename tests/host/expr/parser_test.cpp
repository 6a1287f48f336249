// The parser through the tree printer: text in, tree out, grouped by what the cases exercise.
#include "expr_test_util.h"

#include "base/hash.h"
#include "expr/expr_token.h"

#include <string.h>

TEST(ExprParser, RejectsWhatTheLanguageLacks) {
  static const TextCase cases[] = {
      {"a = 1", "parse error"},       {"a == 1", "(== (id a) (int 0x74 1))"},
      {"x ? 1 : 2", "parse error"},   {"f(1)", "parse error"},
      {"f()", "parse error"},         {"\"abc\"", "parse error"},
      {"10u", "parse error"},         {"1f", "parse error"},
      {"a:b", "parse error"},         {"a++", "parse error"},
      {"a+=1", "parse error"},        {"", "parse error"},
      {"   ", "parse error"},         {"a b", "parse error"},
      {"(a", "parse error"},          {"a)", "parse error"},
      {"a[1", "parse error"},         {"a[]", "parse error"},
      {"a.", "parse error"},          {"a->1", "parse error"},
      {"a.(b)", "parse error"},       {"1e", "parse error"},
      {"'ab", "parse error"},         {"''", "parse error"},
      {"'abcdefghi'", "parse error"}, {"a;", "parse error"},
      {"#a", "parse error"},          {"@a", "parse error"},
      {"a\\b", "parse error"},        {"`a`", "parse error"},
      {"::a", "parse error"},         {"a::", "parse error"},
      {"()", "parse error"},          {"-", "parse error"},
      {"a +", "parse error"},         {"{4}", "parse error"},
      {"{}p", "parse error"},         {"{4 p", "parse error"},
      {"{x}p", "parse error"},        {"{'a'}p", "parse error"},
      {"{4}{4}p", "parse error"},     {"p{4}", "parse error"},
      {"a\xC3\xA9", "parse error"},   {"}", "parse error"},
  };
  ExpectTrees(cases);
}

TEST(ExprParser, Literals) {
  static const TextCase cases[] = {
      {"0x", "(int 0x74 0)"},
      {"0XfF", "(int 0x74 255)"},
      {"017", "(int 0x74 15)"},
      {"019", "(double 19)"},
      {"0129", "(double 129)"},
      {"1e3", "(double 1000)"},
      {".5f", "(float 0.5)"},
      {"1.1f", "(float 1.1000000238418579)"},
      {"0.1", "(double 0.10000000000000001)"},
      {"'a'", "(char 97)"},
      {"'\\t'", "(char 9)"},
      {"'ab'", "(int 0x74 24930)"},
      {"'abcd'", "(int 0x74 1633837924)"},
      {"'\xFF\xFF\xFF\xFF'", "(int 0x77 4294967295)"},
      {"'abcdefgh'", "(int 0x77 7017280452245743464)"},
      {"2147483647", "(int 0x74 2147483647)"},
      {"2147483648", "(int 0x77 2147483648)"},
      {"0x7FFFFFFF", "(int 0x74 2147483647)"},
      {"0x80000000", "(int 0x77 2147483648)"},
      {"0xFFFFFFFFFFFFFFFF", "(int 0x77 18446744073709551615)"},
      {"18446744073709551616", "(int 0x74 0)"},
      {"std::vector", "(id std::vector)"},
      {"$err", "(id $err)"},
  };
  ExpectTrees(cases);
}

// Every binary level against its neighbours, in both orders, and left associativity.
TEST(ExprParser, PrecedenceAndAssociativity) {
  static const TextCase cases[] = {
      {"-a*b", "(* (u- (id a)) (id b))"},
      {"a-b-c", "(- (- (id a) (id b)) (id c))"},
      {"a<<1+2", "(<< (id a) (+ (int 0x74 1) (int 0x74 2)))"},
      {"a&b==c", "(& (id a) (== (id b) (id c)))"},
      {"a||b&&c", "(|| (id a) (&& (id b) (id c)))"},
      {"a&&b||c", "(|| (&& (id a) (id b)) (id c))"},
      {"a&&b|c", "(&& (id a) (| (id b) (id c)))"},
      {"a|b^c", "(| (id a) (^ (id b) (id c)))"},
      {"a^b|c", "(| (^ (id a) (id b)) (id c))"},
      {"a^b&c", "(^ (id a) (& (id b) (id c)))"},
      {"a==b<c", "(== (id a) (< (id b) (id c)))"},
      {"a!=b>=c", "(!= (id a) (>= (id b) (id c)))"},
      {"a<=b>>c", "(<= (id a) (>> (id b) (id c)))"},
      {"a>b<<c", "(> (id a) (<< (id b) (id c)))"},
      {"a>>b-c", "(>> (id a) (- (id b) (id c)))"},
      {"a+b*c", "(+ (id a) (* (id b) (id c)))"},
      {"a*b+c", "(+ (* (id a) (id b)) (id c))"},
      {"a/b%c*d", "(* (% (/ (id a) (id b)) (id c)) (id d))"},
      {"a<b>c<=d>=e", "(>= (<= (> (< (id a) (id b)) (id c)) (id d)) (id e))"},
      {"a==b!=c", "(!= (== (id a) (id b)) (id c))"},
      {"a||b||c", "(|| (|| (id a) (id b)) (id c))"},
      {"a<<b>>c", "(>> (<< (id a) (id b)) (id c))"},
      {"a-(b-c)", "(- (id a) (paren (- (id b) (id c))))"},
      {"a*-b", "(* (id a) (u- (id b)))"},
      {"a--b", "(- (id a) (u- (id b)))"},
      {"a&&&b", "(&& (id a) (u& (id b)))"},
      {"a||b|c&&d", "(|| (id a) (&& (| (id b) (id c)) (id d)))"},
  };
  ExpectTrees(cases);
}

TEST(ExprParser, UnaryAndPostfix) {
  static const TextCase cases[] = {
      {"*&x", "(u* (u& (id x)))"},
      {"- -x", "(u- (u- (id x)))"},
      {"!~+-x", "(u! (u~ (u+ (u- (id x)))))"},
      {"-a[1]", "(u- (index (id a) (int 0x74 1)))"},
      {"*p->next", "(u* (-> (id p) next))"},
      {"&s.a.b", "(u& (. (. (id s) a) b))"},
      {"a[1].b->c", "(-> (. (index (id a) (int 0x74 1)) b) c)"},
      {"a[b[c]][d]", "(index (index (id a) (index (id b) (id c))) (id d))"},
      {"a[i+1]", "(index (id a) (+ (id i) (int 0x74 1)))"},
      {"a.ns::b", "(. (id a) ns::b)"},
      {"(a)[1]", "(index (paren (id a)) (int 0x74 1))"},
      {"(p)->x", "(-> (paren (id p)) x)"},
      {"((a))", "(paren (paren (id a)))"},
      {"1.5.x", "(. (double 1.5) x)"},
      {"a.5", "parse error"},
      {"a.sizeof", "(. (id a) sizeof)"},
  };
  ExpectTrees(cases);
}

TEST(ExprParser, CastsAndSizeof) {
  static const TextCase cases[] = {
      // An operand after the parenthesis makes a cast; otherwise only the basic type names do.
      {"(int)-1", "(cast \"int\" (u- (int 0x74 1)))"},
      {"(a)-1", "(- (paren (id a)) (int 0x74 1))"},
      {"(Foo)x", "(cast \"Foo\" (id x))"},
      {"(Foo)(x)", "(cast \"Foo\" (paren (id x)))"},
      {"(Foo)1.5", "(cast \"Foo\" (double 1.5))"},
      {"(Foo)'a'", "(cast \"Foo\" (char 97))"},
      {"(int)(x)", "(cast \"int\" (paren (id x)))"},
      {"(int)*p", "(cast \"int\" (u* (id p)))"},
      {"(a)*p", "(* (paren (id a)) (id p))"},
      {"(u32)~x", "(cast \"u32\" (u~ (id x)))"},
      {"(uint32_t)&x", "(cast \"uint32_t\" (u& (id x)))"},
      {"(HRESULT)!x", "(cast \"HRESULT\" (u! (id x)))"},
      {"(int)", "parse error"},
      {"(int)+", "parse error"},
      {"(a+b)c", "parse error"},
      {"(1)x", "parse error"},
      // A parenthesis that is no expression is read as a type name.
      {"(unsigned   int*)p", "(cast \"unsigned int *\" (id p))"},
      {"(char*)p", "(cast \"char *\" (id p))"},
      {"(char**)-p", "(cast \"char **\" (u- (id p)))"},
      {"(const char * const *)p", "(cast \"const char * const *\" (id p))"},
      {"(struct Foo *)p", "(cast \"struct Foo *\" (id p))"},
      {"(ns::Foo*)p->q", "(cast \"ns::Foo *\" (-> (id p) q))"},
      {"(unsigned long long)x", "(cast \"unsigned long long\" (id x))"},
      {"(int)(char)x", "(cast \"int\" (cast \"char\" (id x)))"},
      {"(int)x+1", "(+ (cast \"int\" (id x)) (int 0x74 1))"},
      {"(int)x[1]", "(cast \"int\" (index (id x) (int 0x74 1)))"},
      {"(Foo Bar)x", "parse error"},
      {"(char*", "parse error"},
      {"(char*)", "parse error"},
      {"(*)p", "parse error"},
      // sizeof: a type name in parentheses, otherwise a unary-level operand.
      {"sizeof(int)", "(sizeof-type \"int\")"},
      {"sizeof ( unsigned  short ** )", "(sizeof-type \"unsigned short **\")"},
      {"sizeof(x)", "(sizeof-type \"x\")"},
      {"sizeof x", "(sizeof (id x))"},
      {"sizeof x + 1", "(+ (sizeof (id x)) (int 0x74 1))"},
      {"sizeof(int)*2", "(* (sizeof-type \"int\") (int 0x74 2))"},
      {"sizeof(x+1)", "(sizeof (paren (+ (id x) (int 0x74 1))))"},
      {"sizeof(a)[1]", "parse error"},  // no postfix after sizeof(type)
      {"sizeof -x", "(sizeof (u- (id x)))"},
      {"sizeof sizeof x", "(sizeof (sizeof (id x)))"},
      {"sizeof *p", "(sizeof (u* (id p)))"},
      {"sizeof a.b", "(sizeof (. (id a) b))"},
      {"sizeof (a)-1", "(- (sizeof-type \"a\") (int 0x74 1))"},
      {"sizeof (int)x", "parse error"},
      {"sizeof", "parse error"},
      {"sizeof()", "parse error"},
      {"-sizeof(int)", "(u- (sizeof-type \"int\"))"},
  };
  ExpectTrees(cases);
}

TEST(ExprParser, CountPrefix) {
  static const TextCase cases[] = {
      {"{4}p", "(count 4 (id p))"},
      {"{*}p", "(count 999999 (id p))"},
      {"{^4}p", "(count 4 (id p))"},
      {"{ ^ 0x10 } p+1", "(count 16 (+ (id p) (int 0x74 1)))"},
      {"{'ab'}p", "(count 24930 (id p))"},
      {"{4}p, x", "(count 4 (id p)) (format x 0x400 cols=0 count=0 -)"},
      {"{^*}p", "(count 999999 (id p))"},
      {"{^^4}p", "parse error"},
      {"{-4}p", "parse error"},
      {"{1.5}p", "parse error"},
  };
  ExpectTrees(cases);
}

// The type descriptor holds what evaluation needs without re-reading the text.
TEST(ExprParser, CastTypeDescriptor) {
  struct Case {
    const char *text;
    u32 keywords;
    u32 long_count;
    const char *name;
    u32 pointer_depth;
    u32 const_pointers;
  } cases[] = {
      {"(unsigned long long **)p", ExprTypeKeyword_Unsigned | ExprTypeKeyword_Long, 2, nullptr, 2, 0},
      {"(const ns::Foo * const * const *)p", ExprTypeKeyword_Const, 0, "ns::Foo", 3, 0x3},
      {"(Foo * * const)p", 0, 0, "Foo", 2, 0x2},
      {"(struct Node*)p", ExprTypeKeyword_Struct, 0, "Node", 1, 0},
      {"(void*)0", ExprTypeKeyword_Void, 0, nullptr, 1, 0},
      {"(int)x", ExprTypeKeyword_Int, 0, nullptr, 0, 0},
      {"(u64)x", 0, 0, "u64", 0, 0},
  };
  for (const Case &c : cases) {
    ExprPool *pool = new ExprPool;
    InitExprPool(pool);
    ExprParseResult result;
    ASSERT_TRUE(Parse(pool, c.text, &result)) << c.text;
    ASSERT_EQ(result.tree->kind, (u32)ExprNode_Cast) << c.text;
    const ExprTypeDesc &type = result.tree->cast.type;
    EXPECT_EQ(type.keywords, c.keywords) << c.text;
    EXPECT_EQ(type.long_count, c.long_count) << c.text;
    if (c.name) {
      EXPECT_EQ(std::string(type.name, type.name_length), c.name) << c.text;
      EXPECT_EQ(type.name_hash, HashNameZ(c.name)) << c.text;
    } else {
      EXPECT_EQ(type.name, nullptr) << c.text;
    }
    EXPECT_EQ(type.pointer_depth, c.pointer_depth) << c.text;
    EXPECT_EQ(type.const_pointers, c.const_pointers) << c.text;
    FreeTree(pool, result.tree);
    EXPECT_EQ(pool->free_count, (u32)kExprPoolCapacity);
    delete pool;
  }
}

TEST(ExprParser, NodesPointIntoTheTextAndIdentifiersStartClean) {
  const char *text = "  foo.bar + ns::baz";
  ExprPool *pool = new ExprPool;
  InitExprPool(pool);
  ExprParseResult result;
  ASSERT_TRUE(Parse(pool, text, &result));
  ASSERT_EQ(result.tree->kind, (u32)ExprNode_Binary);
  EXPECT_EQ(result.tree->binary.op, (u32)ExprToken_Plus);
  const ExprNode *member = result.tree->binary.left;
  ASSERT_EQ(member->kind, (u32)ExprNode_Member);
  EXPECT_EQ(member->member.op, (u32)ExprToken_Dot);
  EXPECT_EQ(member->member.name, text + 6);
  EXPECT_EQ(member->member.name_length, 3u);
  const ExprNode *id = result.tree->binary.right;
  ASSERT_EQ(id->kind, (u32)ExprNode_Identifier);
  EXPECT_EQ(id->identifier.text, text + 12);
  EXPECT_EQ(id->identifier.length, 7u);
  EXPECT_EQ(id->identifier.hash, HashNameZ("ns::baz"));
  for (u64 field : id->identifier.evaluator_data) EXPECT_EQ(field, 0u);
  FreeTree(pool, result.tree);
  delete pool;
}

// The engine refuses 256 characters and more, but the parser itself takes any length.
TEST(ExprParser, LongTexts) {
  std::string sum255 = "a";
  while (sum255.size() + 2 <= 255) sum255 += "+a";  // 255 characters, 128 identifiers
  ASSERT_EQ(sum255.size(), 255u);
  ParsedText parsed = ParseAndPrint(sum255);
  EXPECT_EQ(parsed.failure, (u32)ExprParse_Ok);
  EXPECT_EQ(parsed.printed.substr(0, 8), "(+ (+ (+");

  std::string name256(256, 'x');
  EXPECT_EQ(ParseAndPrint(name256).printed, "(id " + name256 + ")");
  std::string name255(255, 'x');
  EXPECT_EQ(ParseAndPrint(name255).printed, "(id " + name255 + ")");

  // 254 minus signs nest 255 unary levels: still within the limit.
  std::string negations = std::string(254, '-') + "a";
  EXPECT_EQ(ParseAndPrint(negations).failure, (u32)ExprParse_Ok);
  std::string parens = std::string(127, '(') + "a" + std::string(127, ')');
  EXPECT_EQ(ParseAndPrint(parens).failure, (u32)ExprParse_Ok);

  std::string huge_number = std::string(5000, '0') + "1.5";
  EXPECT_EQ(ParseAndPrint(huge_number).printed, "(double 1.5)");
}

TEST(ExprParser, FailsCleanlyBeyondItsLimits) {
  struct Case {
    std::string text;
    u32 failure;
  } cases[] = {
      {std::string(100000, '-') + "a", ExprParse_TooDeep},
      {std::string(20000, '(') + "a" + std::string(20000, ')'), ExprParse_TooDeep},
      {std::string(20000, '(') + "char*)p", ExprParse_TooDeep},
      {"sizeof " + std::string(1000, '*') + "p", ExprParse_TooDeep},
      {std::string(20000, '[') , ExprParse_Syntax},
  };
  for (const Case &c : cases) EXPECT_EQ(ParseAndPrint(c.text).failure, c.failure) << c.text.substr(0, 40);
  std::string brackets = "a";
  for (int i = 0; i < 1000; i++) brackets += "[a";
  brackets += std::string(1000, ']');
  EXPECT_EQ(ParseAndPrint(brackets).failure, (u32)ExprParse_TooDeep);

  // More nodes than the pool holds: a long flat sum (no nesting at all).
  std::string sum = "a";
  for (int i = 0; i < kExprPoolCapacity; i++) sum += "+a";
  EXPECT_EQ(ParseAndPrint(sum).failure, (u32)ExprParse_OutOfNodes);
  EXPECT_EQ(ParseAndPrint("p, " + sum).failure, (u32)ExprParse_OutOfNodes);
  EXPECT_EQ(ParseAndPrint("(" + sum + ")x").failure, (u32)ExprParse_OutOfNodes);
  // Exactly the capacity: one negation, 256 identifiers and 255 additions; one more term fails.
  std::string fits = "-a";
  for (int i = 0; i < (kExprPoolCapacity - 2) / 2; i++) fits += "+a";
  EXPECT_EQ(ParseAndPrint(fits).failure, (u32)ExprParse_Ok);
  EXPECT_EQ(ParseAndPrint(fits + "+a").failure, (u32)ExprParse_OutOfNodes);
}

// A pool shared by many parses stays whole, whatever the parses did.
TEST(ExprParser, PoolIsWholeAfterEveryParse) {
  ExprPool *pool = new ExprPool;
  InitExprPool(pool);
  const char *texts[] = {"a+b*c", "(char*)p", "(a+b", "p, db /c4 q", "{4}p, 16", "p, db /n4 q", "x ? 1 : 2",
                         "sizeof(x+1)", "(int)", "v, epi8 3"};
  for (int round = 0; round < 3; round++) {
    for (const char *text : texts) {
      ExprParseResult result;
      if (Parse(pool, text, &result)) {
        EXPECT_LT(pool->free_count, (u32)kExprPoolCapacity) << text;
        FreeTree(pool, result.tree);
        FreeTree(pool, result.format);
      }
      EXPECT_EQ(pool->free_count, (u32)kExprPoolCapacity) << text;
    }
  }
  delete pool;
}
