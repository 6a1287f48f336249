/* Prints a type's layout as the compiler sees it, one tab-separated line each:
 *   type     NAME   SIZE
 *   member   NAME   OFFSET  SIZE
 *   bits     NAME   FIRST-BIT  WIDTH      (bit fields: first bit counted from the object's start)
 * The members of a type follow its type line in declaration order, base classes' members first,
 * which is the order ktrn-pdb prints them in. Shared by the C and C++ test programs. */
#ifndef KTRN_TARGETS_LAYOUT_H
#define KTRN_TARGETS_LAYOUT_H
#include <stddef.h>
#ifdef KTRN_LAYOUT_FREESTANDING
/* MSVC-ABI programs built without any C library headers: these come from msvcrt.dll. */
#ifdef __cplusplus
extern "C" {
#endif
int printf(const char *format, ...);
void *memset(void *to, int value, size_t count);
#ifdef __cplusplus
}
#endif
#else
#include <stdio.h>
#include <string.h>
#endif

#define LAYOUT_TYPE(T) LAYOUT_TYPE_AS(#T, T)
#define LAYOUT_TYPE_AS(name, T) printf("type\t%s\t%u\n", name, (unsigned)sizeof(T))
#define LAYOUT_MEMBER(T, m) printf("member\t%s\t%u\t%u\n", #m, (unsigned)offsetof(T, m), (unsigned)sizeof(((T *)0)->m))

/* A bit field's place: set every bit of it in a zeroed object and see which bits changed. */
#define LAYOUT_BITS(T, m)                                       \
  do {                                                          \
    T layout_object;                                            \
    memset(&layout_object, 0, sizeof(layout_object));           \
    layout_object.m = ~0;                                       \
    LayoutPrintBits(#m, &layout_object, sizeof(layout_object)); \
  } while (0)

static void LayoutPrintBits(const char *name, const void *object, size_t size) {
  const unsigned char *bytes = (const unsigned char *)object;
  int first = -1, width = 0;
  for (size_t i = 0; i < size * 8; i++) {
    if (bytes[i / 8] >> (i % 8) & 1) {
      if (first < 0) first = (int)i;
      width++;
    }
  }
  printf("bits\t%s\t%d\t%d\n", name, first, width);
}
#endif
