// Software breakpoints: a place in the program (a function, a source file and line, or an address)
// bound to an address in a loaded module, where an int3 (0xCC) replaces the program's byte while
// the target runs. A place in no loaded module stays pending and is bound when a module that has it
// loads; when its module unloads it is pending again. Processor breakpoints share the records.
//
// Records come from a fixed pool of the Target. The user interface adds, removes, enables and
// conditions them with the operations of engine/engine.h: at a stop directly (under the model
// lock), while the target runs through the request ring and a silent break-in.
#pragma once
#include "engine/engine_event.h"
#include "engine/engine_result.h"
#include "expr/expr_node.h"
#include "engine/breakpoint_kind.h"


enum : u32 {
  kBreakpointPoolCount = 1024,
  kBreakpointPlaceCapacity = 512,  // a file path or a function name, terminator included
  kConditionCapacity = 256,        // texts of 256 characters or more are refused (33)
  kNoProcessorSlot = 0xFF,
};

typedef struct BreakpointLocation {
  struct BreakpointLocation *next;  // the live list, newest first
  struct BreakpointLocation *previous;
  u32 kind;  // BreakpointKind
  u8 in_use;
  u8 pending;   // no address bound
  u8 enabled;   // the user's switch: a disabled record keeps its binding but no int3
  u8 armed;     // the int3 is in target memory (saved_byte holds the program's byte)
  u8 saved_byte;
  u8 temporary;
  u8 condition_parse_failed;
  u8 slot;            // processor breakpoints: the debug register; kNoProcessorSlot otherwise
  u32 line;           // line breakpoints: the line asked for
  u32 argument_list;  // function breakpoints: the overload's argument-list type index, 0 for any
  u32 hit_count;      // counted for breakpoints with a condition
  u32 access;         // processor breakpoints: 0 write, 1 read/write, 2 execute
  u32 size;           // processor breakpoints: 1, 2, 4 or 8 bytes
  u32 padding;
  u64 requested_address;  // address and processor breakpoints: the address asked for
  // A line breakpoint binds in every module whose line table has its line: the user's record holds
  // the first binding, and each further module gets a record of its own whose owner is the user's
  // record (hits report the owner; removing or switching the owner takes these along).
  struct BreakpointLocation *owner;
  struct TargetModule *module;  // bound: the module that holds the address
  u64 address;                  // bound: where the int3 goes
  EngineSourceLocation location;
  ExprNode *condition_tree;     // parsed on the user-interface thread; null without a condition
  char place[kBreakpointPlaceCapacity];  // the file path or function name
  char condition[kConditionCapacity];
  char condition_error[kConditionCapacity];  // the message of the last hit whose condition failed
  ExprPool condition_nodes;  // the condition tree's own nodes; last, so that taking a record
                             // clears only what comes before it
} BreakpointLocation;

// What a breakpoint is asked for with.
typedef struct BreakpointWanted {
  u32 kind;             // BreakpointKind (processor breakpoints: EngineAddDataBreakpoint)
  const char *place;    // function name, or file path
  u32 line;             // line breakpoints
  u32 argument_list;    // function breakpoints: 0 for the first function of that name
  u64 address;          // address breakpoints
  const char *condition;  // null or "" for none
  u8 temporary;
} BreakpointWanted;
