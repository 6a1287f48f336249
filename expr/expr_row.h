// Watch rows: an expression's evaluated value with its format specifier applied, turned into the
// three texts a watch row shows (name, value, type), and the rows of its children.
//
// Portable, like the evaluator: everything about the target goes through the context's host. A
// row keeps the value it was made from, so its children can be produced later, one range at a
// time (a million-element array never produces more rows than are asked for), as long as the
// target has not run since and the host answers for the same frame.
#pragma once
#include "expr/expr_eval.h"

enum : u32 {
  kExprRowNameCapacity = 256,
  kExprRowValueCapacity = 512,  // longer texts (strings, memory rows) are cut
  kExprRowTypeCapacity = 256,
};

// How a row's value is shown, from its type and its format specifier.
enum ExprRowView : u32 {
  kExprRowPlain = 0,      // a basic value, pointer or enum: one text
  kExprRowAggregate = 1,  // structure, class or union: "{ ... }", children are its members
  kExprRowArray = 2,      // an array, or a pointer with an element count: children "[0]".. "[N-1]"
  kExprRowPointee = 3,    // a pointer that expands to its pointee (one child, or the members of a class)
  kExprRowString = 4,     // "str", "wstr": a string view
  kExprRowMemory = 5,     // "db" .. "dyd": children are the memory rows
  kExprRowMatrix = 6,     // "mtx", "mtx4x3", "mtx3x4": children are the matrix rows
  kExprRowVector = 7,     // vector lanes ("ps" .. "epu64X", or a vector register): children are lanes
  kExprRowGroup = 8,      // "__locals" / "__params": children are the frame's variables
};

struct ExprRow {
  ExprValue value;      // as evaluated, before the specifier; children are made from it
  u32 view;             // ExprRowView
  u32 display_flags;    // DisplayFlag bits in force: the window's combined with the specifier's
  u64 child_count;      // 0 when the row cannot be expanded
  u64 element_count;    // arrays, counted pointers, strings, memory views: elements to show
  u32 memory_kind;      // memory views: 1..10
  u32 vector_kind;      // vector lanes: 1..10
  u32 matrix_kind;      // matrices: 0..2
  u32 columns;          // memory views: elements a row shows; matrices: cells a row shows
  u32 element_type;     // the children's type: members' owner, array element, pointee, lane or cell type
  u64 element_address;  // where the children start: the object, first element or pointee, or the view's start
  u8 failed;            // value_text holds the message; the type text may be empty
  u8 unreadable;        // the value's memory could not be read ("??? (unable to read process memory)")
  u8 padding[2];
  u32 element_stride;   // arrays: bytes from one child to the next (a matrix's column); 0: the element's size
  char name[kExprRowNameCapacity];
  char value_text[kExprRowValueCapacity];
  char type_text[kExprRowTypeCapacity];
};

// Evaluates a tree and its format node (may be null) into a row named name. A failure is a row
// too: failed set and value_text holding the evaluator's or the specifier's message; an
// identifier that is not found leaves the type text empty. display_flags are the window's
// (kDisplayFlagHexLower and the like); the specifier's are combined with them.
void ExprEvaluateRow(ExprEvalContext *context, const char *name, const ExprNode *tree, const ExprNode *format,
                     u32 display_flags, ExprRow *out);

// The index-th child (below parent->child_count) of a row, with the parent's display flags. False
// when index is out of range; a child whose memory cannot be read is still a row (unreadable).
bool ExprRowChild(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out);

// The row as one line "name;value;type"; returns its length (cut at size - 1).
u32 ExprRowLine(const ExprRow *row, char *out, u32 size);
