// The expression parser: text to an ExprNode tree plus an optional format node.
//
// Grammar, lowest precedence first (every binary level is left-associative):
//   ||   &&   |   ^   &   == !=   < > <= >=   << >>   + -   * / %
//   unary & * + - ~ !, casts, sizeof (right-associative)
//   postfix [expr] .name ->name
//   primary: identifier, integer, character or floating literal, ( expr )
// The whole text may start with a count prefix "{N}" or "{*}", and end with ", specifier".
#pragma once
#include "expr/expr_node.h"

// Unary-level productions (unary operators, casts, sizeof, parentheses, brackets) may nest this
// deep. Each level takes at least one character, so every text the engine accepts (under 256
// characters) fits; deeper text fails instead of exhausting the stack.
enum { kExprMaxDepth = 256 };

enum ExprParseFailure : u32 {
  kExprParseOk = 0,
  kExprParseSyntax = 1,      // the text is not in the language
  kExprParseOutOfNodes = 2,  // the tree needs more than kExprPoolCapacity nodes
  kExprParseTooDeep = 3,     // nesting beyond kExprMaxDepth
};

struct ExprParseResult {
  ExprNode *tree;    // null on failure
  ExprNode *format;  // the kExprNodeFormat after the comma, or null
  u32 failure;       // ExprParseFailure
};

// Parses NUL-terminated text. On failure every node taken is back in the pool, both trees are
// null and false is returned. Nodes keep pointers into text: it must outlive the tree.
bool ExprParse(ExprPool *pool, const char *text, ExprParseResult *out);

// The message shown for a failure: "Parse error", or what else went wrong.
const char *ExprParseFailureText(u32 failure);

// The 28 basic type names that make "(name)" a cast even before an operator ("(int)-1").
bool IsCastTypeName(const char *text, u32 length);
