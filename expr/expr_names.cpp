// Identifiers: the kinds of names an expression may use, tried in a fixed order, the first that
// succeeds winning: the frame's locals and parameters, a member of the implicit this, the
// pseudo-variables, the general registers (then the stack and instruction pointers and the
// flags), the vector registers, the "__locals"/"__params" groups, and last the globals.
#include <stdio.h>
#include <string.h>

#include "expr/expr_eval_internal.h"

bool ExprEqualNoCase(const char *a, u32 length, const char *b) {
  u32 i = 0;
  for (; i < length && b[i]; i++) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = (char)(x - 'A' + 'a');
    if (x != y) return false;
  }
  return i == length && !b[i];
}

static bool Equal(const char *text, u32 length, const char *name) {
  return strlen(name) == length && memcmp(text, name, length) == 0;
}

// [SECTION] General registers

struct RegisterName {
  const char *name;
  u8 reg;
  u8 shift;  // bits: 8 for the high-byte names
  u8 size;   // bytes
};

static const RegisterName kRegisterNames[] = {
    {"al", kExprRegRax, 0, 1}, {"ah", kExprRegRax, 8, 1}, {"ax", kExprRegRax, 0, 2}, {"eax", kExprRegRax, 0, 4}, {"rax", kExprRegRax, 0, 8},
    {"bl", kExprRegRbx, 0, 1}, {"bh", kExprRegRbx, 8, 1}, {"bx", kExprRegRbx, 0, 2}, {"ebx", kExprRegRbx, 0, 4}, {"rbx", kExprRegRbx, 0, 8},
    {"cl", kExprRegRcx, 0, 1}, {"ch", kExprRegRcx, 8, 1}, {"cx", kExprRegRcx, 0, 2}, {"ecx", kExprRegRcx, 0, 4}, {"rcx", kExprRegRcx, 0, 8},
    {"dl", kExprRegRdx, 0, 1}, {"dh", kExprRegRdx, 8, 1}, {"dx", kExprRegRdx, 0, 2}, {"edx", kExprRegRdx, 0, 4}, {"rdx", kExprRegRdx, 0, 8},
    {"si", kExprRegRsi, 0, 2}, {"esi", kExprRegRsi, 0, 4}, {"rsi", kExprRegRsi, 0, 8}, {"sil", kExprRegRsi, 0, 1},
    {"di", kExprRegRdi, 0, 2}, {"edi", kExprRegRdi, 0, 4}, {"rdi", kExprRegRdi, 0, 8}, {"dil", kExprRegRdi, 0, 1},
    {"bp", kExprRegRbp, 0, 2}, {"ebp", kExprRegRbp, 0, 4}, {"rbp", kExprRegRbp, 0, 8}, {"bpl", kExprRegRbp, 0, 1},
    // The stack and instruction pointers and the flags: a step of their own after the general registers.
    {"sp", kExprRegRsp, 0, 2}, {"esp", kExprRegRsp, 0, 4}, {"rsp", kExprRegRsp, 0, 8}, {"spl", kExprRegRsp, 0, 1},
    {"rip", kExprRegRip, 0, 8}, {"efl", kExprRegEflags, 0, 4}, {"eflags", kExprRegEflags, 0, 4},
};

// Matches a register name (case ignored, one leading '$' allowed): false when it is none.
static bool MatchRegister(const char *name, u32 length, RegisterName *out) {
  if (length && name[0] == '$') name++, length--;
  for (const RegisterName &r : kRegisterNames)
    if (ExprEqualNoCase(name, length, r.name)) {
      *out = r;
      return true;
    }
  // r8 to r15, with the suffixes d (32-bit), w (16-bit) and l (8-bit).
  if (length < 2 || (name[0] != 'r' && name[0] != 'R')) return false;
  u32 number = 0, i = 1;
  while (i < length && name[i] >= '0' && name[i] <= '9' && i < 3) number = number * 10 + (u32)(name[i++] - '0');
  if (i == 1 || number < 8 || number > 15 || (i == 3 && name[1] == '0')) return false;
  u8 size = 8;
  if (i < length) {
    char suffix = name[i++];
    if (suffix >= 'A' && suffix <= 'Z') suffix = (char)(suffix - 'A' + 'a');
    size = suffix == 'd' ? 4 : suffix == 'w' ? 2 : suffix == 'l' ? 1 : 0;
    if (!size || i != length) return false;
  }
  *out = {nullptr, (u8)(kExprRegR8 + number - 8), 0, size};
  return true;
}

// Registers are plain unsigned numbers of their width ("u8", "u16", "unsigned int", "u64").
static u32 UnsignedOfSize(u32 size) { return size == 1 ? kTypeUInt8 : size == 2 ? kTypeUInt16 : size == 4 ? kTypeUInt32 : kTypeUInt64; }

// [SECTION] Vector registers

// "xmm0".."xmm15", "ymm0".."ymm15", "zmm0".."zmm31", matched like the general registers.
static bool MatchVectorRegister(const char *name, u32 length, u32 *bank, u32 *number) {
  if (length && name[0] == '$') name++, length--;
  if (length < 4 || length > 5) return false;
  char first = name[0] >= 'A' && name[0] <= 'Z' ? (char)(name[0] - 'A' + 'a') : name[0];
  if (!ExprEqualNoCase(name + 1, 2, "mm")) return false;
  *bank = first == 'x' ? kExprVectorXmm : first == 'y' ? kExprVectorYmm : first == 'z' ? kExprVectorZmm : 3;
  if (*bank == 3) return false;
  u32 value = 0;
  for (u32 i = 3; i < length; i++) {
    if (name[i] < '0' || name[i] > '9') return false;
    value = value * 10 + (u32)(name[i] - '0');
  }
  if (length == 5 && name[3] == '0') return false;  // "xmm01"
  *number = value;
  return value < (*bank == kExprVectorZmm ? 32u : 16u);
}

static u32 ReadVector(ExprEvalContext *context, const char *name, u32 length, u32 bank, u32 number, ExprValue *out) {
  static const u32 kTypes[] = {kExprTypeVector128, kExprTypeVector256, kExprTypeVector512};
  memset(out, 0, sizeof *out);
  out->type = kTypes[bank];
  const ExprEvalHost *host = context->host;
  u32 result = host->read_vector_register ? host->read_vector_register(host->context, bank, number, out->bytes)
                                          : (u32)kExprVectorUnknown;
  if (result == kExprVectorOk) return kExprEvalOk;
  if (result == kExprVectorNoAvx) return ExprFail(context, "AVX Feature Set not supported on this processor");
  if (result == kExprVectorNoAvx512) return ExprFail(context, "AVX-512 Feature Set not supported on this processor");
  return ExprFail(context, "Register \"%.*s\" not available", (int)length, name);
}

// [SECTION] The implicit this, and the watched object of a format specifier's count

// A field of the structure object is, or points to; false when there is none.
static bool FindFieldOf(ExprEvalContext *context, const ExprValue *object, const char *name, u32 length, ExprValue *out) {
  const ExprEvalHost *host = context->host;
  if (!host->find_field) return false;
  ExprTypeFacts facts = ExprFacts(context, object->type);
  u32 record = object->type;
  if (facts.kind == kExprTypePointer) record = facts.element, facts = ExprFacts(context, record);
  if (facts.kind != kExprTypeRecord && facts.kind != kExprTypeUnion) return false;
  u64 offset = 0;
  u32 field_type = 0;
  if (!host->find_field(host->context, record, name, length, &offset, &field_type)) return false;
  u64 address = object->address;
  if (record != object->type) {
    ExprValue pointer;
    if (ExprLoadValue(context, object, &pointer) != kExprEvalOk) return false;  // the message stays
    address = ExprValueBits(context, &pointer);
  } else if (!object->is_location) {
    return false;
  }
  memset(out, 0, sizeof *out);
  out->type = field_type;
  out->is_location = 1;
  out->address = address + offset;
  return true;
}

// A field of the class the current method's "this" points to. Failed with an empty message when
// there is no this, or no such field.
static u32 FindThisField(ExprEvalContext *context, const char *name, u32 length, ExprValue *out) {
  const ExprEvalHost *host = context->host;
  if (!host->find_name) return kExprEvalFailed;
  ExprValue self;
  char ignored[8];
  if (host->find_name(host->context, "this", 4, &self, ignored, sizeof ignored) != kExprEvalOk) return kExprEvalFailed;
  if (ExprFacts(context, self.type).kind != kExprTypePointer) return kExprEvalFailed;
  return FindFieldOf(context, &self, name, length, out) ? kExprEvalOk : kExprEvalFailed;
}

// [SECTION] Resolution

// One of the host's name look-ups: Ok, failed with a message (stop), or not known (go on).
enum LookUp : u32 { kLookUpFound, kLookUpStop, kLookUpNext };

static u32 AskHost(ExprEvalContext *context,
                   u32 (*find)(void *, const char *, u32, ExprValue *, char *, u32), const char *name, u32 length,
                   ExprValue *out) {
  if (!find) return kLookUpNext;
  context->error[0] = 0;
  if (find(context->host->context, name, length, out, context->error, sizeof context->error) == kExprEvalOk)
    return kLookUpFound;
  return context->error[0] ? kLookUpStop : kLookUpNext;
}

static bool MatchPseudo(const char *name, u32 length, u32 *pseudo) {
  static const char *const kNames[] = {"$tid", "$pid", "$err", "$handles"};
  for (u32 i = 0; i < 4; i++)
    if (Equal(name, length, kNames[i])) {
      *pseudo = i;
      return true;
    }
  return false;
}

static u32 FrameGroup(ExprEvalContext *context, bool parameters, ExprValue *out) {
  const ExprEvalHost *host = context->host;
  const char *variable_name = nullptr;
  ExprValue first;
  bool ok = false;
  char error[8];
  if (!host->frame_variable_at ||
      !host->frame_variable_at(host->context, parameters, 0, &variable_name, &first, &ok, error, sizeof error))
    return ExprFail(context, "No %s found in current frame", parameters ? "function parameters" : "local variables");
  memset(out, 0, sizeof *out);
  out->type = parameters ? kExprTypeParamsGroup : kExprTypeLocalsGroup;
  return kExprEvalOk;
}

u32 ExprEvaluateIdentifier(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  const char *name = node->identifier.text;
  u32 length = node->identifier.length;
  const ExprEvalHost *host = context->host;
  u32 found = AskHost(context, host->find_name, name, length, out);
  if (found != kLookUpNext) return found == kLookUpFound ? kExprEvalOk : kExprEvalFailed;
  context->error[0] = 0;
  if (context->object_scope && FindFieldOf(context, context->object_scope, name, length, out)) return kExprEvalOk;
  if (context->error[0]) return kExprEvalFailed;
  if (FindThisField(context, name, length, out) == kExprEvalOk) return kExprEvalOk;
  if (context->error[0]) return kExprEvalFailed;
  u32 pseudo;
  if (MatchPseudo(name, length, &pseudo)) {
    u32 value = 0;
    if (!host->read_pseudo || !host->read_pseudo(host->context, pseudo, &value))
      return ExprFail(context, "Pseudo-variable \"%.*s\" not available", (int)length, name);
    ExprSetInteger(out, kTypeUInt32, ExprClassOfBasic(kTypeUInt32), value);
    return kExprEvalOk;
  }
  RegisterName reg;
  if (MatchRegister(name, length, &reg)) {
    u64 bits = 0;
    if (!host->read_register || !host->read_register(host->context, reg.reg, &bits))
      return ExprFail(context, "Register \"%.*s\" not available", (int)length, name);
    u32 type = UnsignedOfSize(reg.size);
    ExprSetInteger(out, type, ExprClassOfBasic(type), bits >> reg.shift);
    return kExprEvalOk;
  }
  u32 bank, number;
  if (MatchVectorRegister(name, length, &bank, &number)) return ReadVector(context, name, length, bank, number, out);
  if (Equal(name, length, "__locals")) return FrameGroup(context, false, out);
  if (Equal(name, length, "__params")) return FrameGroup(context, true, out);
  found = AskHost(context, host->find_global, name, length, out);
  if (found != kLookUpNext) return found == kLookUpFound ? kExprEvalOk : kExprEvalFailed;
  return ExprFail(context, "Identifier \"%.*s\" not found", (int)length, name);
}
