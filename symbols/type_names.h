// Type names as the watch window, tooltips and casts show them: the debugger's own vocabulary for
// built-in types ("s64", "u8", "octect near*"), and every other type as a C/C++ declaration of an
// abstract declarator reads: "Foo *", "const char *", "int [10]", "int (*)(int, char *)".
#pragma once
#include "symbols/pdb_types.h"

// Depth and the number of types visited are bounded, so that hostile records (a procedure whose
// arguments are itself) end quickly: past either bound "..." is printed.
enum { kTypeNameMaxDepth = 16, kTypeNameMaxVisits = 4096, kTypeNameScratchBytes = 1024 };

// The name of a built-in type index (below the stream's first index); never null.
const char *BuiltinTypeName(u32 type_index);

// Writes the type's name into out (always terminated when capacity > 0, cut at capacity - 1
// bytes) and returns its length. Unknown indices print as "<type 0xINDEX>", records that are
// not types by their leaf ("<LF_FIELDLIST>").
// A bit field prints as the watch tree shows it, its type and its bits: "unsigned int (Bits 4..6)",
// "int (Bit 0)".
u32 TypeNameFormat(const PdbTypes *types, u32 type_index, char *out, u32 capacity);
