// The fixed node pool and ExprFreeTree.
#include "expr/expr_node.h"

#include <string.h>

void InitExprPool(ExprPool *pool) {
  pool->free_list = nullptr;
  for (u32 i = kExprPoolCapacity; i-- > 0;) {
    ExprNode *node = &pool->nodes[i];
    node->kind = kExprNodeFree;
    node->next_free = pool->free_list;
    pool->free_list = node;
  }
  pool->free_count = kExprPoolCapacity;
}

ExprNode *ExprTakeNode(ExprPool *pool, u32 kind) {
  ExprNode *node = pool->free_list;
  if (!node) return nullptr;
  pool->free_list = node->next_free;
  pool->free_count--;
  memset(node, 0, sizeof(*node));
  node->kind = kind;
  return node;
}

static void ReturnNode(ExprPool *pool, ExprNode *node) {
  node->kind = kExprNodeFree;
  node->next_free = pool->free_list;
  pool->free_list = node;
  pool->free_count++;
}

void ExprFreeTree(ExprPool *pool, ExprNode *node) {
  if (!node || node->kind == kExprNodeFree) return;
  switch (node->kind) {
    case kExprNodeCountPrefix: ExprFreeTree(pool, node->count.child); break;
    case kExprNodeBinary:
      ExprFreeTree(pool, node->binary.left);
      ExprFreeTree(pool, node->binary.right);
      break;
    case kExprNodeUnary: ExprFreeTree(pool, node->unary.operand); break;
    case kExprNodeSizeofExpr: ExprFreeTree(pool, node->sizeof_expr.operand); break;
    case kExprNodeCast: ExprFreeTree(pool, node->cast.operand); break;
    case kExprNodeIndex:
      ExprFreeTree(pool, node->index.base);
      ExprFreeTree(pool, node->index.index);
      break;
    case kExprNodeParen: ExprFreeTree(pool, node->paren.child); break;
    case kExprNodeMember: ExprFreeTree(pool, node->member.object); break;
    case kExprNodeFormat: ExprFreeTree(pool, node->format.expression); break;
    default: break;  // sizeof(type), identifiers and constants own no children
  }
  ReturnNode(pool, node);
}
