// The module and source line of a target address, for the events that show a place.
#include <string.h>

#include "engine/engine_internal.h"
#include "symbols/scope_lookup.h"

void EngineLocate(Target *target, u64 address, EngineSourceLocation *out, bool return_address) {
  memset(out, 0, sizeof *out);
  if (return_address && address) address -= 1;
  TargetModule *module = TargetFindModule(target, address);
  if (!module) return;
  out->module = module;
  ScopeAtAddress scope;
  FindScopeAtAddress(&module->symbols, nullptr, address, kScopeProcedureOnly, &scope);
  out->section = scope.section;
  out->offset = scope.offset;
  out->line = scope.line;
  out->file = scope.line_entry ? scope.line_entry->file : nullptr;
}
