// The evaluator's oracle: the program reports, just before each place the debugger stops at, the
// values of its own variables as a watch row shows them, one debug string "ORACLE SCOPE EXPR | VALUE"
// each (debug strings reach the debugger's transcript; the program's console is its own)
// (SCOPE: "main", "frameN" for frame N of the recursion, "vector"); the debugger's eval of EXPR at
// that stop must show VALUE. The formats are printf's, so the program, not the debugger, says
// what each value is.
//
// Built twice: clang for mingw (with a DLL and thread-locals), and clang-cl for the MSVC ABI with
// msvcrt's printf and no C runtime of its own (KTRN_FREESTANDING).
#ifdef KTRN_FREESTANDING
// msvcrt.dll's formatting; the limits from the compiler's own macros.
extern "C" {
int _fltused = 0;
int _vsnprintf(char *out, unsigned long long size, const char *format, __builtin_va_list arguments);
__declspec(dllimport) void __stdcall OutputDebugStringA(const char *text);
__declspec(dllimport) void __stdcall ExitProcess(unsigned code);
__declspec(dllimport) unsigned long __stdcall GetCurrentThreadId(void);
__declspec(dllimport) unsigned long __stdcall GetCurrentProcessId(void);
}
#define THREAD_LOCALS 0
#define SHRT_MIN (-__SHRT_MAX__ - 1)
#define INT_MAX __INT_MAX__
#define LONG_MIN (-__LONG_MAX__ - 1L)
#define LLONG_MAX __LONG_LONG_MAX__
#define USHRT_MAX 0xFFFF
#define ULLONG_MAX 0xFFFFFFFFFFFFFFFFull
#else
#include <float.h>
#include <limits.h>
#include <stdio.h>
#include <windows.h>
#define _vsnprintf vsnprintf
#define THREAD_LOCALS 1
extern "C" __declspec(dllimport) int dll_counter;  // values_dll.dll
extern "C" __declspec(dllimport) int DllCounterTimes(int factor);
#endif
#include "values_types.h"

#define NOINLINE __declspec(noinline)
#define ORACLE(scope, expr, format, ...) Report("ORACLE " scope " " expr " | " format "\n", __VA_ARGS__)

static void Report(const char *format, ...) {
  char line[512];
  __builtin_va_list arguments;
  __builtin_va_start(arguments, format);
  _vsnprintf(line, sizeof line - 1, format, arguments);
  __builtin_va_end(arguments);
  line[sizeof line - 1] = 0;
  OutputDebugStringA(line);
}

int ValuesMoreFileStatic(void);  // values_more.cpp

#if THREAD_LOCALS
static __thread int tls_counter;
#endif

volatile int g_sink;

// Frame N of the stop inside is the call at depth N.
NOINLINE static int Recurse(int depth) {
  int here = depth * 10 + 1;
  Report("ORACLE frame%d depth | %d\n", depth, depth);
  Report("ORACLE frame%d here | %d\n", depth, here);
  if (depth == 0) {
    g_sink = here;  // recursion-stop
    return here;
  }
  return Recurse(depth - 1) + here;
}

// Known lanes in ymm1 (floats) and ymm2 (32-bit integers) at the stop.
NOINLINE static void Vectors(void) {
  static const float floats[8] = {1.5f, -2.0f, 3.25f, 4.0f, 5.0f, 6.5f, -7.0f, 8.0f};
  static const int ints[8] = {1, -2, 3, -4, 500, 600, 70000, -80000};
  Report("ORACLE vector ymm1, ps | { %.8g, %.8g, %.8g, %.8g, %.8g, %.8g, %.8g, %.8g }\n", floats[0], floats[1],
         floats[2], floats[3], floats[4], floats[5], floats[6], floats[7]);
  Report("ORACLE vector ymm2, epi32 | { %d, %d, %d, %d, %d, %d, %d, %d }\n", ints[0], ints[1], ints[2], ints[3],
         ints[4], ints[5], ints[6], ints[7]);
  __asm__ volatile("vmovups %0, %%ymm1\n\tvmovups %1, %%ymm2" : : "m"(floats), "m"(ints) : "xmm1", "xmm2");
  g_sink = 1;  // vector-stop
}

// Conditional breakpoints: the rounds where k % 3 == 0 are counted here, and the count reported.
NOINLINE static int Count(int rounds) {
  int held = 0;
  for (int k = 0; k < rounds; k++) {
    if (k % 3 == 0) held++;
    g_sink = k;  // condition-line
  }
  Report("held %d of %d\n", held, rounds);
  return held;
}

int main(void) {
  signed char small = 'A';
  short s = -1234;
  short s_min = SHRT_MIN;
  int i = -123456;
  int i_max = INT_MAX;
  long l_min = LONG_MIN;
  long long ll = -9876543210LL;
  long long ll_max = LLONG_MAX;
  unsigned char byte = 200;
  unsigned short us = 65000;
  unsigned short us_max = USHRT_MAX;
  unsigned u = 4000000000u;
  unsigned long long ull_max = ULLONG_MAX;
  bool flag = true;
  const int answer = 42;
  volatile long ticks = -5;
  float f = 3.14159274f;

  double d = 2.718281828459045;

  char letter = 'z';
  char newline = '\n';
  wchar_t wide_letter = L'W';
  const char *text = "narrow text";
  const wchar_t *wide = L"Wide text";
  Point pt = {7, -3};
  Point *where = &pt;
  int arr[5] = {10, 20, 30, 40, 50};
  Outer outer = {{{{1, 2, 3, 4}}, 0.25}, &pt};
  Bits bits;
  bits.lo = 5;
  bits.mid = 9;
  bits.neg = -1;
  bits.one = 1;
  Color color = kGreen;
  Number number;
  number.f = 1.5f;
  Derived der;
  der.a = 11;
  der.b = 12;
  der.c = 13;
#if THREAD_LOCALS
  tls_counter = 31337;
  ORACLE("main", "tls_counter", "%d", tls_counter);
  ORACLE("main", "dll_counter", "%d", DllCounterTimes(1));
#endif
  ORACLE("main", "small", "%hhd '%c'", small, small);
  ORACLE("main", "s", "%hd", s);
  ORACLE("main", "s_min", "SHRT_MIN (%hd)", s_min);
  ORACLE("main", "i", "%d", i);
  ORACLE("main", "i_max", "INT_MAX (%d)", i_max);
  ORACLE("main", "i_max, x", "INT_MAX (0x%x)", i_max);
  ORACLE("main", "l_min", "LONG_MIN (%ld)", l_min);
  ORACLE("main", "ll", "%lld", ll);
  ORACLE("main", "ll_max", "LLONG_MAX (%lld)", ll_max);
  ORACLE("main", "us", "%hu", us);
  ORACLE("main", "us_max", "USHRT_MAX (%hu)", us_max);
  ORACLE("main", "u", "%u", u);
  ORACLE("main", "u, X", "0x%X", u);
  ORACLE("main", "ull_max", "ULLONG_MAX (%llu)", ull_max);
  ORACLE("main", "flag", "%s", flag ? "true" : "false");
  ORACLE("main", "answer", "%d", answer);
  ORACLE("main", "ticks", "%ld", (long)ticks);
  ORACLE("main", "ticks + answer", "%ld", (long)ticks + answer);
  ORACLE("main", "f", "%.8g", f);
  ORACLE("main", "d", "%.16lg", d);
  ORACLE("main", "letter", "%hhd '%c'", letter, letter);
  ORACLE("main", "newline", "%hhd '\\n'", newline);
  ORACLE("main", "wide_letter", "%hu 'W'", (unsigned short)wide_letter);
  // Pointers as MSVC's "%p" writes them (mingw's own printf writes lower-case digits).
  ORACLE("main", "text", "0x%016llX", (unsigned long long)text);
  ORACLE("main", "where", "0x%016llX", (unsigned long long)where);
  ORACLE("main", "&pt", "0x%016llX", (unsigned long long)&pt);
  ORACLE("main", "pt", "%s", "{ ... }");
  ORACLE("main", "pt.x", "%d", pt.x);
  ORACLE("main", "where->y", "%hd", where->y);
  ORACLE("main", "arr[3]", "%d", arr[3]);
  ORACLE("main", "arr[1] + arr[2]", "%d", arr[1] + arr[2]);
  ORACLE("main", "*(arr + 4)", "%d", *(arr + 4));
  ORACLE("main", "outer.a.b.c[2]", "%d", outer.a.b.c[2]);
  ORACLE("main", "outer.a.weight", "%.16lg", outer.a.weight);
  ORACLE("main", "outer.where->x", "%d", outer.where->x);
  ORACLE("main", "bits.lo", "%u", (unsigned)bits.lo);
  ORACLE("main", "bits.mid", "%u", (unsigned)bits.mid);
  ORACLE("main", "bits.neg", "%d", (int)bits.neg);
  ORACLE("main", "bits.one", "%u", (unsigned)bits.one);
  ORACLE("main", "color", "%s", "kGreen");
  ORACLE("main", "number.f", "%.8g", number.f);
  ORACLE("main", "der.a", "%d", der.a);
  ORACLE("main", "der.c", "%d", der.c);
  ORACLE("main", "sizeof(Outer)", "%llu", (unsigned long long)sizeof(Outer));
  ORACLE("main", "file_static", "%d", ValuesMoreFileStatic());
  ORACLE("main", "$tid", "%lu", (unsigned long)GetCurrentThreadId());
  ORACLE("main", "$pid", "%lu", (unsigned long)GetCurrentProcessId());
  g_sink = 0;  // values-stop
  (void)byte, (void)text, (void)wide;
  Recurse(3);
  Vectors();
  Count(12);
  return 0;
}

#ifdef KTRN_FREESTANDING
extern "C" void ValuesEntry(void) { ExitProcess((unsigned)main()); }
#endif
