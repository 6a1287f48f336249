// The stepping test program (built at -O0): loops, recursion, a call through a pointer, a helper
// inlined even at -O0, and values reported at the end (through the debugger's output) that differ
// when a statement is skipped.
// The tests find lines by the STEP_ markers in the comments.
#include <windows.h>

#include <stdio.h>

typedef int (*Operation)(int, int);

static int Add(int a, int b) {  // STEP_ADD_ENTRY
  return a + b;  // STEP_ADD_BODY
}  // STEP_ADD_END

static inline __attribute__((always_inline)) int Twice(int v) {
  return v * 2;  // STEP_TWICE
}

static int Factorial(int n) {  // STEP_FACT_ENTRY
  if (n <= 1)  // STEP_FACT_TEST
    return 1;  // STEP_FACT_BASE
  return n * Factorial(n - 1);  // STEP_FACT_RECURSE
}  // STEP_FACT_END

int main(void) {  // STEP_MAIN_ENTRY
  int total = 0;  // STEP_MAIN_FIRST
  int skipped = 7;  // STEP_INIT_SKIPPED
  for (int i = 0; i < 2; i++)  // STEP_LOOP_HEAD
    total += i;  // STEP_LOOP_BODY
  Operation operation = Add;  // STEP_POINTER
  total = operation(total, 4);  // STEP_CALL_POINTER
  total = Twice(total);  // STEP_INLINE
  int factorial = Factorial(4);  // STEP_FACT_CALL
  skipped = 100;  // STEP_SKIPPED
  skipped = skipped + 1;  // STEP_INCREMENT_SKIPPED
  char text[64];
  snprintf(text, sizeof text, "total %d factorial %d skipped %d\n", total, factorial, skipped);  // STEP_PRINT
  OutputDebugStringA(text);  // STEP_REPORT
  return 0;  // STEP_RETURN
}
