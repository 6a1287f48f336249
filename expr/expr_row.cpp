// Watch rows: an expression evaluated, its format specifier applied (radix, count, or one of the
// views), and the row's three texts and its children's shape decided from the value's type.
#include <stdio.h>
#include <string.h>

#include "expr/expr_eval_internal.h"
#include "expr/expr_row_internal.h"
#include "expr/format_spec.h"
#include "expr/value_format.h"

void ExprFailRow(ExprRow *out, const char *message) {
  out->failed = 1;
  out->child_count = 0;
  snprintf(out->value_text, sizeof out->value_text, "%s", message);
}

bool ExprViewAddress(ExprEvalContext *context, const ExprValue *value, u64 *out) {
  ExprTypeFacts facts = ExprFacts(context, value->type);
  if (facts.kind == kExprTypeArray && value->is_location) {
    *out = value->address;
    return true;
  }
  u32 basic;
  BasicClass c = ExprClassOf(context, value->type, &basic);
  bool integral = c.size && !c.is_float && (c.size == 8 || !value->is_location);
  if (facts.kind != kExprTypePointer && !integral) return false;
  ExprValue loaded;
  if (ExprLoadValue(context, value, &loaded) != kExprEvalOk) return false;
  *out = ExprValueBits(context, &loaded);
  return true;
}

// The number of members field_at gives for a type.
static u64 CountFields(ExprEvalContext *context, u32 type) {
  const ExprEvalHost *host = context->host;
  if (!host->field_at) return 0;
  ExprField field;
  u64 count = 0;
  while (count < 0xFFFFFFFFu && host->field_at(host->context, type, (u32)count, &field)) count++;
  return count;
}

static u64 CountFrameVariables(ExprEvalContext *context, bool parameters) {
  const ExprEvalHost *host = context->host;
  if (!host->frame_variable_at) return 0;
  u64 count = 0;
  const char *name;
  ExprValue value;
  bool ok;
  char error[8];
  while (count < 0xFFFFFFFFu && host->frame_variable_at(host->context, parameters, (u32)count, &name, &value, &ok, error, sizeof error))
    count++;
  return count;
}

// A pointer's children: the pointee's members for a class, one child for anything readable else.
static void FillPointer(ExprEvalContext *context, const ExprValue *value, u64 count, ExprRow *out) {
  ExprTypeFacts facts = ExprFacts(context, value->type);
  ExprValue loaded;
  if (ExprLoadValue(context, value, &loaded) != kExprEvalOk) return;  // the text says unreadable
  out->element_type = facts.element;
  out->element_address = ExprValueBits(context, &loaded);
  if (count >= 2) {
    out->view = kExprRowArray;
    out->element_count = out->child_count = count;
    return;
  }
  out->view = kExprRowPointee;
  const ExprEvalHost *host = context->host;
  if (host->is_class_like && host->is_class_like(host->context, facts.element)) {
    out->child_count = CountFields(context, facts.element);
    return;
  }
  ExprTypeFacts pointee = ExprFacts(context, facts.element);
  out->child_count = pointee.kind == kExprTypeNone || facts.element == kTypeVoid ? 0 : 1;
}

void ExprFillRow(ExprEvalContext *context, const ExprValue *value, u32 display_flags, u64 count, ExprRow *out) {
  out->value = *value;
  out->display_flags = display_flags;
  out->view = kExprRowPlain;
  if (value->type == kExprTypeLocalsGroup || value->type == kExprTypeParamsGroup) {
    out->view = kExprRowGroup;
    out->child_count = CountFrameVariables(context, value->type == kExprTypeParamsGroup);
    snprintf(out->value_text, sizeof out->value_text, "{ ... }");
    return;
  }
  ExprTypeText(context, value->type, out->type_text, sizeof out->type_text);
  if (ExprFormatValue(context, value, display_flags, out->value_text, sizeof out->value_text) == kExprFormatUnreadable) {
    out->unreadable = 1;
    return;
  }
  ExprTypeFacts facts = ExprFacts(context, value->type);
  switch (facts.kind) {
    case kExprTypeRecord:
    case kExprTypeUnion:
      out->view = kExprRowAggregate;
      out->element_type = value->type;
      out->element_address = value->address;
      out->child_count = CountFields(context, value->type);
      break;
    case kExprTypeArray: {
      u64 element_size = ExprFacts(context, facts.element).size;
      out->view = kExprRowArray;
      out->element_type = facts.element;
      out->element_address = value->address;
      out->element_count = out->child_count = count ? count : element_size ? facts.size / element_size : 0;
      break;
    }
    case kExprTypePointer: FillPointer(context, value, count, out); break;
    case kExprTypeBasic:
      // A vector register shows its lanes as floats until a specifier says otherwise.
      if (value->type == kExprTypeVector128 || value->type == kExprTypeVector256 || value->type == kExprTypeVector512) {
        char text[kExprRowValueCapacity];
        memcpy(text, out->value_text, sizeof text);
        ExprApplyVector(context, value, 1, out);
        memcpy(out->value_text, text, sizeof text);
      }
      break;
    default: break;
  }
}

// [SECTION] Specifiers

static u32 CombineFlags(u32 window, u32 specifier) {
  const u32 radix = kDisplayFlagHexLower | kDisplayFlagHexUpper | kDisplayFlagBinary | kDisplayFlagDecimal;
  if (specifier & radix) window &= ~radix;
  return window | specifier;
}

// The element count of a specifier's expression: an integer, read from the watched object's fields
// when it names them. False with the message in the row.
bool ExprEvaluateCount(ExprEvalContext *context, const ExprNode *expression, const ExprValue *object, u64 *out,
                          char *message, u32 size) {
  ExprValue value;
  context->object_scope = object;
  u32 result = ExprEvaluate(context, expression, &value);
  context->object_scope = nullptr;
  if (result != kExprEvalOk) {
    snprintf(message, size, "%s", context->error);
    return false;
  }
  const ExprNode *node = expression;
  while (node->kind == kExprNodeParen) node = node->paren.child;
  if (ExprLoadValue(context, &value, &value) != kExprEvalOk) {
    bool field = node->kind == kExprNodeMember || node->kind == kExprNodeIdentifier;
    snprintf(message, size, "%s", field ? "Unable to read member for format specifier field" : context->error);
    return false;
  }
  u32 basic;
  BasicClass c = ExprClassOf(context, value.type, &basic);
  if (!c.size || c.is_float) {
    snprintf(message, size, "Expected integer value for format specifier");
    return false;
  }
  s64 count = (s64)ExprValueBits(context, &value);
  *out = count < 0 ? 0 : (u64)count;
  return true;
}

void ExprEvaluateRow(ExprEvalContext *context, const char *name, const ExprNode *tree, const ExprNode *format,
                     u32 display_flags, ExprRow *out) {
  memset(out, 0, sizeof *out);
  snprintf(out->name, sizeof out->name, "%s", name ? name : "");
  ExprValue value;
  if (ExprEvaluate(context, tree, &value) != kExprEvalOk) return ExprFailRow(out, context->error);
  u64 count = tree->kind == kExprNodeCountPrefix ? tree->count.count : 0;
  if (!format) return ExprFillRow(context, &value, display_flags, count, out);
  u32 flags = format->format.flags;
  u32 combined = CombineFlags(display_flags, flags & kExprRowInheritedFlags);
  out->display_flags = combined;
  if (flags & (kDisplayFlagString | kDisplayFlagWideString)) {
    out->value = value;
    return ExprApplyString(context, &value, format, out);
  }
  if (flags & kDisplayFlagMatrix) return ExprApplyMatrix(context, &value, format, out);
  if (flags & kDisplayFlagMemory) return ExprApplyMemory(context, &value, format, out);
  if (flags & kDisplayFlagVector) {
    ExprTypeText(context, value.type, out->type_text, sizeof out->type_text);
    ExprApplyVector(context, &value, format->format.vector_kind, out);
    return;
  }
  if (format->format.expression) {
    char message[kExprRowValueCapacity];
    if (!ExprEvaluateCount(context, format->format.expression, &value, &count, message, sizeof message)) {
      ExprTypeText(context, value.type, out->type_text, sizeof out->type_text);
      return ExprFailRow(out, message);
    }
    u32 kind = ExprFacts(context, value.type).kind;
    if (kind != kExprTypePointer && kind != kExprTypeArray) {
      ExprTypeText(context, value.type, out->type_text, sizeof out->type_text);
      return ExprFailRow(out, "Format specifier for specifying number of elements does not apply to this type.");
    }
  }
  ExprFillRow(context, &value, combined, count, out);
}

u32 ExprRowLine(const ExprRow *row, char *out, u32 size) {
  if (!size) return 0;
  int n = snprintf(out, size, "%s;%s;%s", row->name, row->value_text, row->type_text);
  if (n < 0) n = 0;
  return (u32)n >= size ? size - 1 : (u32)n;
}
