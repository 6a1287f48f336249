// The lexer on its own: token kinds and their numbering, literal values, identifier hashes.
#include "expr/expr_token.h"

#include "base/hash.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

static std::vector<u32> Kinds(const char *text) {
  ExprLexer lexer;
  InitLexer(&lexer, nullptr, text);
  std::vector<u32> kinds;
  for (int guard = 0; guard < 1000; guard++) {
    NextToken(&lexer);
    kinds.push_back(lexer.token.kind);
    if (lexer.token.kind == ExprToken_End) break;
  }
  return kinds;
}

static ExprToken FirstToken(const char *text) {
  ExprLexer lexer;
  InitLexer(&lexer, nullptr, text);
  NextToken(&lexer);
  return lexer.token;
}

// The numbering is what binary and unary nodes store, so it is pinned number by number.
TEST(ExprLexer, OperatorKindsKeepTheirNumbers) {
  std::vector<u32> expected = {4,  5,  6,  7,  8,  9,  10, 11, 13, 14, 15, 16, 17, 18, 19, 20, 21,
                               22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 38};
  EXPECT_EQ(Kinds("[ ] ( ) { } . -> * + - ~ ! / % << >> < <= > >= == != ^ | || & && ? : ,"), expected);
  // Two-character forms win over one-character ones, with no blanks needed.
  EXPECT_EQ(Kinds("a->b<<=c"), (std::vector<u32>{0, 11, 0, 20, 36, 0, 38}));
  EXPECT_EQ(Kinds("!==&&&|||"), (std::vector<u32>{27, 36, 32, 31, 30, 29, 38}));
}

TEST(ExprLexer, InvalidCharactersAreOneCharacterTokens) {
  const char *texts[] = {"=", "\"", "#", ";", "@", "\\", "`", "\x7F", "\x80", "\xC3\xA9", "\x01"};
  for (const char *text : texts) {
    ExprToken token = FirstToken(text);
    EXPECT_EQ(token.kind, (u32)ExprToken_Invalid) << text;
    EXPECT_EQ(token.length, 1u) << text;
  }
  // Characters 9 to 13 and space are blanks; the empty text is the end at once.
  EXPECT_EQ(Kinds(" \t\n\v\f\rx \t"), (std::vector<u32>{0, 38}));
  EXPECT_EQ(Kinds(""), (std::vector<u32>{38}));
}

TEST(ExprLexer, IdentifiersTakeInnerDoubleColonsAndHashTheWholeText) {
  struct Case {
    const char *text;
    const char *identifier;  // the first token's text
  } cases[] = {
      {"ns::Type::member+1", "ns::Type::member"},
      {"a::1", "a::1"},
      {"a::_b", "a::_b"},
      {"a:: b", "a"},       // the colons need an identifier character right after them
      {"a:::b", "a"},
      {"$tid", "$tid"},
      {"$", "$"},
      {"a$b", "a"},         // '$' only as the first character
      {"_x9_", "_x9_"},
      {"sizeof", "sizeof"},
  };
  for (const Case &c : cases) {
    ExprToken token = FirstToken(c.text);
    ASSERT_EQ(token.kind, (u32)ExprToken_Identifier) << c.text;
    EXPECT_EQ(std::string(token.text, token.length), c.identifier);
    EXPECT_EQ(token.hash, HashNameZ(c.identifier)) << c.text;
  }
  // FNV-1a with the published basis and prime, over "::" too.
  EXPECT_EQ(FirstToken("foobar").hash, 0xBF9CF968u);
}

TEST(ExprLexer, IntegerLiterals) {
  struct Case {
    const char *text;
    u64 value;
    u32 length;
  } cases[] = {
      {"0", 0, 1},
      {"0x", 0, 2},
      {"0xFFffFFffFFffFFff", 0xFFFFFFFFFFFFFFFFull, 18},
      {"0x1_", 1, 3},                                    // lexing stops at the first non-hex
      {"0x123456789abcdef01", 0x23456789ABCDEF01ull, 19}, // no overflow check: high digits fall off
      {"017", 15, 3},
      {"0777777777777777777777", 0x7FFFFFFFFFFFFFFFull, 22},
      {"18446744073709551615", 0xFFFFFFFFFFFFFFFFull, 20},
      {"18446744073709551616", 0, 20},                    // wraps, as accumulated
      {"10u", 10, 2},                                     // the suffix is a separate identifier
  };
  for (const Case &c : cases) {
    ExprToken token = FirstToken(c.text);
    ASSERT_EQ(token.kind, (u32)ExprToken_Integer) << c.text;
    EXPECT_EQ(token.integer, c.value) << c.text;
    EXPECT_EQ(token.length, c.length) << c.text;
  }
}

TEST(ExprLexer, FloatingLiterals) {
  struct Case {
    const char *text;
    u32 kind;
    u32 type;
    double value;
  } cases[] = {
      {"1e3", ExprToken_Floating, ExprType_Float64, 1000.0},
      {"1.5", ExprToken_Floating, ExprType_Float64, 1.5},
      {"1.", ExprToken_Floating, ExprType_Float64, 1.0},
      {".5f", ExprToken_Floating, ExprType_Float32, 0.5},
      {"2.5E-1F", ExprToken_Floating, ExprType_Float32, 0.25},
      {"1.1f", ExprToken_Floating, ExprType_Float32, (double)1.1f},
      {"019", ExprToken_Floating, ExprType_Float64, 19.0},   // octal turned floating by the 9
      {"0129", ExprToken_Floating, ExprType_Float64, 129.0},
      {"017.5", ExprToken_Floating, ExprType_Float64, 17.5},
      {"0.25", ExprToken_Floating, ExprType_Float64, 0.25},
      {"0e2", ExprToken_Floating, ExprType_Float64, 0.0},
      {"1e+2", ExprToken_Floating, ExprType_Float64, 100.0},
      {"1e", ExprToken_BadFloat, 0, 0},
      {"1e+", ExprToken_BadFloat, 0, 0},
      {"1.5e-x", ExprToken_BadFloat, 0, 0},
  };
  for (const Case &c : cases) {
    ExprToken token = FirstToken(c.text);
    ASSERT_EQ(token.kind, c.kind) << c.text;
    if (c.kind != ExprToken_Floating) continue;
    EXPECT_EQ(token.floating_type, c.type) << c.text;
    EXPECT_EQ(token.floating, c.value) << c.text;
  }
  // "1f" is not floating: an integer, then the identifier "f".
  EXPECT_EQ(Kinds("1f"), (std::vector<u32>{1, 0, 38}));
}

TEST(ExprLexer, CharacterLiteralsAndEscapes) {
  struct Case {
    const char *text;
    u32 kind;
    u64 value;
  } cases[] = {
      {"'a'", ExprToken_Character, 'a'},
      {"'\\\"'", ExprToken_Character, '"'},
      {"'\\''", ExprToken_Character, '\''},
      {"'\\\\'", ExprToken_Character, '\\'},
      {"'\\0'", ExprToken_Character, 0},
      {"'\\?'", ExprToken_Character, '?'},
      {"'\\a'", ExprToken_Character, 7},
      {"'\\b'", ExprToken_Character, 8},
      {"'\\f'", ExprToken_Character, 12},
      {"'\\n'", ExprToken_Character, 10},
      {"'\\r'", ExprToken_Character, 13},
      {"'\\t'", ExprToken_Character, 9},
      {"'\\v'", ExprToken_Character, 11},
      {"'\xE9'", ExprToken_Character, 0xE9},
      {"'\"'", ExprToken_Character, '"'},
      {"'ab'", ExprToken_Integer, 0x6162},
      {"'\\n\\0'", ExprToken_Integer, 0x0A00},
      {"'abcdefgh'", ExprToken_Integer, 0x6162636465666768ull},
      {"''", ExprToken_Invalid, 0},
      {"'abcdefghi'", ExprToken_Invalid, 0},
      {"'a", ExprToken_Invalid, 0},
      {"'", ExprToken_Invalid, 0},
      {"'\\", ExprToken_Invalid, 0},
      {"'\\x41'", ExprToken_Invalid, 0},
      {"'\\1'", ExprToken_Invalid, 0},
      {"'\\e'", ExprToken_Invalid, 0},
  };
  for (const Case &c : cases) {
    ExprToken token = FirstToken(c.text);
    ASSERT_EQ(token.kind, c.kind) << c.text;
    if (c.kind == ExprToken_Character) EXPECT_EQ(token.character, (u8)c.value) << c.text;
    if (c.kind == ExprToken_Integer) EXPECT_EQ(token.integer, c.value) << c.text;
  }
}

TEST(ExprLexer, KeepsReturningEndAtTheEnd) {
  ExprLexer lexer;
  InitLexer(&lexer, nullptr, "x");
  NextToken(&lexer);
  for (int i = 0; i < 3; i++) {
    NextToken(&lexer);
    EXPECT_EQ(lexer.token.kind, (u32)ExprToken_End);
  }
}
