// The evaluator's host at a stop: registers of a frame, locals through the frame's scopes, globals
// and thread-locals of every module, types of the PDB that owns the value.
#include "engine/expression_host.h"

#include <stdio.h>
#include <string.h>

#include "engine/engine_internal.h"
#include "symbols/cv_registers.h"
#include "symbols/pdb_locals.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_fields.h"
#include "symbols/pdb_type_lookup.h"
#include "symbols/type_names.h"

enum : u32 {
  kTebTlsPointer = 0x58,  // the thread environment block's ThreadLocalStoragePointer
  kTebLastError = 0x68,
};

static ExpressionScope *ScopeOf(void *context) { return (ExpressionScope *)context; }

static const PdbFile *PdbOf(const TargetModule *module) {
  return module && module->symbols.status == kSymbolsLoaded ? &module->symbols.pdb : nullptr;
}

static const PdbTypes *TypesOf(const ExpressionScope *scope) {
  const PdbFile *pdb = PdbOf(scope->type_module);
  return pdb ? &pdb->types : nullptr;
}

static u64 SectionAddress(const TargetModule *module, u32 section, u32 offset) {
  const ModuleSymbols *symbols = &module->symbols;
  if (section == 0 || section > symbols->image.section_count) return 0;
  return symbols->load_base + symbols->image.sections[section - 1].virtual_address + offset;
}

// [SECTION] Registers

// The frame's value of a CodeView register, as up to 16 bytes (general registers at their width,
// xmm registers whole). False when the frame does not know it: above frame 0 only the stack
// pointer, the instruction pointer and the non-volatile general registers are known.
static bool CvRegisterBytes(ExpressionScope *scope, u16 reg, u8 *out, u32 *size) {
  if (!scope->has_frame) return false;
  const StackFrame *f = &scope->frame;
  CONTEXT *context = scope->frame_index == 0 ? ThreadContextGet(scope->thread) : nullptr;
  if (reg >= kCvReg_xmm0 && reg <= kCvReg_xmm7) reg = (u16)(0x1000 + reg - kCvReg_xmm0);
  if (reg >= kCvReg_xmm8 && reg <= kCvReg_xmm15) reg = (u16)(0x1008 + reg - kCvReg_xmm8);
  if (reg >= 0x1000 && reg < 0x1010) {
    if (!context) return false;
    memcpy(out, &context->FltSave.XmmRegisters[reg - 0x1000], 16);
    *size = 16;
    return true;
  }
  // General registers: which one (in CONTEXT order from Rax) and which bytes of it.
  struct Slice {
    u16 first, last;  // CodeView numbers
    u8 base;          // index of the first register (0 rax, 1 rcx, ... 15 r15)
    u8 size, shift;
  };
  static const Slice kSlices[] = {
      {kCvReg_al, kCvReg_bl, 0, 1, 0},     {kCvReg_ah, kCvReg_bh, 0, 1, 8},    {kCvReg_ax, kCvReg_bx, 0, 2, 0},
      {kCvReg_eax, kCvReg_ebx, 0, 4, 0},  {kCvReg_rax, kCvReg_rax, 0, 8, 0},  {kCvReg_rbx, kCvReg_rbx, 3, 8, 0},
      {kCvReg_rcx, kCvReg_rdx, 1, 8, 0},  {kCvReg_rsi, kCvReg_rdi, 6, 8, 0},  {kCvReg_rbp, kCvReg_rbp, 5, 8, 0},
      {kCvReg_rsp, kCvReg_rsp, 4, 8, 0},  {kCvReg_sp, kCvReg_di, 4, 2, 0},    {kCvReg_esp, kCvReg_edi, 4, 4, 0},
      {kCvReg_sil, kCvReg_dil, 6, 1, 0},  {kCvReg_bpl, kCvReg_bpl, 5, 1, 0},  {kCvReg_spl, kCvReg_spl, 4, 1, 0},
      {kCvReg_r8, kCvReg_r15, 8, 8, 0},   {kCvReg_r8l, kCvReg_r15l, 8, 1, 0}, {kCvReg_r8w, kCvReg_r15w, 8, 2, 0},
      {kCvReg_r8d, kCvReg_r15d, 8, 4, 0},
  };
  // The x86 order of the first eight in CodeView (al cl dl bl, ax cx dx bx, sp bp si di) maps to
  // CONTEXT's Rax Rcx Rdx Rbx and Rsp Rbp Rsi Rdi, which is why those ranges start at 0 and 4.
  for (const Slice &s : kSlices) {
    if (reg < s.first || reg > s.last) continue;
    u32 index = s.base + (reg - s.first);
    u64 value = 0;
    if (context) {
      value = (&context->Rax)[index];
    } else {
      switch (index) {
        case 3: value = f->rbx; break;
        case 4: value = f->rsp; break;
        case 5: value = f->rbp; break;
        case 6: value = f->rsi; break;
        case 7: value = f->rdi; break;
        case 12: value = f->r12; break;
        case 13: value = f->r13; break;
        case 14: value = f->r14; break;
        case 15: value = f->r15; break;
        default: return false;
      }
    }
    value >>= s.shift;
    memcpy(out, &value, s.size);
    *size = s.size;
    return true;
  }
  return false;
}

static bool ReadRegister(void *context, u32 reg, u64 *out) {
  ExpressionScope *scope = ScopeOf(context);
  if (!scope->has_frame || reg >= kExprRegisterCount) return false;
  if (reg == kExprRegRip) return *out = scope->frame.ip, true;
  if (scope->frame_index == 0) {
    CONTEXT *c = ThreadContextGet(scope->thread);
    if (!c) return false;
    if (reg == kExprRegEflags) return *out = c->EFlags, true;
    return *out = (&c->Rax)[reg], true;  // ExprRegister follows CONTEXT's order from Rax to R15
  }
  static const u16 kCv[] = {kCvReg_rax, kCvReg_rcx, kCvReg_rdx, kCvReg_rbx, kCvReg_rsp, kCvReg_rbp,
                            kCvReg_rsi, kCvReg_rdi, kCvReg_r8,  kCvReg_r9,  kCvReg_r10, kCvReg_r11,
                            kCvReg_r12, kCvReg_r13, kCvReg_r14, kCvReg_r15};
  if (reg >= KTRN_ARRAY_COUNT(kCv)) return false;
  u8 bytes[16];
  u32 size = 0;
  *out = 0;
  if (!CvRegisterBytes(scope, kCv[reg], bytes, &size)) return false;
  memcpy(out, bytes, size);
  return true;
}

static u32 ReadVectorRegister(void *context, u32 bank, u32 number, u8 *out) {
  ExpressionScope *scope = ScopeOf(context);
  // Vector registers are volatile or not recorded by unwinding: only frame 0 knows them.
  if (!scope->has_frame || scope->frame_index != 0) return kExprVectorUnknown;
  CONTEXT *c = ThreadContextGet(scope->thread);
  ThreadContextSlot *slot = c ? ThreadContextIfRead(scope->thread) : nullptr;
  if (!slot) return kExprVectorUnknown;
  u32 limit = bank == kExprVectorZmm ? 32 : 16;
  if (number >= limit) return kExprVectorUnknown;
  if (bank != kExprVectorXmm && !slot->features[kFeatureAvx]) return kExprVectorNoAvx;
  if (bank == kExprVectorZmm && (!slot->features[kFeatureZmmHigh] || !slot->features[kFeatureZmmUpper]))
    return kExprVectorNoAvx512;
  if (bank == kExprVectorZmm && number >= 16) {
    memcpy(out, slot->features[kFeatureZmmUpper] + (number - 16) * 64, 64);
    return kExprVectorOk;
  }
  memcpy(out, &c->FltSave.XmmRegisters[number], 16);
  if (bank == kExprVectorXmm) return kExprVectorOk;
  memcpy(out + 16, slot->features[kFeatureAvx] + number * 16, 16);
  if (bank == kExprVectorZmm) memcpy(out + 32, slot->features[kFeatureZmmHigh] + number * 32, 32);
  return kExprVectorOk;
}

static bool ReadPseudo(void *context, u32 pseudo, u32 *out) {
  ExpressionScope *scope = ScopeOf(context);
  switch (pseudo) {
    case kExprPseudoTid: return scope->thread && (*out = scope->thread->id, true);
    case kExprPseudoPid: return *out = scope->target->process_id, true;
    case kExprPseudoErr:
      return scope->thread && TargetReadMemory(scope->target, scope->thread->tls_base + kTebLastError, out, 4);
    case kExprPseudoHandles: {
      DWORD count = 0;
      if (!GetProcessHandleCount(scope->target->process, &count)) return false;
      return *out = count, true;
    }
  }
  return false;
}

// [SECTION] Memory

static bool ReadMemory(void *context, u64 address, void *out, u32 size) {
  // The program's bytes: an int3 of the engine's never shows in a value.
  return TargetReadProgramMemory(ScopeOf(context)->target, address, out, size);
}

// The address of a thread-local variable at (section, offset) of the module: the thread's TLS
// array holds one block per module, at the slot the loader wrote where the module's TLS directory
// says (its _tls_index); the variable lies as far into the block as into the image's template.
static bool ThreadLocalAddress(ExpressionScope *scope, TargetModule *module, u32 section, u32 offset, u64 *out) {
  const ModuleSymbols *symbols = &module->symbols;
  u64 variable = SectionAddress(module, section, offset);
  if (!scope->thread || !symbols->image.tls_rva || !variable) return false;
  Target *target = scope->target;
  u8 directory[kPeTlsDirectoryBytes];
  if (!TargetReadMemory(target, symbols->load_base + symbols->image.tls_rva, directory, sizeof directory)) return false;
  u64 template_start = 0, index_address = 0, array = 0, block = 0;
  u32 slot = 0;
  memcpy(&template_start, directory + kPeTlsStartOfData, 8);
  memcpy(&index_address, directory + kPeTlsIndexAddress, 8);
  if (variable < template_start || !TargetReadMemory(target, index_address, &slot, 4) ||
      !TargetReadMemory(target, scope->thread->tls_base + kTebTlsPointer, &array, 8) || !array ||
      !TargetReadMemory(target, array + 8ull * slot, &block, 8) || !block)
    return false;
  *out = block + (variable - template_start);
  return true;
}

// [SECTION] Locals and parameters

static void SetLocation(ExprValue *out, u32 type, u64 address) {
  memset(out, 0, sizeof *out);
  out->type = type;
  out->is_location = 1;
  out->address = address;
}

static u64 TypeSize(const ExpressionScope *scope, u32 type) {
  const PdbTypes *types = TypesOf(scope);
  return types ? PdbTypeSize(types, type) : BuiltinTypeSize(type);
}

// A variable's value from where the symbols say it lives at the frame's address. False (with the
// message) when it does not live anywhere the frame knows.
static bool ValueOfVariable(ExpressionScope *scope, const LocalVariable *v, ExprValue *out, char *error, u32 size) {
  TargetModule *module = scope->frame_module;
  u8 bytes[16];
  u32 width = 0;
  switch (v->storage) {
    case kLocalRegister: {
      if (!CvRegisterBytes(scope, v->reg, bytes, &width)) break;
      memset(out, 0, sizeof *out);
      out->type = v->type_index;
      u64 wanted = TypeSize(scope, v->type_index);
      memcpy(out->bytes, bytes, wanted && wanted < width ? wanted : width);
      return true;
    }
    case kLocalRegisterRelative:
    case kLocalFrameRelative: {
      if (!CvRegisterBytes(scope, v->reg, bytes, &width) || width != 8) break;
      u64 base = 0;
      memcpy(&base, bytes, 8);
      SetLocation(out, v->type_index, base + (u64)(s64)v->offset);
      return true;
    }
    case kLocalStatic: {
      u64 address = SectionAddress(module, v->section, v->section_offset);
      if (!address) break;
      SetLocation(out, v->type_index, address);
      return true;
    }
    case kLocalThreadStatic: {
      u64 address = 0;
      if (!ThreadLocalAddress(scope, module, v->section, v->section_offset, &address)) break;
      SetLocation(out, v->type_index, address);
      return true;
    }
    case kLocalConstant: {
      memset(out, 0, sizeof *out);
      out->type = v->type_index;
      memcpy(out->bytes, &v->constant.value, 8);
      return true;
    }
    case kLocalParts: {
      // A value in pieces (a structure passed in registers): each part runs to the next one.
      u64 total = TypeSize(scope, v->type_index);
      if (!total || total > kExprValueBytes) break;
      memset(out, 0, sizeof *out);
      out->type = v->type_index;
      bool whole = true;
      for (u32 i = 0; i < v->part_count && whole; i++) {
        const LocalPart *part = &v->parts[i];
        u64 end = i + 1 < v->part_count ? v->parts[i + 1].parent_offset : total;
        if (part->parent_offset >= total || end <= part->parent_offset) continue;
        u32 length = (u32)(end - part->parent_offset);
        if (!CvRegisterBytes(scope, part->reg, bytes, &width)) {
          whole = false;
          break;
        }
        if (part->storage == kLocalRegister) {
          memcpy(out->bytes + part->parent_offset, bytes, length < width ? length : width);
        } else {
          u64 base = 0;
          memcpy(&base, bytes, 8);
          whole = ReadMemory(scope, base + (u64)(s64)part->offset, out->bytes + part->parent_offset, length);
        }
      }
      if (!whole) break;
      return true;
    }
    default: break;
  }
  memset(out, 0, sizeof *out);
  out->type = v->type_index;  // the type is known even where the value is not
  snprintf(error, size, "Variable \"%s\" is not available here", v->name);
  return false;
}

typedef bool (*VariableFn)(ExpressionScope *scope, const LocalVariable *v, void *user);

struct VariableWalk {
  ExpressionScope *scope;
  VariableFn fn;
  void *user;
};

static bool VisitVariable(void *user, const LocalVariable *v) {
  VariableWalk *walk = (VariableWalk *)user;
  return walk->fn(walk->scope, v, walk->user);
}

// Calls fn for the frame's variables, innermost scope first; false when there are none to walk.
static bool ForEachFrameVariable(ExpressionScope *scope, VariableFn fn, void *user) {
  const PdbFile *pdb = PdbOf(scope->frame_module);
  if (!pdb || !scope->frame.procedure) return false;
  if (!scope->chain_ready) {
    u64 address = scope->frame.ip - (scope->frame.return_address ? 1 : 0);
    u32 rva = (u32)(address - TargetModuleBase(scope->frame_module));
    if (!PeSectionOffsetOfRva(&scope->frame_module->symbols.image, rva, &scope->section, &scope->offset)) return false;
    PdbScopeChainAt(pdb, scope->frame.procedure, scope->offset, kScopeExact, &scope->chain);
    scope->chain_ready = 1;
  }
  // The chain's frame of this stack frame: an inlined function's site, else the procedure's own.
  u32 chain_frame = scope->from_registers ? 0 : scope->chain.inline_count;
  for (u32 i = 0; i < scope->chain.inline_count; i++)
    if (scope->chain.inlines[i] == scope->frame.inline_site) chain_frame = i;
  VariableWalk walk = {scope, fn, user};
  PdbForEachLocal(pdb, scope->frame.procedure, &scope->chain, scope->section, scope->offset, chain_frame, VisitVariable,
                  &walk);
  return true;
}

struct NameSearch {
  const char *name;
  u32 length;
  bool found;
  bool ok;
  ExprValue *out;
  char *error;
  u32 error_size;
};

static bool MatchVariable(ExpressionScope *scope, const LocalVariable *v, void *user) {
  NameSearch *search = (NameSearch *)user;
  if (strncmp(v->name, search->name, search->length) != 0 || v->name[search->length]) return true;
  search->found = true;
  search->ok = ValueOfVariable(scope, v, search->out, search->error, search->error_size);
  return false;
}

struct IndexSearch {
  bool parameters;
  u32 index;
  u32 seen;
  bool found;
  bool ok;
  const char *name;
  ExprValue *out;
  char *error;
  u32 error_size;
};

static bool PickVariable(ExpressionScope *scope, const LocalVariable *v, void *user) {
  IndexSearch *search = (IndexSearch *)user;
  if (v->is_parameter != search->parameters) return true;
  if (search->seen++ != search->index) return true;
  search->found = true;
  search->error[0] = 0;
  search->ok = ValueOfVariable(scope, v, search->out, search->error, search->error_size);
  u32 length = (u32)strnlen(v->name, kExpressionNameCapacity - 1);
  memcpy(scope->name, v->name, length);
  scope->name[length] = 0;
  search->name = scope->name;
  return false;
}

static bool FrameVariableAt(void *context, bool parameters, u32 index, const char **name, ExprValue *value, bool *ok,
                            char *error, u32 error_size) {
  ExpressionScope *scope = ScopeOf(context);
  IndexSearch search = {parameters, index, 0, false, false, nullptr, value, error, error_size};
  if (!ForEachFrameVariable(scope, PickVariable, &search) || !search.found) return false;
  scope->type_module = scope->frame_module;
  *name = search.name;
  *ok = search.ok;
  return true;
}

// [SECTION] Globals

// A data global or thread-local of one module by its exact (possibly qualified) name.
static bool FindGlobalIn(ExpressionScope *scope, TargetModule *module, const char *name, ExprValue *out) {
  const PdbFile *pdb = PdbOf(module);
  if (!pdb) return false;
  if (const PdbDataEntry *entry = PdbFindData(&pdb->globals, name, nullptr)) {
    u64 address = SectionAddress(module, entry->section_minus_1 + 1u, entry->offset);
    if (!address) return false;
    SetLocation(out, entry->type_index, address);
    return true;
  }
  if (const u8 *record = PdbFindThreadData(&pdb->globals, name)) {
    u32 type = 0, offset = 0;
    u16 section = 0;
    memcpy(&type, record + kDataSymType, 4);
    memcpy(&offset, record + kDataSymOffset, 4);
    memcpy(&section, record + kDataSymSection, 2);
    u64 address = 0;
    if (!ThreadLocalAddress(scope, module, section, offset, &address)) return false;
    SetLocation(out, type, address);
    return true;
  }
  return false;
}

// Locals and parameters of the frame (the first kind of name).
static u32 FindName(void *context, const char *name, u32 length, ExprValue *out, char *error, u32 error_size) {
  ExpressionScope *scope = ScopeOf(context);
  if (length >= kExpressionNameCapacity) return kExprEvalFailed;
  NameSearch search = {name, length, false, false, out, error, error_size};
  ForEachFrameVariable(scope, MatchVariable, &search);
  if (!search.found) return kExprEvalFailed;
  scope->type_module = scope->frame_module;
  return search.ok ? kExprEvalOk : kExprEvalFailed;
}

// Globals, statics and thread-locals of the modules (the last kind of name).
static u32 FindGlobal(void *context, const char *name, u32 length, ExprValue *out, char *, u32) {
  ExpressionScope *scope = ScopeOf(context);
  if (length >= kExpressionNameCapacity) return kExprEvalFailed;
  char terminated[kExpressionNameCapacity];
  memcpy(terminated, name, length);
  terminated[length] = 0;
  // The frame's own module first (its statics shadow other modules' globals of the same name).
  if (scope->frame_module && FindGlobalIn(scope, scope->frame_module, terminated, out)) {
    scope->type_module = scope->frame_module;
    return kExprEvalOk;
  }
  for (TargetModule *m = scope->target->modules; m; m = m->next)
    if (m != scope->frame_module && FindGlobalIn(scope, m, terminated, out)) {
      scope->type_module = m;
      return kExprEvalOk;
    }
  return kExprEvalFailed;
}

// [SECTION] Types

static u32 FindType(void *context, const char *name, u32 length) {
  ExpressionScope *scope = ScopeOf(context);
  const PdbFile *pdb = PdbOf(scope->type_module);
  if (pdb) {
    if (u32 type = PdbLookupType(&pdb->types, &pdb->globals, name, length)) return type;
  }
  // A type of another module: that module answers for the rest of the evaluation.
  for (TargetModule *m = scope->target->modules; m; m = m->next) {
    const PdbFile *other = PdbOf(m);
    if (!other || m == scope->type_module) continue;
    u32 type = PdbLookupType(&other->types, &other->globals, name, length);
    if (type >= 0x1000 || (type && !pdb)) {
      scope->type_module = m;
      return type;
    }
  }
  return 0;
}

// The record behind a type index with modifiers looked through and forward references resolved.
static bool DecodeDefinition(const PdbTypes *types, u32 type, TypeRecord *out) {
  if (!types) return false;
  u32 index = PdbTypeDefinition(types, PdbTypeLookThrough(types, type));
  return PdbDecodeType(types, index, out);
}

static bool DescribeType(void *context, u32 type, ExprTypeFacts *out) {
  const PdbTypes *types = TypesOf(ScopeOf(context));
  memset(out, 0, sizeof *out);
  if (!types) return false;
  u32 pointee = 0, element = 0;
  u64 count = 0;
  if (PdbTypeIsPointer(types, type, &pointee)) {
    *out = {kExprTypePointer, pointee, 8};
    return true;
  }
  if (PdbTypeIsArray(types, type, &element, &count)) {
    *out = {kExprTypeArray, element, PdbTypeSize(types, type)};
    return true;
  }
  // A modifier (const, volatile) of a basic type: the basic type's facts.
  u32 through = PdbTypeLookThrough(types, type);
  if (through < 0x1000) {
    u64 size = BuiltinTypeSize(through);
    if (!size) return false;
    *out = {kExprTypeBasic, through, size};
    return true;
  }
  TypeRecord record;
  if (!DecodeDefinition(types, type, &record)) return false;
  switch (record.leaf) {
    case kLF_UNION: *out = {kExprTypeUnion, 0, record.size}; return true;
    case kLF_ENUM: *out = {kExprTypeEnum, record.type, PdbTypeSize(types, record.type)}; return true;
    case kLF_BITFIELD: {
      // Described as its base: the evaluator takes its bits through bit_field.
      ExprTypeFacts base;
      if (record.type < 0x1000) {
        *out = {kExprTypeBasic, record.type, BuiltinTypeSize(record.type)};
        return true;
      }
      if (!DescribeType(context, record.type, &base)) return false;
      *out = base;
      return true;
    }
    default:
      if (TypeLeafIsClassLike(record.leaf)) {
        *out = {kExprTypeRecord, 0, record.size};
        return true;
      }
      return false;
  }
}

static u32 PointerTo(void *context, u32 type) {
  const PdbTypes *types = TypesOf(ScopeOf(context));
  return types ? PdbTypePointerTo(types, type) : 0;
}

static bool FindField(void *context, u32 type, const char *name, u32 length, u64 *offset, u32 *field_type) {
  const PdbTypes *types = TypesOf(ScopeOf(context));
  FoundMember member;
  if (!types || !PdbFindMember(types, PdbTypeLookThrough(types, type), name, length, &member)) return false;
  if (member.leaf != kLF_MEMBER) return false;  // a static member has no place in the object
  *offset = member.offset;
  *field_type = member.type;
  return true;
}

static void TypeName(void *context, u32 type, char *out, u32 size) {
  const PdbTypes *types = TypesOf(ScopeOf(context));
  if (!size) return;
  if (!types) {
    snprintf(out, size, "%s", BuiltinTypeName(type));
    return;
  }
  TypeNameFormat(types, type, out, size);
}

static bool BitField(void *context, u32 type, ExprBitField *out) {
  const PdbTypes *types = TypesOf(ScopeOf(context));
  if (!types || type < 0x1000) return false;
  TypeRecord record;
  if (!PdbDecodeType(types, PdbTypeLookThrough(types, type), &record) || record.leaf != kLF_BITFIELD) return false;
  *out = {record.type, record.bit_position, record.bit_length, {0, 0}};
  return true;
}

struct FieldSearch {
  ExpressionScope *scope;
  u32 index;
  u32 seen;
  ExprField *out;
  bool found;
};

static bool PickField(void *user, const DataMember *member) {
  FieldSearch *search = (FieldSearch *)user;
  if (search->seen++ != search->index) return true;
  ExpressionScope *scope = search->scope;
  u32 length = member->field->name.length < kExpressionNameCapacity - 1 ? member->field->name.length
                                                                        : kExpressionNameCapacity - 1;
  memcpy(scope->name, member->field->name.text, length);
  scope->name[length] = 0;
  *search->out = {scope->name, length, member->field->type, member->offset};
  search->found = true;
  return false;
}

// The members of the last type asked for are listed once, so that asking for index 0, 1, 2... in
// turn (a row's children) walks the field list once, not once per member.
static bool CollectField(void *user, const DataMember *member) {
  ExpressionScope *scope = (ExpressionScope *)user;
  FieldCache *cache = &scope->fields;
  if (cache->count == kFieldCacheCapacity) {
    cache->truncated = 1;
    return false;
  }
  cache->entries[cache->count++] = {member->field->name.text, member->field->name.length, member->field->type,
                                    member->offset};
  return true;
}

static bool FieldAt(void *context, u32 type, u32 index, ExprField *out) {
  ExpressionScope *scope = ScopeOf(context);
  const PdbTypes *types = TypesOf(scope);
  if (!types) return false;
  FieldCache *cache = &scope->fields;
  if (!cache->valid || cache->type != type || cache->types != types) {
    cache->valid = 1;
    cache->truncated = 0;
    cache->type = type;
    cache->types = types;
    cache->count = 0;
    PdbForEachDataMember(types, PdbTypeLookThrough(types, type), CollectField, scope);
  }
  if (index < cache->count) {
    *out = cache->entries[index];
    return true;
  }
  if (!cache->truncated) return false;
  // Past the listed members of a very large type: walked for this one index.
  FieldSearch search = {scope, index, 0, out, false};
  PdbForEachDataMember(types, PdbTypeLookThrough(types, type), PickField, &search);
  return search.found;
}

static bool EnumeratorName(void *context, u32 type, s64 value, char *out, u32 size) {
  const PdbTypes *types = TypesOf(ScopeOf(context));
  TypeRecord record;
  if (!DecodeDefinition(types, type, &record) || record.leaf != kLF_ENUM || !size) return false;
  FieldWalk walk;
  FieldWalkBegin(&walk, types, record.field_list);
  TypeField field;
  while (FieldWalkNext(&walk, &field)) {
    if (field.leaf != kLF_ENUMERATE) continue;
    bool negative = false;
    u64 bits = EnumeratorValue(&field, record.type, &negative);
    if ((s64)bits != value) continue;
    snprintf(out, size, "%.*s", (int)field.name.length, field.name.text);
    return true;
  }
  return false;
}

static bool IsClassLike(void *context, u32 type) {
  TypeRecord record;
  return DecodeDefinition(TypesOf(ScopeOf(context)), type, &record) && TypeLeafIsClassLike(record.leaf);
}

// [SECTION] System messages

static bool ErrorMessage(void *, u32 code, char *out, u32 size) {
  wchar_t wide[1024];
  DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, wide,
                                KTRN_ARRAY_COUNT(wide), nullptr);
  if (!length || !size) return false;
  char text[512];
  int bytes = WideCharToMultiByte(CP_UTF8, 0, wide, (int)length, text, (int)sizeof text - 1, nullptr, nullptr);
  if (bytes <= 0) return false;  // 512 bytes or more: left out
  while (bytes > 0 && (text[bytes - 1] == '\n' || text[bytes - 1] == '\r' || text[bytes - 1] == ' ')) bytes--;
  if (bytes > 0 && text[bytes - 1] == '.') bytes--;
  text[bytes] = 0;
  snprintf(out, size, "%s", text);
  return bytes > 0;
}

// [SECTION] Scopes

static void ScopeBegin(ExpressionScope *scope, Target *target, TargetThread *thread) {
  memset(scope, 0, offsetof(ExpressionScope, chain));
  scope->fields.valid = 0;
  scope->chain_ready = 0;
  scope->target = target;
  scope->thread = thread;
}

static void ScopeTakeFrame(ExpressionScope *scope, const StackFrame *frame, u32 index) {
  scope->frame = *frame;
  scope->frame_index = index;
  scope->has_frame = 1;
  scope->frame_module = frame->module ? (TargetModule *)frame->module : TargetFindModule(scope->target, frame->ip);
  scope->type_module = scope->frame_module;
}

void ExpressionScopeAtFrame(ExpressionScope *scope, Target *target, TargetThread *thread, u32 frame_index) {
  ScopeBegin(scope, target, thread);
  if (!thread) return;
  const StackFrame *frames = nullptr;
  u32 count = CallStackOfThread(target, thread, &frames);
  if (frame_index >= count || frames[frame_index].collapsed) frame_index = 0;
  if (!count) {
    ExpressionScopeAtRegisters(scope, target, thread);
    return;
  }
  ScopeTakeFrame(scope, &frames[frame_index], frame_index);
}

void ExpressionScopeAtRegisters(ExpressionScope *scope, Target *target, TargetThread *thread) {
  ScopeBegin(scope, target, thread);
  CONTEXT *context = thread ? ThreadContextGet(thread) : nullptr;
  if (!context) return;
  StackFrame frame;
  memset(&frame, 0, sizeof frame);
  frame.ip = context->Rip;
  frame.rsp = context->Rsp;
  frame.rbp = context->Rbp;
  frame.module = TargetFindModule(target, context->Rip);
  if (const PdbFile *pdb = PdbOf(frame.module)) {
    (void)pdb;
    ScopeAtAddress at;
    FindScopeAtAddress(&frame.module->symbols, nullptr, frame.ip, kScopeExact, &at);
    frame.procedure = at.procedure;
  }
  ScopeTakeFrame(scope, &frame, 0);
  scope->from_registers = 1;
}

void ExpressionScopeRestart(ExpressionScope *scope) { scope->type_module = scope->frame_module; }

void ExpressionHostInit(ExprEvalHost *host, ExpressionScope *scope) {
  memset(host, 0, sizeof *host);
  host->context = scope;
  host->read_memory = ReadMemory;
  host->read_register = ReadRegister;
  host->find_name = FindName;
  host->find_global = FindGlobal;
  host->find_type = FindType;
  host->describe_type = DescribeType;
  host->pointer_to = PointerTo;
  host->find_field = FindField;
  host->type_name = TypeName;
  host->bit_field = BitField;
  host->field_at = FieldAt;
  host->enumerator_name = EnumeratorName;
  host->is_class_like = IsClassLike;
  host->read_vector_register = ReadVectorRegister;
  host->read_pseudo = ReadPseudo;
  host->frame_variable_at = FrameVariableAt;
  host->error_message = ErrorMessage;
}
