// The engine against real programs under Wine: launch, module and thread events, debug strings,
// launch and attach failures, environment, working directory and arguments.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <fstream>

#include "tests/win/engine_harness.h"

// The executable is the first module; the plugin loads with its PDB and unloads before "plugin
// freed"; its lines show its base and extent end (a page boundary) and its path; system DLLs
// without PDBs load with an empty suffix.
TEST(EngineLaunch, ModulesLoadAndUnloadWithTheirSymbols) {
  Seen seen = RunToEnd("dll");
  EXPECT_EQ(seen.exit_code, 21u);
  EXPECT_EQ(seen.events.back().event.kind, (u32)kEventProcessExited);
  ASSERT_NE(seen.First(kEventModuleLoaded), nullptr);
  EXPECT_EQ(seen.First(kEventModuleLoaded)->module_name, "eng_target.exe");
  int loaded = -1, unloaded = -1, hello = -1, freed = -1, ntdll = -1;
  for (int i = 0; i < (int)seen.events.size(); i++) {
    const SeenEvent &e = seen.events[i];
    if (e.event.kind == kEventModuleLoaded && e.module_name == "eng_plugin.dll") loaded = i;
    if (e.event.kind == kEventModuleLoaded && e.module_name == "ntdll.dll") ntdll = i;
    if (e.event.kind == kEventModuleUnloaded && e.module_name == "eng_plugin.dll") unloaded = i;
    if (e.event.kind == kEventText && e.text == "plugin says hello\n") hello = i;
    if (e.event.kind == kEventText && e.text == "plugin freed\n") freed = i;
  }
  ASSERT_GE(loaded, 0);
  ASSERT_GE(ntdll, 0);
  EXPECT_LT(loaded, hello);
  EXPECT_LT(hello, unloaded);
  EXPECT_LT(unloaded, freed);
  const EngineEvent &load = seen.events[loaded].event;
  EXPECT_EQ(load.module.status, (u32)kSymbolsLoaded);
  u64 base = load.module.base, end = base + load.module.size;
  EXPECT_EQ(end % 4096, 0u);
  char extent[64];
  snprintf(extent, sizeof extent, "%08x`%08x %08x`%08x   ", (u32)(base >> 32), (u32)base, (u32)(end >> 32), (u32)end);
  std::string path = Backslashed(TargetPath("eng_plugin.dll"));
  EXPECT_EQ(seen.events[loaded].text, "Module loaded: " + std::string(extent) + path + " (symbols loaded)\n");
  EXPECT_EQ(seen.events[unloaded].text, "Module unloaded: " + std::string(extent) + path + "\n");
  const std::string &system = seen.events[ntdll].text;
  EXPECT_EQ(system.substr(system.size() - 11), "ntdll.dll \n");
}

// Every thread that starts is announced for the threads list (kind 2), the main thread first,
// before any module; each one that exits was announced before, and exits with its code.
TEST(EngineLaunch, ThreadsExitWithTheirCodesAndTheProcessWithItsOwn) {
  Seen seen = RunToEnd("threads");
  std::vector<u32> codes;
  std::vector<u64> started;
  for (const SeenEvent &e : seen.events) {
    if (e.event.kind == kEventListUpdate) {
      EXPECT_EQ(e.event.list_update.selector, (u32)kListThreads);
      EXPECT_NE(e.event.list_update.words[1], 0u);
      started.push_back(e.event.list_update.words[0]);
    }
    if (e.event.kind != kEventThreadExited) continue;
    const auto &exit = e.event.thread_exit;
    codes.push_back(exit.exit_code);
    EXPECT_NE(std::find(started.begin(), started.end(), (u64)exit.thread_id), started.end());
    char expected[128];
    snprintf(expected, sizeof expected, "Thread exited: handle 0x%x with exit code %u (0x%x)\n", (u32)exit.handle,
             exit.exit_code, exit.exit_code);
    EXPECT_EQ(e.text, expected);
  }
  ASSERT_GE(codes.size(), 3u);
  EXPECT_EQ(std::vector<u32>(codes.begin(), codes.begin() + 3), (std::vector<u32>{11, 12, 13}));
  ASSERT_GE(started.size(), 4u);
  EXPECT_EQ(seen.events[0].event.kind, (u32)kEventListUpdate);
  EXPECT_EQ(seen.Count(kEventStopped), 0);
  EXPECT_EQ(seen.exit_code, 7u);
  EXPECT_EQ(seen.events.back().text, "Process exited: with exit code 7 (0x7)\n");
}

// Programs run to their end with their debug strings (both encodings arrive as UTF-8) and codes.
// The command line is the quoted path and the arguments, or the path alone without arguments. The
// working directory is the one given, else the session's default one, '/' turned into '\\'. The
// environment pairs, without "Inherit from parent", are all the program has.
TEST(EngineLaunch, ProgramsRunToTheirEndWithTheirStringsAndCodes) {
  std::string args_path = Backslashed(TargetPath("eng_args.exe")), engine = TargetPath("engine"), targets = TargetPath("");
  LaunchDescription in_engine = {}, by_default = {}, environment = {};
  in_engine.working_directory = engine.c_str();
  by_default.default_directory = targets.c_str();
  EnvironmentPair pairs[] = {{"KTRN_A", "1"}, {"KTRN_B", "x=y"}};
  environment.environment = pairs;
  environment.environment_count = 2;
  struct Case {
    const char *program, *arguments;
    const LaunchDescription *extra;
    std::vector<std::string> strings;
    u32 exit_code;
  } cases[] = {
      {"eng_target.exe", "strings", nullptr, {"narrow string\n", "wide string\n", "bytes \xC3\xA9t\xC3\xA9\n"}, 0},
      {"hello_c.exe", nullptr, nullptr, {"hello from hello_c\n"}, 42},
      {"hello_c.exe", "any", nullptr, {"hello from hello_c\n"}, 0},
      {"cpp_basics.exe", nullptr, nullptr, {"worker done\n", "area=24.57 sum=10 counter=1000\n"}, 0},  // a thread joined
      {"eng_args.exe", nullptr, nullptr, {args_path}, 0},
      {"eng_args.exe", "one \"two three\"", nullptr, {"\"" + args_path + "\" one \"two three\""}, 0},
      {"eng_target.exe", "cwd", &in_engine, {"cwd " + Backslashed(engine) + "\n"}, 0},
      {"eng_target.exe", "cwd", &by_default, {"cwd " + Backslashed(targets.substr(0, targets.size() - 1)) + "\n"}, 0},
      {"eng_target.exe", "env", &environment, {"env KTRN_A=1\n", "env KTRN_B=x=y\n"}, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.program) + " " + (c.arguments ? c.arguments : "(none)"));
    Seen seen = RunToEnd(c.arguments, nullptr, c.program, c.extra);
    std::vector<std::string> &strings = seen.debug_strings;
    // Without arguments the command line is the name alone, quoted or not as the system chooses.
    if (!c.arguments && strings.size() == 1 && strings[0].size() > 2 && strings[0][0] == '"' && strings[0].back() == '"')
      strings[0] = strings[0].substr(1, strings[0].size() - 2);
    EXPECT_EQ(strings, c.strings);
    EXPECT_EQ(seen.exit_code, c.exit_code);
  }
}

TEST(EngineLaunch, IsHeldUntilTheFirstRunAndRefusesBreakWhileHeld) {
  Target *t = Launch("strings", false);
  ASSERT_NE(t, nullptr);
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

// Launches and attaches that fail, each with its result; operations without a target.
TEST(EngineLaunch, FailuresToStartGiveTheirResults) {
  // A file that is no image: the system refuses to create the process, for a reason of its own.
  std::string garbage = testing::TempDir() + "ktrn_not_an_image.exe";
  ASSERT_TRUE(std::ofstream(garbage, std::ios::binary) << "MZ but nothing else");
  std::string missing_directory = TargetPath("no_such_directory"), file = TargetPath("eng_target.pdb");
  struct Case {
    std::string executable;
    const char *directory;
    int result;
    const char *text;
  } cases[] = {
      {TargetPath("no_such_program.exe"), nullptr, 5, "executable not found"},
      {TargetPath("engine"), nullptr, 5, "executable not found"},  // a directory is no executable
      {TargetPath("eng_target.exe"), missing_directory.c_str(), 6, "working directory not valid"},
      {TargetPath("eng_target.exe"), file.c_str(), 6, "working directory not valid"},
      // Refused from its header, whether or not this machine could start it.
      {TargetPath("x86/eng_hello32.exe"), nullptr, 10, "32-bit processes are not supported"},
      {garbage, nullptr, 4, "unknown reason"},
      {"", nullptr, 1, "unknown reason"},
  };
  for (const Case &c : cases) {
    LaunchDescription launch = {};
    launch.executable = c.executable.c_str();
    launch.working_directory = c.directory;
    Target *t = nullptr;
    u32 pid = 0;
    EXPECT_EQ(EngineStartLaunch(&launch, nullptr, nullptr, &t, &pid), c.result) << c.executable;
    EXPECT_EQ(t, nullptr);
    EXPECT_STREQ(EngineStartResultText(c.result), c.text);
  }
  Target *t = nullptr;
  LaunchDescription no_executable = {};
  EXPECT_EQ(EngineStartLaunch(&no_executable, nullptr, nullptr, &t, nullptr), 1);
  EXPECT_EQ(EngineStartLaunch(nullptr, nullptr, nullptr, &t, nullptr), 1);
  DeleteFileA(garbage.c_str());
  EXPECT_EQ(EngineStartAttach(0x7FFFFFF0u, nullptr, nullptr, &t), 37);
  EXPECT_STREQ(EngineStartResultText(37), "attach refused by the system");
  EXPECT_EQ(t, nullptr);
  EXPECT_EQ(EngineStartAttach(0, nullptr, nullptr, &t), 1);
  EXPECT_EQ(EngineRun(nullptr), 1);
  EXPECT_EQ(EngineBreak(nullptr), 1);
}

// The environment text split into pairs; with "Inherit from parent" the debugger's own variables
// come first and a duplicate is kept; with no pairs the program inherits the debugger's environment.
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
  LaunchDescription inherit = {}, plain = {};
  inherit.environment = pairs;
  inherit.environment_count = count;
  inherit.inherit_from_parent = 1;
  std::vector<std::string> inherited = RunToEnd("env", nullptr, "eng_target.exe", &inherit).debug_strings;
  std::vector<std::string> plain_lines = RunToEnd("env", nullptr, "eng_target.exe", &plain).debug_strings;
  auto index = [](const std::vector<std::string> &lines, const char *line) {
    auto at = std::find(lines.begin(), lines.end(), line);
    return at == lines.end() ? -1 : (int)(at - lines.begin());
  };
  EXPECT_GE(index(inherited, "env KTRN_PARENT_ONLY=yes\n"), 0);
  EXPECT_GE(index(inherited, "env KTRN_DUP=parent\n"), 0);
  EXPECT_GT(index(inherited, "env KTRN_DUP=child\n"), index(inherited, "env KTRN_DUP=parent\n"));
  EXPECT_GE(index(inherited, "env KTRN_A=1\n"), 0);
  EXPECT_GE(index(plain_lines, "env KTRN_PARENT_ONLY=yes\n"), 0);
  EXPECT_EQ(index(plain_lines, "env KTRN_A=1\n"), -1);
  SetEnvironmentVariableW(L"KTRN_PARENT_ONLY", nullptr);
  SetEnvironmentVariableW(L"KTRN_DUP", nullptr);
}
