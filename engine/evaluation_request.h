// Expressions that the engine evaluates at every stop (watch rows, quick watch): the user
// interface adds and removes them, the engine marks all of them at a stop and reports each result
// with an event of kind 3. Requests come from a fixed pool; each request's tree lives in the
// request's own node pool, so the number of watches never runs another watch out of nodes.
#pragma once
#include "base/types.h"
#include "expr/expr_node.h"
#include "expr/expr_row.h"

enum : u32 {
  kEvaluationRequestCapacity = 1024,
  kEvaluationTextCapacity = 256,  // texts of 256 characters or more are refused (33)
  kEvaluationPathCapacity = 16,   // rows deeper than this below the expression are not shown
  kEvaluationChildRows = 32,      // child rows one request reports at a stop
  kEvaluationChildPages = 128,    // requests that report children at once (expanded rows in view)
};

// The child rows of one request whose view wants children, taken from a shared pool: most requests
// (watch rows that are not expanded) need none.
typedef struct EvaluationChildPage {
  struct EvaluationChildPage *next;  // on the free list
  ExprRow rows[kEvaluationChildRows];
} EvaluationChildPage;

// Which row of the expression's tree a request shows, and which of that row's children: the user
// interface asks for the rows it draws (a million-element array expanded costs only what is seen).
typedef struct EvaluationView {
  u32 display_flags;  // DisplayFlag bits of the window (hexadecimal display, column major display)
  u32 path_length;    // 0: the expression's own row; else the child path[0] of it, then path[1] of that...
  u64 path[kEvaluationPathCapacity];
  u64 children_first;  // the first child row wanted of the row shown
  u32 children_wanted; // at most kEvaluationChildRows; 0 for none
  u32 serial;          // the UI's number for this view: the results say which view they answer
} EvaluationView;

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
  EvaluationView view;  // set by the UI (under the model lock at a stop); read by the engine
  ExprPool nodes;  // the tree's own nodes: touched by the UI thread (parse, free) and read while stopped
  // The results, written by the engine before it posts the request's kind-3 event and read by the
  // UI under the model lock: the row shown and the children asked for.
  ExprRow row;
  u32 child_rows;  // children filled, from view.children_first on
  u32 result_serial;  // the serial of the view the results answer
  ExprRow *children;  // the page's rows while the view wants children, else null
  EvaluationChildPage *page;
} EvaluationRequest;

typedef struct EvaluationRequests {
  EvaluationRequest *first;
  EvaluationRequest *last;
  EvaluationRequest *free_list;
  EvaluationRequest *evaluating;  // the request the engine evaluates now (its removal waits for it)
  EvaluationRequest pool[kEvaluationRequestCapacity];
  EvaluationChildPage *free_pages;
  EvaluationChildPage pages[kEvaluationChildPages];
} EvaluationRequests;

void EvaluationRequestsInit(EvaluationRequests *requests);
