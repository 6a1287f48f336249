// The views a format specifier makes of a value: a string read from the target, a memory view
// of rows, a matrix of float rows, and a vector's lanes; with the rows of their children.
#include <stdio.h>
#include <string.h>

#include "expr/expr_eval_internal.h"
#include "expr/expr_row_internal.h"
#include "expr/format_spec.h"
#include "expr/value_format.h"

static const char kNotApplicable[] = "Format specifier does not apply to this type.";
static const char kUnreadable[] = "??? (unable to read process memory)";

static bool Read(ExprEvalContext *context, u64 address, void *out, u32 size) {
  const ExprEvalHost *host = context->host;
  return host->read_memory && host->read_memory(host->context, address, out, size);
}

// [SECTION] Strings

// Reads the characters of a string view a block at a time, aligned so that a block does not cross
// into a page it does not need; a block that cannot be read is read again one unit at a time.
struct StringReader {
  ExprEvalContext *context;
  u64 address;
  u32 unit;  // 1 or 2
  u8 block[64];
  u32 have, next;
};

static bool NextUnit(StringReader *r, u32 *out) {
  if (r->next + r->unit > r->have) {
    u32 size = 64 - (u32)(r->address % 64);
    if (size < r->unit) size = r->unit;
    if (!Read(r->context, r->address, r->block, size)) {
      size = r->unit;
      if (!Read(r->context, r->address, r->block, size)) return false;
    }
    r->have = size - size % r->unit;
    r->next = 0;
  }
  *out = r->unit == 1 ? r->block[r->next] : (u32)(r->block[r->next] | r->block[r->next + 1] << 8);
  r->next += r->unit;
  r->address += r->unit;
  return true;
}

void ExprApplyString(ExprEvalContext *context, const ExprValue *value, const ExprNode *format, ExprRow *out) {
  bool wide = format->format.flags & kDisplayFlagWideString;
  u64 address;
  if (!ExprViewAddress(context, value, &address)) {
    ExprTypeText(context, value->type, out->type_text, sizeof out->type_text);
    return ExprFailRow(out, kNotApplicable);
  }
  u64 limit = ~0ull;
  if (format->format.expression &&
      !ExprEvaluateCount(context, format->format.expression, value, &limit, out->value_text, sizeof out->value_text)) {
    out->failed = 1;
    return;
  }
  snprintf(out->type_text, sizeof out->type_text, "string view");
  out->view = kExprRowString;
  out->element_type = wide ? 0x71 : 0x70;
  out->element_address = address;
  StringReader reader = {context, address, wide ? 2u : 1u, {}, 0, 0};
  char *text = out->value_text;
  u32 used = 1, shown = 0, pending_high = 0;
  text[0] = '"';
  u32 code;
  // Units are bounded too: halves of pairs that never complete write nothing.
  while (shown < limit && shown < 4 * sizeof out->value_text && NextUnit(&reader, &code)) {
    if (limit == ~0ull && code == 0) break;  // without a count, the string ends at its terminator
    shown++;
    if (wide && code >= 0xD800 && code < 0xDC00) {  // the first half of a pair
      pending_high = code;
      continue;
    }
    if (wide && pending_high && code >= 0xDC00 && code < 0xE000) code = 0x10000 + ((pending_high - 0xD800) << 10) + (code - 0xDC00);
    pending_high = 0;
    char character[16];
    u32 length = !wide && code >= 0x80 ? (u32)snprintf(character, sizeof character, "\\x%02x", code)
                                       : ExprCharacterText(code, '"', character);
    if (used + length + 2 > sizeof out->value_text) break;  // cut, with room for the closing quote
    memcpy(text + used, character, length);
    used += length;
  }
  if (!shown && reader.address == address && limit) {
    // Not even the first character could be read.
    snprintf(text, sizeof out->value_text, "%s", kUnreadable);
    out->unreadable = 1;
    return;
  }
  text[used++] = '"';
  text[used] = 0;
  out->element_count = shown;
}

// [SECTION] Memory views

struct MemoryKind {
  u8 size;     // bytes of an element
  u8 columns;  // elements a row shows by default
  bool ascii;  // a column of the row's bytes as characters follows
  u8 cell;     // how an element is written
};
enum : u8 { kCellHex, kCellDouble, kCellFloat, kCellBinary };
enum : u32 { kMemoryDefaultRows = 16, kMemoryMaxColumns = 64 };

// Indexed by the specifier's memory kind: db, dc, dd, dD, df, dq, dw, dW, dyb, dyd.
static const MemoryKind kMemoryKinds[11] = {
    {1, 16, false, kCellHex}, {1, 16, true, kCellHex}, {4, 4, true, kCellHex},   {4, 4, false, kCellHex},
    {8, 2, false, kCellDouble}, {4, 4, false, kCellFloat}, {8, 2, false, kCellHex}, {2, 8, false, kCellHex},
    {2, 8, true, kCellHex},   {1, 4, false, kCellBinary}, {4, 2, false, kCellBinary},
};

void ExprApplyMemory(ExprEvalContext *context, const ExprValue *value, const ExprNode *format, ExprRow *out) {
  u32 kind = format->format.memory_kind;
  u64 address;
  if (kind < 1 || kind > 10 || !ExprViewAddress(context, value, &address)) {
    ExprTypeText(context, value->type, out->type_text, sizeof out->type_text);
    return ExprFailRow(out, kNotApplicable);
  }
  snprintf(out->type_text, sizeof out->type_text, "memory watch");
  const MemoryKind &k = kMemoryKinds[kind];
  u64 columns = format->format.has_columns && format->format.columns ? format->format.columns : k.columns;
  if (columns > kMemoryMaxColumns) columns = kMemoryMaxColumns;
  u64 count = columns * kMemoryDefaultRows;
  if (format->format.has_count) {
    count = format->format.element_count;
  } else if (format->format.expression) {
    u64 end;
    if (ExprEvaluateAs(context, format->format.expression, kTypeUInt64, &end, sizeof end) != kExprEvalOk)
      return ExprFailRow(out, "Unable to evaluate ending address.");
    count = end > address ? (end - address) / k.size + ((end - address) % k.size != 0) : 0;
  }
  out->value = *value;
  out->view = kExprRowMemory;
  out->memory_kind = kind;
  out->columns = (u32)columns;
  out->element_type = kTypeUChar;
  out->element_address = address;
  out->element_count = count;
  out->child_count = count / columns + (count % columns != 0);
  snprintf(out->value_text, sizeof out->value_text, "0x%016llX", (unsigned long long)address);
}

static u32 DecimalDigits(u64 value, u32 base) {
  u32 digits = 1;
  while (value >= base) value /= base, digits++;
  return digits;
}

static void AppendBinary(char *out, u32 size, u32 *used, u64 bits, u32 width) {
  char digits[65];
  for (u32 i = 0; i < width; i++) digits[i] = (char)('0' + ((bits >> (width - 1 - i)) & 1));
  digits[width] = 0;
  ExprAppend(out, size, used, "%s", digits);
}

void ExprMemoryRow(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out) {
  const MemoryKind &k = kMemoryKinds[parent->memory_kind];
  u64 first = index * parent->columns;
  u32 n = (u32)(parent->element_count - first < parent->columns ? parent->element_count - first : parent->columns);
  u64 offset = first * k.size, address = parent->element_address + offset;
  u64 last_first = (parent->child_count - 1) * parent->columns;
  bool upper = parent->display_flags & kDisplayFlagHexUpper;
  bool hex = upper || (parent->display_flags & kDisplayFlagHexLower);
  int width = (int)DecimalDigits(last_first, hex ? 16 : 10);
  unsigned long long a = address;
  if (!hex) snprintf(out->name, sizeof out->name, "[%*zd] 0x%llX <+%zd>", width, (size_t)first, a, (size_t)offset);
  else if (upper) snprintf(out->name, sizeof out->name, "[%*zX] 0x%llX <+0x%zX>", width, (size_t)first, a, (size_t)offset);
  else snprintf(out->name, sizeof out->name, "[%*zx] 0x%llX <+0x%zx>", width, (size_t)first, a, (size_t)offset);
  snprintf(out->type_text, sizeof out->type_text, "memory watch");
  out->value.type = kTypeUChar;
  out->value.is_location = 1;
  out->value.address = address;
  out->display_flags = parent->display_flags & kExprRowInheritedFlags;
  out->element_address = address;
  // One read for the row; a row that cannot be read whole is read an element at a time.
  u8 bytes[kMemoryMaxColumns * 8];
  bool readable[kMemoryMaxColumns];
  bool whole = Read(context, address, bytes, n * k.size);
  for (u32 i = 0; i < n; i++) readable[i] = whole || Read(context, address + i * k.size, bytes + i * k.size, k.size);
  char *text = out->value_text;
  u32 size = sizeof out->value_text, used = 0;
  bool any = false;
  for (u32 i = 0; i < n; i++) {
    if (i) ExprAppend(text, size, &used, " ");
    u64 bits = 0;
    memcpy(&bits, bytes + i * k.size, k.size);
    any |= readable[i];
    if (!readable[i]) {
      for (u32 c = 0; c < (k.cell == kCellBinary ? k.size * 8 : k.cell == kCellHex ? k.size * 2 : 1); c++)
        ExprAppend(text, size, &used, "?");
    } else if (k.cell == kCellHex) {
      ExprAppend(text, size, &used, upper ? "%0*llX" : "%0*llx", (int)k.size * 2, (unsigned long long)bits);
    } else if (k.cell == kCellBinary) {
      AppendBinary(text, size, &used, bits, k.size * 8);
    } else {
      f32 narrow;
      f64 wide;
      memcpy(&narrow, &bits, 4);
      memcpy(&wide, &bits, 8);
      if (k.cell == kCellFloat) ExprAppend(text, size, &used, "%.8g", narrow);
      else ExprAppend(text, size, &used, "%.16g", wide);
    }
  }
  if (k.ascii || k.cell == kCellBinary) ExprAppend(text, size, &used, "  ");
  for (u32 i = 0; i < n && k.cell == kCellBinary; i++) {
    u64 bits = 0;
    memcpy(&bits, bytes + i * k.size, k.size);
    if (!readable[i]) ExprAppend(text, size, &used, i ? " %.*s" : "%.*s", (int)k.size * 2, "????????");
    else ExprAppend(text, size, &used, upper ? (i ? " %0*llX" : "%0*llX") : (i ? " %0*llx" : "%0*llx"), (int)k.size * 2,
                    (unsigned long long)bits);
  }
  for (u32 i = 0; i < n * k.size && k.ascii; i++) {
    u8 c = bytes[i];
    ExprAppend(text, size, &used, "%c", !readable[i / k.size] ? '?' : c >= 0x20 && c < 0x7F ? (char)c : '.');
  }
  if (!any) {
    snprintf(text, size, "%s", kUnreadable);
    out->unreadable = 1;
  }
}

// [SECTION] Matrices

// The cells are floats stored row after row. Shown column-major, the matrix's rows are its
// columns: row i of the view lists column i, its cells a whole stored row apart.
static const u8 kMatrixShapes[3][2] = {{4, 4}, {4, 3}, {3, 4}};  // rows, columns

void ExprApplyMatrix(ExprEvalContext *context, const ExprValue *value, const ExprNode *format, ExprRow *out) {
  u32 kind = format->format.matrix_kind;
  u64 address;
  if (kind > 2 || !ExprViewAddress(context, value, &address)) {
    ExprTypeText(context, value->type, out->type_text, sizeof out->type_text);
    return ExprFailRow(out, kNotApplicable);
  }
  bool by_column = out->display_flags & kDisplayFlagColumnMajor;
  u32 rows = kMatrixShapes[kind][0], columns = kMatrixShapes[kind][1];
  out->value = *value;
  out->view = kExprRowMatrix;
  out->matrix_kind = kind;
  out->columns = by_column ? rows : columns;
  out->element_type = kTypeFloat;
  out->element_address = address;
  out->element_count = out->child_count = by_column ? columns : rows;
  snprintf(out->value_text, sizeof out->value_text, "{ ... }");
  snprintf(out->type_text, sizeof out->type_text, "%ux%u matrix", rows, columns);
}

void ExprMatrixRow(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out) {
  bool by_column = parent->display_flags & kDisplayFlagColumnMajor;
  u32 cells = parent->columns, stored_row = 4 * kMatrixShapes[parent->matrix_kind][1];
  u32 stride = by_column ? stored_row : 4;
  u64 address = parent->element_address + (by_column ? index * 4 : index * stored_row);
  if (by_column) snprintf(out->name, sizeof out->name, "col %zd", (size_t)index);
  else snprintf(out->name, sizeof out->name, "[%zd]", (size_t)index);
  snprintf(out->type_text, sizeof out->type_text, "float [%u]", cells);
  out->value.type = kTypeFloat;
  out->value.is_location = 1;
  out->value.address = address;
  out->display_flags = parent->display_flags & kExprRowInheritedFlags;
  out->view = kExprRowArray;
  out->element_type = kTypeFloat;
  out->element_address = address;
  out->element_stride = stride;
  out->element_count = out->child_count = cells;
  // One read spans the cells (a column's reaches into the last stored row).
  f32 stored[16];
  if (!Read(context, address, stored, (cells - 1) * stride + 4)) {
    snprintf(out->value_text, sizeof out->value_text, "%s", kUnreadable);
    out->unreadable = 1;
    return;
  }
  u32 used = 0;
  for (u32 i = 0; i < cells; i++) {
    char cell[64];
    ExprFormatBasic(context, kTypeFloat, (const u8 *)&stored[i * stride / 4], out->display_flags, cell, sizeof cell);
    ExprAppend(out->value_text, sizeof out->value_text, &used, i ? ", %s" : "{ %s", cell);
  }
  ExprAppend(out->value_text, sizeof out->value_text, &used, " }");
}

// [SECTION] Vector lanes

// Indexed by the specifier's vector kind: ps, pd, epi8..epi64, epu8..epu64.
static const struct {
  u32 type;
  u32 size;
} kLanes[11] = {{0, 0}, {0x40, 4}, {0x41, 8}, {0x68, 1}, {0x72, 2}, {0x74, 4}, {0x76, 8}, {0x69, 1}, {0x73, 2}, {0x75, 4}, {0x77, 8}};

void ExprApplyVector(ExprEvalContext *context, const ExprValue *value, u32 kind, ExprRow *out) {
  ExprTypeFacts facts = ExprFacts(context, value->type);
  bool sized = facts.size == 16 || facts.size == 32 || facts.size == 64;
  bool is_register = value->type == kExprTypeVector128 || value->type == kExprTypeVector256 || value->type == kExprTypeVector512;
  if (kind < 1 || kind > 10 || !sized || (!is_register && !value->is_location)) return ExprFailRow(out, kNotApplicable);
  snprintf(out->type_text, sizeof out->type_text, "%s", facts.size == 16 ? "u128" : facts.size == 32 ? "u256" : "u512");
  out->value = *value;
  u8 bytes[kExprValueBytes];
  if (value->is_location ? !Read(context, value->address, bytes, (u32)facts.size) : (memcpy(bytes, value->bytes, sizeof bytes), false)) {
    snprintf(out->value_text, sizeof out->value_text, "%s", kUnreadable);
    out->unreadable = 1;
    return;
  }
  out->view = kExprRowVector;
  out->vector_kind = kind;
  out->element_type = kLanes[kind].type;
  out->element_address = value->address;
  out->element_count = out->child_count = facts.size / kLanes[kind].size;
  u32 used = 0;
  for (u64 i = 0; i < out->element_count; i++) {
    char lane[96];
    ExprFormatBasic(context, kLanes[kind].type, bytes + i * kLanes[kind].size, out->display_flags, lane, sizeof lane);
    ExprAppend(out->value_text, sizeof out->value_text, &used, i ? ", %s" : "{ %s", lane);
  }
  ExprAppend(out->value_text, sizeof out->value_text, &used, " }");
}

void ExprVectorLane(ExprEvalContext *context, const ExprRow *parent, u64 index, ExprRow *out) {
  u32 size = kLanes[parent->vector_kind].size;
  ExprValue lane;
  memset(&lane, 0, sizeof lane);
  lane.type = parent->element_type;
  if (parent->value.is_location) {
    lane.is_location = 1;
    lane.address = parent->element_address + index * size;
  } else {
    memcpy(lane.bytes, parent->value.bytes + index * size, size);
  }
  snprintf(out->name, sizeof out->name, "[%zd]", (size_t)index);
  ExprFillRow(context, &lane, parent->display_flags & kExprRowInheritedFlags, 0, out);
}
