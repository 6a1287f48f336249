// The debuggee of the current debugging run and its model: threads from a fixed pool, modules
// with their symbols, the event, text and command rings, and the command channel shared with the
// user-interface thread. One Target exists for the whole program: it is cleared and rebuilt at the
// start of every run and cleared again at its release, never freed.
//
// Records: TargetModule, TargetThread, EngineRequest, Target; then
// [SECTION] Target model (target.cpp)
// [SECTION] Rings (event_ring.cpp)
// [SECTION] Command channel (command_channel.cpp)
// [SECTION] Target memory (target.cpp)
// [SECTION] Thread context (thread_context.cpp)
#pragma once
#include <windows.h>

#include "base/arena.h"
#include "engine/breakpoints.h"
#include "engine/engine_event.h"
#include "engine/engine_result.h"
#include "engine/ticket_lock.h"
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
  kWaitObjectCount = 8,  // the command numbers, 0 unused
  kBreakInThreadCapacity = 16,
  kFullContextFlags = 0x10005F,  // every register group plus the extended state
  kPlainContextFlags = 0x10001F, // every register group, no extended state
  kControlContextFlags = 0x100001,  // rip, rsp, rbp, flags, segments: what a step changes
};

// The commands of the channel between the user interface and the engine, each a bit of
// Target.commands (1 << number; the numbers of the system's wait objects they replace).
enum EngineWaitObject : u32 {
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
  // The exception directory, read from the target at its first use (engine/unwind.cpp).
  const struct FunctionEntry *function_table;
  u32 function_count;
  u8 function_table_state;
  u8 dispatcher_state;   // 0 not looked for; the exception dispatcher's rva below when found
  u8 padding2[2];
  u32 dispatcher_rva;    // ntdll's KiUserExceptionDispatcher (engine/unwind.cpp), 0 when none
} TargetModule;

static inline u64 TargetModuleBase(const TargetModule *m) { return m->symbols.load_base; }
static inline u64 TargetModuleEnd(const TargetModule *m) { return m->symbols.extent_end; }

// Which parts of a thread's context buffer differ from the thread's own registers.
enum ContextDirty : u8 {
  kContextClean = 0,
  kContextIpOnly = 1,   // only the instruction pointer: nothing to write when it is back as read
  kContextControl = 2,  // only control registers (the trap flag of a step): written alone
  kContextDirty = 3,
};

// The extended-state features located in a context buffer (the system's feature numbers beside).
enum ContextFeature : u32 {
  kFeatureSse = 0,       // 1: XMM0-15 (legacy SSE)
  kFeatureAvx = 1,       // 2: upper halves of YMM0-15
  kFeatureOpmask = 2,    // 5: K0-K7
  kFeatureZmmHigh = 3,   // 6: upper halves of ZMM0-15
  kFeatureZmmUpper = 4,  // 7: ZMM16-31, whole
  kFeatureCount = 5,
};

// One of a thread's two context buffers. It holds registers read in one target generation (every
// ContinueDebugEvent ends one), so registers read while the target was stopped at an earlier event
// are never taken for the current ones.
typedef struct ThreadContextSlot {
  CONTEXT *context;  // in the slot's buffer, placed by InitializeContext (or a plain CONTEXT)
  u64 generation;    // the target generation of the registers held; 0 when never read
  u64 ip_as_read;    // the instruction pointer as the system gave it
  u8 dirty;          // ContextDirty
  u8 padding[3];
  u32 feature_bytes[kFeatureCount];
  u8 *features[kFeatureCount];  // located in the buffer at the read; null when absent
} ThreadContextSlot;

typedef struct TargetThread {
  struct TargetThread *next;
  struct TargetThread *previous;
  SymbolArena arena;  // the record's own blocks (its frames live in the Target's frame pool)
  struct Target *target;
  HANDLE handle;
  u64 tls_base;
  u64 start_address;
  u32 id;
  u8 suspended_by_engine;
  u8 frozen;
  u8 solo;
  u8 stack_overflow_seen;
  u32 context_index;   // 0 or 1: the buffer of the current stop; the other holds the previous stop's
  s32 priority;        // as the system gave it at the stop counted in priority_stop
  u32 priority_stop;   // one more than the stop whose priority is held (0: never read)
  u64 int3_at_stop;    // the program's own int3 this thread stopped at (its Rip is one past), 0 when none
  u64 rearm_address;   // a breakpoint whose int3 was lifted for this thread's single step over it
  // Let go with the trap flag set (by anyone): its next exception has not arrived yet.
  u8 trap_in_flight;
  // The trap flag is the engine's alone, set as the thread went on from an int3 so that its
  // arrival back in the program is an event (see trap_steps_in_flight); the single step is swallowed.
  u8 settle_step;
  // The function at the instruction pointer, reused while the pointer stays in [start, end).
  TargetModule *ip_module;
  const void *ip_function;
  u64 ip_function_start;
  u64 ip_function_end;
  // The call stack (engine/call_stack.h): this thread's part of the frame pool, valid for the
  // stop counted in stack_stop (0: not built at this stop).
  struct StackFrame *frames;
  u32 frames_committed;  // bytes of the part committed
  u32 stack_stop;
  u32 frame_count;
  s32 selected_frame;
  char name[kThreadNameCapacity];
  // Kept when the record is reused: its two context buffers, prepared once.
  ThreadContextSlot slots[2];
} TargetThread;

// What a request on the command ring asks for.
enum EngineRequestKind : u32 {
  kRequestArmSlot = 1,     // slot: the processor breakpoint to arm in every thread
  kRequestDisarmSlot = 2,  // slot: the processor breakpoint to disarm in every thread
  kRequestAddBreakpoint = 3,     // argument: a BreakpointLocation taken and filled, to link and bind
  kRequestRemoveBreakpoint = 4,  // argument: the record to take out
  kRequestEnableBreakpoint = 5,  // argument: the record; slot: 1 enable, 0 disable
};

typedef struct EngineRequest {  // one 16-byte entry of the command ring
  u32 kind;
  u8 slot;
  u8 padding[3];
  u64 argument;
} EngineRequest;
static_assert(sizeof(EngineRequest) == kCommandSlotBytes, "command ring entry");

// One of the four processor-breakpoint slots; slot i always uses DRi.
typedef struct ProcessorSlot {
  u64 address;  // as asked for; 0 while the slot is free
  u32 size;     // 1, 2, 4 or 8 bytes
  u32 access;   // 0 write, 1 read/write, 2 execute
  u8 armed;     // set by the engine when it armed the slot in every thread (new threads get it too)
  u8 padding[7];
  BreakpointLocation *owner;  // the user's breakpoint the slot was made for
} ProcessorSlot;

enum : u32 { kProcessorSlotCount = 4 };

// How the target runs at the next resume (what the user asked for with the run); see run_control.cpp.
enum RunRequest : u8 {
  kRunPlain = 0,
  kRunStepOver = 1,
  kRunStepInto = 2,
  kRunStepOut = 3,
  kRunStepInstruction = 4,
  kRunToAddress = 5,  // run_to_address: a temporary breakpoint there, no step
  kRunStepOverInstruction = 6,
};

// The step under way (mode 0: none). Cleared together at every stop.
enum StepMode : u8 {
  kStepNone = 0,
  kStepOver = 1,
  kStepInto = 2,
  kStepOut = 3,
  kStepInstruction = 4,
  kStepOverInstruction = 5,  // one instruction, a call or repeated string instruction run to its end
};

enum : u32 { kStepCodeCapacity = 512 };

typedef struct StepState {
  u8 mode;                // StepMode
  u8 over_call;           // a call (or repeated string instruction) runs to the temporary breakpoint
  u8 entered_call;        // step into: the next single step is at a callee's first instruction
  u8 reinsert_temporary;  // the temporary breakpoint was lifted for one instruction of a deeper frame
  u8 out_of_function;     // a step over the rest of the function: its completion is a step out
  u8 returning;           // out_of_function: the instruction single-stepped now is the frame's return
  u8 padding_flags[2];
  u32 thread_id;          // the stepping thread
  u64 range_start;        // the current line's code: [start, end)
  u64 range_end;
  const u8 *line_file;    // the line stepped (its file's checksum record), null for an instruction range
  u32 line;
  u32 padding_line;
  u64 start_sp;           // the stack pointer when the step began
  // The line's code as the program has it, read once when the step begins (a line of more than
  // kStepCodeCapacity bytes is read past this copy).
  u32 code_size;
  u32 padding;
  u8 code[kStepCodeCapacity];
} StepState;

// The one temporary breakpoint of the target: behind a call being stepped over, at the return
// address of a step out, at the cursor of a run to cursor, at the entry point.
typedef struct TemporaryBreakpoint {
  u64 address;   // 0: none
  u64 bound_sp;  // the stack pointer the hit must have (recursion reaches the address deeper)
  u8 sp_bound;
  u8 armed;      // the int3 is in target memory
  u8 saved_byte;
  u8 padding[5];
} TemporaryBreakpoint;

typedef struct LaunchDescription LaunchDescription;

typedef BOOL(WINAPI *WaitForDebugEventFn)(DEBUG_EVENT *, DWORD);
typedef BOOL(WINAPI *InitializeContextFn)(void *, DWORD, CONTEXT **, DWORD *);
typedef BOOL(WINAPI *SetXStateFeaturesMaskFn)(CONTEXT *, DWORD64);
typedef void *(WINAPI *LocateXStateFeatureFn)(CONTEXT *, DWORD, DWORD *);

typedef struct Target {
  // [command channel] shared with the UI thread (engine/command_channel.cpp)
  volatile u32 engine_state;  // EngineState
  volatile u32 commands;      // a bit (1 << EngineWaitObject) for each command signalled and not taken
  volatile u32 ui_blocking;   // the user interface sleeps until the next event (EngineUiBlocking)
  // The stop each command was signalled for (kAnyStop: whichever comes); see EngineWaitCommand.
  volatile u32 quoted_stop[kWaitObjectCount];
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
  u64 loading_base;  // the image whose load event is being handled: its pages are not kept yet
  PdbPathOverride pdb_pick;    // the user's PDB for the next module load (locks itself)

  // [threads]
  TargetThread *event_thread;    // the thread whose event is held at a stop (none while running)
  TargetThread *current_thread;  // the thread the user looks at during a stop (none while running)
  TargetThread *free_threads;
  TargetThread *threads;
  TargetThread *last_thread;
  TargetThread *last_event_thread;
  TargetThread *thread_pool;
  u32 thread_count;
  u32 threads_not_modelled;  // created while the pool was empty
  // Threads that only raise a break-in (DebugBreakProcess, an attach): never modelled.
  u32 break_in_threads[kBreakInThreadCapacity];
  u32 break_in_thread_count;

  // [breakpoints, evaluation]
  BreakpointLocation *breakpoints;       // live records, newest first
  BreakpointLocation *free_breakpoints;  // guarded by the ticket lock
  BreakpointLocation *breakpoint_pool;
  ProcessorSlot processor_slots[kProcessorSlotCount];
  u8 processor_slots_used;  // a slot has been armed in this run (a late hit may name it after its removal)
  u8 padding_slots[7];
  struct EvaluationRequests *evaluation_requests;

  // [run control] the request is written by the UI at a stop (under the model lock), the rest is
  // the debugger thread's
  u8 run_request;  // RunRequest, taken at the next resume
  u8 padding_run[7];
  u64 run_to_address;  // kRunToAddress: where the temporary breakpoint goes
  StepState step;
  TemporaryBreakpoint temporary;

  // [flags] written by the UI thread, read by the engine
  volatile u8 user_break_requested;  // a break the user asked for and has not seen yet
  volatile u8 ending;                // EndingKind: stop debugging or terminate asked for
  u8 collapse_stack_overflow;
  // Set by the engine between ContinueDebugEvent and the next event: only then does a break-in
  // go out (DebugBreakProcess while the target sits at an event can end it under Wine); at an
  // event the engine takes a waiting break or request itself before it continues.
  volatile u8 target_running;
  volatile s32 break_ins_outstanding;  // DebugBreakProcess calls whose break-in has not arrived
  // Threads let go with the trap flag set whose single step has not arrived, counted as the engine
  // continues. While any is on its way no break-in goes out: under Wine the remote thread of a
  // break-in is made by a thread of the program, and a thread let go from an int3 can be lost to it
  // on its way back (it was seen to return out of its entry point, ending the program). So there
  // (settle_after_int3) every thread let go from an int3 carries the trap flag; its single step is
  // an event that comes within microseconds, and what waits is taken there.
  volatile s32 trap_steps_in_flight;
  u8 settle_after_int3;
  s32 requested_frame;

  TicketLock lock;  // guards the three rings, the module free list and the evaluation requests
  // Held by the engine while it serves a command at a stop, and by the user interface while it
  // reads or changes the model at a stop (see event_loop.cpp).
  SRWLOCK model_lock;

  // [generations]
  u64 generation;      // ended by every ContinueDebugEvent: registers and memory read in it are current
  u32 stop_generation; // counts visible stops; every stop event carries it, every command quotes it
  u64 stop_target_generation;      // the generation of the current (or last) visible stop
  u64 previous_stop_generation;    // the generation of the visible stop before it
  u32 symbols_generation;          // counts reloads of a module's symbols (what was read from them is stale)

  // [call stacks] reserved at the first build (engine/call_stack.cpp)
  u8 *frame_pool;      // kThreadPoolCount parts of kFramePoolThreadBytes, committed as used
  u8 *collapse_table;  // 4 MiB: the return-address counts of a collapsing build

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
  EngineEvent held_stop_event;  // why the target stopped, posted once the model is rebuilt
  u8 stop_event_held;
  const LaunchDescription *launch;  // during start-up only
  HANDLE start_finished;
  u64 debug_events;  // counted, for tests and the benchmark
} Target;

enum : u32 { kAnyStop = 0xFFFFFFFF };

// What the engine is doing, as the user interface sees it.
enum EngineState : u32 {
  kEngineStateNone = 0,     // no run: the Target is clear
  kEngineStateWorking = 1,  // the target runs, or the engine handles an event or starts it running
  kEngineStateServing = 2,  // stopped: the engine waits for a command (or serves one that is not run)
  kEngineStateEnded = 3,    // the debugger thread has ended (the run waits for its release)
};

enum EndingKind : u8 {
  kEndingNone = 0,
  kEndingDetach = 1,     // stop debugging: the engine detaches at its next command wait
  kEndingTerminate = 2,  // terminate: the target runs on to its exit
};

// [SECTION] Target model (target.cpp)
// Clears and rebuilds the target: rings, pools, memory caches, system entry points.
[[nodiscard]] EngineResult TargetInit(Target *target);
// Releases everything the target owns (modules' symbols included) and clears it; the Target itself
// stays, so a user interface that asks after the release finds no target.
void TargetRelease(Target *target);

TargetThread *TargetThreadCreate(Target *target, HANDLE handle, u32 id, u64 start_address, u64 tls_base);
void TargetThreadDestroy(Target *target, TargetThread *thread);
TargetThread *TargetFindThread(Target *target, u32 thread_id);

TargetModule *TargetModuleTake(Target *target);
void TargetModuleLink(Target *target, TargetModule *module);
void TargetModuleUnlink(Target *target, TargetModule *module);
// Gives an unloaded module back (the UI calls this once it has shown the unload line). Nothing
// happens for a module that is not one of this run's.
void TargetModuleRelease(Target *target, TargetModule *module);
TargetModule *TargetFindModule(Target *target, u64 address);
TargetModule *TargetFindModuleByBase(Target *target, u64 base);

// [SECTION] Rings (event_ring.cpp)
// Queues an event (never blocks: the oldest unread events are overwritten) and wakes the UI.
void EnginePostEvent(Target *target, const EngineEvent *event);
// Queues an event without waking the UI: for a batch, whose last event is followed by EngineWakeUi.
void EngineQueueEvent(Target *target, const EngineEvent *event);
// Pops the oldest event into out (kind 0 when none). kEngineNoTarget when there is no run.
[[nodiscard]] EngineResult EnginePopEvent(Target *target, EngineEvent *out);
// Text storage from the text ring; null when the text cannot be placed (it is then dropped).
char *EngineTakeText(Target *target, u64 size);
// Posts a text event for text taken from the ring.
void EnginePostText(Target *target, const char *text, u32 length);
// The command ring: queue from the UI side, drain on the debugger thread.
[[nodiscard]] EngineResult EngineRingPushRequest(Target *target, const EngineRequest *request);
bool EngineRingPopRequest(Target *target, EngineRequest *out);
bool EngineRingHasRequests(Target *target);

// [SECTION] Command channel (command_channel.cpp)
// Sets the engine's state and wakes whoever waits for it to change.
void EngineSetState(Target *target, u32 state);
// Signals a command (an EngineWaitObject) for the current stop, or with kAnyStop for whichever
// stop takes it, and wakes the engine if it sleeps.
void EngineSignal(Target *target, u32 command, u32 stop = 0);
// After an event is queued: wakes the user interface when it said it would sleep (its wake-up
// callback, and EngineWaitForEvent).
void EngineWakeUi(Target *target);

// [SECTION] Target memory (target.cpp)
// Reads through the memory cache of the current generation: the bytes as the target has them.
[[nodiscard]] bool TargetReadMemory(Target *target, u64 address, void *buffer, u32 size);
[[nodiscard]] bool TargetReadMemoryDirect(Target *target, u64 address, void *buffer, u32 size);
// Writes target memory and the code cache, and brings both memory caches in line.
[[nodiscard]] bool TargetWriteMemory(Target *target, u64 address, const void *bytes, u32 size);
static inline MemoryCache *TargetCache(Target *target) { return target->caches[target->cache_index]; }
// Ends the generation: called right after every ContinueDebugEvent.
void TargetEndGeneration(Target *target);

// [SECTION] Thread context (thread_context.cpp)
// The thread's registers of this generation, read from the system on first use; null when they
// cannot be read.
CONTEXT *ThreadContextGet(TargetThread *thread);
// The slot of this generation when its registers have been read, else null (nothing is read).
ThreadContextSlot *ThreadContextIfRead(TargetThread *thread);
// Marks the current registers changed (kContextIpOnly or kContextDirty).
void ThreadContextMarkDirty(TargetThread *thread, u8 how);
// Writes the current buffer back when it was changed.
[[nodiscard]] EngineResult ThreadContextFlush(TargetThread *thread);
// Flips every thread to its other buffer (at the resume after a visible stop): the stop's
// registers stay readable as the previous ones.
void ThreadContextsFlip(Target *target);
