// Value texts: basic values in every display mode with the named limits, characters with their
// escapes, pointers, enums, aggregates; type names; the HRESULT message cache.
#include "expr/value_format.h"

#include <float.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "expr/expr_eval_internal.h"
#include "expr/format_spec.h"
#include "symbols/type_names.h"

static const char kUnreadable[] = "??? (unable to read process memory)";

void ExprAppend(char *out, u32 size, u32 *used, const char *format, ...) {
  if (!size || *used >= size - 1) return;
  va_list args;
  va_start(args, format);
  int n = vsnprintf(out + *used, size - *used, format, args);
  va_end(args);
  if (n > 0) *used = *used + (u32)n >= size ? size - 1 : *used + (u32)n;
}

static void Copy(char *out, u32 size, const char *text) {
  if (!size) return;
  u32 used = 0;
  out[0] = 0;
  ExprAppend(out, size, &used, "%s", text);
}

// [SECTION] Type names

// depth: how many more element and pointee types may be named inside this one (a damaged type
// stream may hold a cycle).
static void TypeText(const ExprEvalContext *context, u32 type, char *out, u32 size, u32 depth) {
  u32 used = 0;
  if (!size) return;
  out[0] = 0;
  if (type == kExprTypeVector256 || type == kExprTypeVector512) {
    Copy(out, size, type == kExprTypeVector256 ? "u256" : "u512");
    return;
  }
  if (type == kExprTypeLocalsGroup || type == kExprTypeParamsGroup) return;
  if (type < 0x1000) return Copy(out, size, BuiltinTypeName(type));  // the one table of built-in names
  ExprBitField field;
  if (depth && ExprIsBitField(context, type, &field)) {
    char base[128];
    TypeText(context, field.base_type, base, sizeof base, depth - 1);
    if (field.length == 1) ExprAppend(out, size, &used, "%s (Bit %d)", base, field.position);
    else ExprAppend(out, size, &used, "%s (Bits %d..%d)", base, field.position, field.position + field.length - 1);
    return;
  }
  ExprTypeFacts facts = ExprFacts(context, type);
  if (facts.kind == kExprTypeArray && depth) {
    char element[192];
    TypeText(context, facts.element, element, sizeof element, depth - 1);
    u64 element_size = ExprFacts(context, facts.element).size;
    ExprAppend(out, size, &used, "%s [%llu]", element, (unsigned long long)(element_size ? facts.size / element_size : 0));
    return;
  }
  const ExprEvalHost *host = context->host;
  if (host->type_name) host->type_name(host->context, type, out, size);
  if (out[0]) return;
  // A pointer the host has no name for is named after its pointee.
  if (facts.kind == kExprTypePointer && depth) {
    char pointee[192];
    TypeText(context, facts.element, pointee, sizeof pointee, depth - 1);
    ExprAppend(out, size, &used, "%s *", pointee);
    return;
  }
  ExprAppend(out, size, &used, "<type 0x%X>", type);
}

void ExprTypeText(const ExprEvalContext *context, u32 type, char *out, u32 size) { TypeText(context, type, out, size, 8); }

// [SECTION] Numbers

static u32 RadixOf(u32 flags) {
  if (flags & kDisplayFlagBinary) return kDisplayFlagBinary;
  if (flags & kDisplayFlagHexUpper) return kDisplayFlagHexUpper;
  if (flags & kDisplayFlagHexLower) return kDisplayFlagHexLower;
  return kDisplayFlagDecimal;
}

// "0b" and the bits from the top, a backquote between bytes.
static void FormatBinary(u64 bits, u32 size, char *out, u32 size_of_out) {
  u32 used = 0;
  out[0] = 0;
  ExprAppend(out, size_of_out, &used, "0b");
  for (u32 byte = size; byte-- > 0;) {
    char group[9];
    for (u32 bit = 0; bit < 8; bit++) group[bit] = (char)('0' + ((bits >> (byte * 8 + 7 - bit)) & 1));
    group[8] = 0;
    ExprAppend(out, size_of_out, &used, byte + 1 == size ? "%s" : "`%s", group);
  }
}

void ExprFormatInteger(u64 bits, u32 size, bool is_signed, u32 display_flags, char *out, u32 size_of_out) {
  u32 radix = RadixOf(display_flags);
  u64 mask = size >= 8 ? ~0ull : (1ull << (size * 8)) - 1;
  if (radix == kDisplayFlagBinary) return FormatBinary(bits, size, out, size_of_out);
  if (radix != kDisplayFlagDecimal) {
    snprintf(out, size_of_out, radix == kDisplayFlagHexUpper ? "0x%llX" : "0x%llx", (unsigned long long)(bits & mask));
    return;
  }
  if (is_signed) snprintf(out, size_of_out, "%lld", (long long)ExprTruncate(bits, {(u8)size, true, false}));
  else snprintf(out, size_of_out, "%llu", (unsigned long long)(bits & mask));
}

// The named extreme of a declared integer type that bits equal, or null.
static const char *LimitName(u32 basic, u64 bits) {
  switch (basic) {
    case 0x11: case 0x72: return (s16)bits == SHRT_MIN ? "SHRT_MIN" : (s16)bits == SHRT_MAX ? "SHRT_MAX" : nullptr;
    case 0x21: case 0x73: return (u16)bits == USHRT_MAX ? "USHRT_MAX" : nullptr;
    case 0x74: return (s32)bits == INT_MIN ? "INT_MIN" : (s32)bits == INT_MAX ? "INT_MAX" : nullptr;
    case 0x75: return (u32)bits == UINT_MAX ? "UINT_MAX" : nullptr;
    // The target's long is 32 bits wide.
    case 0x12: return (s32)bits == INT_MIN ? "LONG_MIN" : (s32)bits == INT_MAX ? "LONG_MAX" : nullptr;
    case 0x22: return (u32)bits == UINT_MAX ? "ULONG_MAX" : nullptr;
    case 0x13: case 0x76: return (s64)bits == LLONG_MIN ? "LLONG_MIN" : (s64)bits == LLONG_MAX ? "LLONG_MAX" : nullptr;
    case 0x23: case 0x77: return bits == ULLONG_MAX ? "ULLONG_MAX" : nullptr;
    default: return nullptr;
  }
}

static void FormatFloating(f64 value, bool is_double, u32 display_flags, char *out, u32 size) {
  u32 radix = RadixOf(display_flags);
  const char *format = radix == kDisplayFlagHexLower ? "%a" : radix == kDisplayFlagHexUpper ? "%A" : is_double ? "%.16g" : "%.8g";
  f64 max = is_double ? DBL_MAX : FLT_MAX, min = is_double ? DBL_MIN : FLT_MIN;
  const char *name = nullptr;
  if (value == max) name = is_double ? "DBL_MAX" : "FLT_MAX";
  else if (value == -max) name = is_double ? "-DBL_MAX" : "-FLT_MAX";
  else if (value == min) name = is_double ? "DBL_MIN" : "FLT_MIN";
  else if (value == -min) name = is_double ? "-DBL_MIN" : "-FLT_MIN";
  char number[64];
  snprintf(number, sizeof number, format, value);
  if (name) snprintf(out, size, "%s (%s)", name, number);
  else snprintf(out, size, "%s", number);
}

// [SECTION] Characters

u32 ExprCharacterText(u32 code, char quote, char *out) {
  static const char kEscapes[] = {'0', 0, 0, 0, 0, 0, 0, 'a', 'b', 't', 'n', 'v', 'f', 'r'};
  char escape = code < sizeof kEscapes ? kEscapes[code] : code == '\\' ? '\\' : code == (u32)quote ? quote : 0;
  if (escape) return (u32)snprintf(out, 12, "\\%c", escape);
  if (code < 0x20 || code == 0x7F) return (u32)snprintf(out, 12, "\\x%02x", code);
  if (code >= 0xD800 && code < 0xE000) code = 0xFFFD;  // a lone surrogate
  if (code < 0x80) {
    out[0] = (char)code;
    return 1;
  }
  if (code < 0x800) {
    out[0] = (char)(0xC0 | (code >> 6)), out[1] = (char)(0x80 | (code & 0x3F));
    return 2;
  }
  if (code < 0x10000) {
    out[0] = (char)(0xE0 | (code >> 12)), out[1] = (char)(0x80 | ((code >> 6) & 0x3F)), out[2] = (char)(0x80 | (code & 0x3F));
    return 3;
  }
  if (code > 0x10FFFF) return (u32)snprintf(out, 12, "\\x%x", code);
  out[0] = (char)(0xF0 | (code >> 18)), out[1] = (char)(0x80 | ((code >> 12) & 0x3F));
  out[2] = (char)(0x80 | ((code >> 6) & 0x3F)), out[3] = (char)(0x80 | (code & 0x3F));
  return 4;
}

static void FormatCharacter(u64 bits, u32 size, bool is_signed, u32 display_flags, char *out, u32 size_of_out) {
  u32 radix = RadixOf(display_flags);
  u64 mask = (1ull << (size * 8)) - 1;
  char number[48];
  if (radix == kDisplayFlagBinary) {
    FormatBinary(bits, size, number, sizeof number);
  } else if (radix != kDisplayFlagDecimal) {
    snprintf(number, sizeof number, radix == kDisplayFlagHexUpper ? "0x%0*llX" : "0x%0*llx", (int)size * 2,
             (unsigned long long)(bits & mask));
  } else if (is_signed && size == 1) {
    snprintf(number, sizeof number, "%d", (int)(s8)bits);
  } else {
    snprintf(number, sizeof number, "%llu", (unsigned long long)(bits & mask));
  }
  // An 8-bit character above 0x7F is one byte of some code page: shown by its value.
  u32 code = (u32)(bits & mask);
  char text[16];
  u32 length = size == 1 && code >= 0x80 ? (u32)snprintf(text, sizeof text, "\\x%02x", code) : ExprCharacterText(code, '\'', text);
  snprintf(out, size_of_out, "%s '%.*s'", number, (int)length, text);
}

// [SECTION] HRESULT messages

enum : u32 { kMessageSlots = 256, kMessageCapacity = 512 };

struct MessageSlot {
  u32 code;
  bool used;
  char text[kMessageCapacity];
};
static MessageSlot g_messages[kMessageSlots];

void ExprClearErrorMessages() { memset(g_messages, 0, sizeof g_messages); }

const char *ExprErrorMessage(const ExprEvalContext *context, u32 code) {
  // Fibonacci hashing spreads the codes, whose facility bits sit at the top, over the slots.
  u32 first = (code * 2654435769u) >> 24;
  for (u32 probe = 0; probe < kMessageSlots; probe++) {
    MessageSlot *slot = &g_messages[(first + probe) % kMessageSlots];
    if (slot->used && slot->code == code) return slot->text;
    if (slot->used) continue;
    slot->used = true;
    slot->code = code;
    slot->text[0] = 0;
    const ExprEvalHost *host = context->host;
    if (!host->error_message || !host->error_message(host->context, code, slot->text, sizeof slot->text)) slot->text[0] = 0;
    return slot->text;
  }
  // A full table: asked every time, into a buffer of its own.
  static char uncached[kMessageCapacity];
  const ExprEvalHost *host = context->host;
  if (!host->error_message || !host->error_message(host->context, code, uncached, sizeof uncached)) uncached[0] = 0;
  return uncached;
}

// [SECTION] Values

// The bytes a basic value of type occupies, of the first 8 (vector registers are read whole).
static u32 WidthOf(u32 type) {
  if (type & 0xF00) return 8;
  u32 basic = type & 0xFF;
  if (basic >= 0x30 && basic <= 0x33) return 1u << (basic - 0x30);
  u32 size = ExprClassOfBasic(basic).size;
  return size ? size : 8;
}

void ExprFormatBasic(ExprEvalContext *context, u32 type, const u8 *bytes, u32 display_flags, char *out, u32 size) {
  u64 bits = 0;
  if (!size) return;
  out[0] = 0;
  bool vector = type == kExprTypeVector128 || type == kExprTypeVector256 || type == kExprTypeVector512;
  if (!vector) memcpy(&bits, bytes, WidthOf(type));
  if (type & 0xF00) {  // a pointer
    if (RadixOf(display_flags) == kDisplayFlagBinary) FormatBinary(bits, 8, out, size);
    else snprintf(out, size, "0x%016llX", (unsigned long long)bits);
    return;
  }
  u32 basic = type & 0xFF;
  BasicClass c = ExprClassOfBasic(basic);
  if (basic >= 0x30 && basic <= 0x33) return Copy(out, size, bits ? "true" : "false");
  if (basic == kTypeFloat || basic == kTypeDouble) {
    f32 narrow;
    f64 wide;
    memcpy(&narrow, &bits, 4);
    memcpy(&wide, &bits, 8);
    return FormatFloating(basic == kTypeFloat ? narrow : wide, basic == kTypeDouble, display_flags, out, size);
  }
  if (basic == kTypeChar || basic == kTypeUChar || basic == kTypeRealChar)
    return FormatCharacter(bits, 1, basic != kTypeUChar, display_flags, out, size);
  if (basic == kTypeWideChar || basic == kTypeChar16) return FormatCharacter(bits, 2, false, display_flags, out, size);
  if (basic == kTypeChar32) return FormatCharacter(bits, 4, false, display_flags, out, size);
  if (vector) {
    // The whole register as one number, its top byte first.
    u32 width = type == kExprTypeVector128 ? 16 : type == kExprTypeVector256 ? 32 : 64, used = 0;
    bool upper = RadixOf(display_flags) == kDisplayFlagHexUpper;
    ExprAppend(out, size, &used, "0x");
    for (u32 i = width; i-- > 0;) ExprAppend(out, size, &used, upper ? "%02X" : "%02x", bytes[i]);
    return;
  }
  if (!c.size || c.is_float) return Copy(out, size, "Unknown Type");
  u32 flags = display_flags;
  if (basic == kTypeHResult && RadixOf(flags) == kDisplayFlagDecimal) flags |= kDisplayFlagHexLower;
  char number[96];
  if (basic == kTypeHResult && !(flags & (kDisplayFlagBinary)))
    snprintf(number, sizeof number, RadixOf(flags) == kDisplayFlagHexUpper ? "0x%08X" : "0x%08x", (u32)bits);
  else
    ExprFormatInteger(bits, c.size, c.is_signed, flags, number, sizeof number);
  const char *limit = LimitName(basic, bits);
  u32 used = 0;
  if (limit) ExprAppend(out, size, &used, "%s (%s)", limit, number);
  else ExprAppend(out, size, &used, "%s", number);
  if ((display_flags & kDisplayFlagHResult) || basic == kTypeHResult) {
    const char *message = ExprErrorMessage(context, (u32)bits);
    // A message that does not fit is left out rather than cut.
    if (message[0] && used + 2 + strlen(message) < size) ExprAppend(out, size, &used, ": %s", message);
  }
}

u32 ExprFormatValue(ExprEvalContext *context, const ExprValue *value, u32 display_flags, char *out, u32 size) {
  if (!size) return kExprFormatOk;
  out[0] = 0;
  u32 type = value->type;
  if (type == kTypeVoid) return Copy(out, size, "<N/A>"), kExprFormatOk;
  if (type == kExprTypeLocalsGroup || type == kExprTypeParamsGroup) return Copy(out, size, "{ ... }"), kExprFormatOk;
  ExprTypeFacts facts = ExprFacts(context, type);
  if (facts.kind == kExprTypeRecord || facts.kind == kExprTypeUnion || facts.kind == kExprTypeArray)
    return Copy(out, size, "{ ... }"), kExprFormatOk;
  if (facts.kind == kExprTypeNone) return Copy(out, size, "Unknown Type"), kExprFormatOk;
  ExprValue loaded;
  char saved[sizeof context->error];
  memcpy(saved, context->error, sizeof saved);
  u32 result = ExprLoadValue(context, value, &loaded);
  memcpy(context->error, saved, sizeof saved);  // an unreadable value is a text, not a failure
  if (result != kExprEvalOk) return Copy(out, size, kUnreadable), kExprFormatUnreadable;
  ExprTypeFacts loaded_facts = ExprFacts(context, loaded.type);
  if (loaded_facts.kind == kExprTypeEnum) {
    const ExprEvalHost *host = context->host;
    u64 bits = ExprValueBits(context, &loaded);
    if (host->enumerator_name && host->enumerator_name(host->context, loaded.type, (s64)bits, out, size) && out[0])
      return kExprFormatOk;
    u32 basic = loaded_facts.element < 0x1000 ? loaded_facts.element : kTypeInt32;
    ExprFormatBasic(context, basic, loaded.bytes, display_flags, out, size);
    return kExprFormatOk;
  }
  if (loaded_facts.kind == kExprTypePointer) {
    if (RadixOf(display_flags) == kDisplayFlagBinary) FormatBinary(ExprValueBits(context, &loaded), 8, out, size);
    else snprintf(out, size, "0x%016llX", (unsigned long long)ExprValueBits(context, &loaded));
    return kExprFormatOk;
  }
  ExprFormatBasic(context, loaded_facts.element, loaded.bytes, display_flags, out, size);
  return kExprFormatOk;
}
