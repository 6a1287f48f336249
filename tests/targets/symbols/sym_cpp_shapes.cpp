#include "sym_cpp_shapes.h"

namespace shapes {
int Shape::s_created = 0;
static const double kPi = 3.14159265358979;
static int s_area_calls; // file static, also named in no other module

Circle::Circle(double r) : radius(r) {}
double Circle::Area() const {
  s_area_calls++;
  return kPi * radius * radius;
}
Square::Square(double s) : side(s) {}
double Square::Area() const {
  s_area_calls++;
  return side * side;
}
}  // namespace shapes
