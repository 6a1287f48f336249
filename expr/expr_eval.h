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

// Type indexes of the vector registers' values ("u128", "u256", "u512"). 0x79 is CodeView's
// 128-bit unsigned integer; the wider two use basic kinds CodeView leaves free.
enum : u32 {
  kExprTypeVector128 = 0x79,
  kExprTypeVector256 = 0xF1,
  kExprTypeVector512 = 0xF2,
  // The value of "__locals" and "__params": a group whose members are the frame's variables.
  kExprTypeLocalsGroup = 0xF3,
  kExprTypeParamsGroup = 0xF4,
};

// A bit field's facts, for a type index that is one (CodeView LF_BITFIELD).
struct ExprBitField {
  u32 base_type;  // the underlying basic or enum type
  u8 position;    // first bit
  u8 length;      // bits
  u8 padding[2];
};

// Vector register banks, for read_vector_register.
enum ExprVectorBank : u32 { kExprVectorXmm = 0, kExprVectorYmm = 1, kExprVectorZmm = 2 };
enum ExprVectorResult : u32 {
  kExprVectorOk = 0,
  kExprVectorUnknown = 1,   // no such register number, or the context could not be read
  kExprVectorNoAvx = 2,     // "AVX Feature Set not supported on this processor"
  kExprVectorNoAvx512 = 3,  // "AVX-512 Feature Set not supported on this processor"
};

// The pseudo-variables, spelled exactly "$tid", "$pid", "$err", "$handles".
enum ExprPseudo : u32 { kExprPseudoTid = 0, kExprPseudoPid, kExprPseudoErr, kExprPseudoHandles };

// One data member of a structure, class or union, for the watch tree.
struct ExprField {
  const char *name;  // owned by the host; valid until the next call of the host
  u32 name_length;
  u32 type;          // may be a bit field (see bit_field)
  u64 offset;        // from the start of the outermost object, base classes' offsets added
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
  // The type's name for messages and the type column (type records; basic types are named by
  // the evaluator itself).
  void (*type_name)(void *context, u32 type, char *out, u32 size);

  // [The watch tree, formatting and the rarer names. Any of these may be null: the evaluator then
  // behaves as if the host answered "no".]
  // A bit field's facts; false when type is no bit field.
  bool (*bit_field)(void *context, u32 type, ExprBitField *out);
  // The index-th data member of a structure, class or union in record order, with the members of
  // base classes walked in place of the base entry (so a base's members come first); static
  // members, methods, nested types, enumerators and vtable entries are not members here. False
  // past the last.
  bool (*field_at)(void *context, u32 type, u32 index, ExprField *out);
  // The name of the enumerator of an enum type whose value is value; false when none has it.
  bool (*enumerator_name)(void *context, u32 type, s64 value, char *out, u32 size);
  // True when the type (seen through modifiers) is a class, structure or interface, whose pointers
  // expand like the pointee; false for unions and everything else.
  bool (*is_class_like)(void *context, u32 type);
  // A vector register of the selected frame's thread: 16, 32 or 64 bytes by bank.
  u32 (*read_vector_register)(void *context, u32 bank, u32 number, u8 *out);  // ExprVectorResult
  // A pseudo-variable's value; false when it cannot be had.
  bool (*read_pseudo)(void *context, u32 pseudo, u32 *out);
  // The index-th local variable (parameters false) or parameter (true) of the selected frame, for
  // "__locals" and "__params": its name and value, or false past the last. A variable whose value
  // is not available here comes with ok false and the message in error.
  bool (*frame_variable_at)(void *context, bool parameters, u32 index, const char **name, ExprValue *value,
                            bool *ok, char *error, u32 error_size);
  // The system's message text of an HRESULT or Win32 error code, without the trailing line end and
  // full stop; false (or an empty text) when there is none.
  bool (*error_message)(void *context, u32 code, char *out, u32 size);
  // Globals, statics and thread-locals of every module, answered like find_name. When set, names
  // are resolved in the full order (locals and parameters through find_name, the implicit this,
  // pseudo-variables, registers, "__locals"/"__params", then these), so that a member of this or
  // a register is not hidden by a global of the same name; when null, find_name answers for
  // globals too, before the other kinds.
  u32 (*find_global)(void *context, const char *name, u32 length, ExprValue *out, char *error, u32 error_size);
};

struct ExprEvalContext {
  const ExprEvalHost *host;
  u32 depth;  // recursion guard
  char error[256];
  // When set, the fields of this object (a structure, or a pointer to one) are names too, found
  // where the implicit this's are: a format specifier's count may say "p, size" for p->size.
  const ExprValue *object_scope;
};

// Evaluates a tree. On failure the context's error holds the message.
[[nodiscard]] u32 ExprEvaluate(ExprEvalContext *context, const ExprNode *node, ExprValue *out);
// Loads a location's bytes (a value held here is returned as it is).
[[nodiscard]] u32 ExprLoadValue(ExprEvalContext *context, const ExprValue *value, ExprValue *out);
// Evaluates as a breakpoint condition: integers and pointers are true when not zero, floating
// values when less or greater than zero (a NaN is false).
[[nodiscard]] u32 ExprEvaluateToBoolean(ExprEvalContext *context, const ExprNode *node, bool *out);
// Evaluates and converts to a basic type (wanted: its CodeView index, or a 64-bit pointer to one),
// writing its size bytes to out: for addresses typed by the user and counts. On failure the
// message is "Unable to evaluate and/or convert expression to the appropriate type".
[[nodiscard]] u32 ExprEvaluateAs(ExprEvalContext *context, const ExprNode *node, u32 wanted, void *out, u32 size);
// Converts a loaded value to a basic type or a pointer, as a cast does; false when it cannot.
bool ExprConvertValue(const ExprEvalContext *context, const ExprValue *value, u32 wanted, ExprValue *out);
// Describes any type index (basic and pointer-to-basic ones without asking the host).
bool ExprDescribeType(const ExprEvalContext *context, u32 type, ExprTypeFacts *out);
// A loaded basic or pointer value as a 64-bit pattern (sign-extended for signed types).
u64 ExprValueBits(const ExprEvalContext *context, const ExprValue *value);
