// The evaluator: node kinds, the operators' conversion rules, and registers by name.
#include "expr/expr_eval.h"

#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "expr/expr_eval_internal.h"
#include "expr/expr_token.h"
#include "expr/value_format.h"

enum : u32 { kMaxEvalDepth = 512 };

BasicClass ExprClassOfBasic(u32 basic) {
  switch (basic) {
    case 0x10: case 0x30: case 0x68: case 0x70: return {1, true, false};
    case 0x11: case 0x71: case 0x72: case 0x7A: return {2, true, false};
    case 0x12: case 0x74: case 0x7B: return {4, true, false};
    case 0x08: return {4, true, false};  // HRESULT: a long, so that "hr < 0" works
    case 0x13: case 0x76: return {8, true, false};
    case 0x20: case 0x69: return {1, false, false};
    case 0x21: case 0x73: return {2, false, false};
    case 0x22: case 0x75: return {4, false, false};
    case 0x23: case 0x77: return {8, false, false};
    case 0x40: return {4, true, true};
    case 0x41: return {8, true, true};
    default: return {0, false, false};
  }
}

u32 ExprFail(ExprEvalContext *context, const char *format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(context->error, sizeof context->error, format, args);
  va_end(args);
  return kExprEvalFailed;
}

bool ExprDescribeType(const ExprEvalContext *context, u32 type, ExprTypeFacts *out) {
  *out = {};
  if (type < 0x1000) {
    u32 mode = type & 0xF00, basic = type & 0xFF;
    if (mode == kPointerMode64) {
      *out = {kExprTypePointer, basic, 8};
      return true;
    }
    if (mode != 0) return false;
    // The vector registers' values: no operator computes with them, but they have a size.
    u32 vector_size = type == kExprTypeVector128 ? 16 : type == kExprTypeVector256 ? 32 : type == kExprTypeVector512 ? 64 : 0;
    if (vector_size) {
      *out = {kExprTypeBasic, type, vector_size};
      return true;
    }
    BasicClass c = ExprClassOfBasic(basic);
    if (!c.size) return false;
    *out = {kExprTypeBasic, basic, c.size};
    return true;
  }
  const ExprEvalHost *host = context->host;
  if (host->describe_type && host->describe_type(host->context, type, out)) return true;
  // A bit field is described as its underlying type (its storage unit).
  ExprBitField field;
  if (host->bit_field && host->bit_field(host->context, type, &field) && field.base_type != type)
    return ExprDescribeType(context, field.base_type, out);
  return false;
}

ExprTypeFacts ExprFacts(const ExprEvalContext *context, u32 type) {
  ExprTypeFacts facts;
  ExprDescribeType(context, type, &facts);
  return facts;
}

bool ExprIsBitField(const ExprEvalContext *context, u32 type, ExprBitField *out) {
  const ExprEvalHost *host = context->host;
  return type >= 0x1000 && host->bit_field && host->bit_field(host->context, type, out) && out->length &&
         out->base_type != type;
}

static u32 PointerTo(const ExprEvalContext *context, u32 type) {
  if (type < 0x100 && ExprClassOfBasic(type).size) return kPointerMode64 | type;
  const ExprEvalHost *host = context->host;
  return host->pointer_to ? host->pointer_to(host->context, type) : 0;
}

BasicClass ExprClassOf(const ExprEvalContext *context, u32 type, u32 *basic) {
  ExprTypeFacts facts = ExprFacts(context, type);
  if (facts.kind == kExprTypeEnum) facts = ExprFacts(context, facts.element);
  *basic = facts.kind == kExprTypeBasic ? facts.element : 0;
  return facts.kind == kExprTypeBasic ? ExprClassOfBasic(facts.element) : BasicClass{};
}

u64 ExprTruncate(u64 bits, BasicClass c) {
  if (c.size >= 8) return bits;
  u32 width = c.size * 8u;
  u64 mask = (1ull << width) - 1;
  bits &= mask;
  if (c.is_signed && (bits >> (width - 1))) bits |= ~mask;
  return bits;
}

void ExprSetInteger(ExprValue *out, u32 type, BasicClass c, u64 bits) {
  memset(out, 0, sizeof *out);
  out->type = type;
  bits = ExprTruncate(bits, c);
  memcpy(out->bytes, &bits, 8);
}

static void SetFloating(ExprValue *out, u32 type, f64 value) {
  memset(out, 0, sizeof *out);
  out->type = type;
  if (type == kTypeFloat) {
    f32 narrow = (f32)value;
    memcpy(out->bytes, &narrow, 4);
  } else {
    memcpy(out->bytes, &value, 8);
  }
}

u64 ExprValueBits(const ExprEvalContext *context, const ExprValue *value) {
  u32 basic;
  BasicClass c = ExprClassOf(context, value->type, &basic);
  u64 bits = 0;
  memcpy(&bits, value->bytes, 8);
  if (c.size && !c.is_float) return ExprTruncate(bits, c);
  return bits;
}

static f64 FloatingOf(const ExprEvalContext *context, const ExprValue *value, BasicClass c) {
  if (c.is_float) {
    if (c.size == 4) {
      f32 narrow;
      memcpy(&narrow, value->bytes, 4);
      return narrow;
    }
    f64 wide;
    memcpy(&wide, value->bytes, 8);
    return wide;
  }
  u64 bits = ExprValueBits(context, value);
  return c.is_signed ? (f64)(s64)bits : (f64)bits;
}

// A bit field loads as its underlying type: the storage unit shifted right by the position and
// masked to the length, sign-extended from the field's top bit for a signed type.
static u32 LoadBitField(ExprEvalContext *context, const ExprValue *value, const ExprBitField *field, ExprValue *out) {
  u32 basic;
  BasicClass c = ExprClassOf(context, field->base_type, &basic);
  u64 size = ExprFacts(context, field->base_type).size;
  if (!c.size || c.is_float || size > 8) return ExprFail(context, "Error reading memory");
  u64 bits = 0;
  const ExprEvalHost *host = context->host;
  if (!host->read_memory || !host->read_memory(host->context, value->address, &bits, (u32)size))
    return ExprFail(context, "Error reading memory");
  u32 length = field->length > 64 ? 64 : field->length;
  u64 mask = length >= 64 ? ~0ull : (1ull << length) - 1;
  bits = field->position >= 64 ? 0 : (bits >> field->position) & mask;
  if (c.is_signed && length < 64 && (bits >> (length - 1)) & 1) bits |= ~mask;
  ExprSetInteger(out, field->base_type, {8, false, false}, bits);
  return kExprEvalOk;
}

u32 ExprLoadValue(ExprEvalContext *context, const ExprValue *value, ExprValue *out) {
  if (!value->is_location) {
    if (out != value) *out = *value;
    return kExprEvalOk;
  }
  ExprBitField field;
  if (ExprIsBitField(context, value->type, &field)) return LoadBitField(context, value, &field, out);
  ExprTypeFacts facts = ExprFacts(context, value->type);
  ExprValue loaded;
  memset(&loaded, 0, sizeof loaded);
  loaded.type = value->type;
  if (facts.kind == kExprTypeArray || facts.kind == kExprTypeRecord || facts.kind == kExprTypeUnion) {
    // Aggregates stay where they are: operators take their address or their fields.
    *out = *value;
    return kExprEvalOk;
  }
  if (facts.size == 0 || facts.size > kExprValueBytes) return ExprFail(context, "Error reading memory");
  const ExprEvalHost *host = context->host;
  if (!host->read_memory || !host->read_memory(host->context, value->address, loaded.bytes, (u32)facts.size))
    return ExprFail(context, "Error reading memory");
  *out = loaded;
  return kExprEvalOk;
}

// [SECTION] Node kinds

static u32 EvaluateNode(ExprEvalContext *context, const ExprNode *node, ExprValue *out);

static u32 EvaluateLoaded(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  u32 result = EvaluateNode(context, node, out);
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
    u32 pointer = type == 0x03 ? kPointerMode64 | 0x03 : PointerTo(context, type);
    if (!pointer) return 0;
    type = pointer;
  }
  return type;
}

static u32 EvaluateCast(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  u32 type = LookUpType(context, &node->cast.type);
  if (!type) return ExprFail(context, "Type name not found");
  ExprValue value;
  u32 result = EvaluateNode(context, node->cast.operand, &value);
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

bool ExprConvertValue(const ExprEvalContext *context, const ExprValue *value, u32 wanted, ExprValue *out) {
  ExprTypeFacts to = ExprFacts(context, wanted), from = ExprFacts(context, value->type);
  u32 from_basic, to_basic;
  BasicClass from_class = ExprClassOf(context, value->type, &from_basic);
  BasicClass to_class = ExprClassOf(context, wanted, &to_basic);
  bool from_integral = from.kind == kExprTypePointer || (from_class.size && !from_class.is_float);
  if (to.kind == kExprTypePointer) {
    if (!from_integral) return false;
    ExprSetInteger(out, wanted, {8, false, false}, ExprValueBits(context, value));
    return true;
  }
  if (!to_class.size || (!from_class.size && from.kind != kExprTypePointer)) return false;
  if (to_class.is_float) {
    SetFloating(out, to_basic == kTypeFloat ? kTypeFloat : kTypeDouble,
                from.kind == kExprTypePointer ? (f64)ExprValueBits(context, value) : FloatingOf(context, value, from_class));
    out->type = wanted;
    return true;
  }
  u64 bits;
  if (from_class.is_float) {
    f64 f = FloatingOf(context, value, from_class);
    // Out of range (and NaN) converts to the pattern the processor gives: the "integer indefinite".
    if (!(f > -9223372036854775808.0 && f < 18446744073709551616.0)) bits = 0x8000000000000000ull;
    else if (f >= 9223372036854775808.0) bits = (u64)f;
    else bits = (u64)(s64)f;
  } else {
    bits = ExprValueBits(context, value);
  }
  ExprSetInteger(out, wanted, to_class, bits);
  return true;
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
    u32 result = variable ? ExprEvaluateIdentifier(context, &name, &value) : EvaluateNode(context, node->sizeof_expr.operand, &value);
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
  u32 result = EvaluateNode(context, node->index.base, &base);
  if (result == kExprEvalOk) result = EvaluateLoaded(context, node->index.index, &index);
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
  u32 result = EvaluateNode(context, node->member.object, &object);
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

static bool TruthOf(const ExprEvalContext *context, const ExprValue *value, bool *out) {
  u32 basic;
  BasicClass c = ExprClassOf(context, value->type, &basic);
  if (c.is_float) {
    f64 f = FloatingOf(context, value, c);
    *out = f < 0 || f > 0;
    return true;
  }
  if (c.size || ExprFacts(context, value->type).kind == kExprTypePointer) {
    *out = ExprValueBits(context, value) != 0;
    return true;
  }
  return false;
}

static u32 EvaluateUnary(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  ExprValue value;
  u32 result = EvaluateNode(context, node->unary.operand, &value);
  if (result != kExprEvalOk) return result;
  u32 op = node->unary.op;
  ExprTypeFacts facts = ExprFacts(context, value.type);
  if (op == kExprTokenAmp) {
    ExprBitField field;
    if (!value.is_location || ExprIsBitField(context, value.type, &field)) return ExprFail(context, "Address-of operator requires lvalue type");
    u32 pointer = PointerTo(context, value.type);
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
    if (!TruthOf(context, &value, &truth)) return ExprFail(context, "Unary operand '!' requires arithmetic or pointer type");
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
    SetFloating(out, basic, -FloatingOf(context, &value, c));
  } else {
    ExprSetInteger(out, basic, c, 0 - ExprValueBits(context, &value));
  }
  return kExprEvalOk;
}

// [SECTION] Binary operators

// The one type two integer operands are brought to.
static u32 CommonIntegerType(u32 left, BasicClass l, u32 right, BasicClass r) {
  if (l.is_signed == r.is_signed) return r.size > l.size ? right : left;
  u32 unsigned_type = l.is_signed ? right : left, signed_type = l.is_signed ? left : right;
  BasicClass u = l.is_signed ? r : l, s = l.is_signed ? l : r;
  return u.size >= s.size ? unsigned_type : signed_type;
}

static bool IsComparison(u32 op) {
  return op == kExprTokenLess || op == kExprTokenLessEqual || op == kExprTokenGreater || op == kExprTokenGreaterEqual ||
         op == kExprTokenEqual || op == kExprTokenNotEqual;
}

static void SetTruth(ExprValue *out, bool truth) { ExprSetInteger(out, kTypeBool8, ExprClassOfBasic(kTypeBool8), truth ? 1 : 0); }

static bool Compare(u32 op, int order) {
  switch (op) {
    case kExprTokenLess: return order < 0;
    case kExprTokenLessEqual: return order <= 0;
    case kExprTokenGreater: return order > 0;
    case kExprTokenGreaterEqual: return order >= 0;
    case kExprTokenEqual: return order == 0;
    default: return order != 0;
  }
}

static u32 PointerBinary(ExprEvalContext *context, u32 op, const ExprValue *left, const ExprValue *right,
                         ExprTypeFacts lf, ExprTypeFacts rf, ExprValue *out) {
  bool left_pointer = lf.kind == kExprTypePointer, right_pointer = rf.kind == kExprTypePointer;
  u32 basic;
  BasicClass lc = ExprClassOf(context, left->type, &basic), rc = ExprClassOf(context, right->type, &basic);
  u64 lbits = ExprValueBits(context, left), rbits = ExprValueBits(context, right);
  if (op == kExprTokenPlus || op == kExprTokenMinus) {
    if (left_pointer && right_pointer) {
      if (op == kExprTokenPlus) return ExprFail(context, "Operand requires arithmetic or pointer types");
      s64 lsize = (s64)ExprFacts(context, lf.element).size, rsize = (s64)ExprFacts(context, rf.element).size;
      if (lsize != rsize) return ExprFail(context, "Failed computing pointer difference: size mismatch (%lld vs. %lld)", (long long)lsize, (long long)rsize);
      if (!lsize) return ExprFail(context, "Size of type is zero.");
      ExprSetInteger(out, 0x76, ExprClassOfBasic(0x76), (u64)((s64)(lbits - rbits) / lsize));
      return kExprEvalOk;
    }
    if (!left_pointer && op == kExprTokenMinus)
      return ExprFail(context, "Operand does not support integral type on left and pointer type on right");
    const ExprValue *pointer = left_pointer ? left : right;
    BasicClass ic = left_pointer ? rc : lc;
    if (!ic.size || ic.is_float) return ExprFail(context, "Operand requires arithmetic or pointer types");
    u64 element = ExprFacts(context, (left_pointer ? lf : rf).element).size;
    u64 offset = (left_pointer ? rbits : lbits) * element;
    u64 base = ExprValueBits(context, pointer);
    ExprSetInteger(out, pointer->type, {8, false, false}, op == kExprTokenPlus ? base + offset : base - offset);
    return kExprEvalOk;
  }
  if (IsComparison(op)) {
    if (op == kExprTokenEqual || op == kExprTokenNotEqual) {
      if (left_pointer && !right_pointer) return ExprFail(context, "Operand requires pointer type on RHS");
    } else if (left_pointer != right_pointer || left->type != right->type) {
      return ExprFail(context, "Cannot compare two differing pointer types.");
    }
    if ((!left_pointer && (!lc.size || lc.is_float)) || (!right_pointer && (!rc.size || rc.is_float)))
      return ExprFail(context, "Operand requires arithmetic or pointer types");
    SetTruth(out, Compare(op, lbits < rbits ? -1 : lbits > rbits ? 1 : 0));
    return kExprEvalOk;
  }
  if (op == kExprTokenStar || op == kExprTokenSlash) return ExprFail(context, "Operand requires arithmetic types");
  return ExprFail(context, "Operand requires integral types");
}

static u32 ArithmeticBinary(ExprEvalContext *context, u32 op, const ExprValue *left, const ExprValue *right, ExprValue *out) {
  u32 lbasic, rbasic;
  BasicClass l = ExprClassOf(context, left->type, &lbasic), r = ExprClassOf(context, right->type, &rbasic);
  bool integral_only = op == kExprTokenPercent || op == kExprTokenShiftLeft || op == kExprTokenShiftRight ||
                       op == kExprTokenAmp || op == kExprTokenPipe || op == kExprTokenCaret;
  if (!l.size || !r.size) {
    if (integral_only) return ExprFail(context, "Operand requires integral types");
    if (op == kExprTokenStar || op == kExprTokenSlash) return ExprFail(context, "Operand requires arithmetic types");
    return ExprFail(context, "Operand requires arithmetic or pointer types");
  }
  if (l.is_float || r.is_float) {
    if (integral_only) return ExprFail(context, "Operand requires integral types");
    u32 type = (lbasic == kTypeDouble || rbasic == kTypeDouble) ? kTypeDouble : kTypeFloat;
    f64 a = FloatingOf(context, left, l), b = FloatingOf(context, right, r);
    if (type == kTypeFloat) a = (f32)a, b = (f32)b;
    if (IsComparison(op)) {
      bool truth;
      switch (op) {
        case kExprTokenLess: truth = a < b; break;
        case kExprTokenLessEqual: truth = a <= b; break;
        case kExprTokenGreater: truth = a > b; break;
        case kExprTokenGreaterEqual: truth = a >= b; break;
        case kExprTokenEqual: truth = a == b; break;
        default: truth = a != b; break;
      }
      SetTruth(out, truth);
      return kExprEvalOk;
    }
    f64 value = op == kExprTokenPlus ? a + b : op == kExprTokenMinus ? a - b : op == kExprTokenStar ? a * b : a / b;
    SetFloating(out, type, value);
    return kExprEvalOk;
  }
  u32 type = CommonIntegerType(lbasic, l, rbasic, r);
  BasicClass c = ExprClassOfBasic(type);
  // Both operands at the common type's width (no promotion to int).
  u64 a = ExprTruncate(ExprValueBits(context, left), c), b = ExprTruncate(ExprValueBits(context, right), c);
  if (IsComparison(op)) {
    int order = c.is_signed ? ((s64)a < (s64)b ? -1 : (s64)a > (s64)b) : (a < b ? -1 : a > b);
    SetTruth(out, Compare(op, order));
    return kExprEvalOk;
  }
  u64 value;
  switch (op) {
    case kExprTokenPlus: value = a + b; break;
    case kExprTokenMinus: value = a - b; break;
    case kExprTokenStar: value = a * b; break;
    case kExprTokenSlash:
    case kExprTokenPercent:
      if (!b) return ExprFail(context, "Divide by zero");
      if (c.is_signed) {
        // The one quotient that overflows 64 bits wraps, as the narrower widths do.
        if ((s64)b == -1) value = op == kExprTokenSlash ? 0 - a : 0;
        else value = op == kExprTokenSlash ? (u64)((s64)a / (s64)b) : (u64)((s64)a % (s64)b);
      } else {
        value = op == kExprTokenSlash ? a / b : a % b;
      }
      break;
    case kExprTokenShiftLeft: value = b >= 64 ? 0 : a << b; break;
    case kExprTokenShiftRight:
      if (c.is_signed) value = (u64)((s64)a >> (b >= 64 ? 63 : b));
      else value = b >= 64 ? 0 : (ExprTruncate(a, {c.size, false, false}) >> b);
      break;
    case kExprTokenAmp: value = a & b; break;
    case kExprTokenPipe: value = a | b; break;
    default: value = a ^ b; break;  // kExprTokenCaret
  }
  ExprSetInteger(out, type, c, value);
  return kExprEvalOk;
}

static u32 EvaluateBinary(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  // Both sides are evaluated before the operator, && and || included (no short circuit); a
  // failure of the left side stops before the right is evaluated.
  ExprValue left, right;
  u32 result = EvaluateLoaded(context, node->binary.left, &left);
  if (result == kExprEvalOk) result = EvaluateLoaded(context, node->binary.right, &right);
  if (result != kExprEvalOk) return result;
  u32 op = node->binary.op;
  if (op == kExprTokenAmpAmp || op == kExprTokenPipePipe) {
    bool a, b;
    if (!TruthOf(context, &left, &a) || !TruthOf(context, &right, &b))
      return ExprFail(context, "Unable to convert expression to boolean result");
    SetTruth(out, op == kExprTokenAmpAmp ? a && b : a || b);
    return kExprEvalOk;
  }
  ExprTypeFacts lf = ExprFacts(context, left.type), rf = ExprFacts(context, right.type);
  // An array operand is its first element's address.
  ExprValue *sides[2] = {&left, &right};
  ExprTypeFacts *facts[2] = {&lf, &rf};
  for (u32 i = 0; i < 2; i++)
    if (facts[i]->kind == kExprTypeArray && sides[i]->is_location) {
      u32 pointer = PointerTo(context, facts[i]->element);
      if (!pointer) continue;
      ExprSetInteger(sides[i], pointer, {8, false, false}, sides[i]->address);
      *facts[i] = ExprFacts(context, pointer);
    }
  if (lf.kind == kExprTypePointer || rf.kind == kExprTypePointer) return PointerBinary(context, op, &left, &right, lf, rf, out);
  return ArithmeticBinary(context, op, &left, &right, out);
}

static u32 EvaluateNode(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
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
    case kExprNodeFloating: SetFloating(out, node->floating.type, node->floating.value); break;
    case kExprNodeParen: result = EvaluateNode(context, node->paren.child, out); break;
    case kExprNodeCountPrefix: result = EvaluateNode(context, node->count.child, out); break;
    case kExprNodeIdentifier: result = ExprEvaluateIdentifier(context, node, out); break;
    case kExprNodeUnary: result = EvaluateUnary(context, node, out); break;
    case kExprNodeBinary: result = EvaluateBinary(context, node, out); break;
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
  return EvaluateNode(context, node, out);
}

u32 ExprEvaluateToBoolean(ExprEvalContext *context, const ExprNode *node, bool *out) {
  ExprValue value;
  u32 result = ExprEvaluate(context, node, &value);
  if (result == kExprEvalOk) result = ExprLoadValue(context, &value, &value);
  if (result != kExprEvalOk) return result;
  if (!TruthOf(context, &value, out)) return ExprFail(context, "Unable to convert expression to boolean result");
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
