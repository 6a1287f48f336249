// ktrn-session: session files on the command line.
//   ktrn-session print FILE.ktrn       one item per line, each with the section it came from
//   ktrn-session roundtrip IN OUT      read IN and write it back to OUT
// A file that cannot be read gives an empty session, as it does in the debugger; the tool says so
// on stderr and exits with 1.
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "app/session_file.h"

static const char *const kKindNames[] = {"function", "source line", "address", "processor"};
static const char *const kAccessNames[] = {"write", "read/write", "execute"};

static const char *ResultText(int result) {
  switch (result) {
    case kSessionFileUnreadable: return "cannot be opened or read";
    case kSessionFileBadMagic: return "not a session file (no \"KTRN\" at its start)";
    case kSessionFileNoMemory: return "out of memory";
    case kSessionFileTooLarge: return "too large";
    case kSessionFileWriteFailed: return "cannot be written";
  }
  return "ok";
}

// A text in double quotes with quotes, backslashes and control bytes escaped.
static void PrintQuoted(const char *text) {
  putchar('"');
  for (const unsigned char *p = (const unsigned char *)(text ? text : ""); *p; p++) {
    if (*p == '"' || *p == '\\') {
      printf("\\%c", *p);
    } else if (*p < 0x20 || *p == 0x7F) {
      printf("\\x%02X", *p);
    } else {
      putchar(*p);
    }
  }
  putchar('"');
}

static void Item(u32 section, const char *label) { printf("[%2u] %s", section, label); }

static void PrintText(u32 section, const char *label, const char *text) {
  Item(section, label);
  putchar(' ');
  PrintQuoted(text);
  putchar('\n');
}

static void PrintWatchList(u32 section, const Session *s, u32 window, bool comments) {
  const WatchList *list = &s->watches[window];
  for (u32 r = 0; r < list->count; r++) {
    const char *text = comments ? list->rows[r]->comment : list->rows[r]->expression;
    if (comments && !*text) continue;
    printf("[%2u] watch %u row %u %s ", section, window + 1, r + 1, comments ? "comment" : "expression");
    PrintQuoted(text);
    putchar('\n');
  }
}

static void PrintSession(const Session *s, u32 sections) {
  const TargetCommand *first = s->target_count ? s->targets[0] : nullptr;
  if (sections >= 1) Item(1, "magic \"KTRN\"\n");
  if (sections >= 2 && first) {
    PrintText(2, "target 1 command", first->command);
    PrintText(2, "target 1 arguments", first->arguments);
    PrintText(2, "target 1 working directory", first->working_directory);
  }
  for (u32 i = 0; sections >= 3 && i < s->source_file_count; i++) PrintText(3, "source file", s->source_files[i]);
  for (u32 i = 0; sections >= 4 && i < s->breakpoint_count; i++) {
    const Breakpoint *b = s->breakpoints[i];
    printf("[ 4] breakpoint %u %s", i + 1, kKindNames[b->kind]);
    if (b->kind == kBreakpointFunction || b->kind == kBreakpointSourceLine) {
      putchar(' ');
      PrintQuoted(b->place);
    }
    if (b->kind == kBreakpointSourceLine) printf(" line %u", b->line);
    if (b->kind == kBreakpointAddress) printf(" 0x%016" PRIX64, b->address);
    putchar('\n');
  }
  if (sections >= 5) PrintWatchList(5, s, 0, false);
  for (u32 i = 0; sections >= 6 && i < s->breakpoint_count; i++)
    printf("[ 6] breakpoint %u size %u\n", i + 1, s->breakpoints[i]->size);
  for (u32 i = 0; sections >= 7 && i < s->breakpoint_count; i++) {
    if (!s->breakpoints[i]->condition) continue;
    printf("[ 7] breakpoint %u condition ", i + 1);
    PrintQuoted(s->breakpoints[i]->condition);
    putchar('\n');
  }
  if (sections >= 8 && first) {
    PrintText(8, "target 1 environment", first->environment);
    printf("[ 8] target 1 inherit environment %u\n", first->inherit_from_parent);
  }
  if (sections >= 9) printf("[ 9] target command count %u\n", s->target_count);
  for (u32 i = 1; sections >= 9 && i < s->target_count; i++) {
    const TargetCommand *t = s->targets[i];
    char label[64];
    snprintf(label, sizeof(label), "target %u command", i + 1);
    PrintText(9, label, t->command);
    snprintf(label, sizeof(label), "target %u arguments", i + 1);
    PrintText(9, label, t->arguments);
    snprintf(label, sizeof(label), "target %u working directory", i + 1);
    PrintText(9, label, t->working_directory);
    snprintf(label, sizeof(label), "target %u environment", i + 1);
    PrintText(9, label, t->environment);
    printf("[ 9] target %u inherit environment %u\n", i + 1, t->inherit_from_parent);
  }
  if (sections >= 10) printf("[10] current target %u\n", s->target_count ? s->current_target + 1 : 0);
  for (u32 w = 1; sections >= 11 && w < kWatchWindowCount; w++) PrintWatchList(11, s, w, false);
  for (u32 i = 0; sections >= 12 && i < s->breakpoint_count; i++) {
    const Breakpoint *b = s->breakpoints[i];
    if (b->kind != kBreakpointProcessor) continue;
    printf("[12] breakpoint %u address ", i + 1);
    PrintQuoted(b->place);
    printf(" size %u access %s\n", b->size, b->access <= kAccessExecute ? kAccessNames[b->access] : "?");
  }
  for (u32 i = 0; sections >= 13 && i < s->breakpoint_count; i++)
    printf("[13] breakpoint %u %s\n", i + 1, s->breakpoints[i]->enabled ? "enabled" : "disabled");
  for (u32 w = 0; sections >= 14 && w < kWatchWindowCount; w++) PrintWatchList(14, s, w, true);
  for (u32 i = 0; sections >= 15 && i < s->target_count; i++)
    printf("[15] target %u halts at %s\n", i + 1,
           s->targets[i]->halt_at_nominal_entry ? "the nominal entry point" : "the entry point function");
  if (sections < kSessionSectionCount)
    printf("(the file ends after section %u; the rest keeps its defaults)\n", sections);
}

static void PrintOutput(void *user, const char *text) { fputs(text, stderr); }

static int Usage(void) {
  fprintf(stderr, "usage: ktrn-session print FILE.ktrn\n       ktrn-session roundtrip IN.ktrn OUT.ktrn\n");
  return 2;
}

int main(int argc, char **argv) {
  if (argc < 3) return Usage();
  bool print = strcmp(argv[1], "print") == 0;
  bool roundtrip = strcmp(argv[1], "roundtrip") == 0;
  if (!(print && argc == 3) && !(roundtrip && argc == 4)) return Usage();
  Session session;
  SessionInit(&session);
  SessionReadHooks hooks = {};
  hooks.output = PrintOutput;  // no source view here: every file counts as opened
  u32 sections = 0;
  int result = SessionReadFile(&session, argv[2], &hooks, nullptr, &sections);
  int status = 0;
  if (result != kSessionFileOk) {
    fprintf(stderr, "ktrn-session: %s: %s; using an empty session\n", argv[2], ResultText(result));
    status = 1;
  }
  if (print) {
    if (result == kSessionFileOk) {
      PrintSession(&session, sections);
    } else {
      printf("(empty session)\n");
    }
  } else {
    int written = SessionWriteFile(&session, argv[3], nullptr);
    if (written != kSessionFileOk) {
      fprintf(stderr, "ktrn-session: %s: %s\n", argv[3], ResultText(written));
      status = 1;
    }
  }
  SessionFree(&session);
  return status;
}
