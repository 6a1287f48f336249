// ktrn-cli: runs a program under the engine (or attaches to one) and prints every engine event as
// the output window shows it; stops are reported and continued. Exits with the target's exit code.
//
//   ktrn-cli [OPTIONS] launch PROGRAM [ARGS...]
//   ktrn-cli [OPTIONS] attach PID
//   ktrn-cli [OPTIONS] reattach NAME   (the first 64-bit process of that name, ignoring case)
// OPTIONS: --seconds N (stop debugging after N seconds: detach), --cwd DIR, --env NAME=VALUE
// (repeatable), --inherit-env, --quiet-modules (no module lines), --terminate-after N (terminate
// the target after N seconds with exit code 0x7E57).
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "engine/engine.h"
#include "engine/process_list.h"
#include "ui/engine_event_text.h"

static void Wake(void *user) { SetEvent((HANDLE)user); }

static void Usage(void) {
  fprintf(stderr,
          "usage: ktrn-cli [--seconds N] [--terminate-after N] [--cwd DIR] [--env NAME=VALUE]... [--inherit-env]\n"
          "                [--quiet-modules] launch PROGRAM [ARGS...]\n"
          "       ktrn-cli [--seconds N] [--terminate-after N] attach PID\n"
          "       ktrn-cli [--seconds N] [--terminate-after N] reattach NAME\n");
}

static const char *StopReasonText(u32 reason) {
  switch (reason) {
    case kStopProgramBreakpoint: return "breakpoint instruction in the program";
    case kStopBreak: return "break";
    case kStopThreadStates: return "thread states changed";
    case kStopFrameSelected: return "frame selected";
  }
  return "step or temporary breakpoint";
}

// Appends one argument to the command line, quoted when it has spaces or quotes.
static void AppendArgument(char *line, size_t capacity, const char *arg) {
  size_t at = strlen(line);
  if (at && at + 1 < capacity) line[at++] = ' ';
  bool quote = !*arg || strpbrk(arg, " \t\"");
  if (quote && at + 1 < capacity) line[at++] = '"';
  for (const char *p = arg; *p && at + 2 < capacity; p++) {
    if (*p == '"') line[at++] = '\\';
    line[at++] = *p;
  }
  if (quote && at + 1 < capacity) line[at++] = '"';
  line[at] = 0;
}

int main(int argc, char **argv) {
  // The lines go out exactly as the output window shows them: no "\r" added, none held back.
  _setmode(_fileno(stdout), _O_BINARY);
  setvbuf(stdout, nullptr, _IONBF, 0);
  double seconds = 0, terminate_after = 0;
  const char *cwd = nullptr;
  EnvironmentPair env[64];
  u32 env_count = 0;
  u8 inherit = 0;
  OutputOptions options = OutputOptionsDefault();
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; i++) {
    const char *a = argv[i];
    if (!strcmp(a, "--seconds") && i + 1 < argc) seconds = atof(argv[++i]);
    else if (!strcmp(a, "--terminate-after") && i + 1 < argc) terminate_after = atof(argv[++i]);
    else if (!strcmp(a, "--cwd") && i + 1 < argc) cwd = argv[++i];
    else if (!strcmp(a, "--inherit-env")) inherit = 1;
    else if (!strcmp(a, "--quiet-modules")) options.module_load = options.module_unload = 0;
    else if (!strcmp(a, "--env") && i + 1 < argc && env_count < 64) {
      char *pair = argv[++i];
      char *eq = strchr(pair, '=');
      if (!eq) { Usage(); return 2; }
      *eq = 0;
      env[env_count].name = pair;
      env[env_count].value = eq + 1;
      env_count++;
    } else { Usage(); return 2; }
  }
  if (i + 1 >= argc) { Usage(); return 2; }
  const char *verb = argv[i];
  HANDLE wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  Target *target = nullptr;
  u32 pid = 0;
  int result;
  if (!strcmp(verb, "launch")) {
    static char arguments[32768];
    arguments[0] = 0;
    for (int k = i + 2; k < argc; k++) AppendArgument(arguments, sizeof arguments, argv[k]);
    LaunchDescription launch;
    memset(&launch, 0, sizeof launch);
    launch.executable = argv[i + 1];
    launch.arguments = arguments[0] ? arguments : nullptr;
    launch.working_directory = cwd;
    launch.environment = env;
    launch.environment_count = env_count;
    launch.inherit_from_parent = inherit;
    printf("Debugging new process...");
    result = EngineStartLaunch(&launch, Wake, wake, &target, &pid);
    if (result == 0) {
      printf("[OK] Process ID: %u\n", pid);
      EngineRun(target);
    }
  } else if (!strcmp(verb, "attach") || !strcmp(verb, "reattach")) {
    if (!strcmp(verb, "reattach")) {
      pid = ProcessFindByName(argv[i + 1]);
      if (!pid) {
        printf("Unable to reattach to process named \"%s\". Process not found.\n", argv[i + 1]);
        return 0x100 + 3;
      }
    } else {
      pid = (u32)strtoul(argv[i + 1], nullptr, 0);
    }
    printf("Attaching to process ID %u...", pid);
    result = EngineStartAttach(pid, Wake, wake, &target);
    if (result == 0) printf("[OK]\n");
  } else {
    Usage();
    return 2;
  }
  if (result != 0) {
    const char *text = result == 37 ? "attach refused by the system" : EngineStartResultText(result);
    printf("[FAIL] %s\n", text);
    fprintf(stderr, "Unable to debug process: %s\n", text);
    return 0x100 + result;
  }

  ULONGLONG started = GetTickCount64();
  bool limit_taken = false;
  int exit_code = 0;
  for (bool done = false; !done;) {
    WaitForSingleObject(wake, 50);
    ULONGLONG elapsed = GetTickCount64() - started;
    if (!limit_taken && terminate_after > 0 && elapsed >= terminate_after * 1000) {
      limit_taken = true;
      printf("Terminating (result %d)\n", EngineTerminate(target, 0x7E57));
    }
    if (!limit_taken && seconds > 0 && elapsed >= seconds * 1000) {
      limit_taken = true;
      printf("Stopping debugging (result %d)\n", EngineStopDebugging(target));
    }
    EngineEvent event;
    for (;;) {
      EnginePopEvent(target, &event);
      if (event.kind == kEventNone) break;
      char text[4096];
      if (EngineEventText(&event, &options, pid, text, sizeof text)) fputs(text, stdout);
      switch (event.kind) {
        case kEventStopped:
          printf("Stopped: %s at 0x%016llX (thread %u)\n", StopReasonText(event.stopped.reason),
                 (unsigned long long)event.stopped.address, event.stopped.thread_id);
          if (EngineWaitStopped(target, 10000) == 0) EngineRun(target);
          break;
        case kEventException:
          if (EngineWaitStopped(target, 10000) == 0) EngineRun(target);
          break;
        case kEventModuleUnloaded:
          TargetModuleRelease(target, event.module.module);
          break;
        case kEventProcessExited:
          exit_code = (int)event.process.exit_code;
          done = true;
          break;
        case kEventDetached:
          done = true;
          break;
      }
    }
  }
  EngineRelease(target);
  return exit_code;
}
