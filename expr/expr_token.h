// The expression lexer: token kinds, the token, the lexer state and NextToken.
//
// The token kind numbers are the ones the parser switches on; binary and unary nodes store them as
// their operator, so they must not be renumbered (kind 12 is never produced).
#pragma once
#include "base/types.h"

enum ExprTokenKind : u32 {
  kExprTokenIdentifier = 0,
  kExprTokenInteger = 1,
  kExprTokenFloating = 2,
  kExprTokenCharacter = 3,
  kExprTokenLeftBracket = 4,    // [
  kExprTokenRightBracket = 5,   // ]
  kExprTokenLeftParen = 6,      // (
  kExprTokenRightParen = 7,     // )
  kExprTokenLeftBrace = 8,      // {
  kExprTokenRightBrace = 9,     // }
  kExprTokenDot = 10,           // .
  kExprTokenArrow = 11,         // ->
  kExprTokenStar = 13,          // *
  kExprTokenPlus = 14,          // +
  kExprTokenMinus = 15,         // -
  kExprTokenTilde = 16,         // ~
  kExprTokenBang = 17,          // !
  kExprTokenSlash = 18,         // /
  kExprTokenPercent = 19,       // %
  kExprTokenShiftLeft = 20,     // <<
  kExprTokenShiftRight = 21,    // >>
  kExprTokenLess = 22,          // <
  kExprTokenLessEqual = 23,     // <=
  kExprTokenGreater = 24,       // >
  kExprTokenGreaterEqual = 25,  // >=
  kExprTokenEqual = 26,         // ==
  kExprTokenNotEqual = 27,      // !=
  kExprTokenCaret = 28,         // ^
  kExprTokenPipe = 29,          // |
  kExprTokenPipePipe = 30,      // ||
  kExprTokenAmp = 31,           // &
  kExprTokenAmpAmp = 32,        // &&
  kExprTokenQuestion = 33,      // ?  (lexed, never accepted)
  kExprTokenColon = 34,         // :  (lexed, never accepted)
  kExprTokenComma = 35,         // ,
  kExprTokenInvalid = 36,       // one unrecognised character, or a malformed literal
  kExprTokenBadFloat = 37,      // floating literal with a malformed exponent
  kExprTokenEnd = 38,           // end of text
};

// CodeView basic type indexes that literals carry.
enum ExprLiteralType : u32 {
  kExprLiteralFloat32 = 0x40,
  kExprLiteralFloat64 = 0x41,
  kExprLiteralInt32 = 0x74,
  kExprLiteralUInt64 = 0x77,
};

struct ExprToken {
  u32 kind;             // ExprTokenKind
  const char *text;     // first character of the token in the expression text
  u32 length;           // characters the token covers
  u32 hash;             // identifiers: FNV-1a over the whole text, "::" included
  u64 integer;          // integer literals (multi-character literals too)
  u8 character;         // character literals
  u32 floating_type;    // floating literals: kExprLiteralFloat32 or kExprLiteralFloat64
  f64 floating;         // floating literals (a float's value, widened)
};

struct ExprPool;

// The parser's whole state. Copying {next, token} is how the parser puts the lexer back.
struct ExprLexer {
  const char *next;     // next unread character of the NUL-terminated text
  ExprToken token;      // the current token
  bool failed;          // sticky: once set, every production returns at once
  bool out_of_nodes;    // the pool ran dry (never cleared by a trial parse)
  bool too_deep;        // nesting went past kExprMaxDepth (never cleared by a trial parse)
  u32 depth;            // current nesting of unary-level productions
  ExprPool *pool;
};

// Starts lexing text (NUL-terminated) without reading a token yet.
void ExprInitLexer(ExprLexer *lexer, ExprPool *pool, const char *text);
// Advances to the next token; at the end of the text it keeps returning kExprTokenEnd.
void ExprNextToken(ExprLexer *lexer);
// Operator text of a token kind ("<<", "->", ...); "" for kinds that are not operators.
const char *ExprTokenText(u32 kind);
