// Arbitrary text parsed and evaluated against the fixed memory image, then made into a watch row
// with its format specifier, in every display mode, with its first and last children and a
// grandchild: evaluation must never crash or hang, every failure must leave a message, and every
// text must end within its buffer. The image's reads are bounds-checked, so nothing is read
// outside it.
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "eval_image.h"
#include "expr/expr_parser.h"
#include "expr/expr_row.h"

static ExprPool g_pool;
static eval_image::Image g_image;
static ExprEvalHost g_host, g_split_host;
static bool g_ready;
static char g_text[512 + 1];

static void CheckRow(const ExprRow *row) {
  if (!memchr(row->name, 0, sizeof row->name) || !memchr(row->value_text, 0, sizeof row->value_text) ||
      !memchr(row->type_text, 0, sizeof row->type_text))
    abort();
  if (row->failed && !row->value_text[0]) abort();  // a failure without its message
  char line[kExprRowNameCapacity + kExprRowValueCapacity + kExprRowTypeCapacity + 3];
  if (ExprRowLine(row, line, sizeof line) >= sizeof line) abort();
}

// The first and last few children and the first grandchild; the children of a huge array are
// never walked, so a row must answer any index it claims.
static void CheckChildren(ExprEvalContext *context, const ExprRow *row, int depth) {
  u64 count = row->child_count;
  for (u64 k = 0; k < count && k < 4; k++) {
    for (u64 index : {k, count - 1 - k}) {
      ExprRow child;
      if (!ExprRowChild(context, row, index, &child)) abort();
      CheckRow(&child);
      if (depth < 2 && index == 0) CheckChildren(context, &child, depth + 1);
    }
  }
  ExprRow past;
  if (ExprRowChild(context, row, count, &past)) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, size_t size) {
  if (!g_ready) {
    InitExprPool(&g_pool);
    eval_image::Fill(&g_image);
    g_host = eval_image::Host(&g_image);
    g_split_host = g_host;
    g_split_host.find_global = eval_image::FindGlobal;
    g_ready = true;
  }
  if (size > sizeof(g_text) - 1) size = sizeof(g_text) - 1;
  memcpy(g_text, data, size);
  g_text[size] = 0;
  ExprParseResult parsed;
  if (!ExprParse(&g_pool, g_text, &parsed)) return 0;
  ExprEvalContext context = {&g_host, 0, {}, nullptr};
  ExprValue value;
  u32 result = ExprEvaluate(&context, parsed.tree, &value);
  if (result == kExprEvalOk) result = ExprLoadValue(&context, &value, &value);
  if (result != kExprEvalOk && !context.error[0]) abort();  // a failure without its message
  bool truth;
  if (ExprEvaluateToBoolean(&context, parsed.tree, &truth) != kExprEvalOk && !context.error[0]) abort();
  // The first byte picks the window's display mode and whether globals are asked apart.
  static const u32 kModes[] = {0, 0x400, 0x800, 0x10000, 0x80000, 0x400 | 0x80000};
  u32 mode = size ? data[0] : 0;
  context.host = mode & 0x80 ? &g_split_host : &g_host;
  ExprRow row;
  ExprEvaluateRow(&context, g_text, parsed.tree, parsed.format, kModes[mode % 6], &row);
  CheckRow(&row);
  CheckChildren(&context, &row, 0);
  ExprFreeTree(&g_pool, parsed.tree);
  ExprFreeTree(&g_pool, parsed.format);
  return 0;
}
