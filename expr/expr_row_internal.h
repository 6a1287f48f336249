// What the watch-row files share: filling a row from a value, and the views a format specifier
// makes (strings, memory, matrices, vector lanes). Not for use outside expr/.
#pragma once
#include "expr/expr_row.h"

// The display bits a row's children inherit: radix and HRESULT, not the view of the parent.
enum : u32 { kExprRowInheritedFlags = 0x400 | 0x800 | 0x10000 | 0x40000 | 0x80000 };

// Fills out (already named) from an evaluated value: view, texts, children. count: the element
// count of a specifier or a "{N}" prefix, 0 when none.
void ExprFillRow(ExprEvalContext *context, const ExprValue *value, u32 display_flags, u64 count, ExprRow *out);
// Marks a row failed with a message; the type text stays as it is.
void ExprFailRow(ExprRow *out, const char *message);
// The address a view starts at: a pointer's value, an array's place, an integer that is not a
// variable (a literal, a register) or a 64-bit integer. False when the value gives none.
bool ExprViewAddress(ExprEvalContext *context, const ExprValue *value, u64 *out);

// A specifier's count expression as an element count; its names may be fields of object (the
// watched value). False with the message in message.
bool ExprEvaluateCount(ExprEvalContext *context, const ExprNode *expression, const ExprValue *object, u64 *out,
                       char *message, u32 size);

// The views of a format node; each fills out or fails it with the message.
void ExprApplyString(ExprEvalContext *context, const ExprValue *value, const ExprNode *format, ExprRow *out);
void ExprApplyMatrix(ExprEvalContext *context, const ExprValue *value, const ExprNode *format, ExprRow *out);
void ExprApplyMemory(ExprEvalContext *context, const ExprValue *value, const ExprNode *format, ExprRow *out);
// kind: 1..10 as the vector specifiers number them.
void ExprApplyVector(ExprEvalContext *context, const ExprValue *value, u32 kind, ExprRow *out);

// The children of the views.
void ExprMemoryRow(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out);
void ExprMatrixRow(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out);
void ExprVectorLane(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out);
