// The lexer on its own: token kinds and their numbering, literal values, identifier hashes. The
// cases are in golden/lexer.txt; those with bytes a text file should not hold are here.
#include "expr/expr_token.h"

#include "base/hash.h"
#include "expr_test_util.h"

namespace {

// The tokens of a text as golden/lexer.txt writes them.
std::string Tokens(const std::string &text) {
  ExprLexer lexer;
  ExprInitLexer(&lexer, nullptr, text.c_str());
  std::string out;
  for (int guard = 0; guard < 1000; guard++) {
    ExprNextToken(&lexer);
    const ExprToken &t = lexer.token;
    std::string word(t.text, t.length);
    switch (t.kind) {
      case kExprTokenEnd: return out + "end";
      case kExprTokenIdentifier: word = "id:" + word + (t.hash == HashName(t.text, t.length) ? "" : "!hash"); break;
      case kExprTokenInteger: word = Format("int:0x%llX", (unsigned long long)t.integer); break;
      case kExprTokenFloating: word = Format("%s:%.17g", t.floating_type == kExprLiteralFloat32 ? "f32" : "f64", t.floating); break;
      case kExprTokenCharacter: word = "char:" + std::to_string(t.character); break;
      case kExprTokenInvalid: word = "invalid:" + word; break;
      case kExprTokenBadFloat: word = "badfloat:" + word; break;
      default: word += "#" + std::to_string(t.kind);
    }
    out += word + " ";
  }
  return out + "...";
}

}  // namespace

TEST(ExprLexer, GoldenCases) {
  for (const GoldenCase &c : ExprGoldenCases("lexer.txt")) EXPECT_EQ(Tokens(c.text), c.expected) << "lexer.txt:" << c.line;
}

// Other bytes are one-character invalid tokens; characters 9 to 13 and space are blanks; a
// character literal takes any byte. At the end, every further token is the end again.
TEST(ExprLexer, BytesBeyondPrintableAsciiAndTheEnd) {
  for (const char *text : {"\x7F", "\x80", "\xC3\xA9", "\x01"})
    EXPECT_EQ(Tokens(text).substr(0, 10), "invalid:" + std::string(text, 1) + " ") << (int)(u8)text[0];
  EXPECT_EQ(Tokens(" \t\n\v\f\rx \t"), "id:x end");
  EXPECT_EQ(Tokens("'\xE9'"), "char:233 end");
  ExprLexer lexer;
  ExprInitLexer(&lexer, nullptr, "x");
  ExprNextToken(&lexer);
  for (int i = 0; i < 3; i++) {
    ExprNextToken(&lexer);
    EXPECT_EQ(lexer.token.kind, (u32)kExprTokenEnd) << i;
  }
}
