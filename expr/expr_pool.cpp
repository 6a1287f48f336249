// The fixed node pool and FreeTree.
#include "expr/expr_node.h"

#include <string.h>

void InitExprPool(ExprPool *pool) {
  pool->free_list = NULL;
  for (u32 i = kExprPoolCapacity; i-- > 0;) {
    ExprNode *node = &pool->nodes[i];
    node->kind = ExprNode_Free;
    node->next_free = pool->free_list;
    pool->free_list = node;
  }
  pool->free_count = kExprPoolCapacity;
}

ExprNode *TakeNode(ExprPool *pool, u32 kind) {
  ExprNode *node = pool->free_list;
  if (!node) return NULL;
  pool->free_list = node->next_free;
  pool->free_count--;
  memset(node, 0, sizeof(*node));
  node->kind = kind;
  return node;
}

static void ReturnNode(ExprPool *pool, ExprNode *node) {
  node->kind = ExprNode_Free;
  node->next_free = pool->free_list;
  pool->free_list = node;
  pool->free_count++;
}

void FreeTree(ExprPool *pool, ExprNode *node) {
  if (!node || node->kind == ExprNode_Free) return;
  switch (node->kind) {
    case ExprNode_Count: FreeTree(pool, node->count.child); break;
    case ExprNode_Binary:
      FreeTree(pool, node->binary.left);
      FreeTree(pool, node->binary.right);
      break;
    case ExprNode_Unary: FreeTree(pool, node->unary.operand); break;
    case ExprNode_SizeofExpr: FreeTree(pool, node->sizeof_expr.operand); break;
    case ExprNode_Cast: FreeTree(pool, node->cast.operand); break;
    case ExprNode_Index:
      FreeTree(pool, node->index.base);
      FreeTree(pool, node->index.index);
      break;
    case ExprNode_Paren: FreeTree(pool, node->paren.child); break;
    case ExprNode_Member: FreeTree(pool, node->member.object); break;
    case ExprNode_Format: FreeTree(pool, node->format.expression); break;
    default: break;  // sizeof(type), identifiers and constants own no children
  }
  ReturnNode(pool, node);
}
