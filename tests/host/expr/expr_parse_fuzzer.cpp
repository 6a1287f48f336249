// Arbitrary bytes into Parse: it must never crash, hang or lose a node. After each input the
// pool must be whole again; a leak aborts.
#include "expr/expr_parser.h"
#include "expr/expr_print.h"

#include <stdlib.h>
#include <string.h>

static ExprPool g_pool;
static bool g_pool_ready;
static char g_text[4096 + 1];
static char g_printed[1 << 16];

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, size_t size) {
  if (!g_pool_ready) {
    InitExprPool(&g_pool);
    g_pool_ready = true;
  }
  // The parser takes NUL-terminated text; an embedded NUL simply ends it early.
  if (size > sizeof(g_text) - 1) size = sizeof(g_text) - 1;
  memcpy(g_text, data, size);
  g_text[size] = 0;
  ExprParseResult result;
  if (ExprParse(&g_pool, g_text, &result)) {
    if (!result.tree) abort();
    PrintExpr(g_printed, sizeof(g_printed), result.tree, result.format);  // walks every node
    ExprFreeTree(&g_pool, result.tree);
    ExprFreeTree(&g_pool, result.format);
  } else if (result.tree || result.format || result.failure == kExprParseOk) {
    abort();
  }
  if (g_pool.free_count != kExprPoolCapacity) abort();
  // The free list itself must hold every node exactly once.
  u32 listed = 0;
  for (ExprNode *node = g_pool.free_list; node && listed <= kExprPoolCapacity; node = node->next_free) listed++;
  if (listed != kExprPoolCapacity) abort();
  return 0;
}
