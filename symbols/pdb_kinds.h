// CodeView symbol record kinds that the loaders read, listed once. Everything else is stepped
// over by its length.
#pragma once
#include "base/types.h"

// X(name, value)
#define KTRN_SYMBOL_KINDS(X)                    \
  X(S_END, 0x0006)                              \
  X(S_FRAMEPROC, 0x1012)                        \
  X(S_BLOCK32, 0x1103)                          \
  X(S_REGISTER, 0x1106)                         \
  X(S_CONSTANT, 0x1107)                         \
  X(S_UDT, 0x1108)                              \
  X(S_BPREL32, 0x110B)                          \
  X(S_LDATA32, 0x110C)                          \
  X(S_GDATA32, 0x110D)                          \
  X(S_LPROC32, 0x110F)                          \
  X(S_GPROC32, 0x1110)                          \
  X(S_REGREL32, 0x1111)                         \
  X(S_LTHREAD32, 0x1112)                        \
  X(S_GTHREAD32, 0x1113)                        \
  X(S_SEPCODE, 0x1132)                          \
  X(S_LOCAL, 0x113E)                            \
  X(S_DEFRANGE, 0x113F)                         \
  X(S_DEFRANGE_SUBFIELD, 0x1140)                \
  X(S_DEFRANGE_REGISTER, 0x1141)                \
  X(S_DEFRANGE_FRAMEPOINTER_REL, 0x1142)        \
  X(S_DEFRANGE_SUBFIELD_REGISTER, 0x1143)       \
  X(S_DEFRANGE_FRAMEPOINTER_REL_FULL_SCOPE, 0x1144) \
  X(S_DEFRANGE_REGISTER_REL, 0x1145)            \
  X(S_INLINESITE, 0x114D)                       \
  X(S_INLINESITE_END, 0x114E)                   \
  X(S_FILESTATIC, 0x1153)                       \
  X(S_INLINESITE2, 0x115D)

enum SymbolKind : u16 {
#define KTRN_KIND_ENUM(name, value) k##name = value,
  KTRN_SYMBOL_KINDS(KTRN_KIND_ENUM)
#undef KTRN_KIND_ENUM
};

// The def-range kinds: records after a S_LOCAL that say where its value lives over which code.
static inline bool SymbolKindIsDefRange(u16 kind) { return kind >= kS_DEFRANGE && kind <= kS_DEFRANGE_REGISTER_REL; }
// Records that open a nested scope, closed by S_END (blocks, separated code) or S_INLINESITE_END.
static inline bool SymbolKindOpensScope(u16 kind) {
  return kind == kS_BLOCK32 || kind == kS_SEPCODE || kind == kS_INLINESITE || kind == kS_INLINESITE2;
}
static inline bool SymbolKindIsInlineSite(u16 kind) { return kind == kS_INLINESITE || kind == kS_INLINESITE2; }

// The record kind's name ("S_GPROC32"), or null for a kind not in the table.
const char *SymbolKindName(u16 kind);
