#include "sym_c.h"

int g_util_table[16] = {1, 2, 3};
static int counter = 5; /* same name as in the other modules */
static const char *s_label = "util";
_Thread_local long long t_util_calls;

static int Helper(int v) { return v + counter; }

int UtilCompute(int v) {
  t_util_calls++;
  PointAlias a = {v, v};
  return Helper(v) + a.x + (s_label[0] == 'u');
}

int PointLength(const struct Point *p) { return p->x * p->x + p->y * p->y; }
