#include "cpp_basics_shapes.h"

static int g_area_calls;  // file-static, same name as one in cpp_basics.cpp

double Circle::Area() const {
  g_area_calls++;
  return 3.14159265358979 * radius * radius;
}

double Rect::Area() const {
  g_area_calls++;
  return width * height;
}

double TotalArea(Shape **shapes, int count) {
  double total = 0;
  for (int i = 0; i < count; i++) total += shapes[i]->Area();
  return total;
}
