/* The definition of struct Opaque: only this translation unit sees it, so the program's PDB has
 * a forward reference (from types_c_main.c) and this definition. */
#include <stdlib.h>

#include "types_c.h"

struct Opaque {
  int values[4];
  struct Opaque *next;
  const char *label;
};

struct Opaque *MakeOpaque(int seed) {
  struct Opaque *o = (struct Opaque *)calloc(1, sizeof(struct Opaque));
  for (int i = 0; i < 4; i++) o->values[i] = seed + i;
  o->label = "opaque";
  return o;
}

int OpaqueSum(const struct Opaque *o) {
  int sum = 0;
  for (int i = 0; i < 4; i++) sum += o->values[i];
  return sum;
}

/* Prints the layout of struct Opaque, which main cannot see. */
#include "layout.h"
void PrintOpaqueLayout(void) {
  LAYOUT_TYPE(struct Opaque);
  LAYOUT_MEMBER(struct Opaque, values);
  LAYOUT_MEMBER(struct Opaque, next);
  LAYOUT_MEMBER(struct Opaque, label);
}
