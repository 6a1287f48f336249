// Program whose PDBs the locals and inline tests read, built with clang for mingw and with
// clang-cl for the MSVC ABI, each without and with optimisation: parameters and locals in every
// storage the compilers use (frame slots, registers, parts of a value in several registers, a
// slot whose address escapes), nested blocks, static, thread-local and constant locals, and calls
// that optimisation inlines two and three levels deep, from this file and from a header, through
// free functions, a namespace and methods.
#include "frames.h"

#ifdef KTRN_FREESTANDING
// Without a C runtime: printf and ExitProcess come from import libraries, and thread-local data,
// which needs the runtime's TLS directory, is left to the mingw builds.
extern "C" int printf(const char *format, ...);
extern "C" __declspec(dllimport) void __stdcall ExitProcess(unsigned code);
extern "C" int _fltused = 0;
#define KTRN_THREAD_LOCAL
#else
#include <stdio.h>
#define KTRN_THREAD_LOCAL thread_local
#endif

namespace frames {

struct Pair {
  int low;
  int high;
};

struct Big {
  long long a, b, c, d;
};

class Accumulator {
 public:
  void Add(int value) { total_ += Limit(value); }
  int Total() const { return total_; }

 private:
  static int Limit(int value) { return value > 1000 ? 1000 : value; }
  int total_ = 0;
};

static int Clamp(int value, int low, int high) {
  if (value < low) return low;
  if (value > high) return high;
  return value;
}

static int SumPair(Pair pair) { return Clamp(pair.low + pair.high, -500, 500); }

}  // namespace frames

using frames::Big;
using frames::Pair;

// Declared, never defined: the PDB holds only a forward reference to it.
struct Lonely;
Lonely *volatile g_lonely;

static volatile int g_sink;
static int g_seeds[8] = {3, 1, 4, 1, 5, 9, 2, 6};

__attribute__((noinline)) static void Fill(int *buffer, int count) {
  for (int i = 0; i < count; i++) buffer[i] = g_seeds[i % 8] * (i + 1);
}

__attribute__((noinline)) int Scale(Pair pair, int factor) {
  int scaled = frames::SumPair(pair) * factor;
  g_sink = scaled;
  return scaled + pair.low;
}

__attribute__((noinline)) long long Total(const Big *big, int count) {
  long long total = 0;
  for (int i = 0; i < count; i++) total += big[i].a + big[i].d;
  return total;
}

__attribute__((noinline)) double Mix(double weight, float bias, int steps) {
  double result = bias;
  for (int step = 0; step < steps; step++) result = result * weight + Twice(step);
  return result;
}

__attribute__((noinline)) int Walk(int n) {
  static int calls;
  static KTRN_THREAD_LOCAL int depth;
  static const int kLimit = 40;
  int buffer[16];
  Fill(buffer, 16);
  int total = 0;
  calls++;
  depth++;
  for (int i = 0; i < n; i++) {
    int twice = Twice(buffer[i % 16]);
    if (twice > 4) {
      int inner = frames::Clamp(twice, 0, kLimit) + calls;
      total += inner;
    }
    total += twice;
  }
  depth--;
  return total;
}

// An over-aligned local makes the frame realign the stack: locals and parameters then sit relative
// to different registers.
__attribute__((noinline)) int Aligned(int seed, Pair pair) {
  static int step = 3;  // never written: optimisation turns it into a constant
  alignas(64) int lanes[16];
  for (int i = 0; i < 16; i++) lanes[i] = seed + i * step;
  Fill(lanes, 4);
  return lanes[seed & 15] + pair.high;
}

__attribute__((noinline)) int Gather(int count) {
  frames::Accumulator accumulator;
  for (int i = 0; i < count; i++) accumulator.Add(Square(i) + g_seeds[i % 8]);
  return accumulator.Total();
}

int main(int argc, char **argv) {
  (void)argv;
  Pair pair = {argc, argc * 3};
  Big bigs[2] = {{1, 2, 3, 4}, {argc, 6, 7, 8}};
  int result = Scale(pair, argc + 1) + Walk(argc + 20) + Gather(argc + 10) + Aligned(argc, pair);
  long long total = Total(bigs, 2);
  double mixed = Mix(0.5, 1.5f, argc + 3);
  printf("%d %lld %d\n", result, total, (int)mixed);
  return result == 0;
}

#ifdef KTRN_FREESTANDING
extern "C" void mainCRTStartup() {
  char name[] = "frames";
  char *argv[] = {name, nullptr};
  ExitProcess((unsigned)main(1, argv));
}
#endif
