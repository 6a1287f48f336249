#include "sym_c.h"

static int counter; /* zero-initialised: another section than the initialised ones */
static int Helper(int v) { return v * 3 + counter++; } /* same name as in sym_c_util.c */
char g_more_buffer[256];

int MoreCompute(int v) {
  {
    int a = v + 1;
    {
      int b = a * 2;
      g_more_buffer[b & 255] = (char)b;
    }
  }
  return Helper(v);
}
