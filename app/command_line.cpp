// The start-up command line.
#include "app/command_line.h"

#include <stdlib.h>
#include <string.h>

#include "base/os.h"

static bool OpenAndReadMagic(const char *path, u8 magic[4], u64 *magic_length) {
  OsFile file;
  if (OsFileOpenRead(path, &file) != kOsOk) return false;
  *magic_length = 0;
  if (OsFileRead(file, magic, 4, magic_length) != kOsOk) *magic_length = 0;
  OsFileClose(&file);
  return true;
}

int StartupArgumentsParse(StartupArguments *out, int argc, const char *const *argv) {
  memset(out, 0, sizeof(*out));
  if (argc < 2 || !argv) return 0;
  int i = 1;
  for (; i < argc && argv[i]; i++) {  // leading switches, each exactly two characters
    if (strcmp(argv[i], "-g") == 0) {
      out->go = 1;
    } else if (strcmp(argv[i], "-q") == 0) {
      out->quit_on_exit = 1;
    } else {
      break;
    }
  }
  if (i >= argc || !argv[i]) return 0;
  const char *file = argv[i];
  u64 length = strlen(file);
  if (length == 0 || length >= kStartupPathCapacity) return 0;
  char opened[kStartupPathCapacity];
  memcpy(opened, file, length + 1);
  u8 magic[4];
  u64 magic_length = 0;
  if (!OpenAndReadMagic(opened, magic, &magic_length)) {
    if (length + 4 >= kStartupPathCapacity) return 0;
    memcpy(opened + length, ".exe", 5);
    if (!OpenAndReadMagic(opened, magic, &magic_length)) return 0;
  }
  if (magic_length == 4 && memcmp(magic, "KTRN", 4) == 0) {
    out->kind = kStartupSession;
    memcpy(out->path, opened, strlen(opened) + 1);
    return 0;
  }
  out->kind = kStartupProgram;
  if (OsPathMakeAbsolute(opened, out->path, sizeof(out->path)) != kOsOk)
    memcpy(out->path, opened, strlen(opened) + 1);
  out->arguments = JoinProgramArguments(argc - i - 1, argv + i + 1);
  return out->arguments ? 0 : 1;
}

void StartupArgumentsFree(StartupArguments *args) {
  free(args->arguments);
  args->arguments = nullptr;
}

static bool NeedsQuotes(const char *arg) {
  return strchr(arg, ' ') != nullptr || strstr(arg, "\"\"") != nullptr;
}

char *JoinProgramArguments(int count, const char *const *args) {
  u64 size = 1;
  for (int i = 0; i < count; i++) {
    const char *a = args[i] ? args[i] : "";
    size += strlen(a) * 2 + 3;  // every byte a quote with its backslash, two wrapping quotes, a space
  }
  char *joined = (char *)malloc((size_t)size);
  if (!joined) return nullptr;
  u64 n = 0;
  for (int i = 0; i < count; i++) {
    const char *a = args[i] ? args[i] : "";
    if (i) joined[n++] = ' ';
    bool wrap = *a == 0 || NeedsQuotes(a);
    if (wrap) joined[n++] = '"';
    for (; *a; a++) {
      if (*a == '"') joined[n++] = '\\';
      joined[n++] = *a;
    }
    if (wrap) joined[n++] = '"';
  }
  joined[n] = 0;
  return joined;
}

void ProgramFolder(const char *path, char *out, u64 capacity) {
  if (!capacity) return;
  out[0] = 0;
  u64 length = TextLength(path);
  u64 cut = length;
  while (cut > 0 && path[cut - 1] != '\\' && path[cut - 1] != '/') cut--;
  if (cut == 0) return;  // no separator: no folder part
  u64 keep = cut - 1;    // without the separator...
  if (keep == 0 || path[keep - 1] == ':') keep = cut;  // ...unless it is a root's
  TextCopyClamped(out, capacity, path, keep);
}

int StartupApplyProgram(const StartupArguments *args, Session *session) {
  if (args->kind != kStartupProgram) return kSessionBadArgument;
  char folder[kStartupPathCapacity];
  ProgramFolder(args->path, folder, sizeof(folder));
  TargetCommand *t = SessionCurrentTarget(session);
  if (!t) {
    u32 index;
    int result = SessionAddTarget(session, args->path, args->arguments, folder, &index);
    if (result != kSessionOk) return result;
    session->current_target = index;
    return kSessionOk;
  }
  TextReplace(&t->command, args->path);
  TextReplace(&t->arguments, args->arguments);
  TextReplace(&t->working_directory, folder);
  session->modified = 1;
  return kSessionOk;
}
