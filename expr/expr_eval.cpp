// The evaluator: the node kinds (literals, names, casts, sizeof, members, indexes, unary operators)
// and the entry points. Values and conversions are in expr_values.cpp, binary operators in
// expr_binary.cpp, names in expr_names.cpp.
#include "expr/expr_eval.h"

#include <stdio.h>
#include <string.h>

#include "expr/expr_eval_internal.h"
#include "expr/expr_token.h"
#include "expr/value_format.h"

enum : u32 { kMaxEvalDepth = 512 };

// [SECTION] Node kinds

u32 ExprEvaluateLoaded(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  u32 result = ExprEvaluateNode(context, node, out);
  if (result != kExprEvalOk) return result;
  return ExprLoadValue(context, out, out);
}

// The basic type a cast or sizeof names with keywords alone; 0 when it names a type by name.
static u32 BasicTypeOfKeywords(const ExprTypeDesc *desc) {
  u32 k = desc->keywords;
  if (desc->name) return 0;
  bool is_unsigned = k & kExprTypeKeywordUnsigned;
  if (k & kExprTypeKeywordDouble) return kTypeDouble;
  if (k & kExprTypeKeywordFloat) return kTypeFloat;
  if (k & kExprTypeKeywordChar) return is_unsigned ? 0x20 : (k & kExprTypeKeywordSigned) ? 0x10 : 0x70;
  if (k & kExprTypeKeywordShort) return is_unsigned ? 0x73 : 0x72;
  if (k & kExprTypeKeywordLong) {
    if (desc->long_count >= 2) return is_unsigned ? 0x77 : 0x76;
    return is_unsigned ? 0x22 : 0x12;
  }
  if (k & (kExprTypeKeywordInt | kExprTypeKeywordSigned | kExprTypeKeywordUnsigned)) return is_unsigned ? 0x75 : 0x74;
  if (k & kExprTypeKeywordVoid) return 0x03;
  return 0;
}

// The type a cast or sizeof names, pointer levels included; 0 when it is not found.
static u32 LookUpType(ExprEvalContext *context, const ExprTypeDesc *desc) {
  u32 type = BasicTypeOfKeywords(desc);
  const ExprEvalHost *host = context->host;
  if (!type && desc->name && host->find_type) type = host->find_type(host->context, desc->name, desc->name_length);
  if (!type) return 0;
  for (u32 i = 0; i < desc->pointer_depth; i++) {
    u32 pointer = type == 0x03 ? kPointerMode64 | 0x03 : ExprPointerTo(context, type);
    if (!pointer) return 0;
    type = pointer;
  }
  return type;
}

static u32 EvaluateCast(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  u32 type = LookUpType(context, &node->cast.type);
  if (!type) return ExprFail(context, "Type name not found");
  ExprValue value;
  u32 result = ExprEvaluateNode(context, node->cast.operand, &value);
  if (result != kExprEvalOk) return result;
  ExprTypeFacts to = ExprFacts(context, type), from = ExprFacts(context, value.type);
  u32 from_basic;
  BasicClass from_class = ExprClassOf(context, value.type, &from_basic);
  if (to.kind == kExprTypePointer) {
    u64 address;
    if (from.kind == kExprTypeArray && value.is_location) {
      address = value.address;
    } else if (from.kind == kExprTypePointer) {
      if (ExprLoadValue(context, &value, &value) != kExprEvalOk) return ExprFail(context, "Unable to read process memory");
      address = ExprValueBits(context, &value);
    } else if (from_class.size && !from_class.is_float) {
      if (ExprLoadValue(context, &value, &value) != kExprEvalOk) return kExprEvalFailed;
      address = ExprValueBits(context, &value);
    } else {
      return ExprFail(context, "Cannot cast this type (expecting pointer, array, or integer literal)");
    }
    ExprSetInteger(out, type, {8, false, false}, address);
    return kExprEvalOk;
  }
  u32 to_basic;
  BasicClass to_class = ExprClassOf(context, type, &to_basic);
  if (!to_class.size) return ExprFail(context, "Cannot cast expression to this type");
  if (!from_class.size && from.kind != kExprTypePointer) return ExprFail(context, "Cannot cast expression of this type");
  if (ExprLoadValue(context, &value, &value) != kExprEvalOk) return kExprEvalFailed;
  ExprConvertValue(context, &value, type, out);
  return kExprEvalOk;
}

static u32 EvaluateSizeof(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  u64 size;
  const ExprTypeDesc *desc = &node->sizeof_type.type;
  u32 type = node->kind == kExprNodeSizeofType ? LookUpType(context, desc) : 0;
  // "sizeof(x)" reads as a type name; when no type has the name, it is the variable's size.
  bool variable = !type && node->kind == kExprNodeSizeofType && desc->name && !desc->keywords && !desc->pointer_depth;
  if (node->kind == kExprNodeSizeofType && !variable) {
    if (!type) return ExprFail(context, "Type name not found");
    size = ExprFacts(context, type).size;
  } else {
    ExprValue value;
    ExprNode name;
    memset(&name, 0, sizeof name);
    name.kind = kExprNodeIdentifier;
    if (variable) name.identifier.text = desc->name, name.identifier.length = desc->name_length;
    u32 result = variable ? ExprEvaluateIdentifier(context, &name, &value) : ExprEvaluateNode(context, node->sizeof_expr.operand, &value);
    if (result != kExprEvalOk && variable) return ExprFail(context, "Type name not found");
    if (result != kExprEvalOk) return result;
    ExprTypeFacts facts = ExprFacts(context, value.type);
    if (facts.kind == kExprTypeNone || !facts.size) return ExprFail(context, "sizeof not supported for this type of expression");
    size = facts.size;
  }
  ExprSetInteger(out, kTypeUInt64, ExprClassOfBasic(kTypeUInt64), size);
  return kExprEvalOk;
}

// The element address of base[index] or *(base + 0): a pointer base is read first.
static u32 ElementOf(ExprEvalContext *context, ExprValue *base, s64 index, ExprValue *out) {
  ExprTypeFacts facts = ExprFacts(context, base->type);
  u64 address;
  if (facts.kind == kExprTypeArray) {
    if (!base->is_location) return ExprFail(context, "Expression is not a pointer or array type");
    address = base->address;
  } else {
    if (ExprLoadValue(context, base, base) != kExprEvalOk) return kExprEvalFailed;
    address = ExprValueBits(context, base);
  }
  u64 element_size = ExprFacts(context, facts.element).size;
  memset(out, 0, sizeof *out);
  out->type = facts.element;
  out->is_location = 1;
  out->address = address + (u64)index * element_size;
  return kExprEvalOk;
}

static u32 EvaluateIndex(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  ExprValue base, index;
  u32 result = ExprEvaluateNode(context, node->index.base, &base);
  if (result == kExprEvalOk) result = ExprEvaluateLoaded(context, node->index.index, &index);
  if (result != kExprEvalOk) return result;
  u32 basic;
  BasicClass index_class = ExprClassOf(context, index.type, &basic);
  if (!index_class.size || index_class.is_float)
    return ExprFail(context, "Index type is not an integer constant, integral type, or enum type");
  u32 kind = ExprFacts(context, base.type).kind;
  if (kind != kExprTypePointer && kind != kExprTypeArray) return ExprFail(context, "Expression is not a pointer or array type");
  return ElementOf(context, &base, (s64)ExprValueBits(context, &index), out);
}

static u32 EvaluateMember(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  ExprValue object;
  u32 result = ExprEvaluateNode(context, node->member.object, &object);
  if (result != kExprEvalOk) return result;
  ExprTypeFacts facts = ExprFacts(context, object.type);
  if (node->member.op == kExprTokenDot) {
    if (facts.kind == kExprTypePointer) return ExprFail(context, "Expression is pointer type (dot operator does not apply)");
  } else {
    if (facts.kind != kExprTypePointer) return ExprFail(context, "Expected '.' but got '->'");
    if (ElementOf(context, &object, 0, &object) != kExprEvalOk) return kExprEvalFailed;
    facts = ExprFacts(context, object.type);
  }
  if (facts.kind != kExprTypeRecord && facts.kind != kExprTypeUnion) return ExprFail(context, "Expected struct or union type");
  if (!object.is_location) return ExprFail(context, "Operator does not apply to type");
  u64 offset = 0;
  u32 field_type = 0;
  const ExprEvalHost *host = context->host;
  if (!host->find_field ||
      !host->find_field(host->context, object.type, node->member.name, node->member.name_length, &offset, &field_type)) {
    if (facts.kind == kExprTypeUnion) return ExprFail(context, "Union field not found");
    return ExprFail(context, "Structure field '%.*s' not found", (int)node->member.name_length, node->member.name);
  }
  memset(out, 0, sizeof *out);
  out->type = field_type;
  out->is_location = 1;
  out->address = object.address + offset;
  return kExprEvalOk;
}

static u32 EvaluateUnary(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  ExprValue value;
  u32 result = ExprEvaluateNode(context, node->unary.operand, &value);
  if (result != kExprEvalOk) return result;
  u32 op = node->unary.op;
  ExprTypeFacts facts = ExprFacts(context, value.type);
  if (op == kExprTokenAmp) {
    ExprBitField field;
    if (!value.is_location || ExprIsBitField(context, value.type, &field)) return ExprFail(context, "Address-of operator requires lvalue type");
    u32 pointer = ExprPointerTo(context, value.type);
    if (!pointer) return ExprFail(context, "Address-of operator requires lvalue type");
    ExprSetInteger(out, pointer, {8, false, false}, value.address);
    return kExprEvalOk;
  }
  if (op == kExprTokenStar) {
    if (facts.kind != kExprTypePointer && facts.kind != kExprTypeArray) {
      char name[128];
      ExprTypeText(context, value.type, name, sizeof name);
      return ExprFail(context, "Cannot dereference non-pointer type (%s)", name);
    }
    return ElementOf(context, &value, 0, out);
  }
  if (ExprLoadValue(context, &value, &value) != kExprEvalOk) return kExprEvalFailed;
  u32 basic;
  BasicClass c = ExprClassOf(context, value.type, &basic);
  if (op == kExprTokenBang) {
    bool truth;
    if (!ExprTruthOf(context, &value, &truth)) return ExprFail(context, "Unary operand '!' requires arithmetic or pointer type");
    ExprSetInteger(out, kTypeBool8, ExprClassOfBasic(kTypeBool8), truth ? 0 : 1);
    return kExprEvalOk;
  }
  if (op == kExprTokenTilde) {
    if (!c.size || c.is_float) return ExprFail(context, "Unary operand '~' requires integral type");
    ExprSetInteger(out, basic, c, ~ExprValueBits(context, &value));
    return kExprEvalOk;
  }
  char sign = op == kExprTokenPlus ? '+' : '-';
  if (!c.size) return ExprFail(context, "Unary operand '%c' requires arithmetic type", sign);
  if (sign == '+') {
    *out = value;
    out->type = basic;
  } else if (c.is_float) {
    ExprSetFloating(out, basic, -ExprFloatingOf(context, &value, c));
  } else {
    ExprSetInteger(out, basic, c, 0 - ExprValueBits(context, &value));
  }
  return kExprEvalOk;
}

u32 ExprEvaluateNode(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  if (!node) return ExprFail(context, "Parse error");
  if (++context->depth > kMaxEvalDepth) {
    context->depth--;
    return ExprFail(context, "Expression nested too deeply");
  }
  u32 result = kExprEvalOk;
  switch (node->kind) {
    case kExprNodeInteger:
      ExprSetInteger(out, node->integer.type, ExprClassOfBasic(node->integer.type), node->integer.value);
      break;
    case kExprNodeCharacter: ExprSetInteger(out, kTypeChar, ExprClassOfBasic(kTypeChar), node->character.value); break;
    case kExprNodeFloating: ExprSetFloating(out, node->floating.type, node->floating.value); break;
    case kExprNodeParen: result = ExprEvaluateNode(context, node->paren.child, out); break;
    case kExprNodeCountPrefix: result = ExprEvaluateNode(context, node->count.child, out); break;
    case kExprNodeIdentifier: result = ExprEvaluateIdentifier(context, node, out); break;
    case kExprNodeUnary: result = EvaluateUnary(context, node, out); break;
    case kExprNodeBinary: result = ExprEvaluateBinary(context, node, out); break;
    case kExprNodeCast: result = EvaluateCast(context, node, out); break;
    case kExprNodeSizeofType:
    case kExprNodeSizeofExpr: result = EvaluateSizeof(context, node, out); break;
    case kExprNodeIndex: result = EvaluateIndex(context, node, out); break;
    case kExprNodeMember: result = EvaluateMember(context, node, out); break;
    default: result = ExprFail(context, "Parse error"); break;
  }
  context->depth--;
  return result;
}

u32 ExprEvaluate(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  context->error[0] = 0;
  context->depth = 0;
  memset(out, 0, sizeof *out);
  return ExprEvaluateNode(context, node, out);
}

u32 ExprEvaluateToBoolean(ExprEvalContext *context, const ExprNode *node, bool *out) {
  ExprValue value;
  u32 result = ExprEvaluate(context, node, &value);
  if (result == kExprEvalOk) result = ExprLoadValue(context, &value, &value);
  if (result != kExprEvalOk) return result;
  if (!ExprTruthOf(context, &value, out)) return ExprFail(context, "Unable to convert expression to boolean result");
  return kExprEvalOk;
}

u32 ExprEvaluateAs(ExprEvalContext *context, const ExprNode *node, u32 wanted, void *out, u32 size) {
  ExprValue value, converted;
  u32 result = ExprEvaluate(context, node, &value);
  if (result == kExprEvalOk) result = ExprLoadValue(context, &value, &value);
  u64 wanted_size = ExprFacts(context, wanted).size;
  if (result != kExprEvalOk || !wanted_size || wanted_size > size || !ExprConvertValue(context, &value, wanted, &converted))
    return ExprFail(context, "Unable to evaluate and/or convert expression to the appropriate type");
  memcpy(out, converted.bytes, wanted_size);
  return kExprEvalOk;
}
