// Scope at an address: the procedure that contains a code address, the innermost block at it and
// the source line, within one loaded module.
#pragma once
#include "symbols/module_symbols.h"

enum : u32 { kScopeNameCapacity = 512 };

// The caller's side of a lookup: the procedure's name is copied here when it is still empty.
typedef struct ScopeQueryContext {
  char procedure_name[kScopeNameCapacity];
} ScopeQueryContext;

enum : u32 { kScopeMaxInlineDepth = 32 };  // inline sites deeper than this are not listed

// The scopes of a procedure that hold an address: blocks and the inline sites that inlined code
// there. Each inline site stands for a frame of the inlined function above the procedure's own.
typedef struct ScopeChain {
  const PdbBlockScope *block;   // innermost block; null when none holds the address
  u32 offset;                   // the section offset looked up (for a return address: the call's)
  u32 inline_count;             // inline sites holding the address, innermost first
  const PdbInlineScope *inlines[kScopeMaxInlineDepth];
} ScopeChain;

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

// The scope chain of the procedure at an offset in its section, asked apart from the lookup above
// since it decodes inline sites, which only frames and variables need. mode as above (a return
// address is looked up as the call before it). The procedure must hold the address.
//
// Frames: frame 0 is the innermost, the function of inlines[0] when there is one; frame
// inline_count is the procedure. A frame's scopes are the blocks of its function that hold the
// address and the function's own scope; compilers may place an inline site beside the block that
// holds the call rather than inside it, so a frame's blocks are found by address, not through the
// inline site's parents.
void PdbScopeChainAt(const PdbFile *pdb, const PdbProcScope *procedure, u32 offset, s32 mode, ScopeChain *out);
// The scope that opens a frame's function (kPdbNoBlock: the procedure), and the innermost block of
// that function holding the address (the root itself when none does).
PdbScopeRef ScopeChainFrameRoot(const PdbScopes *scopes, const ScopeChain *chain, u32 frame);
PdbScopeRef ScopeChainFrameInnermost(const PdbScopes *scopes, const PdbProcScope *procedure, const ScopeChain *chain,
                                     u32 frame);

// Section number (1-based) and offset of an rva through the image's section table: the upper bound
// is inclusive. False outside every section.
bool PeSectionOffsetOfRva(const PeImage *image, u32 rva, u32 *out_section, u32 *out_offset);
