// What the engine benchmarks share: a clock, the median of rounds, and the machine's load printed
// beside the figures (they say little on a busy machine).
#pragma once
#include <windows.h>

#include <stdio.h>

#include <algorithm>
#include <vector>

static inline double Now() {
  static LARGE_INTEGER frequency;
  if (!frequency.QuadPart) QueryPerformanceFrequency(&frequency);
  LARGE_INTEGER t;
  QueryPerformanceCounter(&t);
  return (double)t.QuadPart / (double)frequency.QuadPart;
}

static inline double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

static inline void PrintLoadAverage(const char *when) {
  // Wine's drive Z: is the host's root, so the host's load average can be read as a file.
  char text[128] = "";
  FILE *f = fopen("Z:\\proc\\loadavg", "rb");
  if (f) {
    size_t n = fread(text, 1, sizeof text - 1, f);
    text[n] = 0;
    fclose(f);
    for (char *p = text; *p; p++)
      if (*p == '\n') *p = 0;
  }
  printf("load average %s: %s\n", when, text[0] ? text : "(not known: not under Wine)");
}
