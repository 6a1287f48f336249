// Recursive-descent parser over the lexer. Every production returns its node or null; a null
// comes with the sticky failure flag set, and the production that failed has already returned
// the nodes it held, so an error anywhere leaves nothing behind.
//
// [SECTION] Helpers
// [SECTION] Type names
// [SECTION] Primary and postfix
// [SECTION] Unary level: unary operators, casts, sizeof
// [SECTION] Binary levels
// [SECTION] Format specifier
// [SECTION] Parse
#include "expr/expr_parser.h"

#include "expr/expr_token.h"
#include "expr/format_spec.h"

#include <string.h>

// [SECTION] Helpers

struct LexerMark {
  const char *next;
  ExprToken token;
};

static LexerMark MarkLexer(const ExprLexer *lexer) { return LexerMark{lexer->next, lexer->token}; }
static void RestoreLexer(ExprLexer *lexer, const LexerMark &mark) {
  lexer->next = mark.next;
  lexer->token = mark.token;
}

static ExprNode *Fail(ExprLexer *lexer) {
  lexer->failed = true;
  return nullptr;
}

static ExprNode *NewNode(ExprLexer *lexer, u32 kind) {
  ExprNode *node = ExprTakeNode(lexer->pool, kind);
  if (!node) {
    lexer->out_of_nodes = true;
    lexer->failed = true;
  }
  return node;
}

static bool TokenIs(const ExprLexer *lexer, u32 kind) { return lexer->token.kind == kind; }

static bool TokenIsWord(const ExprToken &token, const char *word) {
  size_t length = strlen(word);
  return token.kind == kExprTokenIdentifier && token.length == length && memcmp(token.text, word, length) == 0;
}

static ExprNode *ParseExpression(ExprLexer *lexer);
static ExprNode *ParseUnary(ExprLexer *lexer, bool allow_casts);

// [SECTION] Type names

bool IsCastTypeName(const char *text, u32 length) {
  static const char *const kNames[] = {
      "char", "short", "int",     "long",     "float",    "double",   "wchar_t", "HRESULT", "s8",      "u8",
      "s16",  "u16",   "s32",     "u32",      "s64",      "u64",      "f32",     "f64",     "r32",     "r64",
      "int8_t", "uint8_t", "int16_t", "uint16_t", "int32_t", "int64_t", "uint64_t", "uint32_t",
  };
  static_assert(KTRN_ARRAY_COUNT(kNames) == 28, "the cast-trigger set has 28 names");
  for (u32 i = 0; i < KTRN_ARRAY_COUNT(kNames); i++) {
    if (strlen(kNames[i]) == length && memcmp(kNames[i], text, length) == 0) return true;
  }
  return false;
}

static u32 TypeKeywordBit(const ExprToken &token) {
  static const struct {
    const char *word;
    u32 bit;
  } kKeywords[] = {
      {"const", kExprTypeKeywordConst},     {"void", kExprTypeKeywordVoid},     {"char", kExprTypeKeywordChar},
      {"short", kExprTypeKeywordShort},     {"int", kExprTypeKeywordInt},       {"long", kExprTypeKeywordLong},
      {"float", kExprTypeKeywordFloat},     {"double", kExprTypeKeywordDouble}, {"signed", kExprTypeKeywordSigned},
      {"unsigned", kExprTypeKeywordUnsigned}, {"struct", kExprTypeKeywordStruct}, {"union", kExprTypeKeywordUnion},
      {"enum", kExprTypeKeywordEnum},
  };
  for (u32 i = 0; i < KTRN_ARRAY_COUNT(kKeywords); i++) {
    if (TokenIsWord(token, kKeywords[i].word)) return kKeywords[i].bit;
  }
  return 0;
}

// Reads a type name syntactically: keywords and at most one other identifier (so "struct Foo"
// and "const ns::Foo" are one type), then '*'s each optionally followed by "const". Nothing is
// looked up. Returns false, without touching the failure flag, when no type name starts here.
static bool ParseTypeName(ExprLexer *lexer, ExprTypeDesc *type) {
  memset(type, 0, sizeof(*type));
  const char *start = lexer->token.text;
  const char *end = start;
  while (TokenIs(lexer, kExprTokenIdentifier)) {
    const ExprToken &token = lexer->token;
    u32 keyword = TypeKeywordBit(token);
    if (keyword) {
      type->keywords |= keyword;
      if (keyword == kExprTypeKeywordLong) type->long_count++;
    } else if (!type->name) {
      type->name = token.text;
      type->name_length = token.length;
      type->name_hash = token.hash;
    } else {
      break;
    }
    end = token.text + token.length;
    ExprNextToken(lexer);
  }
  if (end == start) return false;
  while (TokenIs(lexer, kExprTokenStar)) {
    type->pointer_depth++;
    end = lexer->token.text + 1;
    ExprNextToken(lexer);
    if (TokenIsWord(lexer->token, "const")) {
      if (type->pointer_depth <= 32) type->const_pointers |= 1u << (type->pointer_depth - 1);
      end = lexer->token.text + lexer->token.length;
      ExprNextToken(lexer);
    }
  }
  type->text = start;
  type->text_length = (u32)(end - start);
  return true;
}

// [SECTION] Primary and postfix

static ExprNode *ParsePostfixFrom(ExprLexer *lexer, ExprNode *node) {
  while (node) {
    if (TokenIs(lexer, kExprTokenLeftBracket)) {
      ExprNextToken(lexer);
      ExprNode *index = ParseExpression(lexer);
      if (index && !TokenIs(lexer, kExprTokenRightBracket)) Fail(lexer);
      ExprNode *parent = lexer->failed ? nullptr : NewNode(lexer, kExprNodeIndex);
      if (!parent) {
        ExprFreeTree(lexer->pool, node);
        ExprFreeTree(lexer->pool, index);
        return nullptr;
      }
      ExprNextToken(lexer);
      parent->index.base = node;
      parent->index.index = index;
      node = parent;
    } else if (TokenIs(lexer, kExprTokenDot) || TokenIs(lexer, kExprTokenArrow)) {
      u32 op = lexer->token.kind;
      ExprNextToken(lexer);
      if (!TokenIs(lexer, kExprTokenIdentifier)) Fail(lexer);
      ExprNode *parent = lexer->failed ? nullptr : NewNode(lexer, kExprNodeMember);
      if (!parent) {
        ExprFreeTree(lexer->pool, node);
        return nullptr;
      }
      parent->member.op = op;
      parent->member.object = node;
      parent->member.name = lexer->token.text;
      parent->member.name_length = lexer->token.length;
      ExprNextToken(lexer);
      node = parent;
    } else {
      break;
    }
  }
  return node;
}

static ExprNode *ParsePrimary(ExprLexer *lexer) {
  const ExprToken &token = lexer->token;
  ExprNode *node = nullptr;
  switch (token.kind) {
    case kExprTokenIdentifier:
      if ((node = NewNode(lexer, kExprNodeIdentifier))) {
        node->identifier.text = token.text;
        node->identifier.length = token.length;
        node->identifier.hash = token.hash;
      }
      break;
    case kExprTokenInteger:
      if ((node = NewNode(lexer, kExprNodeInteger))) {
        bool fits_int = token.integer <= 0x7FFFFFFFu;
        node->integer.type = fits_int ? kExprLiteralInt32 : kExprLiteralUInt64;
        node->integer.value = fits_int ? (u64)(u32)token.integer : token.integer;
      }
      break;
    case kExprTokenCharacter:
      if ((node = NewNode(lexer, kExprNodeCharacter))) node->character.value = token.character;
      break;
    case kExprTokenFloating:
      if ((node = NewNode(lexer, kExprNodeFloating))) {
        node->floating.value = token.floating;
        node->floating.type = token.floating_type;
      }
      break;
    case kExprTokenLeftParen: {
      ExprNextToken(lexer);
      ExprNode *child = ParseExpression(lexer);
      if (child && !TokenIs(lexer, kExprTokenRightParen)) Fail(lexer);
      node = lexer->failed ? nullptr : NewNode(lexer, kExprNodeParen);
      if (!node) {
        ExprFreeTree(lexer->pool, child);
        return nullptr;
      }
      node->paren.child = child;
      break;
    }
    default:
      return Fail(lexer);
  }
  if (node) ExprNextToken(lexer);
  return node;
}

// [SECTION] Unary level: unary operators, casts, sizeof

static bool StartsOperand(u32 kind) {
  return kind == kExprTokenIdentifier || kind == kExprTokenInteger || kind == kExprTokenFloating ||
         kind == kExprTokenCharacter || kind == kExprTokenLeftParen;
}

static bool IsUnaryOperator(u32 kind) {
  return kind == kExprTokenAmp || kind == kExprTokenStar || kind == kExprTokenPlus || kind == kExprTokenMinus ||
         kind == kExprTokenTilde || kind == kExprTokenBang;
}

// The current token is '('. The parenthesis is first parsed as an expression; what follows the
// ')' decides: an operand start makes it a cast ("(T)x", "(T)(x)"); anything else makes it a cast
// only for the basic type names ("(int)-1"), so "(a)-1" subtracts. A parenthesis that is not an
// expression at all ("(char *)p", "(unsigned int)x") is read as a type name.
static ExprNode *ParseParenOrCast(ExprLexer *lexer) {
  ExprNextToken(lexer);
  LexerMark inside = MarkLexer(lexer);
  ExprNode *inner = ParseExpression(lexer);
  if (inner && TokenIs(lexer, kExprTokenRightParen)) {
    ExprNextToken(lexer);
    bool cast = StartsOperand(lexer->token.kind) ||
                (inner->kind == kExprNodeIdentifier && IsCastTypeName(inner->identifier.text, inner->identifier.length));
    if (!cast) {
      ExprNode *paren = NewNode(lexer, kExprNodeParen);
      if (!paren) {
        ExprFreeTree(lexer->pool, inner);
        return nullptr;
      }
      paren->paren.child = inner;
      return ParsePostfixFrom(lexer, paren);
    }
  } else if (lexer->out_of_nodes || lexer->too_deep) {
    ExprFreeTree(lexer->pool, inner);
    return Fail(lexer);
  }
  // A cast, or a parenthesis that was not an expression: read it again as a type name.
  ExprFreeTree(lexer->pool, inner);
  lexer->failed = false;
  RestoreLexer(lexer, inside);
  ExprTypeDesc type;
  if (!ParseTypeName(lexer, &type) || !TokenIs(lexer, kExprTokenRightParen)) return Fail(lexer);
  ExprNextToken(lexer);
  ExprNode *operand = ParseUnary(lexer, true);
  ExprNode *node = operand ? NewNode(lexer, kExprNodeCast) : nullptr;
  if (!node) {
    ExprFreeTree(lexer->pool, operand);
    return nullptr;
  }
  node->cast.type = type;
  node->cast.operand = operand;
  return node;
}

// The current token is the identifier "sizeof".
static ExprNode *ParseSizeof(ExprLexer *lexer) {
  ExprNextToken(lexer);
  if (TokenIs(lexer, kExprTokenLeftParen)) {
    LexerMark at_paren = MarkLexer(lexer);
    ExprNextToken(lexer);
    ExprTypeDesc type;
    if (ParseTypeName(lexer, &type) && TokenIs(lexer, kExprTokenRightParen)) {
      ExprNode *node = NewNode(lexer, kExprNodeSizeofType);
      if (!node) return nullptr;
      ExprNextToken(lexer);
      node->sizeof_type.type = type;
      return node;
    }
    RestoreLexer(lexer, at_paren);
  }
  ExprNode *operand = ParseUnary(lexer, false);
  ExprNode *node = operand ? NewNode(lexer, kExprNodeSizeofExpr) : nullptr;
  if (!node) {
    ExprFreeTree(lexer->pool, operand);
    return nullptr;
  }
  node->sizeof_expr.operand = operand;
  return node;
}

static ExprNode *ParseUnaryLevel(ExprLexer *lexer, bool allow_casts) {
  if (TokenIsWord(lexer->token, "sizeof")) return ParseSizeof(lexer);
  if (allow_casts && TokenIs(lexer, kExprTokenLeftParen)) return ParseParenOrCast(lexer);
  if (IsUnaryOperator(lexer->token.kind)) {
    u32 op = lexer->token.kind;
    ExprNextToken(lexer);
    ExprNode *operand = ParseUnary(lexer, true);
    ExprNode *node = operand ? NewNode(lexer, kExprNodeUnary) : nullptr;
    if (!node) {
      ExprFreeTree(lexer->pool, operand);
      return nullptr;
    }
    node->unary.op = op;
    node->unary.operand = operand;
    return node;
  }
  return ParsePostfixFrom(lexer, ParsePrimary(lexer));
}

// Every nesting passes through here, so this is where the depth is bounded.
static ExprNode *ParseUnary(ExprLexer *lexer, bool allow_casts) {
  if (lexer->failed) return nullptr;
  if (lexer->depth >= kExprMaxDepth) {
    lexer->too_deep = true;
    return Fail(lexer);
  }
  lexer->depth++;
  ExprNode *node = ParseUnaryLevel(lexer, allow_casts);
  lexer->depth--;
  return node;
}

// [SECTION] Binary levels

// 1 for the loosest-binding operator up to 10 for * / %; 0 for a token that is no binary operator.
static u32 BinaryLevel(u32 kind) {
  switch (kind) {
    case kExprTokenPipePipe: return 1;
    case kExprTokenAmpAmp: return 2;
    case kExprTokenPipe: return 3;
    case kExprTokenCaret: return 4;
    case kExprTokenAmp: return 5;
    case kExprTokenEqual:
    case kExprTokenNotEqual: return 6;
    case kExprTokenLess:
    case kExprTokenGreater:
    case kExprTokenLessEqual:
    case kExprTokenGreaterEqual: return 7;
    case kExprTokenShiftLeft:
    case kExprTokenShiftRight: return 8;
    case kExprTokenPlus:
    case kExprTokenMinus: return 9;
    case kExprTokenStar:
    case kExprTokenSlash:
    case kExprTokenPercent: return 10;
    default: return 0;
  }
}

// Precedence climbing: operands of an operator at level L bind everything tighter than L on
// their right, and the loop makes each level left-associative.
static ExprNode *ParseBinary(ExprLexer *lexer, u32 min_level) {
  ExprNode *left = ParseUnary(lexer, true);
  while (left) {
    u32 op = lexer->token.kind;
    u32 level = BinaryLevel(op);
    if (level == 0 || level < min_level) break;
    ExprNextToken(lexer);
    ExprNode *right = ParseBinary(lexer, level + 1);
    ExprNode *node = right ? NewNode(lexer, kExprNodeBinary) : nullptr;
    if (!node) {
      ExprFreeTree(lexer->pool, left);
      ExprFreeTree(lexer->pool, right);
      return nullptr;
    }
    node->binary.left = left;
    node->binary.op = op;
    node->binary.right = right;
    left = node;
  }
  return left;
}

static ExprNode *ParseExpression(ExprLexer *lexer) { return ParseBinary(lexer, 1); }

// [SECTION] Format specifier

// The current token is the ','.
static ExprNode *ParseFormat(ExprLexer *lexer) {
  ExprNode *node = NewNode(lexer, kExprNodeFormat);
  if (!node) return nullptr;
  ExprNextToken(lexer);
  LexerMark after_comma = MarkLexer(lexer);
  s32 index = TokenIs(lexer, kExprTokenIdentifier) ? FindFormatSpecifier(lexer->token.text, lexer->token.length) : -1;
  if (index >= 0) {
    ExprNextToken(lexer);
    // "p, str.len": the name starts the count expression instead.
    if (TokenIs(lexer, kExprTokenDot) || TokenIs(lexer, kExprTokenArrow)) {
      RestoreLexer(lexer, after_comma);
      index = -1;
    }
  }
  node->format.specifier = index;
  if (index >= 0) {
    const FormatSpecifier &spec = kFormatSpecifiers[index];
    node->format.flags = spec.flags;
    node->format.memory_kind = spec.memory_kind;
    node->format.vector_kind = spec.vector_kind;
    node->format.matrix_kind = spec.matrix_kind;
    if (spec.flags & kDisplayFlagMemory) {
      // Options "/c16" (columns) and "/n256" (elements): the lexer restarts after the letter.
      while (TokenIs(lexer, kExprTokenSlash)) {
        ExprNextToken(lexer);
        const ExprToken &option = lexer->token;
        if (option.kind != kExprTokenIdentifier || option.length < 2 || (option.text[0] != 'c' && option.text[0] != 'n')) {
          ExprFreeTree(lexer->pool, node);
          return Fail(lexer);
        }
        char letter = option.text[0];
        lexer->next = option.text + 1;
        ExprNextToken(lexer);
        if (!TokenIs(lexer, kExprTokenInteger)) {
          ExprFreeTree(lexer->pool, node);
          return Fail(lexer);
        }
        if (letter == 'c') {
          node->format.columns = lexer->token.integer;
          node->format.has_columns = true;
        } else {
          node->format.element_count = lexer->token.integer;
          node->format.has_count = true;
        }
        ExprNextToken(lexer);
      }
      if (TokenIs(lexer, kExprTokenEnd)) return node;
      if (node->format.has_count) {
        ExprFreeTree(lexer->pool, node);
        return Fail(lexer);
      }
    } else if (spec.flags & (kDisplayFlagVector | kDisplayFlagMatrix)) {
      if (TokenIs(lexer, kExprTokenEnd)) return node;
      ExprFreeTree(lexer->pool, node);
      return Fail(lexer);
    }
  }
  if (TokenIs(lexer, kExprTokenEnd)) return node;
  ExprNode *expression = ParseExpression(lexer);
  if (!expression) {
    ExprFreeTree(lexer->pool, node);
    return nullptr;
  }
  node->format.expression = expression;
  return node;
}

// [SECTION] Parse

static ExprNode *ParseCountPrefix(ExprLexer *lexer) {
  ExprNextToken(lexer);
  bool skipped_caret = false;
  if (TokenIs(lexer, kExprTokenCaret)) {
    skipped_caret = true;
    ExprNextToken(lexer);
  }
  u64 count;
  if (TokenIs(lexer, kExprTokenInteger))
    count = lexer->token.integer;
  else if (TokenIs(lexer, kExprTokenStar))
    count = 999999;
  else
    return Fail(lexer);
  ExprNextToken(lexer);
  if (!TokenIs(lexer, kExprTokenRightBrace)) return Fail(lexer);
  ExprNextToken(lexer);
  ExprNode *child = ParseExpression(lexer);
  ExprNode *node = child ? NewNode(lexer, kExprNodeCountPrefix) : nullptr;
  if (!node) {
    ExprFreeTree(lexer->pool, child);
    return nullptr;
  }
  node->count.count = count;
  node->count.child = child;
  node->count.skipped_caret = skipped_caret;
  return node;
}

bool ExprParse(ExprPool *pool, const char *text, ExprParseResult *out) {
  ExprLexer lexer;
  ExprInitLexer(&lexer, pool, text);
  ExprNextToken(&lexer);
  ExprNode *tree = TokenIs(&lexer, kExprTokenLeftBrace) ? ParseCountPrefix(&lexer) : ParseExpression(&lexer);
  ExprNode *format = nullptr;
  if (!lexer.failed && TokenIs(&lexer, kExprTokenComma)) format = ParseFormat(&lexer);
  if (!lexer.failed && !TokenIs(&lexer, kExprTokenEnd)) Fail(&lexer);
  if (lexer.failed) {
    ExprFreeTree(pool, tree);
    ExprFreeTree(pool, format);
    out->tree = nullptr;
    out->format = nullptr;
    out->failure = lexer.out_of_nodes ? kExprParseOutOfNodes : lexer.too_deep ? kExprParseTooDeep : kExprParseSyntax;
    return false;
  }
  out->tree = tree;
  out->format = format;
  out->failure = kExprParseOk;
  return true;
}

const char *ExprParseFailureText(u32 failure) {
  switch (failure) {
    case kExprParseOutOfNodes: return "Expression too large (out of expression nodes)";
    case kExprParseTooDeep: return "Expression nested too deeply";
    default: return "Parse error";
  }
}
