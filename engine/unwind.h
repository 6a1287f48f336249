// One frame of a stopped thread unwound over the target's memory: the module and function-table
// entry of the instruction address, then the portable unwinder (symbols/x64_unwind.h) over reads
// through the engine's memory cache. No system unwinding service is asked. Debugger thread only.
#pragma once
#include "engine/target.h"
#include "symbols/x64_unwind.h"

// The registers of a thread's context as the unwinder numbers them.
void UnwindContextFromThread(const CONTEXT *context, UnwindContext *out);
// The memory reader the unwinder uses: the target through the memory cache of this stop.
UnwindMemory UnwindMemoryOfTarget(Target *target);

// The function-table entry of the module that holds the instruction at address (begin <= rva < end).
// The module's exception directory is read from the target at the first call, in one read, and kept
// until the module unloads. False when the module has no table or no entry holds the address.
bool FindFunctionEntry(Target *target, TargetModule *module, u64 address, FunctionEntry *out);
// The entry in the module's table itself (it stays until the module is released); null for none.
// A return address is found up to the end inclusive (see FunctionEntryAt).
const FunctionEntry *FindFunctionEntryIn(Target *target, TargetModule *module, u64 address, bool return_address);

// The frame of the system's exception dispatcher (ntdll's KiUserExceptionDispatcher) is unwound from
// the CONTEXT record it runs on, whatever unwind data it has (Wine's gives back rip and rsp only):
// every register of the code that raised comes back, non-volatile ones included.
bool UnwindIsExceptionDispatcher(Target *target, TargetModule *module, u64 address);

// One unwind step at context->rip, the address of the instruction the frame stands at (as in
// frame 0): the function's unwind codes when a module's function table has
// an entry for it, else a leaf's pop of the return address (also for an address in no module).
// On success the context holds the caller's registers and the return address as its rip.
[[nodiscard]] UnwindResult UnwindOneFrame(Target *target, UnwindContext *context);
// The same, with the module found already (null: the address is in no module).
[[nodiscard]] UnwindResult UnwindOneFrameIn(Target *target, TargetModule *module, UnwindContext *context);

// Gives back the module's function table (module unload and target release).
void UnwindReleaseModule(TargetModule *module);
