#include "symbols/pdb_kinds.h"

const char *SymbolKindName(u16 kind) {
  switch (kind) {
#define KTRN_KIND_NAME(name, value) \
  case value: return #name;
    KTRN_SYMBOL_KINDS(KTRN_KIND_NAME)
#undef KTRN_KIND_NAME
  }
  return nullptr;
}
