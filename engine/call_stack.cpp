// Building a thread's call stack: the start context, the plain walk, and the two passes of the
// collapsing walk over the counting table.
//
// [SECTION] The frame pool
// [SECTION] Frames
// [SECTION] Collapse table
// [SECTION] Building
#include "engine/call_stack.h"

#include <string.h>

#include "engine/unwind.h"
#include "symbols/pdb_inline.h"
#include "symbols/pdb_raw.h"

// [SECTION] The frame pool

enum : u32 { kFrameCommitStep = 16 * 1024 };

static StackFrame *ThreadFrames(Target *target, TargetThread *thread) {
  if (!target->frame_pool) {
    u64 bytes = (u64)kThreadPoolCount * kFramePoolThreadBytes;
    target->frame_pool = (u8 *)VirtualAlloc(nullptr, bytes, MEM_RESERVE, PAGE_NOACCESS);
    if (!target->frame_pool) return nullptr;
  }
  u64 index = (u64)(thread - target->thread_pool);
  return (StackFrame *)(target->frame_pool + index * kFramePoolThreadBytes);
}

// Commits the thread's part of the pool up to room for count frames and the zeroed one after.
static bool CommitFrames(TargetThread *thread, u32 count) {
  u32 needed = (count + 1) * kStackFrameBytes;
  if (needed <= thread->frames_committed) return true;
  u32 bytes = (u32)MinU64(AlignUp(needed, kFrameCommitStep), kFramePoolThreadBytes);
  if (!VirtualAlloc(thread->frames, bytes, MEM_COMMIT, PAGE_READWRITE)) return false;
  thread->frames_committed = bytes;
  return true;
}

void CallStackReleaseThread(Target *target, TargetThread *thread) {
  if (thread->frames && thread->frames_committed) VirtualFree(thread->frames, thread->frames_committed, MEM_DECOMMIT);
  thread->frames = nullptr;
  thread->frames_committed = 0;
  thread->frame_count = 0;
  thread->stack_stop = 0;
}

void CallStackRelease(Target *target) {
  if (target->frame_pool) VirtualFree(target->frame_pool, 0, MEM_RELEASE);
  if (target->collapse_table) VirtualFree(target->collapse_table, 0, MEM_RELEASE);
  target->frame_pool = nullptr;
  target->collapse_table = nullptr;
}

void CallStackForgetAll(Target *target) {
  for (TargetThread *t = target->threads; t; t = t->next) t->stack_stop = 0;
}

// [SECTION] Frames

// Appends a frame of the context's registers and its address's symbols; false when the list is full
// or the pool cannot grow.
static StackFrame *TakeFrame(TargetThread *thread, const UnwindContext *c, TargetModule *module, bool return_address) {
  u32 n = thread->frame_count;
  if (n >= kMaxStackFrames || !CommitFrames(thread, n + 1)) return nullptr;
  StackFrame *f = &thread->frames[n];
  memset(f, 0, sizeof *f);
  f->ip = c->rip;
  f->rsp = c->gpr[kUnwindRsp];
  f->rbp = c->gpr[kUnwindRbp];
  f->rbx = c->gpr[kUnwindRbx];
  f->rsi = c->gpr[kUnwindRsi];
  f->rdi = c->gpr[kUnwindRdi];
  f->r12 = c->gpr[kUnwindR12];
  f->r13 = c->gpr[kUnwindR13];
  f->r14 = c->gpr[kUnwindR14];
  f->r15 = c->gpr[kUnwindR15];
  f->module = module;
  f->return_address = return_address ? 1 : 0;
  thread->frame_count = n + 1;
  memset(&thread->frames[n + 1], 0, sizeof(StackFrame));
  return f;
}

// The frames of one address: one per function inlined there, innermost first, each at its own
// line, then the procedure's own frame. False when the list is full.
static bool RecordFrame(TargetThread *thread, const UnwindContext *c, TargetModule *module, bool return_address) {
  ScopeAtAddress scope = {};
  ScopeChain chain;
  chain.inline_count = 0;
  const PdbFile *pdb = module && module->symbols.status == kSymbolsLoaded ? &module->symbols.pdb : nullptr;
  if (module) {
    FindScopeAtAddress(&module->symbols, nullptr, c->rip, return_address ? kScopeReturnAddress : kScopeExact, &scope);
    if (pdb && scope.procedure)
      PdbScopeChainAt(pdb, scope.procedure, scope.offset, return_address ? kScopeReturnAddress : kScopeExact, &chain);
  }
  u32 procedure_offset = 0;
  if (scope.procedure) memcpy(&procedure_offset, scope.procedure->record + kProcSymOffset, 4);
  // A thread stopped at the first instruction of inlined code has not entered that function yet:
  // it is shown at the call (as a step or a run to a line that calls an inline function expects),
  // so those sites add no frame.
  u32 first = 0;
  if (!return_address)
    while (first < chain.inline_count && chain.inlines[first]->code_start == chain.offset - procedure_offset) first++;
  for (u32 i = first; i < chain.inline_count; i++) {
    StackFrame *f = TakeFrame(thread, c, module, return_address);
    if (!f) return false;
    f->procedure = scope.procedure;
    f->inline_site = chain.inlines[i];
    u32 line = 0;
    const u8 *file = nullptr;
    if (PdbInlineSiteLineAt(pdb, chain.inlines[i], chain.offset - procedure_offset, &line, &file)) {
      f->line = line;
      f->file = file;
    }
  }
  StackFrame *f = TakeFrame(thread, c, module, return_address);
  if (!f) return false;
  f->procedure = scope.procedure;
  f->file = scope.line_entry ? scope.line_entry->file : nullptr;
  f->line = scope.line;
  return true;
}

const char *StackFrameFunctionName(const StackFrame *frame, char *scratch, u32 capacity) {
  if (!frame->procedure) return "";
  if (!frame->inline_site || !frame->module) return PdbProcName(frame->procedure);
  PdbInlineeName(&frame->module->symbols.pdb, PdbInlineSiteInlinee(frame->inline_site), scratch, capacity);
  return scratch;
}

static bool RecordMarker(TargetThread *thread, u32 hidden) {
  u32 n = thread->frame_count;
  if (n >= kMaxStackFrames || !CommitFrames(thread, n + 1)) return false;
  StackFrame *f = &thread->frames[n];
  memset(f, 0, sizeof *f);
  f->collapsed = 1;
  f->collapsed_count = hidden;
  thread->frame_count = n + 1;
  memset(&thread->frames[n + 1], 0, sizeof(StackFrame));
  return true;
}

// [SECTION] Collapse table

typedef struct CollapseValue {
  u32 count;
  s32 module_index;              // in the module pool, -1 for none
  const FunctionEntry *function; // the function-table entry of the address, null for a leaf
} CollapseValue;
static_assert(sizeof(CollapseValue) == 16, "collapse table value");
static const u64 kCollapseTableBytes = (u64)kCollapseTableSlots * (8 + sizeof(CollapseValue));  // 4 MiB

typedef struct CollapseTable {
  u64 *keys;  // a return address; 0 marks an empty slot
  CollapseValue *values;
  u32 distinct;
} CollapseTable;

static u32 CollapseSlot(u64 address) {
  u64 h = address * 0xFF51AFD7ED558CCDull;
  return (u32)(((h >> 32) ^ h) & (kCollapseTableSlots - 1));
}

// The value of address, or null when it is not in the table.
static CollapseValue *CollapseFind(CollapseTable *table, u64 address) {
  for (u32 slot = CollapseSlot(address), probes = 0; probes < kCollapseTableSlots; probes++) {
    if (table->keys[slot] == address) return &table->values[slot];
    if (table->keys[slot] == 0) return nullptr;
    slot = (slot + 1) & (kCollapseTableSlots - 1);
  }
  return nullptr;
}

// Counts address: its value (new ones with count 1), or null when the table is full.
static CollapseValue *CollapseCount(CollapseTable *table, u64 address) {
  u32 slot = CollapseSlot(address);
  for (u32 probes = 0; probes < kCollapseTableSlots; probes++) {
    if (table->keys[slot] == address) {
      table->values[slot].count++;
      return &table->values[slot];
    }
    if (table->keys[slot] == 0) break;
    slot = (slot + 1) & (kCollapseTableSlots - 1);
  }
  if (table->distinct >= kCollapseTableSlots || table->keys[slot] != 0) return nullptr;
  table->distinct++;
  table->keys[slot] = address;
  table->values[slot].count = 1;
  table->values[slot].module_index = -1;
  table->values[slot].function = nullptr;
  return &table->values[slot];
}

// [SECTION] Building

// The thread's registers as the walk starts from them: a thread that called through a null
// pointer is taken at its caller.
static bool StartContext(Target *target, TargetThread *thread, UnwindContext *out, bool *return_address) {
  CONTEXT *context = ThreadContextGet(thread);
  if (!context) return false;
  UnwindContextFromThread(context, out);
  *return_address = false;
  if (out->rip == 0) {
    UnwindMemory memory = UnwindMemoryOfTarget(target);
    if (UnwindLeaf(&memory, out) != kUnwindOk) out->rip = 0;
    *return_address = true;
  }
  return true;
}

// One step from the frame at c->rip; false when the walk ends there (unreadable, no progress).
static bool Step(Target *target, TargetModule *module, const FunctionEntry *function, UnwindContext *c) {
  u64 rsp = c->gpr[kUnwindRsp];
  UnwindMemory memory = UnwindMemoryOfTarget(target);
  UnwindResult result;
  if (UnwindIsExceptionDispatcher(target, module, c->rip)) result = UnwindFromContextRecord(&memory, rsp, c);
  else if (function) result = VirtualUnwind(&memory, TargetModuleBase(module), function, c);
  else result = UnwindLeaf(&memory, c);
  // A caller's frame lies above its callee's: a step that does not move up is garbage.
  return result == kUnwindOk && c->gpr[kUnwindRsp] > rsp;
}

static void WalkPlain(Target *target, TargetThread *thread, UnwindContext *c, bool return_address) {
  while (c->rip != 0 && thread->frame_count < kMaxStackFrames) {
    TargetModule *module = TargetFindModule(target, c->rip);
    if (!module) break;
    if (!RecordFrame(thread, c, module, return_address)) break;
    bool at_return = return_address;
    return_address = true;
    if (!Step(target, module, FindFunctionEntryIn(target, module, c->rip, at_return), c)) break;
  }
}

static bool TakeCollapseTable(Target *target, CollapseTable *table) {
  if (!target->collapse_table) {
    target->collapse_table = (u8 *)VirtualAlloc(nullptr, kCollapseTableBytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (!target->collapse_table) return false;
  }
  table->keys = (u64 *)target->collapse_table;
  table->values = (CollapseValue *)(target->collapse_table + (u64)kCollapseTableSlots * 8);
  table->distinct = 0;
  memset(table->keys, 0, (u64)kCollapseTableSlots * 8);  // empty keys; values are written at insertion
  return true;
}

// Pass 1 counts every return address of the whole stack; pass 2 records the frames, a run of
// addresses seen kCollapseRepeatCount times or more as its first frame and one marker row.
static void WalkCollapsing(Target *target, TargetThread *thread, const UnwindContext *start, bool return_address) {
  CollapseTable table;
  if (!TakeCollapseTable(target, &table)) {
    UnwindContext c = *start;
    WalkPlain(target, thread, &c, return_address);
    return;
  }
  UnwindContext c = *start;
  bool at_return = return_address;
  while (c.rip != 0) {
    CollapseValue *value = CollapseCount(&table, c.rip);
    TargetModule *module = nullptr;
    const FunctionEntry *function = nullptr;
    if (value && value->count > 1) {
      module = value->module_index >= 0 ? &target->module_pool[value->module_index] : nullptr;
      function = value->function;
    } else {
      module = TargetFindModule(target, c.rip);
      if (module) function = FindFunctionEntryIn(target, module, c.rip, at_return);
      if (value) {
        value->module_index = module ? (s32)(module - target->module_pool) : -1;
        value->function = function;
      }
    }
    at_return = true;
    if (!module || !Step(target, module, function, &c)) break;
  }

  c = *start;
  u32 run = 0;  // frames of the current repeated run, its recorded first one included
  while (c.rip != 0 && thread->frame_count < kMaxStackFrames) {
    CollapseValue *value = CollapseFind(&table, c.rip);
    TargetModule *module = value && value->module_index >= 0 ? &target->module_pool[value->module_index]
                                                             : TargetFindModule(target, c.rip);
    if (!module) break;
    const FunctionEntry *function = value ? value->function : FindFunctionEntryIn(target, module, c.rip, return_address);
    bool repeated = value && value->count >= kCollapseRepeatCount;
    if (repeated && run > 0) {
      run++;
    } else {
      if (run > 1 && !RecordMarker(thread, run - 1)) break;
      run = repeated ? 1 : 0;
      if (!RecordFrame(thread, &c, module, return_address)) break;
    }
    return_address = true;
    if (!Step(target, module, function, &c)) break;
  }
  if (run > 1) (void)RecordMarker(thread, run - 1);
}

EngineResult CallStackBuild(Target *target, TargetThread *thread) {
  thread->frame_count = 0;
  thread->selected_frame = 0;
  thread->stack_stop = target->stop_generation;
  if (!thread->frames) thread->frames = ThreadFrames(target, thread);
  UnwindContext start;
  bool return_address = false;
  if (!thread->frames || !CommitFrames(thread, 0)) return kEngineSystemCallFailed;
  memset(thread->frames, 0, sizeof(StackFrame));
  if (!StartContext(target, thread, &start, &return_address)) return kEngineSystemCallFailed;
  if (target->collapse_stack_overflow && thread->stack_overflow_seen)
    WalkCollapsing(target, thread, &start, return_address);
  else
    WalkPlain(target, thread, &start, return_address);
  return kEngineOk;
}

u32 CallStackOfThread(Target *target, TargetThread *thread, const StackFrame **out_frames) {
  *out_frames = nullptr;
  if (thread->stack_stop != target->stop_generation || !thread->frames) (void)CallStackBuild(target, thread);
  *out_frames = thread->frames;
  return thread->frames ? thread->frame_count : 0;
}
