#include "ui/engine_event_text.h"

#include <stdio.h>
#include <string.h>

#include "engine/target.h"

OutputOptions OutputOptionsDefault(void) {
  OutputOptions options = {1, 1, 1, 1};
  return options;
}

const char *ExceptionCodeText(u32 code) {
  switch (code) {
    case 0xC0000005: return "Access violation";
    case 0x80000002: return "Datatype misalignment";
    case 0xC0000006: return "In-page error";
    case 0xC000001D: return "Illegal instruction";
    case 0xC000008C: return "Array bounds exceeded";
    case 0xC000008D: return "Floating-point denormal operand";
    case 0xC000008E: return "Floating-point division by zero";
    case 0xC000008F: return "Floating-point inexact result";
    case 0xC0000090: return "Floating-point invalid operation";
    case 0xC0000091: return "Floating-point overflow";
    case 0xC0000092: return "Floating-point stack check";
    case 0xC0000093: return "Floating-point underflow";
    case 0xC0000094: return "Integer division by zero";
    case 0xC0000095: return "Integer overflow";
    case 0xC0000096: return "Privileged instruction";
    case 0xC00000FD: return "Stack overflow";
    case 0xC0000409: return "Fast fail (stack buffer overrun)";
  }
  return "";
}

static u32 Finish(int n, u32 capacity) {
  if (n < 0) return 0;
  return (u32)n < capacity ? (u32)n : capacity - 1;
}

static u32 ExceptionText(const EngineEvent *event, char *out, u32 capacity) {
  const char *lead = event->exception.first_chance ? "Exception thrown at" : "Unhandled exception at";
  const TargetModule *module = (const TargetModule *)event->exception.location.module;
  char where[320] = "";
  if (module && module->symbols.name) snprintf(where, sizeof where, " in %s", module->symbols.name);
  unsigned long long address = event->exception.address;
  unsigned long long data = event->exception.data_address;
  u32 code = event->exception.code;
  if (code == 0xC0000005) {
    const char *access = event->exception.access_kind == 0 ? "reading" : event->exception.access_kind == 8 ? "executing" : "writing";
    return Finish(snprintf(out, capacity, "%s 0x%016llX%s: 0x%08X: Access violation %s location 0x%016llX.\n", lead,
                           address, where, code, access, data),
                  capacity);
  }
  const char *text = ExceptionCodeText(code);
  return Finish(snprintf(out, capacity, "%s 0x%016llX%s: 0x%08X%s%s.\n", lead, address, where, code, text[0] ? ": " : "",
                         text),
                capacity);
}

u32 EngineEventText(const EngineEvent *event, const OutputOptions *options, u32 process_id, char *out, u32 capacity) {
  if (!out || capacity == 0) return 0;
  out[0] = 0;
  OutputOptions all = OutputOptionsDefault();
  if (!options) options = &all;
  switch (event->kind) {
    case kEventText: {
      if (!event->text.text) return 0;
      u32 n = (u32)strnlen(event->text.text, event->text.length);
      if (n >= capacity) n = capacity - 1;
      memcpy(out, event->text.text, n);
      out[n] = 0;
      return n;
    }
    case kEventModuleLoaded:
    case kEventModuleUnloaded: {
      bool load = event->kind == kEventModuleLoaded;
      if (load ? !options->module_load : !options->module_unload) return 0;
      const TargetModule *module = event->module.module;
      const char *path = module ? module->symbols.image_path : "";
      u64 base = event->module.base, end = event->module.base + event->module.size;
      if (load)
        return Finish(snprintf(out, capacity, "Module loaded: %08x`%08x %08x`%08x   %s %s\n", (u32)(base >> 32), (u32)base,
                               (u32)(end >> 32), (u32)end, path, SymbolStatusSuffix(event->module.status)),
                      capacity);
      return Finish(snprintf(out, capacity, "Module unloaded: %08x`%08x %08x`%08x   %s\n", (u32)(base >> 32), (u32)base,
                             (u32)(end >> 32), (u32)end, path),
                    capacity);
    }
    case kEventThreadExited:
      if (!options->thread_exit) return 0;
      return Finish(snprintf(out, capacity, "Thread exited: handle 0x%x with exit code %u (0x%x)\n",
                             (u32)event->thread_exit.handle, event->thread_exit.exit_code, event->thread_exit.exit_code),
                    capacity);
    case kEventDetached:
      return Finish(snprintf(out, capacity, "Detached from process (%u)\n", process_id), capacity);
    case kEventProcessExited:
      if (!options->process_exit) return 0;
      return Finish(snprintf(out, capacity, "Process exited: with exit code %u (0x%x)\n", event->process.exit_code,
                             event->process.exit_code),
                    capacity);
    case kEventException:
      return ExceptionText(event, out, capacity);
  }
  return 0;
}
