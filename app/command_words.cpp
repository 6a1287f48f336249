// The command-word dispatcher: a table of words with their argument counts, then one action each.
#include "app/command_words.h"

#include <string.h>

#include "base/os.h"

enum CommandId {
  kCmdSettings, kCmdOpenSession, kCmdOpenFile, kCmdCloseFile, kCmdStartDebugging, kCmdStopDebugging,
  kCmdAttach, kCmdAddFileBreakpoint, kCmdAddFunctionBreakpoint, kCmdRemoveFileBreakpoint,
  kCmdRemoveFunctionBreakpoint, kCmdRemoveAllBreakpoints, kCmdContinue, kCmdRunToCursor,
};

typedef struct CommandWord {
  const char *word;
  u8 id;
  u8 min_args;      // after the command word
  u8 max_args;      // more are ignored, except where the word refuses them
  bool path_first;  // the first argument is a path, made absolute
  bool channel;     // forwarded by a second process
  bool reports_taken;
} CommandWord;

static const CommandWord kWords[] = {
    {"--settings", kCmdSettings, 1, 1, true, false, false},
    {"open-session", kCmdOpenSession, 1, 1, true, true, false},
    {"open-file", kCmdOpenFile, 1, 2, true, true, true},
    {"close-file", kCmdCloseFile, 1, 1, true, true, true},
    {"start-debugging", kCmdStartDebugging, 0, 1, false, true, true},
    {"stop-debugging", kCmdStopDebugging, 0, 0, false, true, true},
    {"attach-to-process-by-id", kCmdAttach, 1, 2, false, true, true},
    {"add-breakpoint-at-file", kCmdAddFileBreakpoint, 2, 2, true, true, true},
    {"add-breakpoint-at-function", kCmdAddFunctionBreakpoint, 1, 2, false, true, true},
    {"remove-breakpoint-at-file", kCmdRemoveFileBreakpoint, 2, 2, true, true, true},
    {"remove-breakpoint-at-function", kCmdRemoveFunctionBreakpoint, 1, 1, false, true, true},
    {"remove-all-breakpoints", kCmdRemoveAllBreakpoints, 0, 0, false, true, true},
    {"continue-execution", kCmdContinue, 0, 0, false, true, false},
    {"run-to-cursor", kCmdRunToCursor, 2, 2, true, true, true},
};

static const CommandWord *FindWord(const char *word) {
  if (!word) return nullptr;
  for (u32 i = 0; i < KTRN_ARRAY_COUNT(kWords); i++)
    if (strcmp(kWords[i].word, word) == 0) return &kWords[i];
  return nullptr;
}

bool CommandIsChannelWord(const char *word) {
  const CommandWord *w = FindWord(word);
  return w && w->channel;
}

s32 CommandReadNumber(const char *text) {
  if (!text) return 0;
  while (*text == ' ' || *text == '\t') text++;
  bool negative = *text == '-';
  if (*text == '-' || *text == '+') text++;
  s64 value = 0;
  for (; *text >= '0' && *text <= '9'; text++)
    if (value <= 0x80000000ll) value = value * 10 + (*text - '0');
  if (negative) value = -value;
  if (value > 0x7FFFFFFFll) value = 0x7FFFFFFFll;
  if (value < -0x80000000ll) value = -0x80000000ll;
  return (s32)value;
}

static u32 ReadUnsigned(const char *text) {
  s32 value = CommandReadNumber(text);
  return value < 0 ? 0 : (u32)value;
}

bool CommandDispatch(const CommandActions *a, int argc, const char *const *argv) {
  if (!a || !argv || argc < 2) return false;
  const CommandWord *w = FindWord(argv[1]);
  if (!w) return false;
  int count = argc - 2;  // arguments after the command word
  const char *const *args = argv + 2;
  for (int i = 0; i < count && i < w->max_args; i++)
    if (!args[i]) count = i;
  if (count < w->min_args) return false;
  if (w->id == kCmdAttach && count > 2) return false;
  char path[kCommandPathCapacity];
  if (w->path_first && OsPathMakeAbsolute(args[0], path, sizeof(path)) != kOsOk) return false;
  const char *second = count >= 2 ? args[1] : nullptr;
  void *u = a->user;
  bool acted = true;
  switch (w->id) {
    case kCmdSettings: {
      u64 length = strlen(path);
      if (length > 1 && (path[length - 1] == '\\' || path[length - 1] == '/') && path[length - 2] != ':')
        path[length - 1] = 0;
      acted = OsDirectoryExists(path) && a->set_settings_folder;
      if (acted) a->set_settings_folder(u, path);
      break;
    }
    case kCmdOpenSession:
      if ((acted = a->open_session)) a->open_session(u, path);
      break;
    case kCmdOpenFile:
      if ((acted = a->open_file)) a->open_file(u, path, second ? ReadUnsigned(second) : 0);
      break;
    case kCmdCloseFile:
      if ((acted = a->close_file)) a->close_file(u, path);
      break;
    case kCmdStartDebugging:
      if ((acted = a->start_debugging)) a->start_debugging(u, count >= 1 && CommandReadNumber(args[0]) != 0);
      break;
    case kCmdStopDebugging:
      if ((acted = a->stop_debugging)) a->stop_debugging(u);
      break;
    case kCmdAttach:
      if ((acted = a->attach_to_process))
        a->attach_to_process(u, ReadUnsigned(args[0]), second && strcmp(second, "--continue") == 0);
      break;
    case kCmdAddFileBreakpoint:
      if ((acted = a->add_breakpoint_at_file)) a->add_breakpoint_at_file(u, path, ReadUnsigned(second));
      break;
    case kCmdRemoveFileBreakpoint:
      if ((acted = a->remove_breakpoint_at_file)) a->remove_breakpoint_at_file(u, path, ReadUnsigned(second));
      break;
    case kCmdAddFunctionBreakpoint:
      if ((acted = a->add_breakpoint_at_function)) a->add_breakpoint_at_function(u, args[0], second);
      break;
    case kCmdRemoveFunctionBreakpoint:
      if ((acted = a->remove_breakpoint_at_function)) a->remove_breakpoint_at_function(u, args[0]);
      break;
    case kCmdRemoveAllBreakpoints:
      if ((acted = a->remove_all_breakpoints)) a->remove_all_breakpoints(u);
      break;
    case kCmdContinue:
      if ((acted = a->continue_execution)) a->continue_execution(u);
      break;
    case kCmdRunToCursor:
      if ((acted = a->run_to_cursor)) a->run_to_cursor(u, path, ReadUnsigned(second));
      break;
  }
  return acted && w->reports_taken;
}
