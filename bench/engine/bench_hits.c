// The program the engine benchmark sets a breakpoint in: "bench_hits N" reports the address of
// BenchHit as a debug string ("BenchHit 0x..."), then calls it N times. Exits with 0 when every
// call counted, so a benchmark run that corrupted the function shows in the exit code.
// "bench_hits step N": a breakpoint instruction, a loop of N rounds written on one source line (a
// step over it single-steps every instruction of the loop), a second breakpoint instruction; exits
// with 0 when the loop's sum is right.
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static volatile long g_hits;

__declspec(noinline) void BenchHit(void) { g_hits++; }

static int SteppedLoop(long count) {
  volatile long sum = 0;
  __debugbreak();
  for (long i = 0; i < count; i++) sum += i;  // one line: the stepped workload
  __debugbreak();
  return sum == count * (count - 1) / 2 ? 0 : 1;
}

int main(int argc, char **argv) {
  if (argc > 2 && !strcmp(argv[1], "step")) return SteppedLoop(atol(argv[2]));
  long count = argc > 1 ? atol(argv[1]) : 0;
  char line[64];
  snprintf(line, sizeof line, "BenchHit 0x%llx\n", (unsigned long long)(ULONG_PTR)(void *)BenchHit);
  OutputDebugStringA(line);
  for (long i = 0; i < count; i++) BenchHit();
  return g_hits == count ? 0 : 1;
}
