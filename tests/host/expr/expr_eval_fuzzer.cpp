// Arbitrary text parsed and evaluated against the fixed memory image: evaluation must never crash
// or hang, must leave a message on every failure, and never reads outside the image.
#include <stdlib.h>
#include <string.h>

#include "eval_image.h"
#include "expr/expr_parser.h"

static ExprPool g_pool;
static eval_image::Image g_image;
static ExprEvalHost g_host;
static bool g_ready;
static char g_text[512 + 1];

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, size_t size) {
  if (!g_ready) {
    InitExprPool(&g_pool);
    eval_image::Fill(&g_image);
    g_host = eval_image::Host(&g_image);
    g_ready = true;
  }
  if (size > sizeof(g_text) - 1) size = sizeof(g_text) - 1;
  memcpy(g_text, data, size);
  g_text[size] = 0;
  ExprParseResult parsed;
  if (!ExprParse(&g_pool, g_text, &parsed)) return 0;
  ExprEvalContext context = {&g_host, 0, {}};
  ExprValue value;
  u32 result = ExprEvaluate(&context, parsed.tree, &value);
  if (result == kExprEvalOk) result = ExprLoadValue(&context, &value, &value);
  if (result != kExprEvalOk && !context.error[0]) abort();  // a failure without its message
  bool truth;
  if (ExprEvaluateToBoolean(&context, parsed.tree, &truth) != kExprEvalOk && !context.error[0]) abort();
  ExprFreeTree(&g_pool, parsed.tree);
  ExprFreeTree(&g_pool, parsed.format);
  return 0;
}
