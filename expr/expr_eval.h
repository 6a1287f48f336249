// The expression evaluator: walks a parsed tree against a stopped target and gives a value.
//
// Portable: the target is reached only through ExprEvalHost, whose callbacks read memory and
// registers and answer the questions about names and types that need symbols. Type indexes are
// CodeView's: below 0x1000 a basic type (its low byte) with a pointer mode (0x600 is a 64-bit
// pointer to it); from 0x1000 on a type record that only the host can describe. The evaluator
// never writes target memory; every failure leaves one message in the context's error buffer.
#pragma once
#include "base/types.h"
#include "expr/expr_node.h"

enum ExprEvalResult : u32 {
  kExprEvalOk = 0,
  kExprEvalFailed = 1,  // the message is in ExprEvalContext::error
};

enum ExprTypeKind : u32 {
  kExprTypeNone = 0,     // unknown, or nothing the operators accept (void, functions)
  kExprTypeBasic = 1,    // an integer, character, bool or floating type
  kExprTypePointer = 2,  // element: the pointee
  kExprTypeArray = 3,    // element: the element type; size: the whole array
  kExprTypeRecord = 4,   // a structure or class
  kExprTypeUnion = 5,
  kExprTypeEnum = 6,     // element: the underlying basic type
};

// What the evaluator needs to know of one type.
struct ExprTypeFacts {
  u32 kind;     // ExprTypeKind
  u32 element;  // see ExprTypeKind
  u64 size;     // bytes
};

enum : u32 { kExprValueBytes = 64 };  // the widest immediate: one zmm register

// A value: a place in target memory, or bytes held here.
struct ExprValue {
  u32 type;         // CodeView type index
  u8 is_location;   // address holds it; otherwise bytes does
  u8 padding[3];
  u64 address;
  u8 bytes[kExprValueBytes];
};

// The x86-64 general registers, in the order of the register numbers the host is asked for.
enum ExprRegister : u32 {
  kExprRegRax, kExprRegRcx, kExprRegRdx, kExprRegRbx, kExprRegRsp, kExprRegRbp, kExprRegRsi, kExprRegRdi,
  kExprRegR8, kExprRegR9, kExprRegR10, kExprRegR11, kExprRegR12, kExprRegR13, kExprRegR14, kExprRegR15,
  kExprRegRip, kExprRegEflags, kExprRegisterCount
};

struct ExprEvalHost {
  void *context;
  // Reads size bytes of target memory; false when any of them cannot be read.
  bool (*read_memory)(void *context, u64 address, void *out, u32 size);
  // The selected frame's value of a general register; false when it is not known.
  bool (*read_register)(void *context, u32 reg, u64 *out);
  // Resolves a name (locals and parameters of the selected frame, then globals and statics).
  // Returns kExprEvalOk with the value, or kExprEvalFailed: with error left empty the name is
  // simply not known here and the next kind of name is tried; with a message (as for a local
  // that is "not available here") evaluation stops with it.
  u32 (*find_name)(void *context, const char *name, u32 length, ExprValue *out, char *error, u32 error_size);
  // A type by name as written in a cast or sizeof (basic types are known without asking); 0 if none.
  u32 (*find_type)(void *context, const char *name, u32 length);
  // Describes a type record (index 0x1000 and up); false when it is not known.
  bool (*describe_type)(void *context, u32 type, ExprTypeFacts *out);
  // The pointer-to type of a type record; 0 when there is none.
  u32 (*pointer_to)(void *context, u32 type);
  // A field of a structure, class or union by name, base classes searched: its offset and type.
  bool (*find_field)(void *context, u32 type, const char *name, u32 length, u64 *offset, u32 *field_type);
  // The type's name for messages.
  void (*type_name)(void *context, u32 type, char *out, u32 size);
};

struct ExprEvalContext {
  const ExprEvalHost *host;
  u32 depth;  // recursion guard
  char error[256];
};

// Evaluates a tree. On failure the context's error holds the message.
[[nodiscard]] u32 ExprEvaluate(ExprEvalContext *context, const ExprNode *node, ExprValue *out);
// Loads a location's bytes (a value held here is returned as it is).
[[nodiscard]] u32 ExprLoadValue(ExprEvalContext *context, const ExprValue *value, ExprValue *out);
// Evaluates as a breakpoint condition: integers and pointers are true when not zero, floating
// values when less or greater than zero (a NaN is false).
[[nodiscard]] u32 ExprEvaluateToBoolean(ExprEvalContext *context, const ExprNode *node, bool *out);
// Describes any type index (basic and pointer-to-basic ones without asking the host).
bool ExprDescribeType(const ExprEvalContext *context, u32 type, ExprTypeFacts *out);
// A loaded basic or pointer value as a 64-bit pattern (sign-extended for signed types).
u64 ExprValueBits(const ExprEvalContext *context, const ExprValue *value);
