// ktrn-cli: runs a program under the engine (or attaches to one) and prints every engine event as
// the output window shows it, and one line per stop. Without a script every stop is continued; with
// one the script's commands drive the run (see script.cpp: the command table lists them, from
// continue and threads to break, break-data and condition) and the program then runs on to its end.
// Exits with the target's exit code (0 after a detach; 0x100 + the start result when it fails).
//
//   ktrn-cli [OPTIONS] launch PROGRAM [ARGS...]
//   ktrn-cli [OPTIONS] attach PID
//   ktrn-cli [OPTIONS] reattach NAME   (the first 64-bit process of that name, ignoring case)
// OPTIONS: --script FILE|- (commands from the file or standard input; a launched program is held
// before its first instruction until the first continue, an attached one starts at the break-in),
// --stop-timeout N (seconds a command waits for a stop or the run's end; 30), --seconds N (stop
// debugging after N seconds: detach), --terminate-after N (terminate the target after N seconds with
// exit code 0x7E57), --cwd DIR, --env NAME=VALUE (repeatable), --inherit-env, --quiet-modules (no
// module lines).
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cli.h"
#include "engine/process_list.h"
#include "ui/stop_reason.h"

static void Usage(void) {
  fprintf(stderr,
          "usage: ktrn-cli [OPTIONS] launch PROGRAM [ARGS...]\n"
          "       ktrn-cli [OPTIONS] attach PID\n"
          "       ktrn-cli [OPTIONS] reattach NAME\n"
          "OPTIONS: [--script FILE|-] [--stop-timeout N] [--seconds N] [--terminate-after N] [--cwd DIR]\n"
          "         [--env NAME=VALUE]... [--inherit-env] [--quiet-modules]\n");
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
  Cli cli;
  memset(&cli, 0, sizeof cli);
  cli.options = OutputOptionsDefault();
  cli.stop_timeout_ms = 30000;
  const char *cwd = nullptr;
  const char *script = nullptr;
  EnvironmentPair env[64];
  u32 env_count = 0;
  u8 inherit = 0;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; i++) {
    const char *a = argv[i];
    bool value = i + 1 < argc;
    if (!strcmp(a, "--seconds") && value) cli.detach_after_seconds = atof(argv[++i]);
    else if (!strcmp(a, "--terminate-after") && value) cli.terminate_after_seconds = atof(argv[++i]);
    else if (!strcmp(a, "--stop-timeout") && value) cli.stop_timeout_ms = (u32)(atof(argv[++i]) * 1000);
    else if (!strcmp(a, "--script") && value) script = argv[++i];
    else if (!strcmp(a, "--cwd") && value) cwd = argv[++i];
    else if (!strcmp(a, "--inherit-env")) inherit = 1;
    else if (!strcmp(a, "--quiet-modules")) cli.options.module_load = cli.options.module_unload = 0;
    else if (!strcmp(a, "--env") && value && env_count < 64) {
      char *pair = argv[++i];
      char *eq = strchr(pair, '=');
      if (!eq) { Usage(); return 2; }
      *eq = 0;
      env[env_count].name = pair;
      env[env_count].value = eq + 1;
      env_count++;
    } else { Usage(); return 2; }
  }
  if (i + 1 >= argc || cli.stop_timeout_ms == 0) { Usage(); return 2; }
  const char *verb = argv[i];
  FILE *script_file = nullptr;
  if (script) {
    script_file = strcmp(script, "-") == 0 ? stdin : fopen(script, "rb");
    if (!script_file) {
      fprintf(stderr, "ktrn-cli: cannot read the script %s\n", script);
      return 2;
    }
  }
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
    result = EngineStartLaunch(&launch, nullptr, nullptr, &cli.target, &cli.process_id);
    if (result == 0) {
      printf("[OK] Process ID: %u\n", cli.process_id);
      cli.held = 1;  // until the first run: at once without a script, at the first continue with one
    }
  } else if (!strcmp(verb, "attach") || !strcmp(verb, "reattach")) {
    if (!strcmp(verb, "reattach")) {
      cli.process_id = ProcessFindByName(argv[i + 1]);
      if (!cli.process_id) {
        printf("Unable to reattach to process named \"%s\". Process not found.\n", argv[i + 1]);
        return 0x100 + kEngineNoProcess;
      }
    } else {
      cli.process_id = (u32)strtoul(argv[i + 1], nullptr, 0);
    }
    printf("Attaching to process ID %u...", cli.process_id);
    result = EngineStartAttach(cli.process_id, nullptr, nullptr, &cli.target);
    if (result == 0) {
      printf("[OK]\n");
      cli.started_by = kStopReasonAttached;
    }
  } else {
    Usage();
    return 2;
  }
  if (result != 0) {
    const char *text =
        result == kEngineSystemCallFailed ? "attach refused by the system" : EngineStartResultText(result);
    printf("[FAIL] %s\n", text);
    fprintf(stderr, "Unable to debug process: %s\n", text);
    return 0x100 + result;
  }

  cli.started_ms = GetTickCount64();
  if (script_file) {
    // An attached program starts the script at its break-in.
    if (!cli.held && CliPump(&cli, false, cli.stop_timeout_ms) == kPumpTimedOut)
      CliError(&cli, "no stop within %g s of the attach", cli.stop_timeout_ms / 1000.0);
    CliRunScript(&cli, script_file);
    if (script_file != stdin) fclose(script_file);
    CliDrain(&cli);
  }
  CliRunToEnd(&cli);
  EngineRelease(cli.target);
  return (int)cli.exit_code;
}
