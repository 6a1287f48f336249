// The binary operators: both sides brought to one type without promotion to int, pointer
// arithmetic and comparisons, and the logic operators without short circuit.
#include "expr/expr_eval_internal.h"
#include "expr/expr_token.h"

// The one type two integer operands are brought to.
static u32 CommonIntegerType(u32 left, BasicClass l, u32 right, BasicClass r) {
  if (l.is_signed == r.is_signed) return r.size > l.size ? right : left;
  u32 unsigned_type = l.is_signed ? right : left, signed_type = l.is_signed ? left : right;
  BasicClass u = l.is_signed ? r : l, s = l.is_signed ? l : r;
  return u.size >= s.size ? unsigned_type : signed_type;
}

static bool IsComparison(u32 op) {
  return op == kExprTokenLess || op == kExprTokenLessEqual || op == kExprTokenGreater || op == kExprTokenGreaterEqual ||
         op == kExprTokenEqual || op == kExprTokenNotEqual;
}

static void SetTruth(ExprValue *out, bool truth) { ExprSetInteger(out, kTypeBool8, ExprClassOfBasic(kTypeBool8), truth ? 1 : 0); }

static bool Compare(u32 op, int order) {
  switch (op) {
    case kExprTokenLess: return order < 0;
    case kExprTokenLessEqual: return order <= 0;
    case kExprTokenGreater: return order > 0;
    case kExprTokenGreaterEqual: return order >= 0;
    case kExprTokenEqual: return order == 0;
    default: return order != 0;
  }
}

static u32 PointerBinary(ExprEvalContext *context, u32 op, const ExprValue *left, const ExprValue *right,
                         ExprTypeFacts lf, ExprTypeFacts rf, ExprValue *out) {
  bool left_pointer = lf.kind == kExprTypePointer, right_pointer = rf.kind == kExprTypePointer;
  u32 basic;
  BasicClass lc = ExprClassOf(context, left->type, &basic), rc = ExprClassOf(context, right->type, &basic);
  u64 lbits = ExprValueBits(context, left), rbits = ExprValueBits(context, right);
  if (op == kExprTokenPlus || op == kExprTokenMinus) {
    if (left_pointer && right_pointer) {
      if (op == kExprTokenPlus) return ExprFail(context, "Operand requires arithmetic or pointer types");
      s64 lsize = (s64)ExprFacts(context, lf.element).size, rsize = (s64)ExprFacts(context, rf.element).size;
      if (lsize != rsize) return ExprFail(context, "Failed computing pointer difference: size mismatch (%lld vs. %lld)", (long long)lsize, (long long)rsize);
      if (!lsize) return ExprFail(context, "Size of type is zero.");
      ExprSetInteger(out, 0x76, ExprClassOfBasic(0x76), (u64)((s64)(lbits - rbits) / lsize));
      return kExprEvalOk;
    }
    if (!left_pointer && op == kExprTokenMinus)
      return ExprFail(context, "Operand does not support integral type on left and pointer type on right");
    const ExprValue *pointer = left_pointer ? left : right;
    BasicClass ic = left_pointer ? rc : lc;
    if (!ic.size || ic.is_float) return ExprFail(context, "Operand requires arithmetic or pointer types");
    u64 element = ExprFacts(context, (left_pointer ? lf : rf).element).size;
    u64 offset = (left_pointer ? rbits : lbits) * element;
    u64 base = ExprValueBits(context, pointer);
    ExprSetInteger(out, pointer->type, {8, false, false}, op == kExprTokenPlus ? base + offset : base - offset);
    return kExprEvalOk;
  }
  if (IsComparison(op)) {
    if (op == kExprTokenEqual || op == kExprTokenNotEqual) {
      if (left_pointer && !right_pointer) return ExprFail(context, "Operand requires pointer type on RHS");
    } else if (left_pointer != right_pointer || left->type != right->type) {
      return ExprFail(context, "Cannot compare two differing pointer types.");
    }
    if ((!left_pointer && (!lc.size || lc.is_float)) || (!right_pointer && (!rc.size || rc.is_float)))
      return ExprFail(context, "Operand requires arithmetic or pointer types");
    SetTruth(out, Compare(op, lbits < rbits ? -1 : lbits > rbits ? 1 : 0));
    return kExprEvalOk;
  }
  if (op == kExprTokenStar || op == kExprTokenSlash) return ExprFail(context, "Operand requires arithmetic types");
  return ExprFail(context, "Operand requires integral types");
}

static u32 ArithmeticBinary(ExprEvalContext *context, u32 op, const ExprValue *left, const ExprValue *right, ExprValue *out) {
  u32 lbasic, rbasic;
  BasicClass l = ExprClassOf(context, left->type, &lbasic), r = ExprClassOf(context, right->type, &rbasic);
  bool integral_only = op == kExprTokenPercent || op == kExprTokenShiftLeft || op == kExprTokenShiftRight ||
                       op == kExprTokenAmp || op == kExprTokenPipe || op == kExprTokenCaret;
  if (!l.size || !r.size) {
    if (integral_only) return ExprFail(context, "Operand requires integral types");
    if (op == kExprTokenStar || op == kExprTokenSlash) return ExprFail(context, "Operand requires arithmetic types");
    return ExprFail(context, "Operand requires arithmetic or pointer types");
  }
  if (l.is_float || r.is_float) {
    if (integral_only) return ExprFail(context, "Operand requires integral types");
    u32 type = (lbasic == kTypeDouble || rbasic == kTypeDouble) ? kTypeDouble : kTypeFloat;
    f64 a = ExprFloatingOf(context, left, l), b = ExprFloatingOf(context, right, r);
    if (type == kTypeFloat) a = (f32)a, b = (f32)b;
    if (IsComparison(op)) {
      bool truth;
      switch (op) {
        case kExprTokenLess: truth = a < b; break;
        case kExprTokenLessEqual: truth = a <= b; break;
        case kExprTokenGreater: truth = a > b; break;
        case kExprTokenGreaterEqual: truth = a >= b; break;
        case kExprTokenEqual: truth = a == b; break;
        default: truth = a != b; break;
      }
      SetTruth(out, truth);
      return kExprEvalOk;
    }
    f64 value = op == kExprTokenPlus ? a + b : op == kExprTokenMinus ? a - b : op == kExprTokenStar ? a * b : a / b;
    ExprSetFloating(out, type, value);
    return kExprEvalOk;
  }
  u32 type = CommonIntegerType(lbasic, l, rbasic, r);
  BasicClass c = ExprClassOfBasic(type);
  // Both operands at the common type's width (no promotion to int).
  u64 a = ExprTruncate(ExprValueBits(context, left), c), b = ExprTruncate(ExprValueBits(context, right), c);
  if (IsComparison(op)) {
    int order = c.is_signed ? ((s64)a < (s64)b ? -1 : (s64)a > (s64)b) : (a < b ? -1 : a > b);
    SetTruth(out, Compare(op, order));
    return kExprEvalOk;
  }
  u64 value;
  switch (op) {
    case kExprTokenPlus: value = a + b; break;
    case kExprTokenMinus: value = a - b; break;
    case kExprTokenStar: value = a * b; break;
    case kExprTokenSlash:
    case kExprTokenPercent:
      if (!b) return ExprFail(context, "Divide by zero");
      if (c.is_signed) {
        // The one quotient that overflows 64 bits wraps, as the narrower widths do.
        if ((s64)b == -1) value = op == kExprTokenSlash ? 0 - a : 0;
        else value = op == kExprTokenSlash ? (u64)((s64)a / (s64)b) : (u64)((s64)a % (s64)b);
      } else {
        value = op == kExprTokenSlash ? a / b : a % b;
      }
      break;
    case kExprTokenShiftLeft: value = b >= 64 ? 0 : a << b; break;
    case kExprTokenShiftRight:
      if (c.is_signed) value = (u64)((s64)a >> (b >= 64 ? 63 : b));
      else value = b >= 64 ? 0 : (ExprTruncate(a, {c.size, false, false}) >> b);
      break;
    case kExprTokenAmp: value = a & b; break;
    case kExprTokenPipe: value = a | b; break;
    default: value = a ^ b; break;  // kExprTokenCaret
  }
  ExprSetInteger(out, type, c, value);
  return kExprEvalOk;
}

u32 ExprEvaluateBinary(ExprEvalContext *context, const ExprNode *node, ExprValue *out) {
  // Both sides are evaluated before the operator, && and || included (no short circuit); a
  // failure of the left side stops before the right is evaluated.
  ExprValue left, right;
  u32 result = ExprEvaluateLoaded(context, node->binary.left, &left);
  if (result == kExprEvalOk) result = ExprEvaluateLoaded(context, node->binary.right, &right);
  if (result != kExprEvalOk) return result;
  u32 op = node->binary.op;
  if (op == kExprTokenAmpAmp || op == kExprTokenPipePipe) {
    bool a, b;
    if (!ExprTruthOf(context, &left, &a) || !ExprTruthOf(context, &right, &b))
      return ExprFail(context, "Unable to convert expression to boolean result");
    SetTruth(out, op == kExprTokenAmpAmp ? a && b : a || b);
    return kExprEvalOk;
  }
  ExprTypeFacts lf = ExprFacts(context, left.type), rf = ExprFacts(context, right.type);
  // An array operand is its first element's address.
  ExprValue *sides[2] = {&left, &right};
  ExprTypeFacts *facts[2] = {&lf, &rf};
  for (u32 i = 0; i < 2; i++)
    if (facts[i]->kind == kExprTypeArray && sides[i]->is_location) {
      u32 pointer = ExprPointerTo(context, facts[i]->element);
      if (!pointer) continue;
      ExprSetInteger(sides[i], pointer, {8, false, false}, sides[i]->address);
      *facts[i] = ExprFacts(context, pointer);
    }
  if (lf.kind == kExprTypePointer || rf.kind == kExprTypePointer) return PointerBinary(context, op, &left, &right, lf, rf, out);
  return ArithmeticBinary(context, op, &left, &right, out);
}
