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
  for (;;) {
    EngineEvent e;
    EnginePopEvent(t, &e);
    if (e.kind == kEventNone) break;
    events.push_back(e);
  }
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

static void *(__cdecl *real_malloc)(size_t);
static void *(__cdecl *real_calloc)(size_t, size_t);
static void *(__cdecl *real_realloc)(void *, size_t);
static LPVOID(WINAPI *real_HeapAlloc)(HANDLE, DWORD, SIZE_T);
static LPVOID(WINAPI *real_HeapReAlloc)(HANDLE, DWORD, LPVOID, SIZE_T);
static HLOCAL(WINAPI *real_LocalAlloc)(UINT, SIZE_T);
static HGLOBAL(WINAPI *real_GlobalAlloc)(UINT, SIZE_T);
static void *__cdecl CountMalloc(size_t n) { CountHeapCall(); return real_malloc(n); }
static void *__cdecl CountCalloc(size_t a, size_t b) { CountHeapCall(); return real_calloc(a, b); }
static void *__cdecl CountRealloc(void *p, size_t n) { CountHeapCall(); return real_realloc(p, n); }
static LPVOID WINAPI CountHeapAlloc(HANDLE h, DWORD f, SIZE_T n) { CountHeapCall(); return real_HeapAlloc(h, f, n); }
static LPVOID WINAPI CountHeapReAlloc(HANDLE h, DWORD f, LPVOID p, SIZE_T n) { CountHeapCall(); return real_HeapReAlloc(h, f, p, n); }
static HLOCAL WINAPI CountLocalAlloc(UINT f, SIZE_T n) { CountHeapCall(); return real_LocalAlloc(f, n); }
static HGLOBAL WINAPI CountGlobalAlloc(UINT f, SIZE_T n) { CountHeapCall(); return real_GlobalAlloc(f, n); }

// Points this executable's import entries for the heap functions at the counters above: the engine
// is linked into it, so every heap call the engine (or the C and C++ runtimes it uses) makes counts.
static int HookImports() {
  struct Hook {
    const char *name;
    void *replacement;
    void **real;
  } hooks[] = {
      {"malloc", (void *)CountMalloc, (void **)&real_malloc},
      {"calloc", (void *)CountCalloc, (void **)&real_calloc},
      {"realloc", (void *)CountRealloc, (void **)&real_realloc},
      {"HeapAlloc", (void *)CountHeapAlloc, (void **)&real_HeapAlloc},
      {"HeapReAlloc", (void *)CountHeapReAlloc, (void **)&real_HeapReAlloc},
      {"LocalAlloc", (void *)CountLocalAlloc, (void **)&real_LocalAlloc},
      {"GlobalAlloc", (void *)CountGlobalAlloc, (void **)&real_GlobalAlloc},
  };
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
      for (Hook &h : hooks)
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

static DWORD WINAPI AllocateOnce(void *) {
  void *volatile p = malloc(100);  // volatile: the pair is not optimised away
  free(p);
  return 0;
}

TEST(EngineHeap, NoHeapAllocationOnTheEventPath) {
  ASSERT_GE(HookImports(), 3);
  g_counting_thread_excluded = GetCurrentThreadId();
  // The counter sees a heap call made on another thread.
  g_counting = 1;
  HANDLE probe = CreateThread(nullptr, 0, AllocateOnce, nullptr, 0, nullptr);
  WaitForSingleObject(probe, INFINITE);
  CloseHandle(probe);
  g_counting = 0;
  ASSERT_GE(g_heap_calls, 1);

  // Runs of events: thread creation and exit, debug strings, stops and resumes, module loads.
  const char *runs[] = {"many 200", "strloop 300", "int3loop 100", "dll"};
  for (const char *args : runs) {
    Target *t = Launch(args, false);
    ASSERT_NE(t, nullptr);
    g_heap_calls = 0;
    g_counting = 1;  // this thread, which pops events and answers stops, is not counted
    EngineRun(t);
    Seen seen;
    DriveToEnd(t, seen);
    g_counting = 0;
    EXPECT_EQ(g_heap_calls, 0) << args << ", first from " << g_callers[0];
    EXPECT_TRUE(seen.ended) << args;
    if (!strcmp(args, "int3loop 100")) EXPECT_EQ(seen.Count(kEventStopped), 100);
  }
}

// [SECTION] Texts shared with the output window

TEST(EngineText, CxxTypeNamesFromDecoratedNames) {
  char out[128];
  struct Case {
    const char *decorated, *name;
  } cases[] = {
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
  for (const Case &c : cases) {
    CxxTypeNameFromDecorated(c.decorated, out, sizeof out);
    EXPECT_STREQ(out, c.name) << c.decorated;
  }
  CxxTypeNameFromDecorated(".?AVa_rather_long_name@std@@", out, 8);
  EXPECT_STREQ(out, "std::a_");  // cut, always terminated
}

// Each kind's line, and none once its option is off.
TEST(EngineText, LinesOfEachEventKind) {
  static TargetModule module;
  strcpy(module.symbols.image_path, "C:\\app\\app.exe");
  EngineEvent load = {}, thread = {}, exited = {}, detached = {}, stopped = {};
  load.kind = kEventModuleLoaded;
  load.module.module = &module;
  load.module.base = 0x7FF612340000ull;
  load.module.size = 0x21000;
  load.module.status = kSymbolsOutOfSync;
  EngineEvent unload = load;
  unload.kind = kEventModuleUnloaded;
  thread.kind = kEventThreadExited;
  thread.thread_exit.handle = 0x1c4;
  thread.thread_exit.exit_code = 259;
  exited.kind = kEventProcessExited;
  exited.process.exit_code = 0xC0000005u;
  detached.kind = kEventDetached;
  stopped.kind = kEventStopped;
  struct Case {
    const EngineEvent *event;
    u8 OutputOptions::*option;
    const char *line;
  } cases[] = {
      {&load, &OutputOptions::module_load,
       "Module loaded: 00007ff6`12340000 00007ff6`12361000   C:\\app\\app.exe (no symbols loaded -- PDB out of sync)\n"},
      {&unload, &OutputOptions::module_unload, "Module unloaded: 00007ff6`12340000 00007ff6`12361000   C:\\app\\app.exe\n"},
      {&thread, &OutputOptions::thread_exit, "Thread exited: handle 0x1c4 with exit code 259 (0x103)\n"},
      {&exited, &OutputOptions::process_exit, "Process exited: with exit code 3221225477 (0xc0000005)\n"},
      {&detached, nullptr, "Detached from process (4242)\n"},
      {&stopped, nullptr, ""},
  };
  for (const Case &c : cases) {
    OutputOptions options = OutputOptionsDefault();
    char out[512] = "";
    EXPECT_EQ(EngineEventText(c.event, &options, 4242, out, sizeof out), strlen(c.line)) << c.line;
    if (c.line[0]) EXPECT_STREQ(out, c.line);
    if (!c.option) continue;
    options.*c.option = 0;
    EXPECT_EQ(EngineEventText(c.event, &options, 4242, out, sizeof out), 0u) << c.line;
  }
}

// [SECTION] ktrn-cli

static std::string RunCli(const std::string &args, DWORD *exit_code) {
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  HANDLE read_end, write_end;
  CreatePipe(&read_end, &write_end, &sa, 0);
  SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW si = {sizeof si};
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdOutput = write_end;
  si.hStdError = write_end;
  si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  std::string line = std::string("\"") + KTRN_BIN_DIR + "/ktrn-cli.exe\" " + args;
  std::wstring wide(line.begin(), line.end());
  PROCESS_INFORMATION pi = {};
  BOOL ok = CreateProcessW(nullptr, &wide[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
  CloseHandle(write_end);
  std::string output;
  if (ok) {
    char buffer[4096];
    DWORD got;
    while (ReadFile(read_end, buffer, sizeof buffer, &got, nullptr) && got) output.append(buffer, got);
    WaitForSingleObject(pi.hProcess, 60000);
    GetExitCodeProcess(pi.hProcess, exit_code);
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
  }
  CloseHandle(read_end);
  return output;
}

TEST(KtrnCli, LaunchPrintsTheOutputLinesAndExitsWithTheTargetsCode) {
  DWORD code = 0;
  std::string out = RunCli("launch \"" + TargetPath("eng_target.exe") + "\" int3", &code);
  EXPECT_EQ(code, 3u) << out;
  EXPECT_NE(out.find("Debugging new process...[OK] Process ID: "), std::string::npos) << out;
  EXPECT_NE(out.find("\\eng_target.exe (symbols loaded)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Stopped: breakpoint instruction in the program at 0x"), std::string::npos) << out;
  EXPECT_NE(out.find("after int3\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Process exited: with exit code 3 (0x3)\n"), std::string::npos) << out;

  out = RunCli("launch \"" + TargetPath("x86/eng_hello32.exe") + "\"", &code);
  EXPECT_NE(out.find("[FAIL] 32-bit processes are not supported"), std::string::npos) << out;
  EXPECT_EQ(code, 0x100u + 10);
  out = RunCli("launch no_such_program.exe", &code);
  EXPECT_NE(out.find("[FAIL] executable not found"), std::string::npos) << out;
}

TEST(KtrnCli, AttachShowsTheBreakInAndDetachesAfterTheTimeLimit) {
  FreeProcess p;
  ASSERT_TRUE(p.Start("spin"));
  std::string id = std::to_string(p.Id());
  DWORD code = 1;
  std::string out = RunCli("--seconds 2 attach " + id, &code);
  EXPECT_EQ(code, 0u) << out;
  EXPECT_NE(out.find("Attaching to process ID " + id + "...[OK]\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Stopped: break at 0x"), std::string::npos) << out;
  EXPECT_NE(out.find("Detached from process (" + id + ")\n"), std::string::npos) << out;
  EXPECT_TRUE(p.Alive());

  // Reattach by name, to a copy with a name of its own (another test run may debug eng_target.exe).
  std::string name = "ktrn_reattach_" + std::to_string(GetCurrentProcessId()) + ".exe";
  std::string copy = testing::TempDir() + name;
  ASSERT_TRUE(CopyFileA(TargetPath("eng_target.exe").c_str(), copy.c_str(), FALSE));
  {
    FreeProcess named;
    ASSERT_TRUE(named.Start("spin", copy));
    for (char &c : name) c = (char)toupper((unsigned char)c);
    out = RunCli("--seconds 1 reattach " + name, &code);
    std::string named_id = std::to_string(named.Id());
    EXPECT_NE(out.find("Attaching to process ID " + named_id + "...[OK]\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Detached from process (" + named_id + ")\n"), std::string::npos) << out;
  }
  DeleteFileA(copy.c_str());
  out = RunCli("reattach no_such_program.exe", &code);
  EXPECT_NE(out.find("Unable to reattach to process named \"no_such_program.exe\". Process not found.\n"),
            std::string::npos)
      << out;
}
