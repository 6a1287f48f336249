// Expressions that the engine evaluates at every stop (watch rows, quick watch): the user
// interface adds and removes them, the engine marks all of them at a stop and reports each result
// with an event of kind 3. Requests come from a fixed pool; each request's tree lives in the
// request's own node pool, so the number of watches never runs another watch out of nodes.
#pragma once
#include "base/types.h"
#include "expr/expr_node.h"

enum : u32 {
  kEvaluationRequestCapacity = 512,
  kEvaluationTextCapacity = 256,  // texts of 256 characters or more are refused (33)
};

typedef struct EvaluationRequest {
  struct EvaluationRequest *next;
  struct EvaluationRequest *previous;
  void *cookie;  // the UI's own word, handed back unchanged
  ExprNode *tree;
  ExprNode *format;
  u8 parse_failed;
  u8 needs_evaluation;
  u8 padding[6];
  char text[kEvaluationTextCapacity];
  char result[kEvaluationTextCapacity];  // why the text did not parse, when it did not
  ExprPool nodes;  // the tree's own nodes: touched by the UI thread (parse, free) and read while stopped
} EvaluationRequest;

typedef struct EvaluationRequests {
  EvaluationRequest *first;
  EvaluationRequest *last;
  EvaluationRequest *free_list;
  EvaluationRequest pool[kEvaluationRequestCapacity];
} EvaluationRequests;

void EvaluationRequestsInit(EvaluationRequests *requests);
