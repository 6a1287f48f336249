// The engine's test program: one mode per scenario, chosen by the first argument.
//   threads | strings | av | avraw | shadow | div0 | overflow | nullcall | int3 | int3loop N | int3tick N | count | bp N | bpthreads N | bpspin | shared | dll2 | ymm | priorities | data | drprobe | step | strloop N | spin | many N | env | cwd | dll
//   | cxx | cxxbad | unknown
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "eng_shared.h"

// [SECTION] Exceptions the program handles itself

// The variable through which AddressSanitizer finds its shadow memory: the engine reads it to
// recognise the sanitizer's own faults. 16 TiB is far from anything mapped here.
extern "C" unsigned long long __asan_shadow_memory_dynamic_address = 0x100000000000ull;

static volatile LONG g_handled;

static LONG WINAPI Handler(EXCEPTION_POINTERS *info) {
  DWORD code = info->ExceptionRecord->ExceptionCode;
  // Only the faults the program makes on purpose: the system may fault and recover internally.
  if (code == EXCEPTION_ACCESS_VIOLATION && (info->ExceptionRecord->ExceptionInformation[1] == 0x10 ||
                                             info->ExceptionRecord->ExceptionAddress == nullptr))
    ExitProcess(0xAB);
  if (code == EXCEPTION_ACCESS_VIOLATION &&
      info->ExceptionRecord->ExceptionInformation[1] == __asan_shadow_memory_dynamic_address + 0x1000)
    ExitProcess(0xB0);
  if (code == EXCEPTION_INT_DIVIDE_BY_ZERO) ExitProcess(0xAD);
  if (code == EXCEPTION_STACK_OVERFLOW) ExitProcess(0xAF);
  // Counted, so that the tests see these reached the program (continued as not handled by the
  // debugger) instead of being swallowed on the way.
  if (code == 0xE06D7363 || code == 0xE0001234) {
    g_handled++;
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

// The records an MSVC compiler emits for `throw ktrn::parse_error()`, with image-relative offsets.
struct TypeDescriptor {
  void *vftable;
  void *spare;
  char name[32];
};
struct CatchableType {
  unsigned properties, type_rva;
  int mdisp, pdisp, vdisp;
  unsigned size, copy_rva;
};
struct CatchableTypeArray {
  int count;
  unsigned types[1];
};
struct ThrowInfo {
  unsigned attributes, unwind_rva, forward_rva, array_rva;
};
static TypeDescriptor g_type = {nullptr, nullptr, ".?AVparse_error@ktrn@@"};
static CatchableType g_catchable;
static CatchableTypeArray g_array;
static ThrowInfo g_throw;
static int g_thrown_object = 1234;

static unsigned Rva(const void *p, const void *base) { return (unsigned)((const char *)p - (const char *)base); }

static void RaiseMsvcException(void) {
  HMODULE base = GetModuleHandleW(nullptr);
  g_catchable.type_rva = Rva(&g_type, base);
  g_catchable.size = sizeof g_thrown_object;
  g_array.count = 1;
  g_array.types[0] = Rva(&g_catchable, base);
  g_throw.array_rva = Rva(&g_array, base);
  ULONG_PTR params[4] = {0x19930520, (ULONG_PTR)&g_thrown_object, (ULONG_PTR)&g_throw, (ULONG_PTR)base};
  RaiseException(0xE06D7363, 0, 4, params);
}

// [SECTION] Threads

static DWORD WINAPI ExitWithCode(void *code) { return (DWORD)(ULONG_PTR)code; }

static volatile LONG g_idle_started;

static DWORD WINAPI IdleThread(void *event) {
  InterlockedIncrement(&g_idle_started);
  WaitForSingleObject((HANDLE)event, INFINITE);
  return 0;
}

// Until that many idle threads run: each thread's start has then reached the debugger, before
// whatever the program does next (a fixed sleep was not enough on a loaded machine).
static void WaitIdleThreads(LONG count) {
  while (g_idle_started < count) Sleep(1);
}

static volatile LONG g_counts[3];

// Counts in its own slot for as long as it runs: the tests see which threads were let run.
static DWORD WINAPI Counter(void *slot) {
  for (;;) {
    InterlockedIncrement(&g_counts[(ULONG_PTR)slot]);
    Sleep(1);
  }
}

static void RunThread(DWORD code) {
  HANDLE t = CreateThread(nullptr, 0, ExitWithCode, (void *)(ULONG_PTR)code, 0, nullptr);
  WaitForSingleObject(t, INFINITE);
  CloseHandle(t);
}

// [SECTION] Breakpoint targets

static volatile LONG g_work_total;

// Called in loops for the breakpoint tests: a function, a line and an address each stop it.
int BreakWork(int n) {  // WORK_FUNCTION_LINE
  int doubled = n * 2;  // WORK_LINE
  InterlockedExchangeAdd(&g_work_total, doubled);  // WORK_TOTAL_LINE
  return doubled;
}

static DWORD WINAPI WorkThread(void *count) {
  for (int i = 0; i < (int)(ULONG_PTR)count; i++) {
    BreakWork(i);
    Sleep(0);
  }
  return 0;
}

// FNV-1a over the bytes of the image's code section as this process sees them: an int3 the
// debugger left in it changes the sum.
static unsigned CodeChecksum(void) {
  const unsigned char *base = (const unsigned char *)GetModuleHandleW(nullptr);
  const IMAGE_NT_HEADERS64 *nt = (const IMAGE_NT_HEADERS64 *)(base + ((const IMAGE_DOS_HEADER *)base)->e_lfanew);
  const IMAGE_SECTION_HEADER *section = IMAGE_FIRST_SECTION(nt);
  unsigned sum = 2166136261u;
  for (int i = 0; i < nt->FileHeader.NumberOfSections; i++, section++) {
    if (memcmp(section->Name, ".text", 6) != 0) continue;
    for (DWORD k = 0; k < section->Misc.VirtualSize; k++) sum = (sum ^ base[section->VirtualAddress + k]) * 16777619u;
  }
  return sum;
}

// The work of the breakpoint tests between two int3s of the program's own, at which the tests set
// and take out their breakpoints. The exit code says whether the code bytes came out as they went
// in (0x100 when not) and what the work added up to.
static int Breakpoints(int count, int threads) {
  unsigned before = CodeChecksum();
  __debugbreak();  // BP_START_LINE
  HANDLE workers[8];
  for (int i = 0; i < threads && i < 8; i++)
    workers[i] = CreateThread(nullptr, 0, WorkThread, (void *)(ULONG_PTR)count, 0, nullptr);
  for (int i = 0; i < count; i++) BreakWork(i);
  for (int i = 0; i < threads && i < 8; i++) WaitForSingleObject(workers[i], INFINITE);
  __debugbreak();  // BP_END_LINE
  unsigned after = CodeChecksum();
  char line[64];
  snprintf(line, sizeof line, "checksum %s\n", after == before ? "kept" : "changed");
  OutputDebugStringA(line);
  return (after == before ? 0 : 0x100) + (g_work_total & 0xFF);
}

// [SECTION] Data breakpoints

static volatile LONG g_watched;
static HANDLE g_accessed;  // set by a thread once it has made its access; it then idles

static DWORD WINAPI DataWriter(void *) {
  g_watched = 2;  // WATCH_THREAD_LINE
  SetEvent(g_accessed);
  for (;;) Sleep(1000);
}

static DWORD WINAPI DataReader(void *) {
  LONG read = g_watched;  // WATCH_READER_LINE
  (void)read;
  SetEvent(g_accessed);
  for (;;) Sleep(1000);
}

static void RunUntilAccessed(LPTHREAD_START_ROUTINE routine) {
  CloseHandle(CreateThread(nullptr, 0, routine, nullptr, 0, nullptr));
  WaitForSingleObject(g_accessed, INFINITE);
}

// A variable written by the main thread and by a thread made after the tests set their data
// breakpoint, read, then read by the main thread and by a thread made later, and written again,
// with an int3 between the parts: the tests stop at each access they watch for and read the debug
// registers of every thread at the int3s.
static int Data(void) {
  g_accessed = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  char line[64];
  snprintf(line, sizeof line, "watched at %p\n", (void *)&g_watched);
  OutputDebugStringA(line);
  __debugbreak();
  g_watched = 1;  // WATCH_MAIN_LINE
  RunUntilAccessed(DataWriter);
  LONG seen = g_watched;  // a read, which a write breakpoint does not see
  __debugbreak();
  seen += g_watched;  // WATCH_READ_LINE
  RunUntilAccessed(DataReader);
  __debugbreak();
  g_watched = 3;
  return seen + g_watched;
}

// Whether this machine delivers debug-register traps at all: a thread of the program's own is
// given a write breakpoint on a variable and writes it, without any debugger. 1 when the trap came.
static volatile LONG g_probed, g_probe_trapped;
static LONG WINAPI ProbeHandler(EXCEPTION_POINTERS *info) {
  if (info->ExceptionRecord->ExceptionCode != EXCEPTION_SINGLE_STEP) return EXCEPTION_CONTINUE_SEARCH;
  g_probe_trapped = 1;
  info->ContextRecord->Dr7 = 0;
  info->ContextRecord->Dr6 = 0;
  return EXCEPTION_CONTINUE_EXECUTION;
}

static DWORD WINAPI ProbeWriter(void *) {
  g_probed = 1;
  return 0;
}

static int DebugRegisterProbe(void) {
  AddVectoredExceptionHandler(1, ProbeHandler);
  HANDLE writer = CreateThread(nullptr, 0, ProbeWriter, nullptr, CREATE_SUSPENDED, nullptr);
  CONTEXT context = {};
  context.ContextFlags = CONTEXT_DEBUG_REGISTERS;
  context.Dr0 = (DWORD64)&g_probed;
  context.Dr7 = 1 | (1 << 16) | (3 << 18);  // slot 0, write, 4 bytes
  SetThreadContext(writer, &context);
  ResumeThread(writer);
  WaitForSingleObject(writer, INFINITE);
  return g_probe_trapped;
}

// [SECTION] Registers

// Known values in YMM0-3 across an int3 of the program's own; what the registers hold after it
// (the debugger may have written one) is printed, lane by lane.
static int YmmRoundTrip(void) {
  alignas(32) static unsigned long long in[4][4], out[4][4];
  for (int r = 0; r < 4; r++)
    for (int lane = 0; lane < 4; lane++) in[r][lane] = 0x1000000000000000ull * (r + 1) + lane;
  void *from = in, *to = out;
  __asm__ volatile(
      "vmovdqu 0(%0), %%ymm0\n\t"
      "vmovdqu 32(%0), %%ymm1\n\t"
      "vmovdqu 64(%0), %%ymm2\n\t"
      "vmovdqu 96(%0), %%ymm3\n\t"
      "int3\n\t"
      "vmovdqu %%ymm0, 0(%1)\n\t"
      "vmovdqu %%ymm1, 32(%1)\n\t"
      "vmovdqu %%ymm2, 64(%1)\n\t"
      "vmovdqu %%ymm3, 96(%1)\n\t"
      "vzeroupper\n\t"
      :
      : "r"(from), "r"(to)
      : "xmm0", "xmm1", "xmm2", "xmm3", "memory");
  for (int r = 0; r < 4; r++) {
    char line[128];
    snprintf(line, sizeof line, "ymm%d %016llx %016llx %016llx %016llx\n", r, out[r][0], out[r][1], out[r][2], out[r][3]);
    OutputDebugStringA(line);
  }
  return 0;
}

// Threads at each priority that has a name, waiting, and an int3 that shows them all.
static int Priorities(void) {
  static const int priorities[] = {THREAD_PRIORITY_IDLE,         THREAD_PRIORITY_LOWEST,  THREAD_PRIORITY_BELOW_NORMAL,
                                   THREAD_PRIORITY_ABOVE_NORMAL, THREAD_PRIORITY_HIGHEST, THREAD_PRIORITY_TIME_CRITICAL};
  HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  LONG started = 0;
  for (int priority : priorities) {
    HANDLE t = CreateThread(nullptr, 0, IdleThread, never, CREATE_SUSPENDED, nullptr);
    SetThreadPriority(t, priority);
    ResumeThread(t);
    started++;
  }
  WaitIdleThreads(started);
  __debugbreak();
  return 0;
}

// [SECTION] Modes

static int Recurse(int depth) {
  volatile char frame[4096];
  frame[0] = (char)depth;
  return Recurse(depth + 1) + frame[0];
}

// eng_plugin.dll from the program's own folder.
static HMODULE LoadPlugin(void) {
  wchar_t path[MAX_PATH];
  DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  while (n && path[n - 1] != L'\\') n--;
  wcscpy(path + n, L"eng_plugin.dll");
  return LoadLibraryW(path);
}

static int Dll(void) {
  HMODULE plugin = LoadPlugin();
  if (!plugin) return 100;
  int (*answer)(void) = (int (*)(void))(void *)GetProcAddress(plugin, "PluginAnswer");
  int (*twice)(int) = (int (*)(int))(void *)GetProcAddress(plugin, "PluginTwice");
  int result = answer && twice ? answer() + twice(1) - 2 : 101;
  FreeLibrary(plugin);
  OutputDebugStringA("plugin freed\n");
  return result;
}

// The line of eng_shared.h runs in the program, then in the plugin, then in the program again.
static int SharedInBoth(void) {
  int sum = SharedScale(1);
  HMODULE plugin = LoadPlugin();
  int (*scaled)(int) = plugin ? (int (*)(int))(void *)GetProcAddress(plugin, "PluginScaled") : nullptr;
  sum += scaled ? scaled(2) : 100;
  if (plugin) FreeLibrary(plugin);
  return sum + SharedScale(3);  // 3 + 6 + 9
}

static int Env(void) {
  wchar_t *strings = GetEnvironmentStringsW();
  for (wchar_t *p = strings; *p; p += wcslen(p) + 1) {
    if (wcsncmp(p, L"KTRN_", 5) != 0) continue;
    char line[512];
    snprintf(line, sizeof line, "env %ls\n", p);
    OutputDebugStringA(line);
  }
  FreeEnvironmentStringsW(strings);
  return 0;
}

int main(int argc, char **argv) {
  AddVectoredExceptionHandler(1, Handler);
  const char *mode = argc > 1 ? argv[1] : "";
  int count = argc > 2 ? atoi(argv[2]) : 0;
  if (!strcmp(mode, "threads")) {
    RunThread(11);
    RunThread(12);
    RunThread(13);
    return 7;
  }
  if (!strcmp(mode, "strings")) {
    OutputDebugStringA("narrow string\n");
    OutputDebugStringW(L"wide string\n");
    OutputDebugStringA("bytes \xC3\xA9t\xC3\xA9\n");
    return 0;
  }
  if (!strcmp(mode, "av")) {
    volatile int *bad = (volatile int *)(ULONG_PTR)0x10;
    return *bad;  // AV_LINE
  }
  if (!strcmp(mode, "avraw")) {
    volatile int *bad = (volatile int *)(ULONG_PTR)0x20;  // no handler of the program takes this one
    return *bad;
  }
  if (!strcmp(mode, "shadow")) {
    volatile char *shadow = (volatile char *)(ULONG_PTR)(__asan_shadow_memory_dynamic_address + 0x1000);
    return *shadow;
  }
  if (!strcmp(mode, "div0")) {
    volatile int zero = 0;
    return 10 / zero;  // DIV0_LINE
  }
  if (!strcmp(mode, "overflow")) return Recurse(1);
  if (!strcmp(mode, "nullcall")) {
    void (*volatile call)(void) = nullptr;
    call();  // NULL_CALL_LINE
    return 1;
  }
  if (!strcmp(mode, "int3")) {
    HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    CreateThread(nullptr, 0, IdleThread, never, 0, nullptr);
    WaitIdleThreads(1);
    __debugbreak();  // INT3_LINE
    OutputDebugStringA("after int3\n");
    return 3;  // INT3_RETURN_LINE
  }
  if (!strcmp(mode, "int3loop")) {
    for (int i = 0; i < count; i++) __debugbreak();
    return 0;
  }
  if (!strcmp(mode, "int3tick")) {
    // Each int3 passed is told by a "tick": the tests count what the program really did.
    for (int i = 0; i < count; i++) {
      Sleep(1);
      __debugbreak();
      OutputDebugStringA("tick\n");
    }
    return 0;
  }
  if (!strcmp(mode, "strloop")) {
    for (int i = 0; i < count; i++) OutputDebugStringA("tick\n");
    return 0;
  }
  if (!strcmp(mode, "spin")) {
    OutputDebugStringA("spinning\n");
    for (;;) Sleep(5);
  }
  if (!strcmp(mode, "many")) {
    for (int i = 0; i < count; i++) RunThread((DWORD)i);
    return 9;
  }
  if (!strcmp(mode, "count")) {
    char line[64];
    snprintf(line, sizeof line, "counts at %p\n", (void *)g_counts);
    OutputDebugStringA(line);
    // Each counter's thread id is told, since threads report their start in no fixed order.
    auto start_counter = [&](int slot) {
      DWORD id = 0;
      CreateThread(nullptr, 0, Counter, (void *)(ULONG_PTR)slot, 0, &id);
      snprintf(line, sizeof line, "counter %d is thread %lu\n", slot, (unsigned long)id);
      OutputDebugStringA(line);
    };
    start_counter(0);
    start_counter(1);
    for (int i = 0; i < 5; i++) {
      Sleep(100);
      __debugbreak();
      if (i == 1) start_counter(2);
    }
    return 0;
  }
  if (!strcmp(mode, "bp")) return Breakpoints(count, 0);
  if (!strcmp(mode, "bpthreads")) return Breakpoints(count, 2);
  if (!strcmp(mode, "bpspin")) {
    OutputDebugStringA("spinning\n");
    for (int i = 0;; i++) {
      BreakWork(i);
      Sleep(1);
    }
  }
  if (!strcmp(mode, "shared")) return SharedInBoth();
  if (!strcmp(mode, "dll2")) {
    int first = Dll(), second = Dll();
    return first + second;
  }
  if (!strcmp(mode, "ymm")) return YmmRoundTrip();
  if (!strcmp(mode, "data")) return Data();
  if (!strcmp(mode, "drprobe")) return DebugRegisterProbe();
  if (!strcmp(mode, "step")) {
    // A single step raised by the program between two int3s: whoever's DR6 names a slot then
    // sees it as that slot's hit.
    __debugbreak();
    __debugbreak();
    RaiseException(EXCEPTION_SINGLE_STEP, 0, 0, nullptr);
    return 5;
  }
  if (!strcmp(mode, "priorities")) return Priorities();
  if (!strcmp(mode, "env")) return Env();
  if (!strcmp(mode, "cwd")) {
    char dir[MAX_PATH], line[MAX_PATH + 8];
    GetCurrentDirectoryA(MAX_PATH, dir);
    snprintf(line, sizeof line, "cwd %s\n", dir);
    OutputDebugStringA(line);
    return 0;
  }
  if (!strcmp(mode, "dll")) return Dll();
  if (!strcmp(mode, "cxx")) {
    RaiseMsvcException();
    char after[64];
    wsprintfA(after, "after cxx (%ld handled)\n", g_handled);
    OutputDebugStringA(after);
    return 5;
  }
  if (!strcmp(mode, "cxxbad")) {
    // Throw information that cannot be read, and a record with too few parameters.
    ULONG_PTR unreadable[4] = {0x19930520, (ULONG_PTR)&g_thrown_object, 0x10, (ULONG_PTR)GetModuleHandleW(nullptr)};
    RaiseException(0xE06D7363, 0, 4, unreadable);
    ULONG_PTR outside[4] = {0x19930520, (ULONG_PTR)&g_thrown_object, (ULONG_PTR)&g_throw, 0x7FF000000000ull};
    RaiseException(0xE06D7363, 0, 4, outside);
    RaiseException(0xE06D7363, 0, 3, unreadable);
    char after[64];
    wsprintfA(after, "after cxxbad (%ld handled)\n", g_handled);
    OutputDebugStringA(after);
    return 4;
  }
  if (!strcmp(mode, "unknown")) {
    RaiseException(0xE0001234, 0, 0, nullptr);
    char after[64];
    wsprintfA(after, "after unknown (%ld handled)\n", g_handled);
    OutputDebugStringA(after);
    return 6;
  }
  return 99;
}
