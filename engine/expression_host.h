// The evaluator's host at a stop: the answers about names, types, registers and memory that the
// portable evaluator (expr/expr_eval.h) asks for, taken from the stopped target and the PDBs of its
// modules. Runs on the debugger thread only.
//
// A scope is one frame of one thread: its registers (all of them in frame 0, the stack pointer and
// the non-volatile registers above it), its procedure's locals and parameters, then the globals of
// every module. Type indexes belong to one PDB: the frame's module answers for them, until a name
// resolves in another module's globals, which then answers for the rest of the evaluation.
#pragma once
#include "engine/call_stack.h"
#include "expr/expr_eval.h"

enum : u32 {
  kExpressionNameCapacity = 512,
  kFieldCacheCapacity = 256,  // members of one type listed at once; more are looked up one by one
};

// The data members of the type a scope was last asked about, in the order field_at counts them.
typedef struct FieldCache {
  u8 valid;
  u8 truncated;  // the type has more members than the cache holds
  u8 padding[2];
  u32 type;
  const struct PdbTypes *types;
  u32 count;
  ExprField entries[kFieldCacheCapacity];  // names point into the PDB's records (not terminated)
} FieldCache;

typedef struct ExpressionScope {
  Target *target;
  TargetThread *thread;
  StackFrame frame;      // a copy: the frame the names and registers are taken from
  u32 frame_index;       // 0: all registers come from the thread's context
  u8 has_frame;          // false: no registers (no current thread)
  u8 chain_ready;
  u8 from_registers;  // a one-frame scope: the innermost function at the address (inlined or not)
  u8 padding;
  TargetModule *frame_module;  // holds the frame's address; null when none does
  TargetModule *type_module;   // whose PDB describes the type indexes of this evaluation
  // The frame's place in its procedure: section and offset of the address looked up (the call for
  // a return address) and the scopes holding it.
  u32 section;
  u32 offset;
  ScopeChain chain;
  char name[kExpressionNameCapacity];  // names handed back by the host (valid until its next answer)
  FieldCache fields;
} ExpressionScope;

// A scope at the thread's selected frame (its call stack is built when it was not).
void ExpressionScopeAtFrame(ExpressionScope *scope, Target *target, TargetThread *thread, u32 frame_index);
// A scope of one frame made from the thread's registers alone, without building its call stack
// (a breakpoint's condition at each hit).
void ExpressionScopeAtRegisters(ExpressionScope *scope, Target *target, TargetThread *thread);
// Makes the scope ready for another evaluation in the same frame: types are the frame's module's
// again (what was found in the frame stays found).
void ExpressionScopeRestart(ExpressionScope *scope);
// The host whose callbacks answer from the scope.
void ExpressionHostInit(ExprEvalHost *host, ExpressionScope *scope);
