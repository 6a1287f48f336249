// The debuggee of the current debugging run and its model: threads from a fixed pool, modules
// with their symbols, the event, text and command rings, and the wait objects shared with the
// user-interface thread. One Target exists per run; it is made zero-filled at the start of the run
// and released after the run ends.
//
// Records: TargetModule, TargetThread, EngineRequest, Target; then
// [SECTION] Target model (target.cpp)
// [SECTION] Rings (event_ring.cpp)
// [SECTION] Target memory (target.cpp)
// [SECTION] Thread context (thread_context.cpp)
#pragma once
#include <windows.h>

#include "base/arena.h"
#include "engine/engine_event.h"
#include "engine/memory_cache.h"
#include "engine/ticket_lock.h"
#include "symbols/module_symbols.h"

enum : u32 {
  kThreadPoolCount = 2048,
  kModulePoolCount = 1024,
  kThreadNameCapacity = 256,
  kEventRingBytes = 0x20000,    // 128 KiB of 80-byte events
  kTextRingBytes = 0x200000,    // 2 MiB
  kCommandRingBytes = 0x20000,  // 128 KiB of 16-byte requests
  kEventSlotBytes = 80,
  kCommandSlotBytes = 16,
  kWaitObjectCount = 8,
  kFullContextFlags = 0x10005F,  // every register group plus the extended state
  kPlainContextFlags = 0x10001F, // every register group, no extended state
};

// The wait objects, in their fixed order.
enum EngineWaitObject : u32 {
  kWaitEngineWaiting = 0,  // manual reset: set while the engine serves commands at a stop
  kWaitRun = 1,
  kWaitRefresh = 2,
  kWaitThreadStates = 3,
  kWaitSelectFrame = 4,
  kWaitRebuildStack = 5,
  kWaitContextChanged = 6,
  kWaitStopDebugging = 7,
};

// The engine's command codes, as its command wait returns them.
enum EngineCommandCode : u32 {
  kCommandFailed = 0,
  kCommandRun = 1,
  kCommandStopDebugging = 2,
  kCommandRefresh = 3,
  kCommandThreadStates = 4,
  kCommandSelectFrame = 5,
  kCommandRebuildStack = 6,
};

typedef void (*EngineWakeFn)(void *user);

struct Target;

typedef struct TargetModule {
  struct TargetModule *next;
  struct TargetModule *previous;
  ModuleSymbols symbols;  // name, path, base, extent end, status, PDB
  u8 shadow_state;        // 0 not looked at, 1 absent, 2 known
  u8 in_use;
  u8 padding[6];
  u64 shadow_low_begin, shadow_low_end;    // inclusive bounds of the sanitizer's shadow memory
  u64 shadow_high_begin, shadow_high_end;
  u64 shadow_base;
} TargetModule;

static inline u64 TargetModuleBase(const TargetModule *m) { return m->symbols.load_base; }
static inline u64 TargetModuleEnd(const TargetModule *m) { return m->symbols.extent_end; }

typedef struct TargetThread {
  struct TargetThread *next;
  struct TargetThread *previous;
  SymbolArena arena;  // the record's own blocks (call-stack data)
  struct Target *target;
  HANDLE handle;
  u64 tls_base;
  u64 start_address;
  u32 id;
  u8 suspended_by_engine;
  u8 frozen;
  u8 solo;
  u8 stack_overflow_seen;
  u32 context_index;   // 0 or 1: the buffer of the current stop
  u8 context_read[2];  // the buffer holds registers read at this stop
  u8 context_dirty;    // 1: the buffer differs from the thread's registers; 2: only in the instruction pointer
  u8 padding;
  u64 rip_as_read;     // instruction pointer when the buffer was read
  u64 int3_at_stop;    // the program's own int3 this thread stopped at, 0 when none
  // The function at the instruction pointer, reused while the pointer stays in [start, end).
  TargetModule *ip_module;
  const void *ip_function;
  u64 ip_function_start;
  u64 ip_function_end;
  u32 frame_count;
  s32 selected_frame;
  char name[kThreadNameCapacity];
  // Kept when the record is reused: its two context buffers, prepared once.
  CONTEXT *context[2];
} TargetThread;

typedef struct EngineRequest {  // one 16-byte entry of the command ring
  u32 kind;
  u8 slot;
  u8 padding[3];
  u64 argument;
} EngineRequest;
static_assert(sizeof(EngineRequest) == kCommandSlotBytes, "command ring entry");

typedef struct LaunchDescription LaunchDescription;

typedef BOOL(WINAPI *WaitForDebugEventFn)(DEBUG_EVENT *, DWORD);
typedef BOOL(WINAPI *InitializeContextFn)(void *, DWORD, CONTEXT **, DWORD *);
typedef BOOL(WINAPI *SetXStateFeaturesMaskFn)(CONTEXT *, DWORD64);
typedef void *(WINAPI *LocateXStateFeatureFn)(CONTEXT *, DWORD, DWORD *);

typedef struct Target {
  // [wait objects] shared with the UI thread
  HANDLE wait_objects[kWaitObjectCount];
  HANDLE engine_thread;
  EngineWakeFn wake;
  void *wake_user;

  // [process]
  HANDLE process;
  u32 process_id;
  u32 start_result;
  u64 main_image_base;
  TargetModule *main_module;
  SymbolArena arena;  // the target's own blocks (pools, rings, caches)

  // [rings]
  u8 *text_ring;
  u64 text_write;
  u64 text_size;
  u8 *event_ring;
  u64 event_read;
  u64 event_write;
  u64 event_size;
  u64 events_posted;
  u8 *command_ring;
  u64 command_read;
  u64 command_write;
  u64 command_size;
  u64 requests_served;

  // [modules]
  TargetModule *modules;
  TargetModule *last_module;
  TargetModule *module_pool;
  TargetModule *free_modules;  // guarded by the ticket lock: the UI returns unloaded modules
  PdbPathOverride pdb_pick;    // the user's PDB for the next module load (locks itself)

  // [threads]
  TargetThread *current_thread;
  TargetThread *free_threads;
  TargetThread *threads;
  TargetThread *last_thread;
  TargetThread *last_event_thread;
  u32 thread_count;
  u32 threads_not_modelled;  // created while the pool was empty

  // [breakpoints, stepping, evaluation] filled by the later parts of the engine
  void *breakpoint_locations;
  u64 processor_slots[4];
  struct EvaluationRequests *evaluation_requests;
  void *free_result_nodes;
  u64 step_over_address;
  u8 step_saved_byte;
  u8 reinsert_after_step;

  // [flags] written by the UI thread, read by the engine
  volatile u8 user_break_requested;
  volatile u8 internal_break_requested;
  volatile u8 ending;
  u8 collapse_stack_overflow;
  s32 requested_frame;

  TicketLock lock;  // guards the three rings and the module free list

  // [memory caches]
  MemoryCache *caches[2];
  u32 cache_index;

  // [system entry points] looked up at the start of every run
  WaitForDebugEventFn wait_for_debug_event;
  InitializeContextFn initialize_context;
  SetXStateFeaturesMaskFn set_xstate_features_mask;
  LocateXStateFeatureFn locate_xstate_feature;
  u32 context_size;
  u32 context_flags;

  // [loop state] the debugger thread's own
  u64 break_in_address;  // DbgUiRemoteBreakin: its threads are never modelled
  u32 continue_status;
  u8 loader_breakpoint_expected;
  u8 attached;
  u8 detached;
  u8 exited;
  u32 exit_code;
  DEBUG_EVENT event;  // the event being handled or held at a stop
  EngineEvent held_stop_event;  // why the target stopped, posted when commands are served
  u8 stop_event_held;
  const LaunchDescription *launch;  // during start-up only
  HANDLE start_finished;
  u64 debug_events;  // counted, for tests and the benchmark
} Target;

// [SECTION] Target model (target.cpp)
// Clears and rebuilds the target: rings, pools, memory caches, system entry points. 0 or 9.
int TargetInit(Target *target);
// Releases everything the target owns (modules' symbols included); the Target itself stays.
void TargetRelease(Target *target);

TargetThread *TargetThreadCreate(Target *target, HANDLE handle, u32 id, u64 start_address, u64 tls_base);
void TargetThreadDestroy(Target *target, TargetThread *thread);
TargetThread *TargetFindThread(Target *target, u32 thread_id);

TargetModule *TargetModuleTake(Target *target);
void TargetModuleLink(Target *target, TargetModule *module);
void TargetModuleUnlink(Target *target, TargetModule *module);
// Gives an unloaded module back (the UI calls this once it has shown the unload line).
void TargetModuleRelease(Target *target, TargetModule *module);
TargetModule *TargetFindModule(Target *target, u64 address);
TargetModule *TargetFindModuleByBase(Target *target, u64 base);

// [SECTION] Rings (event_ring.cpp)
// Queues an event (never blocks: the oldest unread events are overwritten) and wakes the UI.
void EnginePostEvent(Target *target, const EngineEvent *event);
// Pops the oldest event into out (kind 0 when none). 1 when there is no target.
int EnginePopEvent(Target *target, EngineEvent *out);
// Text storage from the text ring; null when the text cannot be placed (it is then dropped).
char *EngineTakeText(Target *target, u64 size);
// Posts a text event for text taken from the ring.
void EnginePostText(Target *target, const char *text, u32 length);
// The command ring: queue from the UI side, drain on the debugger thread.
int EngineRingPushRequest(Target *target, const EngineRequest *request);
int EngineRingPopRequest(Target *target, EngineRequest *out);

// [SECTION] Target memory (target.cpp)
int TargetReadMemory(Target *target, u64 address, void *buffer, u32 size);  // through the cache
int TargetReadMemoryDirect(Target *target, u64 address, void *buffer, u32 size);
static inline MemoryCache *TargetCache(Target *target) { return target->caches[target->cache_index]; }

// [SECTION] Thread context (thread_context.cpp)
// The thread's registers of this stop (read once per stop); null when they cannot be read.
CONTEXT *ThreadContextGet(TargetThread *thread);
// Writes the current buffer back when it was changed. 0 or 37.
int ThreadContextFlush(TargetThread *thread);
// Flips every thread to its other buffer, marked unread (at the top of a pass after a stop).
void ThreadContextsFlip(Target *target);
