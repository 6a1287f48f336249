#include "engine/launch.h"

#include <windows.h>

#include <string.h>

#include "base/arena.h"
#include "base/os.h"
#include "engine/engine.h"
#include "symbols/pe_image.h"

enum : DWORD { kLaunchFlags = DEBUG_PROCESS | DEBUG_ONLY_THIS_PROCESS | CREATE_NEW_CONSOLE | CREATE_UNICODE_ENVIRONMENT };
static_assert(kLaunchFlags == 0x413, "launch creation flags");

u32 LaunchSplitEnvironment(char *text, EnvironmentPair *pairs, u32 capacity) {
  u32 count = 0;
  char *line = text;
  while (line && *line) {
    char *end = strchr(line, '\n');
    char *next = end ? end + 1 : nullptr;
    if (end) *end = 0;
    u64 length = strlen(line);
    if (length && line[length - 1] == '\r') line[length - 1] = 0;
    char *equals = strchr(line, '=');
    if (equals && equals[1] != 0 && count < capacity) {
      *equals = 0;
      pairs[count].name = line;
      pairs[count].value = equals + 1;
      count++;
    }
    line = next;
  }
  return count;
}

// Wide characters that a UTF-8 text becomes, without a terminator.
static u64 WideLength(const char *text) {
  if (!text || !*text) return 0;
  int n = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
  return n > 0 ? (u64)n - 1 : 0;
}

static u64 Widen(const char *text, wchar_t *out, u64 capacity) {
  if (!text || !*text) return 0;
  int n = MultiByteToWideChar(CP_UTF8, 0, text, (int)strlen(text), out, (int)MinU64(capacity, 0x7fffffff));
  return n > 0 ? (u64)n : 0;
}

// The inherited part of the block: up to and including the last string's terminator.
static u64 InheritedLength(const wchar_t *strings) {
  if (!strings) return 0;
  const wchar_t *p = strings;
  while (*p) p += wcslen(p) + 1;
  return (u64)(p - strings);
}

u64 LaunchEnvironmentBlockSize(const LaunchDescription *launch) {
  if (launch->environment_count == 0) return 0;
  u64 total = 1;
  if (launch->inherit_from_parent) {
    wchar_t *strings = GetEnvironmentStringsW();
    total += InheritedLength(strings);
    if (strings) FreeEnvironmentStringsW(strings);
  }
  for (u32 i = 0; i < launch->environment_count; i++)
    total += WideLength(launch->environment[i].name) + 1 + WideLength(launch->environment[i].value) + 1;
  return total;
}

u64 LaunchEnvironmentBlock(const LaunchDescription *launch, wchar_t *out, u64 capacity) {
  if (launch->environment_count == 0) return 0;
  u64 at = 0;
  if (launch->inherit_from_parent) {
    wchar_t *strings = GetEnvironmentStringsW();
    u64 n = InheritedLength(strings);
    if (n > capacity) {
      if (strings) FreeEnvironmentStringsW(strings);
      return 0;
    }
    if (n) memcpy(out, strings, n * sizeof(wchar_t));
    at = n;
    if (strings) FreeEnvironmentStringsW(strings);
  }
  for (u32 i = 0; i < launch->environment_count; i++) {
    const EnvironmentPair *pair = &launch->environment[i];
    u64 need = WideLength(pair->name) + 1 + WideLength(pair->value) + 1;
    if (at + need + 1 > capacity) return 0;
    at += Widen(pair->name, out + at, capacity - at);
    out[at++] = L'=';
    at += Widen(pair->value, out + at, capacity - at);
    out[at++] = 0;
  }
  if (at + 1 > capacity) return 0;
  out[at++] = 0;
  return at;
}

bool LaunchCommandLine(const char *executable, const char *arguments, wchar_t *out, u64 capacity) {
  if (capacity == 0) return false;
  out[0] = 0;
  if (!arguments || !*arguments) return true;
  u64 need = 1 + WideLength(executable) + 2 + WideLength(arguments) + 1;
  if (need > capacity) return false;
  u64 at = 0;
  out[at++] = L'"';
  at += Widen(executable, out + at, capacity - at);
  out[at++] = L'"';
  out[at++] = L' ';
  at += Widen(arguments, out + at, capacity - at);
  out[at] = 0;
  return true;
}

EngineResult LaunchResultOfError(u32 error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_INVALID_NAME:
      return kEngineExecutableNotFound;
    case ERROR_ACCESS_DENIED:
      return kEngineAccessDenied;
    case ERROR_EXE_MACHINE_TYPE_MISMATCH:
      return kEngineMachineMismatch;
  }
  return kEngineUnknownReason;
}

// A 32-bit program is refused from its header on every machine: some systems start one (and it
// only faults under the debugger), others fail to create it for a reason of their own. The path is
// the one CreateProcessW is given; when its header cannot be read, CreateProcessW says why.
[[nodiscard]] static EngineResult LaunchCheckImage(const char *executable) {
  OsFile file;
  if (OsFileOpenRead(executable, &file) != kOsOk) return kEngineOk;
  ImageSource source = ImageSourceFromFile(&file);
  PeResult word_size = PeReadWordSize(&source);
  OsFileClose(&file);
  return word_size == kPe32Bit ? kEngine32Bit : kEngineOk;
}

EngineResult LaunchCreateProcess(SymbolArena *arena, const LaunchDescription *launch, u32 *out_process_id) {
  u64 exe_length = WideLength(launch->executable) + 1;
  u64 dir_length = WideLength(launch->working_directory) + 1;
  u64 line_capacity = exe_length + 4 + WideLength(launch->arguments) + 1;
  u64 env_capacity = LaunchEnvironmentBlockSize(launch);
  wchar_t *exe = (wchar_t *)SymbolArenaAllocate(arena, exe_length * 2);
  wchar_t *dir = (wchar_t *)SymbolArenaAllocate(arena, dir_length * 2);
  wchar_t *line = (wchar_t *)SymbolArenaAllocate(arena, line_capacity * 2);
  wchar_t *env = env_capacity ? (wchar_t *)SymbolArenaAllocate(arena, env_capacity * 2) : nullptr;
  if (!exe || !dir || !line || (env_capacity && !env)) return kEngineInitFailed;
  exe[Widen(launch->executable, exe, exe_length)] = 0;
  dir[Widen(launch->working_directory, dir, dir_length)] = 0;
  if (!LaunchCommandLine(launch->executable, launch->arguments, line, line_capacity)) return kEngineUnknownReason;
  if (env && !LaunchEnvironmentBlock(launch, env, env_capacity)) return kEngineUnknownReason;
  EngineResult image = LaunchCheckImage(launch->executable);
  if (image != kEngineOk) return image;

  STARTUPINFOW startup;
  memset(&startup, 0, sizeof startup);
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info;
  memset(&info, 0, sizeof info);
  BOOL ok = CreateProcessW(exe, line[0] ? line : nullptr, nullptr, nullptr, FALSE, kLaunchFlags, env,
                           dir[0] ? dir : nullptr, &startup, &info);
  if (!ok) return LaunchResultOfError(GetLastError());
  *out_process_id = info.dwProcessId;
  // The debug events bring handles of their own.
  CloseHandle(info.hThread);
  CloseHandle(info.hProcess);
  return kEngineOk;
}
