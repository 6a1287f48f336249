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
  return NULL;
}

static ExprNode *NewNode(ExprLexer *lexer, u32 kind) {
  ExprNode *node = TakeNode(lexer->pool, kind);
  if (!node) {
    lexer->out_of_nodes = true;
    lexer->failed = true;
  }
  return node;
}

static bool TokenIs(const ExprLexer *lexer, u32 kind) { return lexer->token.kind == kind; }

static bool TokenIsWord(const ExprToken &token, const char *word) {
  size_t length = strlen(word);
  return token.kind == ExprToken_Identifier && token.length == length && memcmp(token.text, word, length) == 0;
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
      {"const", ExprTypeKeyword_Const},     {"void", ExprTypeKeyword_Void},     {"char", ExprTypeKeyword_Char},
      {"short", ExprTypeKeyword_Short},     {"int", ExprTypeKeyword_Int},       {"long", ExprTypeKeyword_Long},
      {"float", ExprTypeKeyword_Float},     {"double", ExprTypeKeyword_Double}, {"signed", ExprTypeKeyword_Signed},
      {"unsigned", ExprTypeKeyword_Unsigned}, {"struct", ExprTypeKeyword_Struct}, {"union", ExprTypeKeyword_Union},
      {"enum", ExprTypeKeyword_Enum},
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
  while (TokenIs(lexer, ExprToken_Identifier)) {
    const ExprToken &token = lexer->token;
    u32 keyword = TypeKeywordBit(token);
    if (keyword) {
      type->keywords |= keyword;
      if (keyword == ExprTypeKeyword_Long) type->long_count++;
    } else if (!type->name) {
      type->name = token.text;
      type->name_length = token.length;
      type->name_hash = token.hash;
    } else {
      break;
    }
    end = token.text + token.length;
    NextToken(lexer);
  }
  if (end == start) return false;
  while (TokenIs(lexer, ExprToken_Star)) {
    type->pointer_depth++;
    end = lexer->token.text + 1;
    NextToken(lexer);
    if (TokenIsWord(lexer->token, "const")) {
      if (type->pointer_depth <= 32) type->const_pointers |= 1u << (type->pointer_depth - 1);
      end = lexer->token.text + lexer->token.length;
      NextToken(lexer);
    }
  }
  type->text = start;
  type->text_length = (u32)(end - start);
  return true;
}

// [SECTION] Primary and postfix

static ExprNode *ParsePostfixFrom(ExprLexer *lexer, ExprNode *node) {
  while (node) {
    if (TokenIs(lexer, ExprToken_LeftBracket)) {
      NextToken(lexer);
      ExprNode *index = ParseExpression(lexer);
      if (index && !TokenIs(lexer, ExprToken_RightBracket)) Fail(lexer);
      ExprNode *parent = lexer->failed ? NULL : NewNode(lexer, ExprNode_Index);
      if (!parent) {
        FreeTree(lexer->pool, node);
        FreeTree(lexer->pool, index);
        return NULL;
      }
      NextToken(lexer);
      parent->index.base = node;
      parent->index.index = index;
      node = parent;
    } else if (TokenIs(lexer, ExprToken_Dot) || TokenIs(lexer, ExprToken_Arrow)) {
      u32 op = lexer->token.kind;
      NextToken(lexer);
      if (!TokenIs(lexer, ExprToken_Identifier)) Fail(lexer);
      ExprNode *parent = lexer->failed ? NULL : NewNode(lexer, ExprNode_Member);
      if (!parent) {
        FreeTree(lexer->pool, node);
        return NULL;
      }
      parent->member.op = op;
      parent->member.object = node;
      parent->member.name = lexer->token.text;
      parent->member.name_length = lexer->token.length;
      NextToken(lexer);
      node = parent;
    } else {
      break;
    }
  }
  return node;
}

static ExprNode *ParsePrimary(ExprLexer *lexer) {
  const ExprToken &token = lexer->token;
  ExprNode *node = NULL;
  switch (token.kind) {
    case ExprToken_Identifier:
      if ((node = NewNode(lexer, ExprNode_Identifier))) {
        node->identifier.text = token.text;
        node->identifier.length = token.length;
        node->identifier.hash = token.hash;
      }
      break;
    case ExprToken_Integer:
      if ((node = NewNode(lexer, ExprNode_Integer))) {
        bool fits_int = token.integer <= 0x7FFFFFFFu;
        node->integer.type = fits_int ? ExprType_Int32 : ExprType_UInt64;
        node->integer.value = fits_int ? (u64)(u32)token.integer : token.integer;
      }
      break;
    case ExprToken_Character:
      if ((node = NewNode(lexer, ExprNode_Character))) node->character.value = token.character;
      break;
    case ExprToken_Floating:
      if ((node = NewNode(lexer, ExprNode_Floating))) {
        node->floating.value = token.floating;
        node->floating.type = token.floating_type;
      }
      break;
    case ExprToken_LeftParen: {
      NextToken(lexer);
      ExprNode *child = ParseExpression(lexer);
      if (child && !TokenIs(lexer, ExprToken_RightParen)) Fail(lexer);
      node = lexer->failed ? NULL : NewNode(lexer, ExprNode_Paren);
      if (!node) {
        FreeTree(lexer->pool, child);
        return NULL;
      }
      node->paren.child = child;
      break;
    }
    default:
      return Fail(lexer);
  }
  if (node) NextToken(lexer);
  return node;
}

// [SECTION] Unary level: unary operators, casts, sizeof

static bool StartsOperand(u32 kind) {
  return kind == ExprToken_Identifier || kind == ExprToken_Integer || kind == ExprToken_Floating ||
         kind == ExprToken_Character || kind == ExprToken_LeftParen;
}

static bool IsUnaryOperator(u32 kind) {
  return kind == ExprToken_Amp || kind == ExprToken_Star || kind == ExprToken_Plus || kind == ExprToken_Minus ||
         kind == ExprToken_Tilde || kind == ExprToken_Bang;
}

// The current token is '('. The parenthesis is first parsed as an expression; what follows the
// ')' decides: an operand start makes it a cast ("(T)x", "(T)(x)"); anything else makes it a cast
// only for the basic type names ("(int)-1"), so "(a)-1" subtracts. A parenthesis that is not an
// expression at all ("(char *)p", "(unsigned int)x") is read as a type name.
static ExprNode *ParseParenOrCast(ExprLexer *lexer) {
  NextToken(lexer);
  LexerMark inside = MarkLexer(lexer);
  ExprNode *inner = ParseExpression(lexer);
  if (inner && TokenIs(lexer, ExprToken_RightParen)) {
    NextToken(lexer);
    bool cast = StartsOperand(lexer->token.kind) ||
                (inner->kind == ExprNode_Identifier && IsCastTypeName(inner->identifier.text, inner->identifier.length));
    if (!cast) {
      ExprNode *paren = NewNode(lexer, ExprNode_Paren);
      if (!paren) {
        FreeTree(lexer->pool, inner);
        return NULL;
      }
      paren->paren.child = inner;
      return ParsePostfixFrom(lexer, paren);
    }
  } else if (lexer->out_of_nodes || lexer->too_deep) {
    FreeTree(lexer->pool, inner);
    return Fail(lexer);
  }
  // A cast, or a parenthesis that was not an expression: read it again as a type name.
  FreeTree(lexer->pool, inner);
  lexer->failed = false;
  RestoreLexer(lexer, inside);
  ExprTypeDesc type;
  if (!ParseTypeName(lexer, &type) || !TokenIs(lexer, ExprToken_RightParen)) return Fail(lexer);
  NextToken(lexer);
  ExprNode *operand = ParseUnary(lexer, true);
  ExprNode *node = operand ? NewNode(lexer, ExprNode_Cast) : NULL;
  if (!node) {
    FreeTree(lexer->pool, operand);
    return NULL;
  }
  node->cast.type = type;
  node->cast.operand = operand;
  return node;
}

// The current token is the identifier "sizeof".
static ExprNode *ParseSizeof(ExprLexer *lexer) {
  NextToken(lexer);
  if (TokenIs(lexer, ExprToken_LeftParen)) {
    LexerMark at_paren = MarkLexer(lexer);
    NextToken(lexer);
    ExprTypeDesc type;
    if (ParseTypeName(lexer, &type) && TokenIs(lexer, ExprToken_RightParen)) {
      ExprNode *node = NewNode(lexer, ExprNode_SizeofType);
      if (!node) return NULL;
      NextToken(lexer);
      node->sizeof_type.type = type;
      return node;
    }
    RestoreLexer(lexer, at_paren);
  }
  ExprNode *operand = ParseUnary(lexer, false);
  ExprNode *node = operand ? NewNode(lexer, ExprNode_SizeofExpr) : NULL;
  if (!node) {
    FreeTree(lexer->pool, operand);
    return NULL;
  }
  node->sizeof_expr.operand = operand;
  return node;
}

static ExprNode *ParseUnaryLevel(ExprLexer *lexer, bool allow_casts) {
  if (TokenIsWord(lexer->token, "sizeof")) return ParseSizeof(lexer);
  if (allow_casts && TokenIs(lexer, ExprToken_LeftParen)) return ParseParenOrCast(lexer);
  if (IsUnaryOperator(lexer->token.kind)) {
    u32 op = lexer->token.kind;
    NextToken(lexer);
    ExprNode *operand = ParseUnary(lexer, true);
    ExprNode *node = operand ? NewNode(lexer, ExprNode_Unary) : NULL;
    if (!node) {
      FreeTree(lexer->pool, operand);
      return NULL;
    }
    node->unary.op = op;
    node->unary.operand = operand;
    return node;
  }
  return ParsePostfixFrom(lexer, ParsePrimary(lexer));
}

// Every nesting passes through here, so this is where the depth is bounded.
static ExprNode *ParseUnary(ExprLexer *lexer, bool allow_casts) {
  if (lexer->failed) return NULL;
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
    case ExprToken_PipePipe: return 1;
    case ExprToken_AmpAmp: return 2;
    case ExprToken_Pipe: return 3;
    case ExprToken_Caret: return 4;
    case ExprToken_Amp: return 5;
    case ExprToken_Equal:
    case ExprToken_NotEqual: return 6;
    case ExprToken_Less:
    case ExprToken_Greater:
    case ExprToken_LessEqual:
    case ExprToken_GreaterEqual: return 7;
    case ExprToken_ShiftLeft:
    case ExprToken_ShiftRight: return 8;
    case ExprToken_Plus:
    case ExprToken_Minus: return 9;
    case ExprToken_Star:
    case ExprToken_Slash:
    case ExprToken_Percent: return 10;
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
    NextToken(lexer);
    ExprNode *right = ParseBinary(lexer, level + 1);
    ExprNode *node = right ? NewNode(lexer, ExprNode_Binary) : NULL;
    if (!node) {
      FreeTree(lexer->pool, left);
      FreeTree(lexer->pool, right);
      return NULL;
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
  ExprNode *node = NewNode(lexer, ExprNode_Format);
  if (!node) return NULL;
  NextToken(lexer);
  LexerMark after_comma = MarkLexer(lexer);
  s32 index = TokenIs(lexer, ExprToken_Identifier) ? FindFormatSpecifier(lexer->token.text, lexer->token.length) : -1;
  if (index >= 0) {
    NextToken(lexer);
    // "p, str.len": the name starts the count expression instead.
    if (TokenIs(lexer, ExprToken_Dot) || TokenIs(lexer, ExprToken_Arrow)) {
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
    if (spec.flags & DisplayFlag_Memory) {
      // Options "/c16" (columns) and "/n256" (elements): the lexer restarts after the letter.
      while (TokenIs(lexer, ExprToken_Slash)) {
        NextToken(lexer);
        const ExprToken &option = lexer->token;
        if (option.kind != ExprToken_Identifier || option.length < 2 || (option.text[0] != 'c' && option.text[0] != 'n')) {
          FreeTree(lexer->pool, node);
          return Fail(lexer);
        }
        char letter = option.text[0];
        lexer->next = option.text + 1;
        NextToken(lexer);
        if (!TokenIs(lexer, ExprToken_Integer)) {
          FreeTree(lexer->pool, node);
          return Fail(lexer);
        }
        if (letter == 'c') {
          node->format.columns = lexer->token.integer;
          node->format.has_columns = true;
        } else {
          node->format.element_count = lexer->token.integer;
          node->format.has_count = true;
        }
        NextToken(lexer);
      }
      if (TokenIs(lexer, ExprToken_End)) return node;
      if (node->format.has_count) {
        FreeTree(lexer->pool, node);
        return Fail(lexer);
      }
    } else if (spec.flags & (DisplayFlag_Vector | DisplayFlag_Matrix)) {
      if (TokenIs(lexer, ExprToken_End)) return node;
      FreeTree(lexer->pool, node);
      return Fail(lexer);
    }
  }
  if (TokenIs(lexer, ExprToken_End)) return node;
  ExprNode *expression = ParseExpression(lexer);
  if (!expression) {
    FreeTree(lexer->pool, node);
    return NULL;
  }
  node->format.expression = expression;
  return node;
}

// [SECTION] Parse

static ExprNode *ParseCountPrefix(ExprLexer *lexer) {
  NextToken(lexer);
  bool skipped_caret = false;
  if (TokenIs(lexer, ExprToken_Caret)) {
    skipped_caret = true;
    NextToken(lexer);
  }
  u64 count;
  if (TokenIs(lexer, ExprToken_Integer))
    count = lexer->token.integer;
  else if (TokenIs(lexer, ExprToken_Star))
    count = 999999;
  else
    return Fail(lexer);
  NextToken(lexer);
  if (!TokenIs(lexer, ExprToken_RightBrace)) return Fail(lexer);
  NextToken(lexer);
  ExprNode *child = ParseExpression(lexer);
  ExprNode *node = child ? NewNode(lexer, ExprNode_Count) : NULL;
  if (!node) {
    FreeTree(lexer->pool, child);
    return NULL;
  }
  node->count.count = count;
  node->count.child = child;
  node->count.skipped_caret = skipped_caret;
  return node;
}

bool Parse(ExprPool *pool, const char *text, ExprParseResult *out) {
  ExprLexer lexer;
  InitLexer(&lexer, pool, text);
  NextToken(&lexer);
  ExprNode *tree = TokenIs(&lexer, ExprToken_LeftBrace) ? ParseCountPrefix(&lexer) : ParseExpression(&lexer);
  ExprNode *format = NULL;
  if (!lexer.failed && TokenIs(&lexer, ExprToken_Comma)) format = ParseFormat(&lexer);
  if (!lexer.failed && !TokenIs(&lexer, ExprToken_End)) Fail(&lexer);
  if (lexer.failed) {
    FreeTree(pool, tree);
    FreeTree(pool, format);
    out->tree = NULL;
    out->format = NULL;
    out->failure = lexer.out_of_nodes ? ExprParse_OutOfNodes : lexer.too_deep ? ExprParse_TooDeep : ExprParse_Syntax;
    return false;
  }
  out->tree = tree;
  out->format = format;
  out->failure = ExprParse_Ok;
  return true;
}

const char *ExprParseFailureText(u32 failure) {
  switch (failure) {
    case ExprParse_OutOfNodes: return "Expression too large (out of expression nodes)";
    case ExprParse_TooDeep: return "Expression nested too deeply";
    default: return "Parse error";
  }
}
