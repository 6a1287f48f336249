// ktrn-expr: the expression parser on the command line.
//   ktrn-expr parse TEXT   prints the tree as one S-expression line, or "parse error"
// Exit status: 0 parsed, 1 parse error, 2 bad usage.
#include "expr/expr_parser.h"
#include "expr/expr_print.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int Usage(void) {
  fprintf(stderr, "usage: ktrn-expr parse TEXT\n");
  return 2;
}

static int CommandParse(const char *text) {
  static ExprPool pool;  // about 40 KiB: too big for a comfortable stack frame
  InitExprPool(&pool);
  ExprParseResult result;
  if (!ExprParse(&pool, text, &result)) {
    printf("parse error\n");
    if (result.failure == kExprParseOutOfNodes)
      fprintf(stderr, "expression needs more than %d nodes\n", kExprPoolCapacity);
    else if (result.failure == kExprParseTooDeep)
      fprintf(stderr, "expression nests deeper than %d levels\n", kExprMaxDepth);
    return 1;
  }
  u64 length = PrintExpr(NULL, 0, result.tree, result.format);
  char *line = (char *)malloc(length + 1);
  if (!line) return 2;
  PrintExpr(line, length + 1, result.tree, result.format);
  printf("%s\n", line);
  free(line);
  ExprFreeTree(&pool, result.tree);
  ExprFreeTree(&pool, result.format);
  return 0;
}

int main(int argc, char **argv) {
  if (argc == 3 && strcmp(argv[1], "parse") == 0) return CommandParse(argv[2]);
  return Usage();
}
