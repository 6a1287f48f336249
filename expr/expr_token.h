// The expression lexer: token kinds, the token, the lexer state and NextToken.
//
// The token kind numbers are the ones the parser switches on; binary and unary nodes store them as
// their operator, so they must not be renumbered (kind 12 is never produced).
#pragma once
#include "base/types.h"

enum ExprTokenKind : u32 {
  ExprToken_Identifier = 0,
  ExprToken_Integer = 1,
  ExprToken_Floating = 2,
  ExprToken_Character = 3,
  ExprToken_LeftBracket = 4,    // [
  ExprToken_RightBracket = 5,   // ]
  ExprToken_LeftParen = 6,      // (
  ExprToken_RightParen = 7,     // )
  ExprToken_LeftBrace = 8,      // {
  ExprToken_RightBrace = 9,     // }
  ExprToken_Dot = 10,           // .
  ExprToken_Arrow = 11,         // ->
  ExprToken_Star = 13,          // *
  ExprToken_Plus = 14,          // +
  ExprToken_Minus = 15,         // -
  ExprToken_Tilde = 16,         // ~
  ExprToken_Bang = 17,          // !
  ExprToken_Slash = 18,         // /
  ExprToken_Percent = 19,       // %
  ExprToken_ShiftLeft = 20,     // <<
  ExprToken_ShiftRight = 21,    // >>
  ExprToken_Less = 22,          // <
  ExprToken_LessEqual = 23,     // <=
  ExprToken_Greater = 24,       // >
  ExprToken_GreaterEqual = 25,  // >=
  ExprToken_Equal = 26,         // ==
  ExprToken_NotEqual = 27,      // !=
  ExprToken_Caret = 28,         // ^
  ExprToken_Pipe = 29,          // |
  ExprToken_PipePipe = 30,      // ||
  ExprToken_Amp = 31,           // &
  ExprToken_AmpAmp = 32,        // &&
  ExprToken_Question = 33,      // ?  (lexed, never accepted)
  ExprToken_Colon = 34,         // :  (lexed, never accepted)
  ExprToken_Comma = 35,         // ,
  ExprToken_Invalid = 36,       // one unrecognised character, or a malformed literal
  ExprToken_BadFloat = 37,      // floating literal with a malformed exponent
  ExprToken_End = 38,           // end of text
};

// CodeView basic type indexes that literals carry.
enum ExprLiteralType : u32 {
  ExprType_Float32 = 0x40,
  ExprType_Float64 = 0x41,
  ExprType_Int32 = 0x74,
  ExprType_UInt64 = 0x77,
};

struct ExprToken {
  u32 kind;             // ExprTokenKind
  const char *text;     // first character of the token in the expression text
  u32 length;           // characters the token covers
  u32 hash;             // identifiers: FNV-1a over the whole text, "::" included
  u64 integer;          // integer literals (multi-character literals too)
  u8 character;         // character literals
  u32 floating_type;    // floating literals: ExprType_Float32 or ExprType_Float64
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
void InitLexer(ExprLexer *lexer, ExprPool *pool, const char *text);
// Advances to the next token; at the end of the text it keeps returning ExprToken_End.
void NextToken(ExprLexer *lexer);
// Operator text of a token kind ("<<", "->", ...); "" for kinds that are not operators.
const char *ExprTokenText(u32 kind);
