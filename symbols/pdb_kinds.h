// CodeView symbol record kinds that the loaders read, listed once. Everything else is stepped
// over by its length.
#pragma once
#include "base/types.h"

// X(name, value)
#define KTRN_SYMBOL_KINDS(X)            \
  X(S_END, 0x0006)                      \
  X(S_BLOCK32, 0x1103)                  \
  X(S_FRAMEPROC, 0x1012)                \
  X(S_CONSTANT, 0x1107)                 \
  X(S_UDT, 0x1108)                      \
  X(S_LDATA32, 0x110C)                  \
  X(S_GDATA32, 0x110D)                  \
  X(S_LPROC32, 0x110F)                  \
  X(S_GPROC32, 0x1110)                  \
  X(S_REGREL32, 0x1111)                 \
  X(S_LTHREAD32, 0x1112)                \
  X(S_GTHREAD32, 0x1113)                \
  X(S_LOCAL, 0x113E)                    \
  X(S_DEFRANGE_REGISTER, 0x1141)        \
  X(S_DEFRANGE_FRAMEPOINTER_REL, 0x1142) \
  X(S_DEFRANGE_REGISTER_REL, 0x1145)

enum SymbolKind : u16 {
#define KTRN_KIND_ENUM(name, value) k##name = value,
  KTRN_SYMBOL_KINDS(KTRN_KIND_ENUM)
#undef KTRN_KIND_ENUM
};

// Register numbers of S_REGREL32 that count as frame-based.
enum { kCvRegRbp = 334, kCvRegRsp = 335 };

// The record kind's name ("S_GPROC32"), or null for a kind not in the table.
const char *SymbolKindName(u16 kind);
