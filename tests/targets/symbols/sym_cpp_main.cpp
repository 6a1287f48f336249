// C++ program whose PDB the symbol tests read: namespaces, classes, static members, templates,
// anonymous namespaces, static locals, lambdas, overloads.
#include <stdio.h>

#include "sym_cpp_shapes.h"

namespace {
int s_anonymous_total = 11;
int Twice(int v) { return 2 * v; }
}  // namespace

namespace app {
int g_frames = 0;
constexpr int kMaxFrames = 60;
thread_local int t_frame_local = 0;

template <typename T>
T Clamp(T v, T lo, T hi) {
  return v < lo ? lo : (v > hi ? hi : v);
}

int Frame(int n) {
  static int s_calls = 0;
  s_calls++;
  int acc = 0;
  for (int i = 0; i < n; i++) {
    auto add = [&acc](int x) { acc += x; };
    add(Clamp(i, 0, kMaxFrames));
  }
  t_frame_local = acc;
  return acc + s_calls;
}
}  // namespace app

int Overload(int v) { return v; }
double Overload(double v) { return v * 2; }

int main(int argc, char **) {
  shapes::Circle c(2.0);
  shapes::Square s(3.0);
  double area = c.Area() + s.Area() + shapes::Shape::s_created;
  app::g_frames = app::Frame(argc + 3) + Twice(s_anonymous_total);
  printf("%f %d %f %d\n", area, app::g_frames, Overload(1.5), Overload(2));
  return app::Clamp(argc, 0, 1) == 5;
}
