/* The C test program of the type tests: its PDB holds the types of types_c.h, and it prints
 * their sizes, offsets and bit-field places as the compiler laid them out (see layout.h). */
#include <stdlib.h>

#include "layout.h"
#include "types_c.h"

static int Add(int a, char *b) { return a + (b ? *b : 0); }

struct Everything g_everything;
struct Nested g_nested;
struct WithAnonymous g_anonymous;
PointAlias g_point;
BinaryOp g_op = Add;
enum Negative64 g_negative = kNegativeHuge;
struct Opaque *g_opaque;

static void PrintLayouts(void) {
  PrintOpaqueLayout();

  LAYOUT_TYPE(struct Point);
  LAYOUT_MEMBER(struct Point, x);
  LAYOUT_MEMBER(struct Point, y);

  LAYOUT_TYPE(struct Flags);
  LAYOUT_BITS(struct Flags, ready);
  LAYOUT_BITS(struct Flags, mode);
  LAYOUT_BITS(struct Flags, delta);
  LAYOUT_MEMBER(struct Flags, plain);
  LAYOUT_BITS(struct Flags, low);
  LAYOUT_BITS(struct Flags, high);
  LAYOUT_BITS(struct Flags, big);
  LAYOUT_BITS(struct Flags, last);

  LAYOUT_TYPE(union Number);
  LAYOUT_MEMBER(union Number, i);
  LAYOUT_MEMBER(union Number, f);
  LAYOUT_MEMBER(union Number, d);
  LAYOUT_MEMBER(union Number, bytes);

  LAYOUT_TYPE(struct Inner);
  LAYOUT_MEMBER(struct Inner, a);
  LAYOUT_MEMBER(struct Inner, b);

  LAYOUT_TYPE(struct Nested);
  LAYOUT_MEMBER(struct Nested, inner);
  LAYOUT_MEMBER(struct Nested, corners);
  LAYOUT_MEMBER(struct Nested, tag);

  LAYOUT_TYPE(struct WithAnonymous);
  LAYOUT_MEMBER(struct WithAnonymous, kind);
  LAYOUT_MEMBER(struct WithAnonymous, as_int);
  LAYOUT_MEMBER(struct WithAnonymous, as_float);
  LAYOUT_MEMBER(struct WithAnonymous, lo);
  LAYOUT_MEMBER(struct WithAnonymous, hi);
  LAYOUT_MEMBER(struct WithAnonymous, after);

  LAYOUT_TYPE(enum Color);
  LAYOUT_TYPE(enum Wide);
  LAYOUT_TYPE(enum Negative64);

  LAYOUT_TYPE(struct Everything);
  LAYOUT_MEMBER(struct Everything, c);
  LAYOUT_MEMBER(struct Everything, sc);
  LAYOUT_MEMBER(struct Everything, uc);
  LAYOUT_MEMBER(struct Everything, s);
  LAYOUT_MEMBER(struct Everything, us);
  LAYOUT_MEMBER(struct Everything, i);
  LAYOUT_MEMBER(struct Everything, ui);
  LAYOUT_MEMBER(struct Everything, l);
  LAYOUT_MEMBER(struct Everything, ul);
  LAYOUT_MEMBER(struct Everything, ll);
  LAYOUT_MEMBER(struct Everything, ull);
  LAYOUT_MEMBER(struct Everything, f);
  LAYOUT_MEMBER(struct Everything, d);
  LAYOUT_MEMBER(struct Everything, ld);
  LAYOUT_MEMBER(struct Everything, b);
  LAYOUT_MEMBER(struct Everything, u8);
  LAYOUT_MEMBER(struct Everything, s64);
  LAYOUT_MEMBER(struct Everything, text);
  LAYOUT_MEMBER(struct Everything, fixed);
  LAYOUT_MEMBER(struct Everything, cv);
  LAYOUT_MEMBER(struct Everything, counter);
  LAYOUT_MEMBER(struct Everything, matrix);
  LAYOUT_MEMBER(struct Everything, row);
  LAYOUT_MEMBER(struct Everything, names);
  LAYOUT_MEMBER(struct Everything, op);
  LAYOUT_MEMBER(struct Everything, callbacks);
  LAYOUT_MEMBER(struct Everything, opaque);
  LAYOUT_MEMBER(struct Everything, origin);
  LAYOUT_MEMBER(struct Everything, color);
  LAYOUT_MEMBER(struct Everything, wide);
  LAYOUT_MEMBER(struct Everything, number);
  LAYOUT_MEMBER(struct Everything, flags);
  LAYOUT_MEMBER(struct Everything, anything);
}

int main(int argc, char **argv) {
  PrintLayouts();
  g_opaque = MakeOpaque(argc);
  g_everything.op = g_op;
  g_nested.tag = (char)OpaqueSum(g_opaque);
  g_anonymous.as_int = g_negative == kNegativeHuge;
  (void)argv;
  return 0;
}
