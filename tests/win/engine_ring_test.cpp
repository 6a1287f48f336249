// The engine's rings and its promise of no heap allocation on the event path, and the pure helpers
// the output shares (event texts, C++ type names), and ktrn-cli end to end.
#include <gtest/gtest.h>

#include <string.h>

#include "engine/cxx_type_name.h"
#include "tests/win/engine_harness.h"

TEST(EngineRing, UiFallingBehindLosesTheOldestEventsAndNeverBlocksTheEngine) {
  // 2000 threads start and exit: more thread-exit events than the ring holds.
  Target *t = Launch("many 2000");
  ASSERT_NE(t, nullptr);
  // Nothing is popped until the engine has ended with the process.
  ASSERT_EQ(WaitForSingleObject(t->engine_thread, 120000), WAIT_OBJECT_0);
  EXPECT_GT(t->events_posted, 2000u);
  std::vector<EngineEvent> events;
  for (EngineEvent e; EnginePopEvent(t, &e) == 0 && e.kind != kEventNone;) events.push_back(e);
  const u32 capacity = kEventRingBytes / kEventSlotBytes;
  EXPECT_EQ(events.size(), capacity - 1);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back().kind, (u32)kEventProcessExited);
  EXPECT_EQ(events.back().process.exit_code, 9u);
  // The oldest were lost: the first kept thread exit is a late thread's, and the rest follow in order.
  size_t first = 0;
  while (first < events.size() && events[first].kind != kEventThreadExited) first++;
  ASSERT_LT(first, events.size());
  EXPECT_LE(first, 1u);  // at most the start of the thread whose exit comes next
  EXPECT_GT(events[first].thread_exit.exit_code, 300u);
  u32 previous = events[first].thread_exit.exit_code;
  for (size_t i = first + 1; i + 1 < events.size(); i++)
    if (events[i].kind == kEventThreadExited && events[i].thread_exit.exit_code < 2000) {
      EXPECT_EQ(events[i].thread_exit.exit_code, previous + 1);
      previous = events[i].thread_exit.exit_code;
    }
  EngineRelease(t);
}

// The wake-up callback is called only once the user interface has said that it sleeps, and then for
// the next event alone; EngineWaitForEvent sleeps until an event is queued. Three int3s of the
// program: the first reached without a word from the user interface, the second after it.
TEST(EngineRing, TheUiIsWokenOnlyWhenItSaidItSleeps) {
  static LONG wakes;
  wakes = 0;
  Target *t = Launch("int3loop 3", true, nullptr, "eng_target.exe", nullptr, [](void *) { InterlockedIncrement(&wakes); });
  ASSERT_NE(t, nullptr);
  Seen seen;
  auto PopUntilStopped = [&] {
    for (ULONGLONG start = GetTickCount64(); GetTickCount64() - start < 10000; Sleep(1)) {
      size_t before = seen.events.size();
      PopInto(t, seen, kLeaveStopped);
      for (size_t i = before; i < seen.events.size(); i++)
        if (seen.events[i].event.kind == kEventStopped) return true;
    }
    return false;
  };
  ASSERT_TRUE(PopUntilStopped());  // module loads, thread starts, the stop: nobody said it sleeps
  EXPECT_EQ(wakes, 0);
  EXPECT_TRUE(EngineUiBlocking(t));  // nothing queued: the next event wakes
  ASSERT_EQ(EngineRun(t), 0);
  ASSERT_TRUE(PopUntilStopped());
  EXPECT_EQ(wakes, 1);
  EXPECT_FALSE(EngineWaitForEvent(t, 0));  // nothing queued
  ASSERT_EQ(EngineRun(t), 0);
  EXPECT_TRUE(EngineWaitForEvent(t, 10000));
  EXPECT_FALSE(EngineUiBlocking(t));  // the third stop is queued
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.Count(kEventStopped), 3);
  EXPECT_EQ(seen.exit_code, 0u);
}

TEST(EngineRing, TextStorageWrapsAndDropsWhatCannotBePlaced) {
  static Target target;  // the rings alone, without a run
  ASSERT_EQ(TargetInit(&target), 0);
  char *first = EngineTakeText(&target, kTextRingBytes - 100);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(EngineTakeText(&target, 200), (char *)target.text_ring);  // wraps to the base
  EXPECT_EQ(EngineTakeText(&target, kTextRingBytes), nullptr);        // never fits before the writer
  EXPECT_EQ(EngineTakeText(&target, kTextRingBytes + 1), nullptr);
  EngineEvent e = {};
  e.kind = kEventText;
  EnginePostEvent(&target, &e);
  EngineEvent out;
  EXPECT_EQ(EnginePopEvent(&target, &out), 0);
  EXPECT_EQ(out.kind, (u32)kEventText);
  EXPECT_EQ(EnginePopEvent(&target, &out), 0);
  EXPECT_EQ(out.kind, (u32)kEventNone);
  EXPECT_EQ(EnginePopEvent(nullptr, &out), 1);
  TargetRelease(&target);
}

// [SECTION] Heap allocations on the debugger thread

static volatile LONG g_heap_calls;
static DWORD g_counting_thread_excluded;
static volatile LONG g_counting;

static void *g_callers[16];  // where the first counted calls came from, for the failure message
#define CountHeapCall() CountHeapCallFrom(__builtin_return_address(0))
static void CountHeapCallFrom(void *caller) {
  if (!g_counting || GetCurrentThreadId() == g_counting_thread_excluded) return;
  LONG n = InterlockedIncrement(&g_heap_calls);
  if (n <= 16) g_callers[n - 1] = caller;
}

// Each counted function: the real one, and a replacement that counts the call and passes it on.
#define COUNTED(result, convention, name, parameters, arguments) \
  static result(convention *real_##name) parameters;               \
  static result convention Count##name parameters {                \
    CountHeapCall();                                               \
    return real_##name arguments;                                  \
  }
COUNTED(void *, __cdecl, malloc, (size_t n), (n))
COUNTED(void *, __cdecl, calloc, (size_t a, size_t b), (a, b))
COUNTED(void *, __cdecl, realloc, (void *p, size_t n), (p, n))
COUNTED(LPVOID, WINAPI, HeapAlloc, (HANDLE h, DWORD f, SIZE_T n), (h, f, n))
COUNTED(LPVOID, WINAPI, HeapReAlloc, (HANDLE h, DWORD f, LPVOID p, SIZE_T n), (h, f, p, n))
COUNTED(HLOCAL, WINAPI, LocalAlloc, (UINT f, SIZE_T n), (f, n))
COUNTED(HGLOBAL, WINAPI, GlobalAlloc, (UINT f, SIZE_T n), (f, n))

// Points this executable's import entries for the heap functions at the counters above: the engine
// is linked into it, so every heap call the engine (or the C and C++ runtimes it uses) makes counts.
static int HookImports() {
#define HOOK(name) {#name, (void *)Count##name, (void **)&real_##name}
  struct { const char *name; void *replacement; void **real; } hooks[] = {HOOK(malloc), HOOK(calloc), HOOK(realloc), HOOK(HeapAlloc), HOOK(HeapReAlloc), HOOK(LocalAlloc),
               HOOK(GlobalAlloc)};
  u8 *base = (u8 *)GetModuleHandleW(nullptr);
  IMAGE_NT_HEADERS64 *nt = (IMAGE_NT_HEADERS64 *)(base + ((IMAGE_DOS_HEADER *)base)->e_lfanew);
  IMAGE_DATA_DIRECTORY dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  int hooked = 0;
  for (IMAGE_IMPORT_DESCRIPTOR *d = (IMAGE_IMPORT_DESCRIPTOR *)(base + dir.VirtualAddress); d->Name; d++) {
    IMAGE_THUNK_DATA64 *names = (IMAGE_THUNK_DATA64 *)(base + (d->OriginalFirstThunk ? d->OriginalFirstThunk : d->FirstThunk));
    IMAGE_THUNK_DATA64 *slots = (IMAGE_THUNK_DATA64 *)(base + d->FirstThunk);
    for (; names->u1.AddressOfData; names++, slots++) {
      if (names->u1.Ordinal & IMAGE_ORDINAL_FLAG64) continue;
      const char *name = (const char *)((IMAGE_IMPORT_BY_NAME *)(base + names->u1.AddressOfData))->Name;
      for (auto &h : hooks)
        if (!strcmp(name, h.name)) {
          DWORD old;
          VirtualProtect(&slots->u1.Function, 8, PAGE_READWRITE, &old);
          if (!*h.real) *h.real = (void *)slots->u1.Function;
          slots->u1.Function = (ULONGLONG)h.replacement;
          VirtualProtect(&slots->u1.Function, 8, old, &old);
          hooked++;
        }
    }
  }
  return hooked;
}

TEST(EngineHeap, NoHeapAllocationOnTheEventPath) {
  ASSERT_GE(HookImports(), 3);
  g_counting_thread_excluded = GetCurrentThreadId();
  // The counter sees a heap call made on another thread.
  g_counting = 1;
  auto allocate_once = [](void *) -> DWORD {
    void *volatile p = malloc(100);  // volatile: the pair is not optimised away
    free(p);
    return 0;
  };
  HANDLE probe = CreateThread(nullptr, 0, allocate_once, nullptr, 0, nullptr);
  WaitForSingleObject(probe, INFINITE);
  CloseHandle(probe);
  g_counting = 0;
  ASSERT_GE(g_heap_calls, 1);

  // Runs of events: thread creation and exit, debug strings, stops and resumes, module loads,
  // breakpoint hits with the steps over them, a breakpoint bound at a DLL's load.
  struct Run {
    const char *args;
    const char *breakpoint;  // a function breakpoint set while the launch is held
  } runs[] = {{"many 200", nullptr}, {"strloop 300", nullptr}, {"int3loop 100", nullptr}, {"dll", "PluginTwice"},
              {"bp 20", "BreakWork"}};
  for (const Run &run : runs) {
    const char *args = run.args;
    Target *t = Launch(args, false);
    ASSERT_NE(t, nullptr);
    if (run.breakpoint) {
      BreakpointWanted wanted = {kBreakpointFunction, run.breakpoint};
      BreakpointLocation *bp = nullptr;
      EXPECT_EQ(EngineAddBreakpoint(t, &wanted, &bp), 0);
    }
    g_heap_calls = 0;
    g_counting = 1;  // this thread, which pops events and answers stops, is not counted
    EXPECT_EQ(EngineRun(t), 0);
    Seen seen;
    DriveToEnd(t, seen);
    g_counting = 0;
    EXPECT_EQ(g_heap_calls, 0) << args << ", first from " << g_callers[0];
    EXPECT_TRUE(seen.ended) << args;
    if (!strcmp(args, "int3loop 100")) EXPECT_EQ(seen.Count(kEventStopped), 100);
    if (!strcmp(args, "bp 20")) EXPECT_EQ(seen.Count(kEventBreakpointHit), 20);
    if (!strcmp(args, "dll")) EXPECT_EQ(seen.Count(kEventBreakpointBound), 1);
  }
}

// [SECTION] Texts shared with the output window

TEST(EngineText, CxxTypeNamesFromDecoratedNames) {
  char out[128];
  struct { const char *decorated, *name; } cases[] = {
      {".?AVruntime_error@std@@", "std::runtime_error"},
      {".?AUpoint@@", "point"},
      {".?AVinner@outer@ns@@", "ns::outer::inner"},
      {".H", "int"},
      {".PEAD", "char *"},
      {".PEBD", "char const *"},
      {".?AV?$vector@HV?$allocator@H@std@@@std@@", ".?AV?$vector@HV?$allocator@H@std@@@std@@"},  // kept
      {"", ""},
      {".?AV", ".?AV"},
      {".?AVunterminated@std", ".?AVunterminated@std"},
  };
  for (const auto &c : cases) {
    CxxTypeNameFromDecorated(c.decorated, out, sizeof out);
    EXPECT_STREQ(out, c.name) << c.decorated;
  }
  CxxTypeNameFromDecorated(".?AVa_rather_long_name@std@@", out, 8);
  EXPECT_STREQ(out, "std::a_");  // cut, always terminated
}

// What the runs do not show (the runs check every other line): a module whose PDB is out of sync,
// a stop (no line), and each kind of line once its option is off.
TEST(EngineText, LinesOfEachEventKind) {
  static TargetModule module;
  strcpy(module.symbols.image_path, "C:\\app\\app.exe");
  auto text = [](const EngineEvent &e, const OutputOptions &options) {
    char out[512];
    u32 length = EngineEventText(&e, &options, 4242, out, sizeof out);
    EXPECT_EQ(length, length ? strlen(out) : 0);
    return length ? std::string(out) : std::string();
  };
  OutputOptions all = OutputOptionsDefault();
  EngineEvent e = {};
  e.kind = kEventModuleLoaded;
  e.module.module = &module;
  e.module.base = 0x7FF612340000ull;
  e.module.size = 0x21000;
  e.module.status = kSymbolsOutOfSync;
  EXPECT_EQ(text(e, all), "Module loaded: 00007ff6`12340000 00007ff6`12361000   C:\\app\\app.exe (no symbols loaded -- PDB out of sync)\n");
  struct { u32 kind; u8 OutputOptions::*option; } options[] = {
      {kEventModuleLoaded, &OutputOptions::module_load}, {kEventModuleUnloaded, &OutputOptions::module_unload},
      {kEventThreadExited, &OutputOptions::thread_exit}, {kEventProcessExited, &OutputOptions::process_exit}};
  for (const auto &o : options) {
    OutputOptions off = all;
    off.*o.option = 0;
    e.kind = o.kind;
    EXPECT_NE(text(e, all), "") << o.kind;
    EXPECT_EQ(text(e, off), "") << o.kind;
  }
  e.kind = kEventStopped;
  EXPECT_EQ(text(e, all), "");
}

// [SECTION] ktrn-cli

// ktrn-cli's output (both streams) and exit code, through the command interpreter, which takes the
// outer quotes off a command line that begins with one.
static std::string RunCli(const std::string &arguments, DWORD *exit_code) {
  std::string line = "\"\"" + std::string(KTRN_BIN_DIR) + "/ktrn-cli.exe\" " + arguments + " 2>&1\"";
  FILE *pipe = _popen(line.c_str(), "rb");
  std::string output;
  char buffer[4096];
  for (size_t got; pipe && (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, got);
  *exit_code = pipe ? (DWORD)_pclose(pipe) : 0xFFFFFFFF;
  return output;
}

// Launch (a program to its end, a refused one, a missing one), attach and reattach by name (each
// detached after the time limit, the program left running), and a name nobody runs.
TEST(KtrnCli, CommandsPrintTheirLinesAndExitWithTheirCodes) {
  FreeProcess running, named;
  ASSERT_TRUE(running.Start("spin"));
  // Reattach by name goes to a copy with a name of its own (another test run may debug eng_target.exe).
  std::string name = "ktrn_reattach_" + std::to_string(GetCurrentProcessId()) + ".exe";
  std::string copy = testing::TempDir() + name;
  ASSERT_TRUE(CopyFileA(TargetPath("eng_target.exe").c_str(), copy.c_str(), FALSE));
  ASSERT_TRUE(named.Start("spin", copy));
  for (char &c : name) c = (char)toupper((unsigned char)c);
  std::string id = std::to_string(running.Id()), named_id = std::to_string(named.Id());
  struct Case {
    std::string arguments;
    u32 exit_code;
    std::vector<std::string> lines;
  } cases[] = {
      {"launch \"" + TargetPath("eng_target.exe") + "\" int3", 3,
       {"Debugging new process...[OK] Process ID: ", "\\eng_target.exe (symbols loaded)\n",
        "stopped | Program stopped because of a non-user breakpoint instruction | thread ", "after int3\n",
        "Process exited: with exit code 3 (0x3)\n"}},
      {"launch \"" + TargetPath("x86/eng_hello32.exe") + "\"", 0x100 + 10, {"[FAIL] 32-bit processes are not supported"}},
      {"launch no_such_program.exe", 0x100 + 5, {"[FAIL] executable not found"}},
      {"--seconds 2 attach " + id, 0,
       {"Attaching to process ID " + id + "...[OK]\n",
        "stopped | Program stopped because the debugger broke in | thread ", "Detached from process (" + id + ")\n"}},
      {"--seconds 1 reattach " + name, 0,
       {"Attaching to process ID " + named_id + "...[OK]\n", "Detached from process (" + named_id + ")\n"}},
      // 0x103 is also STILL_ACTIVE, which the command interpreter does not pass on: not checked.
      {"reattach no_such_program.exe", 0xFFFFFFFF,
       {"Unable to reattach to process named \"no_such_program.exe\". Process not found.\n"}},
  };
  for (const Case &c : cases) {
    DWORD code = 0;
    std::string out = RunCli(c.arguments, &code);
    if (c.exit_code != 0xFFFFFFFF) EXPECT_EQ(code, c.exit_code) << c.arguments << "\n" << out;
    for (const std::string &line : c.lines) EXPECT_NE(out.find(line), std::string::npos) << line << " in\n" << out;
  }
  EXPECT_TRUE(running.Alive());
  EXPECT_TRUE(named.Alive());
  named.End();  // before its image is deleted
  DeleteFileA(copy.c_str());
}
