// The call-stack tests' program: each mode prints the program's own chain of return addresses
// (RtlCaptureStackBackTrace, from the function that then stops) as one debug string
// "chain A0 A1 ...", A0 being the return address into that function, and then stops: an int3, a
// stack overflow, a call through a null pointer. The debugger's stack at the stop must agree.
//
// Built three ways: clang for mingw at -O0 and at -O2 (no frame pointers), and clang-cl /O2 for the
// MSVC ABI without any C runtime (KTRN_FREESTANDING: its own entry point, imports declared here).
#ifdef KTRN_FREESTANDING
extern "C" {
__declspec(dllimport) unsigned short __stdcall RtlCaptureStackBackTrace(unsigned long skip, unsigned long count,
                                                                        void **frames, unsigned long *hash);
__declspec(dllimport) void __stdcall OutputDebugStringA(const char *text);
__declspec(dllimport) void __stdcall ExitProcess(unsigned code);
__declspec(dllimport) char *__stdcall GetCommandLineA(void);
__declspec(dllimport) void __stdcall RaiseException(unsigned long code, unsigned long flags, unsigned long count,
                                                    const unsigned long long *arguments);
struct _EXCEPTION_POINTERS;
__declspec(dllimport) void *__stdcall AddVectoredExceptionHandler(unsigned long first,
                                                                  long(__stdcall *handler)(_EXCEPTION_POINTERS *));
}
#define KTRN_CALLBACK 0
#else
#include <windows.h>
#define KTRN_CALLBACK 1
extern "C" __declspec(dllimport) int CallThrough(int (*callback)(int), int value);  // stack_dll.dll
#endif

#define NOINLINE __declspec(noinline)

static volatile int g_sink;

static bool Same(const char *a, const char *b) {
  while (*a && *a == *b) a++, b++;
  return *a == *b;
}

// "chain" and the return addresses above this function's caller, in hexadecimal.
NOINLINE static void PrintChain(void) {
  void *frames[62];
  unsigned count = RtlCaptureStackBackTrace(1, 62, frames, nullptr);
  static char text[62 * 17 + 16];
  char *out = text;
  for (const char *s = "chain"; *s;) *out++ = *s++;
  for (unsigned i = 0; i < count; i++) {
    *out++ = ' ';
    unsigned long long a = (unsigned long long)frames[i];
    int digits = 1;
    while (digits < 16 && (a >> (4 * digits))) digits++;
    for (int d = digits - 1; d >= 0; d--) *out++ = "0123456789abcdef"[(a >> (4 * d)) & 15];
  }
  *out++ = '\n';
  *out = 0;
  OutputDebugStringA(text);
}

// [recurse] 40 calls deep ([deep] 57); the deepest prints and stops.
NOINLINE static int Recurse(int depth) {
  volatile int keep = depth;
  if (depth == 0) {
    PrintChain();
    __debugbreak();
    return 0;
  }
  int below = Recurse(depth - 1);
  return below + keep;
}

// [leaf] a function without a frame of its own (at -O2 it has no unwind data): the stop is in it,
// one frame above the chain's printer.
NOINLINE static void Leaf(void) { __debugbreak(); }
NOINLINE static void LeafCaller(void) {
  PrintChain();
  Leaf();
  g_sink = g_sink + 1;
}

// [exception] the stop is in the vectored handler while a C++ exception code is being raised:
// the stack runs through the system's exception dispatch back to the raiser, which printed the
// chain. [handler] the handler prints it itself (Wine's RtlCaptureStackBackTrace faults there in
// the mingw builds, so only the MSVC-ABI build is asked for this one).
static bool g_chain_in_handler;
static long __stdcall Handler(struct _EXCEPTION_POINTERS *pointers) {
  unsigned code = **(unsigned **)pointers;  // the record comes first, and its code first in it
  if (code != 0xE06D7363u) return 0;        // EXCEPTION_CONTINUE_SEARCH
  if (g_chain_in_handler) PrintChain();
  __debugbreak();
  return -1;  // EXCEPTION_CONTINUE_EXECUTION
}
NOINLINE static void Raiser(void) {
  if (!g_chain_in_handler) PrintChain();
  RaiseException(0xE06D7363u, 0, 0, nullptr);
  g_sink = g_sink + 1;
}

// [overflow] recursion until the stack runs out; the first level prints.
NOINLINE static int Overflow(int depth) {
  volatile char pad[256];
  pad[0] = (char)depth;
  if (depth == 1) PrintChain();
  int below = Overflow(depth + 1);
  return below + pad[0];
}

// [nullcall] a call through a null pointer: the stop's instruction pointer is 0.
NOINLINE static void NullCaller(void) {
  void (*volatile call)(void) = nullptr;
  PrintChain();
  call();
  g_sink = g_sink + 1;
}

#if KTRN_CALLBACK
// [callback] the stop is in a function that the DLL called back.
NOINLINE static int Callback(int value) {
  PrintChain();
  __debugbreak();
  return value * 2;
}
#endif

static int Run(const char *mode) {
  AddVectoredExceptionHandler(1, Handler);
  if (Same(mode, "recurse")) return Recurse(40);
  if (Same(mode, "deep")) return Recurse(57);  // the benchmark's stack: 64 frames in the mingw -O0 build
  if (Same(mode, "leaf")) LeafCaller();
  if (Same(mode, "exception")) Raiser();
  if (Same(mode, "handler")) {
    g_chain_in_handler = true;
    Raiser();
  }
  if (Same(mode, "overflow")) return Overflow(1);
  if (Same(mode, "nullcall")) NullCaller();
#if KTRN_CALLBACK
  if (Same(mode, "callback")) return CallThrough(Callback, 20);
#endif
  return 0;
}

#ifdef KTRN_FREESTANDING
extern "C" void StackEntry(void) {
  const char *line = GetCommandLineA(), *last = line;
  for (const char *p = line; *p; p++)
    if (*p == ' ' && p[1] && p[1] != ' ') last = p + 1;
  ExitProcess((unsigned)Run(last));
}
#else
int main(int argc, char **argv) { return Run(argc > 1 ? argv[1] : ""); }
#endif
