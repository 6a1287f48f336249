// The program the engine benchmark sets a breakpoint in: "bench_hits N" reports the address of
// BenchHit as a debug string ("BenchHit 0x..."), then calls it N times. Exits with 0 when every
// call counted, so a benchmark run that corrupted the function shows in the exit code.
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

static volatile long g_hits;

__declspec(noinline) void BenchHit(void) { g_hits++; }

int main(int argc, char **argv) {
  long count = argc > 1 ? atol(argv[1]) : 0;
  char line[64];
  snprintf(line, sizeof line, "BenchHit 0x%llx\n", (unsigned long long)(ULONG_PTR)(void *)BenchHit);
  OutputDebugStringA(line);
  for (long i = 0; i < count; i++) BenchHit();
  return g_hits == count ? 0 : 1;
}
