// Names of threads as the threads window shows them: "Main Thread" for the process's first
// thread, else the function or the module that holds the thread's start address.
#include <stdio.h>
#include <string.h>

#include "engine/engine_internal.h"
#include "symbols/scope_lookup.h"

void EngineNameThread(Target *target, TargetThread *thread, bool main_thread) {
  thread->name[0] = 0;
  if (main_thread) {
    snprintf(thread->name, sizeof thread->name, "Main Thread");
    return;
  }
  TargetModule *module = TargetFindModule(target, thread->start_address);
  if (!module) return;
  const char *module_name = module->symbols.name ? module->symbols.name : "";
  ScopeQueryContext context;
  context.procedure_name[0] = 0;
  ScopeAtAddress scope;
  FindScopeAtAddress(&module->symbols, &context, thread->start_address, kScopeProcedureOnly, &scope);
  if (scope.procedure && context.procedure_name[0])
    snprintf(thread->name, sizeof thread->name, "%s!%s", module_name, context.procedure_name);
  else
    snprintf(thread->name, sizeof thread->name, "%s thread", module_name);
}
