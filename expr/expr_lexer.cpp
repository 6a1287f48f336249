// The expression lexer. It never reads past the terminating NUL: every look-ahead stops there.
#include "expr/expr_token.h"

#include "base/hash.h"

#include <stdlib.h>
#include <string.h>

static bool IsDigit(char c) { return c >= '0' && c <= '9'; }
static bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
static bool IsIdentifierChar(char c) { return IsLetter(c) || IsDigit(c) || c == '_'; }
static bool IsBlank(char c) { return c == ' ' || (c >= 9 && c <= 13); }

static int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void ExprInitLexer(ExprLexer *lexer, ExprPool *pool, const char *text) {
  memset(lexer, 0, sizeof(*lexer));
  lexer->next = text;
  lexer->pool = pool;
  lexer->token.kind = kExprTokenEnd;
}

static void SetToken(ExprLexer *lexer, u32 kind, const char *start, const char *end) {
  lexer->token.kind = kind;
  lexer->token.text = start;
  lexer->token.length = (u32)(end - start);
  lexer->next = end;
}

// Digits, optional fraction, optional exponent with optional sign, optional f/F suffix. The entry
// guarantees at least one digit before or just after the point. The C library converts the same
// span it would scan itself, so the text needs no copy.
static void LexFloating(ExprLexer *lexer, const char *start) {
  const char *p = start;
  while (IsDigit(*p)) p++;
  if (*p == '.') {
    p++;
    while (IsDigit(*p)) p++;
  }
  if (*p == 'e' || *p == 'E') {
    p++;
    if (*p == '+' || *p == '-') p++;
    if (!IsDigit(*p)) {
      SetToken(lexer, kExprTokenBadFloat, start, p);
      return;
    }
    while (IsDigit(*p)) p++;
  }
  ExprToken *token = &lexer->token;
  if (*p == 'f' || *p == 'F') {
    token->floating = (f64)strtof(start, nullptr);
    token->floating_type = kExprLiteralFloat32;
    p++;
  } else {
    token->floating = strtod(start, nullptr);
    token->floating_type = kExprLiteralFloat64;
  }
  SetToken(lexer, kExprTokenFloating, start, p);
}

static void LexNumber(ExprLexer *lexer, const char *start) {
  const char *p = start;
  u64 value = 0;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    p += 2;
    for (int digit; (digit = HexDigitValue(*p)) >= 0; p++) value = (value << 4) | (u64)digit;
  } else if (p[0] == '0') {
    // Octal, unless an 8 or 9 shows up or the digits go on into a fraction or exponent: then the
    // whole text is decimal floating ("0129" is 129.0).
    bool decimal_digit = false;
    for (p++; IsDigit(*p); p++) {
      if (*p >= '8') decimal_digit = true;
      value = (value << 3) | (u64)(*p - '0');
    }
    if (decimal_digit || *p == '.' || *p == 'e' || *p == 'E') {
      LexFloating(lexer, start);
      return;
    }
  } else {
    for (; IsDigit(*p); p++) value = value * 10 + (u64)(*p - '0');
    if (*p == '.' || *p == 'e' || *p == 'E') {
      LexFloating(lexer, start);
      return;
    }
  }
  lexer->token.integer = value;
  SetToken(lexer, kExprTokenInteger, start, p);
}

// Reads one character of a character literal at *p (escape or plain). Returns false for an
// escape that the language does not have.
static bool ReadLiteralChar(const char **p, u8 *out) {
  const char *q = *p;
  if (*q != '\\') {
    *out = (u8)*q;
    *p = q + 1;
    return true;
  }
  switch (q[1]) {
    case '"': *out = '"'; break;
    case '\'': *out = '\''; break;
    case '\\': *out = '\\'; break;
    case '?': *out = '?'; break;
    case '0': *out = 0; break;
    case 'a': *out = 7; break;
    case 'b': *out = 8; break;
    case 'f': *out = 12; break;
    case 'n': *out = 10; break;
    case 'r': *out = 13; break;
    case 't': *out = 9; break;
    case 'v': *out = 11; break;
    default: return false;  // also the NUL after a lone backslash
  }
  *p = q + 2;
  return true;
}

// One character: a character literal. Two to eight: an integer packed big-endian, as a C
// multi-character constant. Anything else is invalid and covers the text up to where it broke.
static void LexCharacter(ExprLexer *lexer, const char *start) {
  const char *p = start + 1;
  u64 value = 0;
  u32 count = 0;
  while (*p != '\'') {
    u8 c;
    if (*p == 0 || count == 8 || !ReadLiteralChar(&p, &c)) {
      SetToken(lexer, kExprTokenInvalid, start, *p ? p + 1 : p);
      return;
    }
    value = (value << 8) | c;
    count++;
  }
  p++;  // closing quote
  if (count == 0) {
    SetToken(lexer, kExprTokenInvalid, start, p);
  } else if (count == 1) {
    lexer->token.character = (u8)value;
    SetToken(lexer, kExprTokenCharacter, start, p);
  } else {
    lexer->token.integer = value;
    SetToken(lexer, kExprTokenInteger, start, p);
  }
}

static void LexIdentifier(ExprLexer *lexer, const char *start) {
  const char *p = start + 1;  // a letter, '_' or '$'
  for (;;) {
    if (IsIdentifierChar(*p)) {
      p++;
    } else if (p[0] == ':' && p[1] == ':' && IsIdentifierChar(p[2])) {
      p += 3;
    } else {
      break;
    }
  }
  lexer->token.hash = HashName(start, (u64)(p - start));
  SetToken(lexer, kExprTokenIdentifier, start, p);
}

// Two-character operators, tried before the one-character ones.
struct TwoCharOperator {
  char first, second;
  u32 kind;
};
static const TwoCharOperator kTwoCharOperators[] = {
    {'!', '=', kExprTokenNotEqual},  {'&', '&', kExprTokenAmpAmp},     {'-', '>', kExprTokenArrow},
    {'<', '<', kExprTokenShiftLeft}, {'<', '=', kExprTokenLessEqual},  {'=', '=', kExprTokenEqual},
    {'>', '=', kExprTokenGreaterEqual}, {'>', '>', kExprTokenShiftRight}, {'|', '|', kExprTokenPipePipe},
};

static u32 OneCharOperator(char c) {
  switch (c) {
    case '[': return kExprTokenLeftBracket;
    case ']': return kExprTokenRightBracket;
    case '(': return kExprTokenLeftParen;
    case ')': return kExprTokenRightParen;
    case '{': return kExprTokenLeftBrace;
    case '}': return kExprTokenRightBrace;
    case '.': return kExprTokenDot;
    case '*': return kExprTokenStar;
    case '+': return kExprTokenPlus;
    case '-': return kExprTokenMinus;
    case '~': return kExprTokenTilde;
    case '!': return kExprTokenBang;
    case '/': return kExprTokenSlash;
    case '%': return kExprTokenPercent;
    case '<': return kExprTokenLess;
    case '>': return kExprTokenGreater;
    case '^': return kExprTokenCaret;
    case '|': return kExprTokenPipe;
    case '&': return kExprTokenAmp;
    case '?': return kExprTokenQuestion;
    case ':': return kExprTokenColon;
    case ',': return kExprTokenComma;
    default: return kExprTokenInvalid;  // '=', '"', '#', ';', '@', '\\', '`'
  }
}

void ExprNextToken(ExprLexer *lexer) {
  const char *p = lexer->next;
  while (IsBlank(*p)) p++;
  char c = *p;
  if (c == 0) {
    SetToken(lexer, kExprTokenEnd, p, p);
    return;
  }
  if ((u8)c < '!' || (u8)c > '~') {
    SetToken(lexer, kExprTokenInvalid, p, p + 1);
    return;
  }
  if (IsLetter(c) || c == '_' || c == '$') {
    LexIdentifier(lexer, p);
    return;
  }
  if (IsDigit(c) || (c == '.' && IsDigit(p[1]))) {
    if (c == '.')
      LexFloating(lexer, p);
    else
      LexNumber(lexer, p);
    return;
  }
  if (c == '\'') {
    LexCharacter(lexer, p);
    return;
  }
  for (u32 i = 0; i < KTRN_ARRAY_COUNT(kTwoCharOperators); i++) {
    if (kTwoCharOperators[i].first == c && kTwoCharOperators[i].second == p[1]) {
      SetToken(lexer, kTwoCharOperators[i].kind, p, p + 2);
      return;
    }
  }
  SetToken(lexer, OneCharOperator(c), p, p + 1);
}

const char *ExprTokenText(u32 kind) {
  static const char *const kText[] = {
      "",  "",  "",   "",   "[",  "]",  "(",  ")",  "{",  "}", ".", "->", "",
      "*", "+", "-",  "~",  "!",  "/",  "%",  "<<", ">>", "<", "<=", ">", ">=",
      "==", "!=", "^", "|", "||", "&", "&&", "?",  ":",  ",",
  };
  return kind < KTRN_ARRAY_COUNT(kText) ? kText[kind] : "";
}
