#pragma once
struct Point {
  int x, y;
};
typedef struct Point PointAlias;
int UtilCompute(int v);
int MoreCompute(int v);
int PointLength(const struct Point *p);
extern int g_util_table[16];
