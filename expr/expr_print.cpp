#include "expr/expr_print.h"

#include "expr/expr_token.h"
#include "expr/format_spec.h"

#include <stdio.h>
#include <string.h>

// Appends into a fixed buffer and keeps counting past its end, so callers can size a retry.
struct TextWriter {
  char *buffer;
  u64 capacity;
  u64 length;
};

static void WriteChars(TextWriter *w, const char *text, u64 count) {
  for (u64 i = 0; i < count; i++) {
    if (w->length + 1 < w->capacity) w->buffer[w->length] = text[i];
    w->length++;
  }
}

static void WriteText(TextWriter *w, const char *text) { WriteChars(w, text, strlen(text)); }

static void WriteUnsigned(TextWriter *w, u64 value, u32 base) {
  char digits[24];
  int count = 0;
  do {
    digits[count++] = "0123456789abcdef"[value % base];
    value /= base;
  } while (value);
  if (base == 16) WriteText(w, "0x");
  while (count > 0) WriteChars(w, &digits[--count], 1);
}

// The type as typed, re-lexed so that blanks become single spaces: "unsigned int *",
// "char **", "Foo * const *".
static void WriteTypeText(TextWriter *w, const ExprTypeDesc &type) {
  ExprLexer lexer;
  ExprInitLexer(&lexer, nullptr, type.text);
  const char *end = type.text + type.text_length;
  bool previous_was_star = false;
  bool first = true;
  WriteText(w, "\"");
  for (ExprNextToken(&lexer); lexer.token.kind != kExprTokenEnd && lexer.token.text < end; ExprNextToken(&lexer)) {
    bool star = lexer.token.kind == kExprTokenStar;
    if (!first && !(star && previous_was_star)) WriteText(w, " ");
    WriteChars(w, lexer.token.text, lexer.token.length);
    previous_was_star = star;
    first = false;
  }
  WriteText(w, "\"");
}

static void WriteNode(TextWriter *w, const ExprNode *node) {
  if (!node) {
    WriteText(w, "-");
    return;
  }
  char number[40];
  switch (node->kind) {
    case kExprNodeCountPrefix:
      WriteText(w, "(count ");
      WriteUnsigned(w, node->count.count, 10);
      WriteText(w, " ");
      WriteNode(w, node->count.child);
      break;
    case kExprNodeBinary:
      WriteText(w, "(");
      WriteText(w, ExprTokenText(node->binary.op));
      WriteText(w, " ");
      WriteNode(w, node->binary.left);
      WriteText(w, " ");
      WriteNode(w, node->binary.right);
      break;
    case kExprNodeUnary:
      WriteText(w, "(u");
      WriteText(w, ExprTokenText(node->unary.op));
      WriteText(w, " ");
      WriteNode(w, node->unary.operand);
      break;
    case kExprNodeSizeofType:
      WriteText(w, "(sizeof-type ");
      WriteTypeText(w, node->sizeof_type.type);
      break;
    case kExprNodeSizeofExpr:
      WriteText(w, "(sizeof ");
      WriteNode(w, node->sizeof_expr.operand);
      break;
    case kExprNodeCast:
      WriteText(w, "(cast ");
      WriteTypeText(w, node->cast.type);
      WriteText(w, " ");
      WriteNode(w, node->cast.operand);
      break;
    case kExprNodeIndex:
      WriteText(w, "(index ");
      WriteNode(w, node->index.base);
      WriteText(w, " ");
      WriteNode(w, node->index.index);
      break;
    case kExprNodeIdentifier:
      WriteText(w, "(id ");
      WriteChars(w, node->identifier.text, node->identifier.length);
      break;
    case kExprNodeParen:
      WriteText(w, "(paren ");
      WriteNode(w, node->paren.child);
      break;
    case kExprNodeInteger:
      WriteText(w, "(int ");
      WriteUnsigned(w, node->integer.type, 16);
      WriteText(w, " ");
      WriteUnsigned(w, node->integer.value, 10);
      break;
    case kExprNodeCharacter:
      WriteText(w, "(char ");
      WriteUnsigned(w, node->character.value, 10);
      break;
    case kExprNodeFloating:
      WriteText(w, node->floating.type == kExprLiteralFloat32 ? "(float " : "(double ");
      snprintf(number, sizeof(number), "%.17g", node->floating.value);
      WriteText(w, number);
      break;
    case kExprNodeMember:
      WriteText(w, "(");
      WriteText(w, ExprTokenText(node->member.op));
      WriteText(w, " ");
      WriteNode(w, node->member.object);
      WriteText(w, " ");
      WriteChars(w, node->member.name, node->member.name_length);
      break;
    case kExprNodeFormat: {
      s32 index = node->format.specifier;
      WriteText(w, "(format ");
      WriteText(w, index >= 0 && index < kFormatSpecifierCount ? kFormatSpecifiers[index].name : "-");
      WriteText(w, " ");
      WriteUnsigned(w, node->format.flags, 16);
      WriteText(w, " cols=");
      WriteUnsigned(w, node->format.columns, 10);
      WriteText(w, " count=");
      WriteUnsigned(w, node->format.element_count, 10);
      WriteText(w, " ");
      WriteNode(w, node->format.expression);
      break;
    }
    default:
      WriteText(w, "(?");
      break;
  }
  WriteText(w, ")");
}

u64 PrintExpr(char *buffer, u64 capacity, const ExprNode *tree, const ExprNode *format) {
  TextWriter w = {buffer, capacity, 0};
  WriteNode(&w, tree);
  if (format) {
    WriteText(&w, " ");
    WriteNode(&w, format);
  }
  if (capacity > 0) buffer[w.length < capacity ? w.length : capacity - 1] = 0;
  return w.length;
}
