// Scope at an address: the procedure that contains a code address, the innermost block at it and
// the source line, within one loaded module.
#pragma once
#include "symbols/module_symbols.h"

enum : u32 { kScopeNameCapacity = 512 };

// The caller's side of a lookup: the procedure's name is copied here when it is still empty.
typedef struct ScopeQueryContext {
  char procedure_name[kScopeNameCapacity];
} ScopeQueryContext;

typedef struct ScopeAtAddress {
  const PdbProcScope *procedure;  // null: no procedure contains the address
  const PdbBlockScope *block;     // innermost block; null when the procedure itself is innermost
  const PdbLineEntry *line_entry; // null: no line
  u32 line;                       // 0 when none
  u32 section;                    // 1-based section number; 0 when outside every section
  u32 offset;                     // within that section
} ScopeAtAddress;

enum ScopeMode : s32 {
  kScopeExact = 0,        // the address of an instruction
  kScopeReturnAddress = 1,// any positive mode: an address that follows a call
  kScopeProcedureOnly = -1,// any negative mode: procedure and line, no block search
};

// Finds the scope at address in the module (null module: the empty result). mode is the sign of
// a ScopeMode. Never fails; what is unknown is null or 0.
void FindScopeAtAddress(const ModuleSymbols *module, ScopeQueryContext *context, u64 address, s32 mode,
                        ScopeAtAddress *out);

// Section number (1-based) and offset of an rva through the image's section table: the upper bound
// is inclusive. False outside every section.
bool PeSectionOffsetOfRva(const PeImage *image, u32 rva, u32 *out_section, u32 *out_offset);
