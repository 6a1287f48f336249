// The parameters of a call-stack frame as the call stack window shows them: each parameter's type
// name, name and value, with a value class that says how the window writes the value. Made under
// the model lock at a stop (on either thread: the engine waits meanwhile), through the evaluator's
// host for that frame.
//
// The list is packed: per entry a 16-bit value class, then the type, the name and the value text,
// each a 16-bit length and its bytes, then the 64-bit number (named and integer classes). Readers
// check every length against what is left, and an entry cut short is skipped.
#pragma once
#include "engine/target.h"

enum FrameParameterClass : u16 {
  kParameterNamedSigned = 1,    // a symbolic name (an enumerator) with its signed number
  kParameterNamedUnsigned = 2,  // the same with an unsigned number
  kParameterPointer = 3,        // number: the pointer
  kParameterInteger = 4,        // number: the value, sign-extended
  kParameterAggregate = 5,      // a structure, union, class or array
  kParameterText = 6,           // the value text as formatted (floats, characters, bools...)
  kParameterUnknownType = 7,    // no type known: only the name
};

enum : u32 {
  kFrameParameterBytes = 2048,
  kFrameReturnTypeCapacity = 128,
};

typedef struct FrameParameters {
  u32 count;  // entries written (some may have been cut at the buffer's end)
  u32 used;   // bytes of the list
  char return_type[kFrameReturnTypeCapacity];  // "" when unknown
  u8 bytes[kFrameParameterBytes];
} FrameParameters;

typedef struct FrameParameter {
  u16 value_class;  // FrameParameterClass
  u16 type_length, name_length, value_length;
  const char *type, *name, *value;  // not terminated
  u64 number;
} FrameParameter;

// The parameters of frame `index` of the thread's stack at this stop. False when the frame does not
// exist or has no procedure (out is then empty).
bool EngineFrameParameters(Target *target, TargetThread *thread, u32 index, FrameParameters *out);
// Steps through the list: true with the entry at *offset (moved past it), false at the end.
bool FrameParameterNext(const FrameParameters *list, u32 *offset, FrameParameter *out);
