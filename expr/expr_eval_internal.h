// What the evaluator's files share: the arithmetic classes of the basic types, immediates, and the
// one way a failure's message is written. Not for use outside expr/.
#pragma once
#include "expr/expr_eval.h"

enum : u32 {
  kPointerMode64 = 0x600,  // CodeView basic-type mode: 64-bit near pointer
  kTypeVoid = 0x03,
  kTypeHResult = 0x08,
  kTypeChar = 0x10,
  kTypeUChar = 0x20,
  kTypeUInt64 = 0x23,
  kTypeBool8 = 0x30,
  kTypeFloat = 0x40,
  kTypeDouble = 0x41,
  kTypeInt8 = 0x68,
  kTypeUInt8 = 0x69,
  kTypeRealChar = 0x70,
  kTypeWideChar = 0x71,
  kTypeInt16 = 0x72,
  kTypeUInt16 = 0x73,
  kTypeInt32 = 0x74,
  kTypeUInt32 = 0x75,
  kTypeInt64 = 0x76,
  kTypeChar16 = 0x7A,
  kTypeChar32 = 0x7B,
};

// The class of a basic type that the operators compute in.
struct BasicClass {
  u8 size;  // 0: not an arithmetic basic type
  bool is_signed;
  bool is_float;
};

BasicClass ExprClassOfBasic(u32 basic);
// The arithmetic class of a value's type: enums and bit fields compute as their underlying type.
BasicClass ExprClassOf(const ExprEvalContext *context, u32 type, u32 *basic);
ExprTypeFacts ExprFacts(const ExprEvalContext *context, u32 type);
// The bit field's facts when type is one (false otherwise, or when the host cannot tell).
bool ExprIsBitField(const ExprEvalContext *context, u32 type, ExprBitField *out);
u64 ExprTruncate(u64 bits, BasicClass c);
void ExprSetInteger(ExprValue *out, u32 type, BasicClass c, u64 bits);
u32 ExprFail(ExprEvalContext *context, const char *format, ...) __attribute__((format(printf, 2, 3)));
bool ExprEqualNoCase(const char *a, u32 length, const char *b);

u32 ExprPointerTo(const ExprEvalContext *context, u32 type);  // 0 when the type has no pointer type
void ExprSetFloating(ExprValue *out, u32 type, f64 value);
f64 ExprFloatingOf(const ExprEvalContext *context, const ExprValue *value, BasicClass c);
// A loaded value as a condition: false when it is neither arithmetic nor a pointer.
bool ExprTruthOf(const ExprEvalContext *context, const ExprValue *value, bool *out);

// Node evaluation (expr_eval.cpp): as it is, and loaded when it is a location.
u32 ExprEvaluateNode(ExprEvalContext *context, const ExprNode *node, ExprValue *out);
u32 ExprEvaluateLoaded(ExprEvalContext *context, const ExprNode *node, ExprValue *out);
// The binary operators (expr_binary.cpp).
u32 ExprEvaluateBinary(ExprEvalContext *context, const ExprNode *node, ExprValue *out);

// Identifier resolution (expr_names.cpp): every kind of name in its order.
u32 ExprEvaluateIdentifier(ExprEvalContext *context, const ExprNode *node, ExprValue *out);
