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

void InitLexer(ExprLexer *lexer, ExprPool *pool, const char *text) {
  memset(lexer, 0, sizeof(*lexer));
  lexer->next = text;
  lexer->pool = pool;
  lexer->token.kind = ExprToken_End;
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
      SetToken(lexer, ExprToken_BadFloat, start, p);
      return;
    }
    while (IsDigit(*p)) p++;
  }
  ExprToken *token = &lexer->token;
  if (*p == 'f' || *p == 'F') {
    token->floating = (f64)strtof(start, NULL);
    token->floating_type = ExprType_Float32;
    p++;
  } else {
    token->floating = strtod(start, NULL);
    token->floating_type = ExprType_Float64;
  }
  SetToken(lexer, ExprToken_Floating, start, p);
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
  SetToken(lexer, ExprToken_Integer, start, p);
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
      SetToken(lexer, ExprToken_Invalid, start, *p ? p + 1 : p);
      return;
    }
    value = (value << 8) | c;
    count++;
  }
  p++;  // closing quote
  if (count == 0) {
    SetToken(lexer, ExprToken_Invalid, start, p);
  } else if (count == 1) {
    lexer->token.character = (u8)value;
    SetToken(lexer, ExprToken_Character, start, p);
  } else {
    lexer->token.integer = value;
    SetToken(lexer, ExprToken_Integer, start, p);
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
  SetToken(lexer, ExprToken_Identifier, start, p);
}

// Two-character operators, tried before the one-character ones.
struct TwoCharOperator {
  char first, second;
  u32 kind;
};
static const TwoCharOperator kTwoCharOperators[] = {
    {'!', '=', ExprToken_NotEqual},  {'&', '&', ExprToken_AmpAmp},     {'-', '>', ExprToken_Arrow},
    {'<', '<', ExprToken_ShiftLeft}, {'<', '=', ExprToken_LessEqual},  {'=', '=', ExprToken_Equal},
    {'>', '=', ExprToken_GreaterEqual}, {'>', '>', ExprToken_ShiftRight}, {'|', '|', ExprToken_PipePipe},
};

static u32 OneCharOperator(char c) {
  switch (c) {
    case '[': return ExprToken_LeftBracket;
    case ']': return ExprToken_RightBracket;
    case '(': return ExprToken_LeftParen;
    case ')': return ExprToken_RightParen;
    case '{': return ExprToken_LeftBrace;
    case '}': return ExprToken_RightBrace;
    case '.': return ExprToken_Dot;
    case '*': return ExprToken_Star;
    case '+': return ExprToken_Plus;
    case '-': return ExprToken_Minus;
    case '~': return ExprToken_Tilde;
    case '!': return ExprToken_Bang;
    case '/': return ExprToken_Slash;
    case '%': return ExprToken_Percent;
    case '<': return ExprToken_Less;
    case '>': return ExprToken_Greater;
    case '^': return ExprToken_Caret;
    case '|': return ExprToken_Pipe;
    case '&': return ExprToken_Amp;
    case '?': return ExprToken_Question;
    case ':': return ExprToken_Colon;
    case ',': return ExprToken_Comma;
    default: return ExprToken_Invalid;  // '=', '"', '#', ';', '@', '\\', '`'
  }
}

void NextToken(ExprLexer *lexer) {
  const char *p = lexer->next;
  while (IsBlank(*p)) p++;
  char c = *p;
  if (c == 0) {
    SetToken(lexer, ExprToken_End, p, p);
    return;
  }
  if ((u8)c < '!' || (u8)c > '~') {
    SetToken(lexer, ExprToken_Invalid, p, p + 1);
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
