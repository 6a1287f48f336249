/* C program whose PDB the symbol tests read: globals, file statics of the same name in two
   modules, thread-local data, constants, nested blocks, UTF-8 identifiers. */
#include <stdio.h>

#include "sym_c.h"

int g_main_counter = 7;
const double kScale = 2.5;
static int counter = 100; /* also in sym_c_util.c and sym_c_more.c */
_Thread_local int t_depth;
static _Thread_local int t_hidden = 3;
int größe = 42;
enum Color { kRed = 1, kGreen = 2, kBlue = 4 };
enum Color g_color = kGreen;

static int Square(int x) { return x * x; }

static int Nested(int n) {
  int total = 0;
  for (int i = 0; i < n; i++) {
    int twice = i * 2;
    if (twice > 2) {
      static int calls;
      int inner = twice + calls++;
      total += inner;
    }
    total += twice;
  }
  return total;
}

int main(int argc, char **argv) {
  (void)argv;
  t_depth = argc;
  int sum = Square(argc) + Nested(4) + UtilCompute(3) + MoreCompute(2) + counter + t_hidden + größe;
  struct Point p = {1, 2};
  sum += PointLength(&p);
  printf("%d %f %d\n", sum, kScale, (int)g_color);
  return sum == 0;
}
