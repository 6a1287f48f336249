// Values: the arithmetic classes of the basic types, type facts, immediates, loading a location
// (bit fields included) and the conversions of casts.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "expr/expr_eval_internal.h"

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
  if (host->bit_field && host->bit_field(host->context, type, &field) && field.base_type != type) {
    // Not described through another bit field: a damaged type stream may hold a cycle.
    if (field.base_type < 0x1000) return ExprDescribeType(context, field.base_type, out);
    return host->describe_type && host->describe_type(host->context, field.base_type, out);
  }
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

u32 ExprPointerTo(const ExprEvalContext *context, u32 type) {
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

void ExprSetFloating(ExprValue *out, u32 type, f64 value) {
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

f64 ExprFloatingOf(const ExprEvalContext *context, const ExprValue *value, BasicClass c) {
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
    ExprSetFloating(out, to_basic == kTypeFloat ? kTypeFloat : kTypeDouble,
                from.kind == kExprTypePointer ? (f64)ExprValueBits(context, value) : ExprFloatingOf(context, value, from_class));
    out->type = wanted;
    return true;
  }
  u64 bits;
  if (from_class.is_float) {
    f64 f = ExprFloatingOf(context, value, from_class);
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

bool ExprTruthOf(const ExprEvalContext *context, const ExprValue *value, bool *out) {
  u32 basic;
  BasicClass c = ExprClassOf(context, value->type, &basic);
  if (c.is_float) {
    f64 f = ExprFloatingOf(context, value, c);
    *out = f < 0 || f > 0;
    return true;
  }
  if (c.size || ExprFacts(context, value->type).kind == kExprTypePointer) {
    *out = ExprValueBits(context, value) != 0;
    return true;
  }
  return false;
}
