// Software breakpoints: the pool of location records, binding a place to an address through the
// symbols of the loaded modules, the int3 written and taken out, module loads and unloads, the
// program's own bytes shown in place of the int3s, and the operations of the user interface.
//
// [SECTION] Pool and list
// [SECTION] Binding
// [SECTION] Int3 in target memory
// [SECTION] Module loads and unloads
// [SECTION] Requests carried while the target runs
// [SECTION] Operations of the user interface
#include <stddef.h>
#include <string.h>

#include "engine/engine.h"
#include "engine/engine_internal.h"
#include "expr/expr_parser.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_records.h"
#include "symbols/scope_lookup.h"

static const u8 kInt3 = 0xCC;

// [SECTION] Pool and list

// Taken by the user interface (adds) and given back by either side (removals at a stop or in a
// request): the free list is guarded by the ticket lock.
BreakpointLocation *EngineTakeBreakpoint(Target *target) {
  TicketLockAcquire(&target->lock);
  BreakpointLocation *bp = target->free_breakpoints;
  if (bp) target->free_breakpoints = bp->next;
  TicketLockRelease(&target->lock);
  if (!bp) return nullptr;
  memset(bp, 0, offsetof(BreakpointLocation, condition_nodes));  // the pool is set up per condition
  bp->in_use = 1;
  bp->pending = 1;
  bp->enabled = 1;
  bp->slot = kNoProcessorSlot;
  return bp;
}

static void GiveBack(Target *target, BreakpointLocation *bp) {
  bp->in_use = 0;
  TicketLockAcquire(&target->lock);
  bp->next = target->free_breakpoints;
  bp->previous = nullptr;
  target->free_breakpoints = bp;
  TicketLockRelease(&target->lock);
}

void EngineLinkBreakpoint(Target *target, BreakpointLocation *bp) {
  bp->previous = nullptr;
  bp->next = target->breakpoints;
  if (bp->next) bp->next->previous = bp;
  target->breakpoints = bp;
}

static bool IsLinked(Target *target, const BreakpointLocation *bp) {
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next)
    if (b == bp) return true;
  return false;
}

static void Unlink(Target *target, BreakpointLocation *bp) {
  if (bp->previous)
    bp->previous->next = bp->next;
  else
    target->breakpoints = bp->next;
  if (bp->next) bp->next->previous = bp->previous;
  bp->next = bp->previous = nullptr;
}

BreakpointLocation *BreakpointAt(Target *target, u64 address) {
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next)
    if (!b->pending && b->address == address && b->kind != kBreakpointProcessor) return b;
  return nullptr;
}

static bool IsPoolRecord(const Target *target, const BreakpointLocation *bp) {
  return target->breakpoint_pool && bp >= target->breakpoint_pool && bp < target->breakpoint_pool + kBreakpointPoolCount &&
         bp->in_use;
}

// [SECTION] Binding

static u64 AddressOfSectionOffset(const ModuleSymbols *symbols, u32 section, u32 offset) {
  if (section == 0 || section > symbols->image.section_count) return 0;
  return symbols->load_base + symbols->image.sections[section - 1].virtual_address + offset;
}

// The function's own address (no prologue skipped). With an argument list, the overload whose
// procedure type has it; without one, the first of that name, whose argument list is remembered.
static u64 ResolveFunction(const ModuleSymbols *symbols, const char *name, u32 *argument_list) {
  const PdbScopes *scopes = &symbols->pdb.scopes;
  for (const PdbProcScope *p = PdbFindProcedure(scopes, name, nullptr); p; p = PdbFindProcedure(scopes, name, p)) {
    const u8 *record = p->record;
    u32 type = 0, offset = 0;
    u16 section = 0;
    memcpy(&type, record + kProcSymType, 4);
    memcpy(&offset, record + kProcSymOffset, 4);
    memcpy(&section, record + kProcSymSection, 2);
    TypeRecord procedure;
    u32 list = PdbDecodeType(&symbols->pdb.types, type, &procedure) && procedure.leaf == kLF_PROCEDURE
                   ? procedure.index_type
                   : 0;
    if (*argument_list && list != *argument_list) continue;
    u64 address = AddressOfSectionOffset(symbols, section, offset);
    if (!address) continue;
    *argument_list = list;
    return address;
  }
  return 0;
}

// The first of lines line..line+9 of the file that has code in this module.
static u64 ResolveLine(const ModuleSymbols *symbols, const char *path, u32 line) {
  u32 file = PdbFindSourceFile(&symbols->pdb.source_files, path);
  if (!file) return 0;
  const PdbLineEntry *entry = PdbAddressOfLine(&symbols->pdb.lines, file, line);
  return entry ? AddressOfSectionOffset(symbols, entry->section, entry->offset) : 0;
}

// Where the record's place lies in the module; 0 when the module does not have it.
static u64 Resolve(TargetModule *module, BreakpointLocation *bp) {
  const ModuleSymbols *symbols = &module->symbols;
  if (bp->kind == kBreakpointAddress) {
    u64 a = bp->requested_address;
    if (a < TargetModuleBase(module) || a >= TargetModuleEnd(module) || a - symbols->load_base > 0xFFFFFFFFull) return 0;
    u32 section = 0, offset = 0;
    return PeSectionOffsetOfRva(&symbols->image, (u32)(a - symbols->load_base), &section, &offset) ? a : 0;
  }
  if (symbols->status != kSymbolsLoaded) return 0;
  if (bp->kind == kBreakpointFunction) return ResolveFunction(symbols, bp->place, &bp->argument_list);
  if (bp->kind == kBreakpointSourceLine) return ResolveLine(symbols, bp->place, bp->line);
  return 0;
}

// Fills a record's binding at address in module and writes its int3 when enabled; false when the
// program's byte cannot be read (the bind fails silently).
static bool BindAt(Target *target, BreakpointLocation *bp, TargetModule *module, u64 address) {
  u8 byte = 0;
  if (!TargetReadMemory(target, address, &byte, 1)) return false;
  bp->saved_byte = byte;
  bp->module = module;
  bp->address = address;
  bp->pending = 0;
  EngineLocate(target, address, &bp->location);
  if (bp->enabled) BreakpointArm(target, bp);
  return true;
}

static bool HasBindingIn(Target *target, const BreakpointLocation *owner, const TargetModule *module) {
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next)
    if ((b == owner || b->owner == owner) && !b->pending && b->module == module) return true;
  return false;
}

// A line breakpoint's binding in one more module: a record of its own, owned by the user's record.
// Nothing when the module lacks the line, already has a binding of it, or another breakpoint holds
// the address; a full pool leaves that module without one.
static void BindFurther(Target *target, BreakpointLocation *owner, TargetModule *module) {
  if (HasBindingIn(target, owner, module)) return;
  u64 address = Resolve(module, owner);
  if (!address || BreakpointAt(target, address)) return;
  BreakpointLocation *further = EngineTakeBreakpoint(target);
  if (!further) return;
  further->kind = owner->kind;
  further->line = owner->line;
  further->enabled = owner->enabled;
  further->owner = owner;
  memcpy(further->place, owner->place, sizeof further->place);
  if (!BindAt(target, further, module, address)) {
    GiveBack(target, further);
    return;
  }
  EngineLinkBreakpoint(target, further);
}

// Binds a pending record in the module (every loaded module when null); a line breakpoint binds in
// every module that has its line. kEngineOk whether it was bound or stays pending;
// kEngineBreakpointExists when a live record has that address already (out_existing names the
// user's record of it); kEngineSystemCallFailed for an address no module section holds.
static EngineResult Bind(Target *target, BreakpointLocation *bp, TargetModule *only, BreakpointLocation **out_existing) {
  u64 address = 0;
  TargetModule *module = nullptr;
  for (TargetModule *m = only ? only : target->modules; m && !address; m = only ? nullptr : m->next) {
    address = Resolve(m, bp);
    module = m;
  }
  if (!address) return bp->kind == kBreakpointAddress && !only ? kEngineSystemCallFailed : kEngineOk;
  if (BreakpointLocation *existing = BreakpointAt(target, address)) {
    if (out_existing) *out_existing = existing->owner ? existing->owner : existing;
    return kEngineBreakpointExists;
  }
  if (!BindAt(target, bp, module, address)) return kEngineOk;
  if (bp->kind == kBreakpointSourceLine && !only)
    for (TargetModule *m = module->next; m; m = m->next) BindFurther(target, bp, m);
  return kEngineOk;
}

static void PostBreakpointEvent(Target *target, u32 kind, BreakpointLocation *bp) {
  EngineEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kind;
  event.breakpoint.location_record = bp;
  event.breakpoint.address = bp->address;
  event.breakpoint.location = bp->location;
  EnginePostEvent(target, &event);
}

// [SECTION] Int3 in target memory

void BreakpointArm(Target *target, BreakpointLocation *bp) {
  if (bp->armed || bp->pending || bp->kind == kBreakpointProcessor) return;
  if (TargetWriteMemory(target, bp->address, &kInt3, 1)) bp->armed = 1;
}

void BreakpointDisarm(Target *target, BreakpointLocation *bp) {
  if (!bp->armed) return;
  if (TargetWriteMemory(target, bp->address, &bp->saved_byte, 1)) bp->armed = 0;
}

void BreakpointShowProgramBytes(Target *target, u64 address, u8 *bytes, u32 size) {
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next)
    if (b->armed && b->address >= address && b->address - address < size) bytes[b->address - address] = b->saved_byte;
}

bool TargetReadProgramMemory(Target *target, u64 address, void *buffer, u32 size) {
  if (!TargetReadMemory(target, address, buffer, size)) return false;
  BreakpointShowProgramBytes(target, address, (u8 *)buffer, size);
  return true;
}

// Takes a record out: its int3, its place in the list, its pool slot. A thread that is stepping over
// it keeps its re-arm address: its single step is still on its way and must be taken as the
// engine's (unclaimed, it would reach the program as an exception and kill it); the re-arm then
// finds no record at that address and writes nothing.
static void RemoveOne(Target *target, BreakpointLocation *bp) {
  BreakpointDisarm(target, bp);
  if (bp->kind == kBreakpointProcessor) EngineReleaseProcessorSlot(target, bp->slot);
  Unlink(target, bp);
  GiveBack(target, bp);
}

// The user's record with its bindings in further modules.
static void Remove(Target *target, BreakpointLocation *bp) {
  for (BreakpointLocation *b = target->breakpoints, *next; b; b = next) {
    next = b->next;
    if (b->owner == bp) RemoveOne(target, b);
  }
  RemoveOne(target, bp);
}

// Switches a user's record and its further bindings on or off.
static void Enable(Target *target, BreakpointLocation *bp, u8 enabled) {
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next) {
    if (b != bp && b->owner != bp) continue;
    b->enabled = enabled ? 1 : 0;
    if (b->enabled)
      BreakpointArm(target, b);
    else
      BreakpointDisarm(target, b);
  }
}

void EngineRearmAfterStep(Target *target, TargetThread *thread) {
  u64 address = thread->rearm_address;
  if (!address) return;
  thread->rearm_address = 0;
  for (TargetThread *t = target->threads; t; t = t->next)
    if (t->rearm_address == address) return;  // another thread still steps over it
  BreakpointLocation *bp = BreakpointAt(target, address);
  if (bp && bp->enabled) BreakpointArm(target, bp);
}

void BreakpointsDisarmAll(Target *target) {
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next) BreakpointDisarm(target, b);
  for (TargetThread *t = target->threads; t; t = t->next) t->rearm_address = 0;
}

// [SECTION] Module loads and unloads

void BreakpointsOnModuleLoad(Target *target, TargetModule *module) {
  // Records made here are linked at the head, behind the walk.
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next) {
    if (b->owner || (b->kind != kBreakpointFunction && b->kind != kBreakpointSourceLine)) continue;
    if (!b->pending) {
      if (b->kind == kBreakpointSourceLine) BindFurther(target, b, module);
      continue;
    }
    if (Bind(target, b, module, nullptr) == kEngineOk && !b->pending) PostBreakpointEvent(target, kEventBreakpointBound, b);
  }
}

// A further binding that outlives the module of its owner's takes the owner's place.
static bool MoveFurtherBindingIntoOwner(Target *target, BreakpointLocation *owner) {
  for (BreakpointLocation *b = target->breakpoints; b; b = b->next) {
    if (b->owner != owner || b->pending || b->module == owner->module) continue;
    owner->module = b->module;
    owner->address = b->address;
    owner->saved_byte = b->saved_byte;
    owner->armed = b->armed;  // the int3 in memory is the same one
    owner->location = b->location;
    Unlink(target, b);
    GiveBack(target, b);
    return true;
  }
  return false;
}

void BreakpointsOnModuleUnload(Target *target, TargetModule *module) {
  // The temporary breakpoint's int3 went with the image: its byte must not be written back later
  // into whatever is mapped there next.
  TemporaryBreakpoint *temporary = &target->temporary;
  if (temporary->address >= TargetModuleBase(module) && temporary->address < TargetModuleEnd(module))
    memset(temporary, 0, sizeof *temporary);
  for (BreakpointLocation *b = target->breakpoints, *next; b; b = next) {
    next = b->next;
    if (b->pending || b->module != module || b->kind == kBreakpointProcessor) continue;
    for (TargetThread *t = target->threads; t; t = t->next)
      if (t->rearm_address == b->address) t->rearm_address = 0;
    if (b->owner) {  // a further binding goes with its module, unreported
      Unlink(target, b);
      GiveBack(target, b);
      continue;
    }
    if (MoveFurtherBindingIntoOwner(target, b)) {
      next = target->breakpoints;  // the walk's next record may have been the one moved
      PostBreakpointEvent(target, kEventBreakpointBound, b);
      continue;
    }
    PostBreakpointEvent(target, kEventBreakpointLost, b);
    b->pending = 1;
    b->armed = 0;  // the image and the int3 in it are gone
    b->saved_byte = 0;
    b->module = nullptr;
    b->address = 0;
    memset(&b->location, 0, sizeof b->location);
  }
}

// [SECTION] Requests carried while the target runs

void EngineServeBreakpointRequest(Target *target, const EngineRequest *request) {
  BreakpointLocation *bp = (BreakpointLocation *)(uintptr_t)request->argument;
  if (!bp || !IsPoolRecord(target, bp)) return;
  switch (request->kind) {
    case kRequestAddBreakpoint:
      if (IsLinked(target, bp)) return;
      EngineLinkBreakpoint(target, bp);
      if (bp->kind == kBreakpointProcessor) {
        EngineLocate(target, bp->address, &bp->location);
        EngineRequest arm = {};
        arm.kind = kRequestArmSlot;
        arm.slot = bp->slot;
        EngineServeProcessorRequest(target, &arm);
        return;
      }
      // Bound now, it is reported like a pending record bound by a module load; a place no module
      // has (or an address a record has already) leaves it pending.
      if (Bind(target, bp, nullptr, nullptr) == kEngineOk && !bp->pending) PostBreakpointEvent(target, kEventBreakpointBound, bp);
      return;
    case kRequestRemoveBreakpoint:
      if (IsLinked(target, bp)) Remove(target, bp);
      return;
    case kRequestEnableBreakpoint:
      if (IsLinked(target, bp)) Enable(target, bp, (u8)request->slot);
      return;
  }
}

// [SECTION] Operations of the user interface

static EngineResult SetCondition(Target *target, BreakpointLocation *bp, const char *text) {
  u64 length = text ? strnlen(text, kConditionCapacity) : 0;
  if (length >= kConditionCapacity) return kEngineTextTooLong;
  // The record's own pool holds only this tree: setting it up afresh frees the old one.
  ExprPool *nodes = &bp->condition_nodes;
  bp->condition_tree = nullptr;
  InitExprPool(nodes);
  bp->condition_parse_failed = 0;
  bp->hit_count = 0;
  memcpy(bp->condition, text ? text : "", length + 1);
  if (!length) return kEngineOk;
  // The nodes point into the record's own copy of the text.
  ExprParseResult parsed;
  if (!ExprParse(nodes, bp->condition, &parsed)) {
    bp->condition_parse_failed = 1;  // kept: shown as a parse error
    return kEngineParseError;
  }
  bp->condition_tree = parsed.tree;
  ExprFreeTree(nodes, parsed.format);
  return kEngineOk;
}

static void ReleaseRecord(Target *target, BreakpointLocation *bp) {
  (void)target;
  bp->condition_tree = nullptr;  // its nodes are the record's own and go with it
}

EngineResult EngineAddBreakpoint(Target *target, const BreakpointWanted *wanted, BreakpointLocation **out) {
  if (out) *out = nullptr;
  if (!target || !wanted || !out || !target->breakpoint_pool || target->engine_state == kEngineStateNone)
    return kEngineNoTarget;
  if (target->exited || target->detached) return kEngineNoProcess;
  bool named = wanted->kind == kBreakpointFunction || wanted->kind == kBreakpointSourceLine;
  if (!named && wanted->kind != kBreakpointAddress) return kEngineNoTarget;
  if (named && (!wanted->place || !wanted->place[0])) return kEngineNoTarget;
  u64 place_length = named ? strnlen(wanted->place, kBreakpointPlaceCapacity) : 0;
  if (place_length >= kBreakpointPlaceCapacity) return kEngineTextTooLong;
  if (wanted->condition && strnlen(wanted->condition, kConditionCapacity) >= kConditionCapacity) return kEngineTextTooLong;
  BreakpointLocation *bp = EngineTakeBreakpoint(target);
  if (!bp) return kEngineSystemCallFailed;
  bp->kind = wanted->kind;
  if (named) memcpy(bp->place, wanted->place, place_length + 1);
  bp->line = wanted->line;
  bp->argument_list = wanted->argument_list;
  bp->requested_address = wanted->address;
  bp->temporary = wanted->temporary;
  EngineResult condition = SetCondition(target, bp, wanted->condition);

  EngineResult state = EngineLockStopped(target);
  if (state == kEngineOk) {
    BreakpointLocation *existing = nullptr;
    EngineResult bound = Bind(target, bp, nullptr, &existing);
    if (bound != kEngineOk) {
      EngineUnlockModel(target);
      ReleaseRecord(target, bp);
      GiveBack(target, bp);
      if (bound == kEngineBreakpointExists) *out = existing;
      return bound;
    }
    EngineLinkBreakpoint(target, bp);
    EngineUnlockModel(target);
    *out = bp;
    return condition;
  }
  if (state != kEngineNotSuspended) {
    ReleaseRecord(target, bp);
    GiveBack(target, bp);
    return state;
  }
  EngineRequest request = {};
  request.kind = kRequestAddBreakpoint;
  request.argument = (u64)(uintptr_t)bp;
  EngineResult queued = EngineQueueRequest(target, &request);
  if (queued != kEngineOk) {
    ReleaseRecord(target, bp);
    GiveBack(target, bp);
    return queued;
  }
  *out = bp;
  return condition;
}

EngineResult EngineRemoveBreakpoint(Target *target, BreakpointLocation *bp) {
  if (!target || !bp) return kEngineNoTarget;
  if (!IsPoolRecord(target, bp)) return kEngineUnknownBreakpoint;
  EngineResult state = EngineLockStopped(target);
  if (state == kEngineOk) {
    bool linked = IsLinked(target, bp);
    if (linked) {
      ReleaseRecord(target, bp);
      Remove(target, bp);
    }
    EngineUnlockModel(target);
    return linked ? kEngineOk : kEngineUnknownBreakpoint;
  }
  if (state != kEngineNotSuspended) return state;
  ReleaseRecord(target, bp);  // the tree is the user interface's; the record goes at the break-in
  EngineRequest request = {};
  request.kind = kRequestRemoveBreakpoint;
  request.argument = (u64)(uintptr_t)bp;
  return EngineQueueRequest(target, &request);
}

EngineResult EngineEnableBreakpoint(Target *target, BreakpointLocation *bp, u8 enabled) {
  if (!target || !bp) return kEngineNoTarget;
  if (!IsPoolRecord(target, bp)) return kEngineUnknownBreakpoint;
  if (bp->kind == kBreakpointProcessor) return kEngineSystemCallFailed;  // removed and added again instead
  EngineResult state = EngineLockStopped(target);
  if (state == kEngineOk) {
    bool linked = IsLinked(target, bp);
    if (linked) Enable(target, bp, enabled);
    EngineUnlockModel(target);
    return linked ? kEngineOk : kEngineUnknownBreakpoint;
  }
  if (state != kEngineNotSuspended) return state;
  EngineRequest request = {};
  request.kind = kRequestEnableBreakpoint;
  request.slot = enabled ? 1 : 0;
  request.argument = (u64)(uintptr_t)bp;
  return EngineQueueRequest(target, &request);
}

EngineResult EngineSetBreakpointCondition(Target *target, BreakpointLocation *bp, const char *text) {
  if (!target || !bp) return kEngineNoTarget;
  if (!IsPoolRecord(target, bp)) return kEngineUnknownBreakpoint;
  EngineResult state = EngineLockStopped(target);
  if (state != kEngineOk) return state;
  EngineResult result = IsLinked(target, bp) ? SetCondition(target, bp, text) : kEngineUnknownBreakpoint;
  EngineUnlockModel(target);
  return result;
}
