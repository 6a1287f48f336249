// Locals and parameters at an address: the variables of a frame's scopes (innermost block first,
// out to the procedure or to the inline site whose inlined function the frame is), each with
// where its value lives at that address, read from the symbol records compilers write for them
// (S_LOCAL and S_FILESTATIC with their def ranges and gaps, S_REGREL32, S_BPREL32, S_REGISTER,
// static and thread-local statics, constants).
#pragma once
#include "symbols/pdb_type_records.h"
#include "symbols/scope_lookup.h"

enum LocalStorage : u32 {
  kLocalUnavailable = 0,   // no def range covers the address, or the compiler dropped the value
  kLocalRegister,          // in register `reg`
  kLocalRegisterRelative,  // in memory at reg + offset
  kLocalFrameRelative,     // in memory at reg + offset; reg is the frame's base register, which the
                           //   procedure's S_FRAMEPROC names (for parameters and locals apart)
  kLocalStatic,            // in the image at section:section_offset
  kLocalThreadStatic,      // in the thread's TLS block of the image, at section:section_offset
  kLocalConstant,          // no storage: the value is `constant`
  kLocalParts,             // parts of the value in several places: parts[]
};

// One part of a value that lives in pieces (a structure passed in registers).
enum : u32 { kLocalMaxParts = 32 };  // parts past this many are not listed
typedef struct LocalPart {
  u32 storage;        // kLocalRegister or kLocalRegisterRelative
  u16 reg;
  u16 padding;
  s32 offset;         // register-relative: the displacement
  u32 parent_offset;  // where the part lies in the value
} LocalPart;

typedef struct LocalVariable {
  const char *name;
  const u8 *record;     // S_LOCAL, S_FILESTATIC, S_REGREL32, S_BPREL32, S_REGISTER, S_LDATA32, S_LTHREAD32,
                        //   S_CONSTANT
  const u8 *def_range;  // the def range in force at the address, null for kinds without ranges
  u32 type_index;
  u32 storage;          // LocalStorage
  u16 reg;              // register and relative kinds (CodeView register number)
  u16 section;          // static kinds
  s32 offset;           // relative kinds: the displacement
  u32 section_offset;   // static kinds
  u32 scope_depth;      // 0: the frame's innermost scope that holds the address, 1: the one around it...
  bool is_parameter;
  NumericLeaf constant;
  u32 part_count;
  LocalPart parts[kLocalMaxParts];
} LocalVariable;

typedef bool (*LocalFn)(void *user, const LocalVariable *variable);  // false stops the walk

// Calls fn for each variable of one frame at (section, offset) of the procedure, whose scope
// chain at that address is `chain` (see PdbScopeChainAt). Frame 0 is the innermost: the inlined
// function when the address lies in inlined code; frame chain->inline_count is the procedure.
// Scopes are visited innermost first, the variables of each in record order. False when fn
// stopped the walk or the frame does not exist.
bool PdbForEachLocal(const PdbFile *pdb, const PdbProcScope *procedure, const ScopeChain *chain, u32 section,
                     u32 offset, u32 frame, LocalFn fn, void *user);

// The register that S_FRAMEPROC names for a procedure's locals or parameters (CodeView number),
// for the machine of the PDB; the stack pointer when the procedure has no such record.
u16 PdbFrameBaseRegister(const PdbFile *pdb, const PdbProcScope *procedure, bool for_parameters);
