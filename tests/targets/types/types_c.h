/* Types of the C test program: every kind a C watch meets. */
#ifndef KTRN_TARGETS_TYPES_C_H
#define KTRN_TARGETS_TYPES_C_H
#include <stdint.h>

/* Declared here, defined in types_c_defs.c only: main's translation unit sees a forward reference. */
struct Opaque;
struct Opaque *MakeOpaque(int seed);
int OpaqueSum(const struct Opaque *o);
void PrintOpaqueLayout(void);

struct Point {
  int x, y;
};

typedef struct Point PointAlias;
typedef int (*BinaryOp)(int, char *);

enum Color { kRed = -3, kGreen = 0, kBlue = 7 };
enum Wide { kWideSmall = 1, kWideBig = 0x123456789A };
enum Negative64 { kNegativeHuge = -0x7FFFFFFFFFFF, kNegativeOne = -1 };

struct Flags {
  unsigned int ready : 1;
  unsigned int mode : 3;
  signed int delta : 5;
  int plain;
  unsigned short low : 4;
  unsigned short high : 12;
  long long big : 40;
  unsigned char last : 2;
};

union Number {
  int i;
  float f;
  double d;
  unsigned char bytes[8];
};

struct Nested {
  struct Inner {
    short a;
    double b;
  } inner;
  struct Point corners[2][3];
  char tag;
};

struct WithAnonymous {
  int kind;
  union {
    int as_int;
    float as_float;
  };
  struct {
    short lo, hi;
  };
  char after;
};

struct Everything {
  char c;
  signed char sc;
  unsigned char uc;
  short s;
  unsigned short us;
  int i;
  unsigned int ui;
  long l;
  unsigned long ul;
  long long ll;
  unsigned long long ull;
  float f;
  double d;
  long double ld;
  _Bool b;
  uint8_t u8;
  int64_t s64;
  const char *text;
  char *const fixed;
  const volatile int *cv;
  volatile unsigned int counter;
  int matrix[3][4];
  int (*row)[4];
  char *names[2];
  BinaryOp op;
  void (*callbacks[2])(void);
  struct Opaque *opaque;
  PointAlias origin;
  enum Color color;
  enum Wide wide;
  union Number number;
  struct Flags flags;
  void *anything;
};
#endif
