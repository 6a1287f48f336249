// The children of a watch row, one index at a time: members (base classes' first), array
// elements, a pointer's pointee, the frame's variables of a group, and the rows of the views.
#include <stdio.h>
#include <string.h>

#include "expr/expr_eval_internal.h"
#include "expr/expr_row_internal.h"

static void FillChild(ExprEvalContext *context, const ExprRow *parent, const ExprValue *value, ExprRow *out) {
  ExprFillRow(context, value, parent->display_flags & kExprRowInheritedFlags, 0, out);
}

static void Locate(ExprValue *out, u32 type, u64 address) {
  memset(out, 0, sizeof *out);
  out->type = type;
  out->is_location = 1;
  out->address = address;
}

// The index-th member of the record at element_address.
static bool Member(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out) {
  const ExprEvalHost *host = context->host;
  ExprField field;
  if (!host->field_at || index > 0xFFFFFFFFu || !host->field_at(host->context, parent->element_type, (u32)index, &field))
    return false;
  snprintf(out->name, sizeof out->name, "%.*s", (int)field.name_length, field.name ? field.name : "");
  ExprValue value;
  Locate(&value, field.type, parent->element_address + field.offset);
  FillChild(context, parent, &value, out);
  return true;
}

static bool FrameVariable(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out) {
  const ExprEvalHost *host = context->host;
  const char *name = nullptr;
  ExprValue value;
  bool ok = false;
  char error[256] = "";
  if (!host->frame_variable_at || index > 0xFFFFFFFFu ||
      !host->frame_variable_at(host->context, parent->value.type == kExprTypeParamsGroup, (u32)index, &name, &value, &ok,
                               error, sizeof error))
    return false;
  snprintf(out->name, sizeof out->name, "%s", name ? name : "");
  if (!ok) {
    ExprFailRow(out, error);
    return true;
  }
  FillChild(context, parent, &value, out);
  return true;
}

bool ExprRowChild(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out) {
  if (index >= parent->child_count) return false;
  memset(out, 0, sizeof *out);
  ExprValue value;
  switch (parent->view) {
    case kExprRowAggregate: return Member(context, parent, index, out);
    case kExprRowArray: {
      u64 size = parent->element_stride ? parent->element_stride : ExprFacts(context, parent->element_type).size;
      snprintf(out->name, sizeof out->name, "[%zd]", (size_t)index);
      Locate(&value, parent->element_type, parent->element_address + index * size);
      FillChild(context, parent, &value, out);
      return true;
    }
    case kExprRowPointee: {
      const ExprEvalHost *host = context->host;
      if (host->is_class_like && host->is_class_like(host->context, parent->element_type))
        return Member(context, parent, index, out);
      snprintf(out->name, sizeof out->name, "*%s", parent->name);
      Locate(&value, parent->element_type, parent->element_address);
      FillChild(context, parent, &value, out);
      return true;
    }
    case kExprRowGroup: return FrameVariable(context, parent, index, out);
    case kExprRowMemory: ExprMemoryRow(context, parent, index, out); return true;
    case kExprRowMatrix: ExprMatrixRow(context, parent, index, out); return true;
    case kExprRowVector: ExprVectorLane(context, parent, index, out); return true;
    default: return false;
  }
}
