// Proves that the test harness debugs real programs: a target launched under the debugging API
// reports its process, its DLLs, its debug string and its exit code, in that order.
#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

struct SeenEvents {
  bool create_process = false;
  int dll_loads = 0;
  std::vector<std::string> debug_strings;
  bool exited = false;
  DWORD exit_code = 0;
  bool event_after_exit = false;
};

static std::string ReadTargetString(HANDLE process, const OUTPUT_DEBUG_STRING_INFO &info) {
  std::string text(info.nDebugStringLength, '\0');
  SIZE_T got = 0;
  ReadProcessMemory(process, info.lpDebugStringData, &text[0], text.size(), &got);
  text.resize(got);
  while (!text.empty() && text.back() == '\0') text.pop_back();
  return text;
}

static SeenEvents RunUnderDebugger(const std::wstring &command_line) {
  SeenEvents seen;
  STARTUPINFOW si = {sizeof si};
  PROCESS_INFORMATION pi = {};
  std::wstring mutable_line = command_line;
  BOOL ok = CreateProcessW(nullptr, &mutable_line[0], nullptr, nullptr, FALSE,
                           DEBUG_ONLY_THIS_PROCESS | CREATE_NEW_CONSOLE, nullptr, nullptr, &si, &pi);
  EXPECT_TRUE(ok) << "CreateProcessW failed: " << GetLastError();
  if (!ok) return seen;
  for (;;) {
    DEBUG_EVENT ev;
    if (!WaitForDebugEvent(&ev, 30000)) {
      ADD_FAILURE() << "no debug event within 30 s";
      TerminateProcess(pi.hProcess, 1);
      break;
    }
    DWORD status = DBG_CONTINUE;
    if (seen.exited) seen.event_after_exit = true;
    switch (ev.dwDebugEventCode) {
      case CREATE_PROCESS_DEBUG_EVENT:
        seen.create_process = true;
        if (ev.u.CreateProcessInfo.hFile) CloseHandle(ev.u.CreateProcessInfo.hFile);
        break;
      case LOAD_DLL_DEBUG_EVENT:
        seen.dll_loads++;
        if (ev.u.LoadDll.hFile) CloseHandle(ev.u.LoadDll.hFile);
        break;
      case OUTPUT_DEBUG_STRING_EVENT:
        seen.debug_strings.push_back(ReadTargetString(pi.hProcess, ev.u.DebugString));
        break;
      case EXCEPTION_DEBUG_EVENT:
        if (ev.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT) status = DBG_EXCEPTION_NOT_HANDLED;
        break;
      case EXIT_PROCESS_DEBUG_EVENT:
        seen.exited = true;
        seen.exit_code = ev.u.ExitProcess.dwExitCode;
        break;
    }
    ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
    if (ev.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT) break;
  }
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return seen;
}

static std::wstring TargetPath(const char *name) {
  std::string path = std::string(KTRN_TARGETS_DIR) + "/" + name;
  for (char &c : path)
    if (c == '/') c = '\\';
  return std::wstring(path.begin(), path.end());
}

TEST(DebugApiHarness, SeesProcessDllsDebugStringAndExitCode) {
  SeenEvents seen = RunUnderDebugger(L"\"" + TargetPath("hello_c.exe") + L"\"");
  EXPECT_TRUE(seen.create_process);
  EXPECT_GE(seen.dll_loads, 2);  // ntdll and kernel32 at least
  ASSERT_EQ(seen.debug_strings.size(), 1u);
  EXPECT_EQ(seen.debug_strings[0], "hello from hello_c\n");
  EXPECT_TRUE(seen.exited);
  EXPECT_EQ(seen.exit_code, 42u);
  EXPECT_FALSE(seen.event_after_exit);
}

TEST(DebugApiHarness, ArgumentsReachTheTargetAndChangeItsExitCode) {
  SeenEvents seen = RunUnderDebugger(L"\"" + TargetPath("hello_c.exe") + L"\" any");
  EXPECT_TRUE(seen.exited);
  EXPECT_EQ(seen.exit_code, 0u);
}

TEST(DebugApiHarness, CppTargetWithThreadRunsToCompletion) {
  SeenEvents seen = RunUnderDebugger(L"\"" + TargetPath("cpp_basics.exe") + L"\"");
  EXPECT_TRUE(seen.exited);
  EXPECT_EQ(seen.exit_code, 0u);
  ASSERT_EQ(seen.debug_strings.size(), 2u);
  EXPECT_EQ(seen.debug_strings[0], "worker done\n");
  EXPECT_EQ(seen.debug_strings[1], "area=24.57 sum=10 counter=1000\n");
}
