// Expression trees as one-line S-expressions, for the ktrn-expr tool and the tests:
//   (id x) (int 0x74 5) (char 97) (double 1.5) (float 0.5) (+ L R) (u- X) (paren X) (index B I)
//   (. O name) (-> O name) (cast "unsigned int *" X) (sizeof-type "int") (sizeof X) (count 4 X)
// and after the tree, when present: (format NAME 0xFLAGS cols=C count=N EXPR), NAME "-" when the
// specifier is unnamed, EXPR "-" when there is none.
#pragma once
#include "expr/expr_node.h"

// Writes the tree and the format node (either may be null) into buffer, always NUL-terminated
// when capacity > 0, cut short when it does not fit. Returns the length the whole text needs.
u64 PrintExpr(char *buffer, u64 capacity, const ExprNode *tree, const ExprNode *format);
