// Value formatting: one evaluated value as the text a watch row, a call-stack argument or a tooltip
// shows, and a type's text for the type column. Texts go into caller buffers and are cut at their
// end. The display mode is a set of DisplayFlag bits (format_spec.h): hexadecimal lower or upper
// case, binary, HRESULT message; none of them means decimal.
#pragma once
#include "expr/expr_eval.h"

enum ExprFormatResult : u32 {
  kExprFormatOk = 0,
  kExprFormatUnreadable = 1,  // the text is "??? (unable to read process memory)"
};

// The value text of a value (a location is read first). Aggregates are "{ ... }", void "<N/A>",
// enums their enumerator's name when one has the value. Returns kExprFormatUnreadable when the
// value's memory could not be read; the text then says so.
[[nodiscard]] u32 ExprFormatValue(ExprEvalContext *context, const ExprValue *value, u32 display_flags, char *out, u32 size);

// A loaded basic value (type below 0x1000, a pointer mode included) from its bytes.
void ExprFormatBasic(ExprEvalContext *context, u32 type, const u8 *bytes, u32 display_flags, char *out, u32 size);

// An integer of size bytes in the display mode, without named limits: "0x%x", "%d", "0b..." forms.
void ExprFormatInteger(u64 bits, u32 size, bool is_signed, u32 display_flags, char *out, u32 size_of_out);

// A character as it stands between quotes (quote: ' or "): an escape for the control characters,
// the quote and the backslash, else the code point as UTF-8. Returns the length written (at most 12).
u32 ExprCharacterText(u32 code, char quote, char *out);

// The type column's text: basic types and their pointers by their own names ("int", "u64 *",
// "octect near*"), bit fields "%s (Bit %d)" / "%s (Bits %d..%d)", arrays "%s [%llu]", vector
// registers "u128", "u256", "u512"; type records by the host.
void ExprTypeText(const ExprEvalContext *context, u32 type, char *out, u32 size);

// The system's message of an HRESULT or Win32 code through the host, cached by code (an empty
// text when there is none). Not thread-safe: formatting runs on the debugger thread only.
const char *ExprErrorMessage(const ExprEvalContext *context, u32 code);
// Forgets the cached messages (a host that answers differently, as in tests).
void ExprClearErrorMessages();

// Appends printf-style text at out[*used], cut at size; *used stays below size.
void ExprAppend(char *out, u32 size, u32 *used, const char *format, ...) __attribute__((format(printf, 4, 5)));
