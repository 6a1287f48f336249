// Call-stack parameters through the evaluator's host at the frame.
#include "engine/frame_parameters.h"

#include <string.h>

#include "engine/expression_host.h"
#include "expr/value_format.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_lookup.h"
#include "symbols/pdb_type_records.h"
#include "symbols/type_names.h"

enum : u32 {
  kParameterScratch = 512,
  kMaxParameters = 64,  // a frame lists no more
};

static bool Put(FrameParameters *list, const void *bytes, u32 size) {
  if (list->used + size > kFrameParameterBytes) return false;
  memcpy(list->bytes + list->used, bytes, size);
  list->used += size;
  return true;
}

static bool PutText(FrameParameters *list, const char *text) {
  u16 length = (u16)strnlen(text, kParameterScratch);
  return Put(list, &length, 2) && Put(list, text, length);
}

// One entry, whole or not at all.
static void Append(FrameParameters *list, u16 value_class, const char *type, const char *name, const char *value,
                   u64 number) {
  u32 mark = list->used;
  if (Put(list, &value_class, 2) && PutText(list, type) && PutText(list, name) && PutText(list, value) &&
      Put(list, &number, 8)) {
    list->count++;
    return;
  }
  list->used = mark;
}

static bool IsIntegerBasic(u32 type) {
  switch (type & 0xFF) {
    case 0x11: case 0x12: case 0x13: case 0x21: case 0x22: case 0x23: case 0x68: case 0x69: case 0x72:
    case 0x73: case 0x74: case 0x75: case 0x76: case 0x77: return (type & 0x700) == 0;
    default: return false;
  }
}

// The procedure's return type from its type record (LF_PROCEDURE or LF_MFUNCTION).
static void ReturnType(const TargetModule *module, const PdbProcScope *procedure, char *out, u32 size) {
  out[0] = 0;
  if (!module || module->symbols.status != kSymbolsLoaded || !procedure) return;
  const PdbTypes *types = &module->symbols.pdb.types;
  u32 type_index = 0;
  memcpy(&type_index, procedure->record + kProcSymType, 4);
  TypeRecord record;
  if (!PdbDecodeType(types, type_index, &record) || (record.leaf != kLF_PROCEDURE && record.leaf != kLF_MFUNCTION))
    return;
  TypeNameFormat(types, record.type, out, size);
}

bool EngineFrameParameters(Target *target, TargetThread *thread, u32 index, FrameParameters *out) {
  out->count = out->used = 0;
  out->return_type[0] = 0;
  const StackFrame *frames = nullptr;
  u32 count = thread ? CallStackOfThread(target, thread, &frames) : 0;
  if (index >= count || frames[index].collapsed || !frames[index].procedure) return false;
  ExpressionScope scope;
  ExpressionScopeAtFrame(&scope, target, thread, index);
  ExprEvalHost host;
  ExpressionHostInit(&host, &scope);
  ExprEvalContext context;
  memset(&context, 0, sizeof context);
  context.host = &host;
  // An inlined function's frame names no return type (its id record carries none that is read here).
  if (!frames[index].inline_site)
    ReturnType(frames[index].module, frames[index].procedure, out->return_type, sizeof out->return_type);
  for (u32 i = 0; i < kMaxParameters; i++) {
    const char *name = nullptr;
    ExprValue value;
    bool ok = false;
    char error[kParameterScratch] = "";
    if (!host.frame_variable_at(&scope, true, i, &name, &value, &ok, error, sizeof error)) break;
    char name_copy[kParameterScratch];
    memcpy(name_copy, name, strnlen(name, kParameterScratch - 1) + 1);
    name_copy[kParameterScratch - 1] = 0;
    char type_text[kParameterScratch] = "", value_text[kParameterScratch] = "";
    ExprTypeFacts facts;
    if (!value.type || !ExprDescribeType(&context, value.type, &facts)) {
      Append(out, kParameterUnknownType, "", name_copy, "", 0);
      continue;
    }
    ExprTypeText(&context, value.type, type_text, sizeof type_text);
    if (!ok) {  // typed, but not where it lives at this address (before the prologue stored it, say)
      Append(out, kParameterText, type_text, name_copy, "???", 0);
      continue;
    }
    ExprValue loaded;
    bool readable = ExprLoadValue(&context, &value, &loaded) == kExprEvalOk;
    if (facts.kind == kExprTypeRecord || facts.kind == kExprTypeUnion || facts.kind == kExprTypeArray) {
      Append(out, kParameterAggregate, type_text, name_copy, "", 0);
    } else if (readable && facts.kind == kExprTypePointer) {
      Append(out, kParameterPointer, type_text, name_copy, "", ExprValueBits(&context, &loaded));
    } else if (readable && facts.kind == kExprTypeEnum) {
      u64 bits = ExprValueBits(&context, &loaded);
      char enumerator[kParameterScratch];
      bool is_signed = facts.element < 0x1000 && BuiltinTypeIsSigned(facts.element);
      if (host.enumerator_name(&scope, value.type, (s64)bits, enumerator, sizeof enumerator))
        Append(out, is_signed ? kParameterNamedSigned : kParameterNamedUnsigned, type_text, name_copy, enumerator, bits);
      else
        Append(out, kParameterInteger, type_text, name_copy, "", bits);
    } else if (readable && IsIntegerBasic(value.type)) {
      Append(out, kParameterInteger, type_text, name_copy, "", ExprValueBits(&context, &loaded));
    } else {
      (void)ExprFormatValue(&context, &value, 0, value_text, sizeof value_text);
      Append(out, kParameterText, type_text, name_copy, value_text, 0);
    }
  }
  return true;
}

static bool TakeText(const FrameParameters *list, u32 *at, const char **text, u16 *length) {
  if (*at + 2 > list->used) return false;
  memcpy(length, list->bytes + *at, 2);
  *at += 2;
  if (*at + *length > list->used) return false;
  *text = (const char *)list->bytes + *at;
  *at += *length;
  return true;
}

bool FrameParameterNext(const FrameParameters *list, u32 *offset, FrameParameter *out) {
  u32 at = *offset;
  if (at + 2 > list->used) return false;
  memcpy(&out->value_class, list->bytes + at, 2);
  at += 2;
  bool whole = TakeText(list, &at, &out->type, &out->type_length) && TakeText(list, &at, &out->name, &out->name_length) &&
               TakeText(list, &at, &out->value, &out->value_length) && at + 8 <= list->used;
  if (!whole) return false;  // cut short: nothing after it can be read either
  memcpy(&out->number, list->bytes + at, 8);
  *offset = at + 8;
  return true;
}
