// The engine against real programs under Wine: launch, module and thread events, debug strings,
// launch failures, environment and arguments.
#include <gtest/gtest.h>

#include <stdio.h>

#include <algorithm>

#include "tests/win/engine_harness.h"

static bool StartsWith(const std::string &s, const std::string &prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

TEST(EngineLaunch, ModulesLoadAndUnloadWithTheirSymbols) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchTarget("eng_target.exe", "dll", &t, &pid), 0);
  EXPECT_NE(pid, 0u);
  Seen seen;
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.exit_code, 21u);
  // The executable is the first module; the plugin loads with its PDB and unloads before "plugin freed".
  const SeenEvent *first_module = seen.First(kEventModuleLoaded);
  ASSERT_NE(first_module, nullptr);
  EXPECT_EQ(first_module->module_name, "eng_target.exe");
  int plugin_loaded = -1, plugin_unloaded = -1, hello = -1, freed = -1;
  for (size_t i = 0; i < seen.events.size(); i++) {
    const SeenEvent &e = seen.events[i];
    if (e.event.kind == kEventModuleLoaded && e.module_name == "eng_plugin.dll") plugin_loaded = (int)i;
    if (e.event.kind == kEventModuleUnloaded && e.module_name == "eng_plugin.dll") plugin_unloaded = (int)i;
    if (e.event.kind == kEventText && e.text == "plugin says hello\n") hello = (int)i;
    if (e.event.kind == kEventText && e.text == "plugin freed\n") freed = (int)i;
  }
  ASSERT_GE(plugin_loaded, 0);
  ASSERT_GE(plugin_unloaded, 0);
  EXPECT_LT(plugin_loaded, hello);
  EXPECT_LT(hello, plugin_unloaded);
  EXPECT_LT(plugin_unloaded, freed);
  const SeenEvent &load = seen.events[plugin_loaded];
  EXPECT_EQ(load.event.module.status, (u32)kSymbolsLoaded);
  // "Module loaded: %08x`%08x %08x`%08x   %s %s\n" with the extent end after the base.
  unsigned bh, bl, eh, el;
  char path[1024];
  ASSERT_EQ(sscanf(load.text.c_str(), "Module loaded: %8x`%8x %8x`%8x   %1023s", &bh, &bl, &eh, &el, path), 5) << load.text;
  u64 base = ((u64)bh << 32) | bl, end = ((u64)eh << 32) | el;
  EXPECT_EQ(base, load.event.module.base);
  EXPECT_EQ(end, load.event.module.base + load.event.module.size);
  EXPECT_EQ(end % 4096, 0u);
  EXPECT_NE(load.text.find("\\eng_plugin.dll (symbols loaded)\n"), std::string::npos) << load.text;
  EXPECT_TRUE(StartsWith(seen.events[plugin_unloaded].text, "Module unloaded: " + load.text.substr(15, 37)))
      << seen.events[plugin_unloaded].text;
  // System DLLs without PDBs load with an empty suffix.
  bool ntdll = false;
  for (const SeenEvent &e : seen.events)
    if (e.event.kind == kEventModuleLoaded && e.module_name == "ntdll.dll") {
      ntdll = true;
      EXPECT_EQ(e.text.substr(e.text.size() - 11), "ntdll.dll \n");
    }
  EXPECT_TRUE(ntdll);
  EXPECT_EQ(seen.events.back().event.kind, (u32)kEventProcessExited);
}

TEST(EngineLaunch, ThreadsExitWithTheirCodesAndTheProcessWithItsOwn) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchTarget("eng_target.exe", "threads", &t, &pid), 0);
  Seen seen;
  EngineRun(t);
  DriveToEnd(t, seen);
  std::vector<u32> codes;
  for (const SeenEvent &e : seen.events)
    if (e.event.kind == kEventThreadExited) {
      codes.push_back(e.event.thread_exit.exit_code);
      char expected[128];
      snprintf(expected, sizeof expected, "Thread exited: handle 0x%x with exit code %u (0x%x)\n",
               (u32)e.event.thread_exit.handle, e.event.thread_exit.exit_code, e.event.thread_exit.exit_code);
      EXPECT_EQ(e.text, expected);
    }
  ASSERT_GE(codes.size(), 3u);
  EXPECT_EQ(codes[0], 11u);
  EXPECT_EQ(codes[1], 12u);
  EXPECT_EQ(codes[2], 13u);
  EXPECT_EQ(seen.exit_code, 7u);
  EXPECT_EQ(seen.events.back().text, "Process exited: with exit code 7 (0x7)\n");
  // Every thread that starts is announced for the threads list (kind 2), the main thread first,
  // and each one that exits was announced before.
  std::vector<u64> started;
  for (const SeenEvent &e : seen.events) {
    if (e.event.kind == kEventListUpdate) {
      EXPECT_EQ(e.event.list_update.selector, (u32)kListThreads);
      EXPECT_NE(e.event.list_update.words[1], 0u);
      started.push_back(e.event.list_update.words[0]);
    }
    if (e.event.kind == kEventThreadExited)
      EXPECT_NE(std::find(started.begin(), started.end(), (u64)e.event.thread_exit.thread_id), started.end());
  }
  ASSERT_GE(started.size(), 4u);
  EXPECT_EQ(seen.events[0].event.kind, (u32)kEventListUpdate);  // the main thread, before any module
  EXPECT_EQ(seen.Count(kEventStopped), 0);
}

TEST(EngineLaunch, DebugStringsInBothEncodingsArriveAsUtf8) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchTarget("eng_target.exe", "strings", &t, &pid), 0);
  Seen seen;
  EngineRun(t);
  DriveToEnd(t, seen);
  ASSERT_EQ(seen.debug_strings.size(), 3u);
  EXPECT_EQ(seen.debug_strings[0], "narrow string\n");
  EXPECT_EQ(seen.debug_strings[1], "wide string\n");
  EXPECT_EQ(seen.debug_strings[2], "bytes \xC3\xA9t\xC3\xA9\n");
}

TEST(EngineLaunch, IsHeldUntilTheFirstRunAndRefusesBreakWhileHeld) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchTarget("eng_target.exe", "strings", &t, &pid), 0);
  EXPECT_EQ(EngineStoppedState(t), 0);
  Sleep(200);
  Seen seen;
  PopInto(t, seen, nullptr);
  EXPECT_EQ(seen.debug_strings.size(), 0u);  // held: nothing of the program has run
  EXPECT_EQ(EngineBreak(t), 37);
  EXPECT_EQ(EngineRun(t), 0);
  DriveToEnd(t, seen);
  EXPECT_EQ(seen.debug_strings.size(), 3u);
  EXPECT_EQ(seen.exit_code, 0u);
}

TEST(EngineLaunch, MissingOrBadExecutableAndMissingWorkingDirectoryFail) {
  Target *t = nullptr;
  u32 pid = 0;
  EXPECT_EQ(LaunchTarget("no_such_program.exe", nullptr, &t, &pid), 5);
  EXPECT_EQ(t, nullptr);
  EXPECT_EQ(LaunchTarget("engine", nullptr, &t, &pid), 5);  // a directory is no executable
  LaunchDescription bad_dir = {};
  std::string dir = TargetPath("no_such_directory");
  bad_dir.working_directory = dir.c_str();
  EXPECT_EQ(LaunchTarget("eng_target.exe", "strings", &t, &pid, &bad_dir), 6);
  std::string file_as_dir = TargetPath("eng_target.pdb");
  bad_dir.working_directory = file_as_dir.c_str();
  EXPECT_EQ(LaunchTarget("eng_target.exe", "strings", &t, &pid, &bad_dir), 6);
  EXPECT_EQ(EngineStartLaunch(nullptr, HarnessWake, HarnessWakeEvent(), &t, &pid), 1);
  LaunchDescription empty = {};
  EXPECT_EQ(EngineStartLaunch(&empty, HarnessWake, HarnessWakeEvent(), &t, &pid), 1);
  // A file that is no image: the system refuses to create the process, for a reason of its own.
  char temp[MAX_PATH];
  GetTempPathA(MAX_PATH, temp);
  std::string bad = std::string(temp) + "ktrn_not_an_image.exe";
  FILE *f = fopen(bad.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  fputs("MZ but nothing else", f);
  fclose(f);
  LaunchDescription garbage = {};
  garbage.executable = bad.c_str();
  EXPECT_EQ(EngineStartLaunch(&garbage, HarnessWake, HarnessWakeEvent(), &t, &pid), 4);
  EXPECT_EQ(t, nullptr);
  DeleteFileA(bad.c_str());
  EXPECT_STREQ(EngineStartResultText(4), "unknown reason");
  EXPECT_STREQ(EngineStartResultText(5), "executable not found");
  EXPECT_STREQ(EngineStartResultText(6), "working directory not valid");
}

TEST(EngineLaunch, WorkingDirectoryReachesTheProgram) {
  LaunchDescription extra = {};
  std::string dir = TargetPath("engine");  // forward slashes: turned into backslashes
  extra.working_directory = dir.c_str();
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchTarget("eng_target.exe", "cwd", &t, &pid, &extra), 0);
  Seen seen;
  EngineRun(t);
  DriveToEnd(t, seen);
  ASSERT_EQ(seen.debug_strings.size(), 1u);
  std::string expected = "cwd " + TargetPath("engine") + "\n";
  for (char &c : expected)
    if (c == '/') c = '\\';
  EXPECT_STREQ(CharLowerA(&seen.debug_strings[0][0]), CharLowerA(&expected[0]));

  // Without a working directory of its own the launch takes the session's default directory.
  LaunchDescription by_default = {};
  std::string targets = TargetPath("");
  by_default.default_directory = targets.c_str();
  ASSERT_EQ(LaunchTarget("eng_target.exe", "cwd", &t, &pid, &by_default), 0);
  Seen second;
  EngineRun(t);
  DriveToEnd(t, second);
  ASSERT_EQ(second.debug_strings.size(), 1u);
  std::string expected_default = "cwd " + TargetPath("");
  for (char &c : expected_default)
    if (c == '/') c = '\\';
  if (expected_default.back() == '\\') expected_default.pop_back();
  expected_default += "\n";
  EXPECT_STREQ(CharLowerA(&second.debug_strings[0][0]), CharLowerA(&expected_default[0]));
}

TEST(EngineLaunch, ThirtyTwoBitProgramIsRefused) {
  Target *t = nullptr;
  u32 pid = 0;
  int result = LaunchTarget("x86/eng_hello32.exe", nullptr, &t, &pid);
  EXPECT_EQ(result, 10);  // refused from its header, whether or not this machine could start it
  EXPECT_EQ(t, nullptr);
  EXPECT_STREQ(EngineStartResultText(10), "32-bit processes are not supported");
}

TEST(EngineLaunch, ArgumentsAbsentAndPresent) {
  Target *t = nullptr;
  u32 pid = 0;
  ASSERT_EQ(LaunchTarget("eng_args.exe", nullptr, &t, &pid), 0);
  Seen none;
  EngineRun(t);
  DriveToEnd(t, none);
  ASSERT_EQ(none.debug_strings.size(), 1u);
  EXPECT_EQ(none.debug_strings[0].find(' '), std::string::npos) << none.debug_strings[0];
  EXPECT_NE(none.debug_strings[0].find("eng_args.exe"), std::string::npos);

  ASSERT_EQ(LaunchTarget("eng_args.exe", "one \"two three\"", &t, &pid), 0);
  Seen some;
  EngineRun(t);
  DriveToEnd(t, some);
  ASSERT_EQ(some.debug_strings.size(), 1u);
  std::string path = TargetPath("eng_args.exe");
  for (char &c : path)
    if (c == '/') c = '\\';
  EXPECT_EQ(some.debug_strings[0], "\"" + path + "\" one \"two three\"");
}

static std::vector<std::string> EnvLines(const LaunchDescription &extra) {
  Target *t = nullptr;
  u32 pid = 0;
  EXPECT_EQ(LaunchTarget("eng_target.exe", "env", &t, &pid, &extra), 0);
  if (!t) return {};
  Seen seen;
  EngineRun(t);
  DriveToEnd(t, seen);
  return seen.debug_strings;
}

static int IndexOf(const std::vector<std::string> &lines, const char *line) {
  for (size_t i = 0; i < lines.size(); i++)
    if (lines[i] == line) return (int)i;
  return -1;
}

TEST(EngineLaunch, EnvironmentWithAndWithoutInheritFromParent) {
  SetEnvironmentVariableW(L"KTRN_PARENT_ONLY", L"yes");
  SetEnvironmentVariableW(L"KTRN_DUP", L"parent");
  char text[] = "KTRN_A=1\nNO_EQUALS_SIGN\nKTRN_EMPTY=\nKTRN_DUP=child\r\nKTRN_B=x=y\n";
  EnvironmentPair pairs[8];
  u32 count = LaunchSplitEnvironment(text, pairs, 8);
  ASSERT_EQ(count, 3u);
  EXPECT_STREQ(pairs[0].name, "KTRN_A");
  EXPECT_STREQ(pairs[1].value, "child");
  EXPECT_STREQ(pairs[2].name, "KTRN_B");
  EXPECT_STREQ(pairs[2].value, "x=y");

  LaunchDescription extra = {};
  extra.environment = pairs;
  extra.environment_count = count;
  std::vector<std::string> own = EnvLines(extra);
  EXPECT_EQ(own, (std::vector<std::string>{"env KTRN_A=1\n", "env KTRN_DUP=child\n", "env KTRN_B=x=y\n"}));

  extra.inherit_from_parent = 1;
  std::vector<std::string> inherited = EnvLines(extra);
  EXPECT_GE(IndexOf(inherited, "env KTRN_PARENT_ONLY=yes\n"), 0);
  int parent_dup = IndexOf(inherited, "env KTRN_DUP=parent\n"), child_dup = IndexOf(inherited, "env KTRN_DUP=child\n");
  EXPECT_GE(parent_dup, 0);  // duplicates are kept, the inherited one first
  EXPECT_GT(child_dup, parent_dup);
  EXPECT_GE(IndexOf(inherited, "env KTRN_A=1\n"), 0);

  LaunchDescription plain = {};  // no variables: the debugger's own environment
  std::vector<std::string> plain_lines = EnvLines(plain);
  EXPECT_GE(IndexOf(plain_lines, "env KTRN_PARENT_ONLY=yes\n"), 0);
  EXPECT_EQ(IndexOf(plain_lines, "env KTRN_A=1\n"), -1);
  SetEnvironmentVariableW(L"KTRN_PARENT_ONLY", nullptr);
  SetEnvironmentVariableW(L"KTRN_DUP", nullptr);
}
