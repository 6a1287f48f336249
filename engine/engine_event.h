// The records that the debugger thread hands to the user-interface thread: fixed 80-byte events,
// copied whole into and out of the engine's event ring.
#pragma once
#include "base/types.h"

enum EngineEventKind : u32 {
  kEventNone = 0,
  kEventStopped = 1,
  kEventListUpdate = 2,
  kEventEvaluation = 3,
  kEventException = 4,
  kEventText = 5,
  kEventBreakpointHit = 6,
  kEventProcessorBreakpointHit = 7,
  kEventBreakpointBound = 8,
  kEventBreakpointLost = 9,
  kEventModuleLoaded = 10,
  kEventModuleUnloaded = 11,
  kEventThreadExited = 12,
  kEventDetached = 13,
  kEventProcessExited = 14,
};

// Lists that a list update (kind 2) refers to. Threads that exit are reported by kind 12 and
// modules by kinds 10 and 11; kind 2 tells the UI of the threads that start.
enum EngineListSelector : u32 {
  kListThreads = 1,
  kListModules = 2,  // not posted: module events carry everything
};

// Why the engine stopped (the engine's side of the stop reasons; the UI maps them to its texts).
enum EngineStopReason : u32 {
  kStopStepOver = 0,
  kStopStepInto = 1,
  kStopStepOut = 2,
  kStopProgramBreakpoint = 3,  // an int3 of the program itself
  kStopBreak = 4,              // user break or the attach break-in
  kStopTemporaryBreakpoint = 5,
  kStopThreadStates = 6,
  kStopFrameSelected = 7,
};

struct TargetModule;

// Where an address lies: its module and, when the module's symbols know it, the line.
typedef struct EngineSourceLocation {
  const struct TargetModule *module;  // null: no module holds the address
  const u8 *file;                     // the line's file checksum record in the module's PDB, or null
  u32 line;                           // 0 when unknown
  u32 section;                        // 1-based, 0 when unknown
  u32 offset;
  u32 reserved;
} EngineSourceLocation;
static_assert(sizeof(EngineSourceLocation) == 32, "source location is 32 bytes");

typedef struct EngineEvent {
  u32 kind;        // EngineEventKind
  u32 generation;  // stops (kinds 1, 4, 6, 7): the stop's number, which the commands answering it quote
  union {
    struct {
      u32 reason;  // EngineStopReason
      s32 frame;
      u64 address;
      u32 thread_id;
      u32 reserved;
      EngineSourceLocation location;
    } stopped;
    struct {
      u32 selector;  // kListThreads: a thread was made (words: thread id, start address)
      u32 reserved;
      u64 words[2];
    } list_update;
    struct {
      void *request;
      void *cookie;       // the request's cookie when the result was made: the UI finds its row by
      u8 parse_failed;    //   this, so a result that crosses a removal of its request is dropped
    } evaluation;
    struct {
      u32 code;
      u8 first_chance;
      u8 continuable;
      u16 reserved;
      u64 address;
      EngineSourceLocation location;
      u64 access_kind;   // first exception parameter
      u64 data_address;  // second exception parameter
    } exception;
    struct {
      const char *text;  // zero-terminated UTF-8 in the text ring
      u32 length;
    } text;
    struct {
      void *location_record;  // the BreakpointLocation
      u64 address;
      EngineSourceLocation location;
      u32 thread_id;          // kind 6: the thread that hit it
      u32 reserved;
      const char *condition_error;  // in the text ring: why the condition gave no answer; null when none
    } breakpoint;
    struct {
      u32 slot;
      u32 reserved;
      u64 address;
      EngineSourceLocation location;
    } processor_breakpoint;
    struct {
      struct TargetModule *module;
      u64 base;
      u64 size;
      u32 status;  // SymbolStatus
    } module;
    struct {
      u64 handle;
      u32 exit_code;
      u32 thread_id;
    } thread_exit;
    struct {
      u32 exit_code;
      u32 process_id;
    } process;
    u8 bytes[72];
  };
} EngineEvent;
static_assert(sizeof(EngineEvent) == 80, "engine events are 80 bytes");
