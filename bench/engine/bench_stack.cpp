// bench_stack [ROUNDS]
//
// The cost of building a 64-frame call stack under Wine, where one ReadProcessMemory costs about
// 100 us whatever its size: stack_o0.exe deep stops 64 frames down (mingw -O0), and at that stop the
// current thread's stack is built again and again, each time
//   - cold: the memory cache starts a new generation (as at every stop), the function tables stay;
//   - warm: the lines of the previous build are still there;
//   - uncached: every read of the walk goes to the system (the cache read directly), which is what
//     a walk costs without lines; the distinct 64-byte blocks those reads touch are what a cache of
//     64-byte lines would have read.
// Reported: the median time of a build and the ReadProcessMemory calls it made (counted by a reader
// put in front of the memory caches), and what the first build of the run cost, function tables
// read included. The load average is printed before and after.
#include <windows.h>

#include <algorithm>
#include <set>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <vector>

#include "bench/engine/bench_util.h"
#include "engine/engine.h"
#include "engine/unwind.h"

// Counts the system reads of the memory caches.
struct CountingReader {
  MemoryReadFn read;
  void *context;
  u64 calls;
  std::set<u64> *blocks;  // when set: the 64-byte blocks the reads touch
};
static bool CountedRead(void *context, u64 address, void *buffer, u32 size) {
  CountingReader *r = (CountingReader *)context;
  r->calls++;
  if (r->blocks && size)
    for (u64 b = address / 64; b <= (address + size - 1) / 64; b++) r->blocks->insert(b);
  return r->read(r->context, address, buffer, size);
}

struct Build {
  double seconds;
  u64 reads;
  u32 frames;
};

static Build BuildOnce(Target *t, CountingReader *reader, bool new_generation, bool uncached) {
  if (!EngineLockModel(t)) return {-1, 0, 0};
  MemoryCache *cache = TargetCache(t);
  if (new_generation) MemoryCacheNewGeneration(cache);
  cache->read_directly = uncached ? 1 : 0;
  CallStackForgetAll(t);
  u64 before = reader->calls;
  double start = Now();
  (void)CallStackBuild(t, t->current_thread);
  Build b = {Now() - start, reader->calls - before, t->current_thread->frame_count};
  cache->read_directly = 0;
  EngineUnlockModel(t);
  return b;
}

int main(int argc, char **argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 50;
  PrintLoadAverage("before");
  std::string path = std::string(KTRN_TARGETS_DIR) + "/stack_o0.exe";
  LaunchDescription launch = {};
  launch.executable = path.c_str();
  launch.arguments = "deep";
  Target *t = nullptr;
  u32 pid = 0;
  if (EngineStartLaunch(&launch, nullptr, nullptr, &t, &pid) != 0 || EngineRun(t) != 0) {
    printf("could not start %s\n", path.c_str());
    return 1;
  }
  // Run to the program's int3, 64 frames down.
  for (bool stopped = false; !stopped;) {
    (void)EngineWaitForEvent(t, 1000);
    EngineEvent e;
    for (;;) {
      (void)EnginePopEvent(t, &e);
      if (e.kind == kEventNone) break;
      if (e.kind == kEventStopped) stopped = true;
      if (e.kind == kEventProcessExited) return 1;
    }
  }
  if (EngineWaitStopped(t, 10000) != 0) return 1;
  // The reader goes in front of both caches while the engine waits for a command.
  CountingReader readers[2];
  if (!EngineLockModel(t)) return 1;
  for (u32 i = 0; i < 2; i++) {
    readers[i] = {t->caches[i]->read, t->caches[i]->read_context, 0, nullptr};
    t->caches[i]->read = CountedRead;
    t->caches[i]->read_context = &readers[i];
  }
  CountingReader *reader = &readers[t->cache_index];
  // The stop built the stack already (function tables read, lines filled): forget all of it.
  for (TargetModule *m = t->modules; m; m = m->next) UnwindReleaseModule(m);
  EngineUnlockModel(t);
  Build first = BuildOnce(t, reader, true, false);
  u32 tables = 0;
  for (TargetModule *m = t->modules; m; m = m->next) tables += m->function_table != nullptr;
  printf("first build: %u frames, %.1f us, %llu cache reads (+%u function tables, one read each)\n", first.frames,
         first.seconds * 1e6, (unsigned long long)first.reads, tables);

  const char *names[3] = {"cold (new generation)", "warm (lines kept)", "uncached (no lines)"};
  for (int kind = 0; kind < 3; kind++) {
    std::vector<double> times;
    u64 reads = 0;
    u32 frames = 0;
    for (int r = 0; r < rounds; r++) {
      Build b = BuildOnce(t, reader, kind != 1, kind == 2);
      times.push_back(b.seconds);
      reads = b.reads;
      frames = b.frames;
    }
    printf("%-22s %u frames: median %.1f us per build, %llu ReadProcessMemory calls per build\n", names[kind],
           frames, Median(times) * 1e6, (unsigned long long)reads);
  }
  std::set<u64> blocks;
  reader->blocks = &blocks;
  (void)BuildOnce(t, reader, true, true);
  reader->blocks = nullptr;
  printf("64-byte lines would have read %zu blocks per cold build\n", blocks.size());
  PrintLoadAverage("after");
  (void)EngineTerminate(t, 0);
  for (bool done = false; !done;) {
    (void)EngineWaitForEvent(t, 1000);
    EngineEvent e;
    for (;;) {
      (void)EnginePopEvent(t, &e);
      if (e.kind == kEventNone) break;
      if (e.kind == kEventProcessExited || e.kind == kEventDetached) done = true;
    }
  }
  EngineRelease(t);
  return 0;
}
