// A small C++ debuggee: classes with virtual functions across two translation units, a worker
// thread, templates, and debug strings.
#include <windows.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "cpp_basics_shapes.h"

static int g_area_calls = 7;  // file-static, same name as one in cpp_basics_shapes.cpp
int g_counter;
const char *g_greeting = "hello";

template <typename T>
T Sum(const std::vector<T> &values) {
  T total{};
  for (const T &v : values) total += v;
  return total;
}

static void Worker(int rounds) {
  for (int i = 0; i < rounds; i++) g_counter++;
  OutputDebugStringA("worker done\n");
}

int main() {
  Circle c(2.0);
  Rect r(3.0, 4.0);
  Shape *shapes[] = {&c, &r};
  double area = TotalArea(shapes, 2);
  std::thread worker(Worker, 1000);
  worker.join();
  std::vector<int> values = {1, 2, 3, 4};
  char text[128];
  snprintf(text, sizeof text, "area=%.2f sum=%d counter=%d\n", area, Sum(values), g_counter);
  OutputDebugStringA(text);
  printf("%s", text);
  return g_area_calls == 7 ? 0 : 1;
}
