// The start-up command line, the command buffer and the command words.
#include <gtest/gtest.h>
#include <stdarg.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "app/command_buffer.h"
#include "app/command_line.h"
#include "app/command_words.h"
#include "test_util.h"

namespace {

std::string Cwd() {
  char cwd[1024];
  return getcwd(cwd, sizeof(cwd)) ? cwd : "";
}

// [SECTION] Start-up arguments

struct JoinCase {
  std::vector<const char *> args;
  const char *joined;
};

TEST(StartupArguments, ProgramArgumentsAreJoinedWithTheQuotingRules) {
  const JoinCase cases[] = {
      {{}, ""},
      {{"a", "b"}, "a b"},
      {{"two words"}, "\"two words\""},
      {{"say\"hi\""}, "say\\\"hi\\\""},            // quotes, no space, none in a row: not wrapped
      {{"a\"\"b"}, "\"a\\\"\\\"b\""},              // two in a row: wrapped
      {{""}, "\"\""},
      {{"x", "", "y"}, "x \"\" y"},
      {{"say \"hi\""}, "\"say \\\"hi\\\"\""},
      {{"C:\\dir\\"}, "C:\\dir\\"},                // backslashes stay as they are
      {{"tab\there"}, "tab\there"},
  };
  for (const JoinCase &c : cases) {
    char *joined = JoinProgramArguments((int)c.args.size(), c.args.data());
    ASSERT_NE(joined, nullptr);
    EXPECT_STREQ(joined, c.joined);
    free(joined);
  }
}

TEST(StartupArguments, ProgramFolderKeepsARootSeparator) {
  const char *cases[][2] = {
      {"C:\\dir\\prog.exe", "C:\\dir"}, {"C:\\prog.exe", "C:\\"}, {"/usr/bin/prog", "/usr/bin"},
      {"/prog", "/"},                   {"prog.exe", ""},         {"a/b\\c.exe", "a/b"},
  };
  for (auto &c : cases) {
    char folder[64];
    ProgramFolder(c[0], folder, sizeof(folder));
    EXPECT_STREQ(folder, c[1]) << c[0];
  }
}

struct Parsed {
  StartupArguments a;
  Parsed(std::vector<const char *> argv) { StartupArgumentsParse(&a, (int)argv.size(), argv.data()); }
  ~Parsed() { StartupArgumentsFree(&a); }
};

// The file is tried as given, then with ".exe"; a file that begins with "KTRN" is a session, any
// other (fewer than four bytes too) a program. The switches are exactly two characters and come
// before the file; after it everything belongs to the program.
TEST(StartupArguments, SwitchesAndTheFile) {
  TempDir dir;
  dir.Write("prog.exe", std::string("MZ\x90\0", 4));
  dir.Write("work.ktrn", std::string("KTRN\0\0\0\0", 8));
  dir.Write("tiny", "KT");
  dir.Write("both", "MZ");
  dir.Write("both.exe", "KTRN");
  struct {
    std::vector<std::string> args;  // after the program name; "@" stands for the folder
    const char *read;               // -g, -q, kind, path in the folder, arguments
  } cases[] = {
      {{"-g", "-q", "@/prog", "two words", "x"}, "go quit program prog.exe \"two words\" x"},
      {{"@/work.ktrn"}, "- - session work.ktrn (none)"},
      {{"@/tiny"}, "- - program tiny "},
      {{"@/both"}, "- - program both "},  // "both" opens, so "both.exe" is never looked at
      {{"-q", "@/nothing", "arg"}, "- quit nothing  (none)"},
      {{"-g", "-gq", "@/prog.exe"}, "go - nothing  (none)"},  // "-gq" ends the switches and is the file
      {{"-x", "@/prog.exe"}, "- - nothing  (none)"},
      {{"@/prog.exe", "-g"}, "- - program prog.exe -g"},
      {{}, "- - nothing  (none)"},
      {{"-g", "-q"}, "go quit nothing  (none)"},
  };
  for (auto &c : cases) {
    std::vector<std::string> args = {"kestrune.exe"};
    for (std::string a : c.args) args.push_back(a[0] == '@' ? dir.path + a.substr(1) : a);
    std::vector<const char *> argv;
    for (const std::string &a : args) argv.push_back(a.c_str());
    Parsed p(argv);
    std::string path = p.a.path;
    if (path.rfind(dir.path + "/", 0) == 0) path = path.substr(dir.path.size() + 1);
    const char *kinds[] = {"nothing", "session", "program"};
    EXPECT_EQ(Format("%s %s %s %s %s", p.a.go ? "go" : "-", p.a.quit_on_exit ? "quit" : "-", kinds[p.a.kind], path.c_str(),
                     p.a.arguments ? p.a.arguments : "(none)"),
              c.read)
        << args.back();
  }
}

TEST(StartupArguments, RelativeProgramBecomesTheCurrentTargetCommand) {
  TempDir dir;
  dir.Write("game.exe", "MZ");
  std::string cwd = Cwd();
  ASSERT_EQ(chdir(dir.path.c_str()), 0);
  Parsed p({"kestrune.exe", "game", "--level", "3"});
  ASSERT_EQ(chdir(cwd.c_str()), 0);
  ASSERT_EQ(p.a.kind, (u32)kStartupProgram);
  EXPECT_EQ(std::string(p.a.path), dir.path + "/game.exe");
  ScopedSession s;
  ASSERT_EQ(StartupApplyProgram(&p.a, s.get()), kSessionOk);
  TargetCommand *t = SessionCurrentTarget(s.get());
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(std::string(t->command), dir.path + "/game.exe");
  EXPECT_EQ(std::string(t->working_directory), dir.path);
  EXPECT_STREQ(t->arguments, "--level 3");
  // A second program replaces the current command instead of adding one.
  Parsed q({"kestrune.exe", (dir.path + "/game.exe").c_str()});
  ASSERT_EQ(StartupApplyProgram(&q.a, s.get()), kSessionOk);
  EXPECT_EQ(s->target_count, 1u);
  EXPECT_EQ(SessionCurrentTarget(s.get())->arguments, nullptr);
}

// [SECTION] Command buffer

Bytes Encode(std::vector<const char *> args) {
  u16 size = CommandBufferSize((int)args.size(), args.data());
  Bytes buffer(size);
  CommandBufferEncode(buffer.data(), buffer.size(), (int)args.size(), args.data());
  return buffer;
}

u16 Word(const Bytes &b, size_t at) { return (u16)(b[at] | b[at + 1] << 8); }

// The arguments a buffer decodes to, each followed by "|", or the decoder's result code.
std::string Decoded(const Bytes &buffer, size_t size) {
  static ReceivedCommand received;
  int result = CommandBufferDecode(buffer.empty() ? nullptr : buffer.data(), size, &received);
  if (result != kCommandBufferOk) return "result " + std::to_string(result);
  std::string text = std::string(received.argv[0]) == "kestrune.exe" ? "" : "(no program name) ";
  for (int i = 1; i < received.argc; i++) text += std::string(received.argv[i]) + "|";
  return text;
}
std::string Decoded(const Bytes &buffer) { return Decoded(buffer, buffer.size()); }

TEST(CommandBuffer, OpenFileWithPathAndLineHasTheDocumentedLayout) {
  // Magic, argument count, eight 16-bit offsets into the string area, its length, the strings.
  const std::string path = "C:\\src\\main.cpp";
  Bytes b = Encode({"open-file", path.c_str(), "42"});
  uint32_t area = 10 + (uint32_t)path.size() + 1 + 3;
  EXPECT_EQ(b, LeBytes().raw("10tk").u8(3).u16(0).u16(10).u16(10 + path.size() + 1).zero32(2).u16(0).u16(area)
                   .name("open-file").name(path).name("42").b);
  EXPECT_EQ(Decoded(b), "open-file|" + path + "|42|");
}

TEST(CommandBuffer, ZeroToSevenArgumentsTravelAndEightAreIgnored) {
  std::vector<std::string> texts = {"stop-debugging", "", "b c", "\xC3\xA9", "4", "five", "6", "7", "8", "9"};
  std::string expected;
  for (size_t n = 0; n <= texts.size(); n++) {
    std::vector<const char *> args;
    for (size_t i = 0; i < n; i++) args.push_back(texts[i].c_str());
    Bytes b = Encode(args);
    EXPECT_EQ(b[4], n);
    EXPECT_EQ(Decoded(b), n < 8 ? expected : "result " + std::to_string(kCommandBufferTooManyArguments)) << n;
    if (n < texts.size()) expected += texts[n] + "|";
  }
}

TEST(CommandBuffer, HostileBuffersNeverReadOutside) {
  Bytes good = Encode({"open-file", "x.cpp", "7"}), bad = good, odd = good;
  bad[0] = '0';
  EXPECT_EQ(Decoded(good, 22), "result " + std::to_string(kCommandBufferTooShort));
  EXPECT_EQ(Decoded({}, 0), "result " + std::to_string(kCommandBufferTooShort));
  EXPECT_EQ(Decoded(bad), "result " + std::to_string(kCommandBufferBadMagic));
  EXPECT_EQ(Decoded(good, good.size() - 1), "result " + std::to_string(kCommandBufferTruncated));
  // Offsets are taken as given: one past the area is empty, one inside a string starts there,
  // and a string without its zero ends with the area.
  odd[5] = 0xFF, odd[6] = 0xFF;  // argument 0 far away
  odd[7] = 2, odd[8] = 0;        // argument 1 inside "open-file"
  odd.back() = 'Z';              // "7" loses its terminator
  EXPECT_EQ(Decoded(odd), "|en-file|7Z|");
  // A zero-length area with seven arguments: every one is empty.
  Bytes header = LeBytes().raw("10tk").u8(7).u16(0).u16(3).u16(6).u16(9).u16(12).u16(15).u16(18).u16(0).u16(0);
  EXPECT_EQ(Decoded(header), "|||||||");
}

TEST(CommandBuffer, SenderSizeWrapsAtSixteenBitsWithoutWritingOutside) {
  std::string big(40000, 'a');
  std::vector<const char *> args = {"open-file", big.c_str(), big.c_str()};
  u16 size = CommandBufferSize(3, args.data());
  EXPECT_EQ(size, (u16)(23 + 10 + 40001 + 40001));
  Bytes b = Encode(args);  // the buffer is the wrapped size; the encoder stops at its end
  EXPECT_EQ(b.size(), size);
  // Nine or more arguments: slot 8 lands on the length field, as the sender always did.
  std::vector<const char *> nine = {"a", "b", "c", "d", "e", "f", "g", "h", "i"};
  Bytes n = Encode(nine);
  EXPECT_EQ(Word(n, 21), 16);  // argument 8's offset, not the length 18
}

// [SECTION] Command words

// Each action called appends one line to the vector of strings that is the user pointer.
void Log(void *user, const char *format, ...) __attribute__((format(printf, 2, 3)));
void Log(void *user, const char *format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  ((std::vector<std::string> *)user)->push_back(line);
}

CommandActions RecordingActions(std::vector<std::string> *calls) {
  CommandActions a = {};
  a.user = calls;
  a.set_settings_folder = [](void *u, const char *f) { Log(u, "settings %s", f); };
  a.open_session = [](void *u, const char *p) { Log(u, "session %s", p); };
  a.open_file = [](void *u, const char *p, u32 l) { Log(u, "open %s %u", p, l); };
  a.close_file = [](void *u, const char *p) { Log(u, "close %s", p); };
  a.start_debugging = [](void *u, bool b) { Log(u, "%s", b ? "start break" : "start"); };
  a.stop_debugging = [](void *u) { Log(u, "stop"); };
  a.attach_to_process = [](void *u, u32 pid, bool run) { Log(u, "attach %u %s", pid, run ? "run" : "suspended"); };
  a.add_breakpoint_at_file = [](void *u, const char *p, u32 l) { Log(u, "add %s:%u", p, l); };
  a.remove_breakpoint_at_file = [](void *u, const char *p, u32 l) { Log(u, "remove %s:%u", p, l); };
  a.remove_all_breakpoints = [](void *u) { Log(u, "remove all"); };
  a.add_breakpoint_at_function = [](void *u, const char *n, const char *c) {
    Log(u, "add fn %s%s%s", n, c ? " if " : "", c ? c : "");
  };
  a.remove_breakpoint_at_function = [](void *u, const char *n) { Log(u, "remove fn %s", n); };
  a.continue_execution = [](void *u) { Log(u, "continue"); };
  a.run_to_cursor = [](void *u, const char *p, u32 l) { Log(u, "run to %s:%u", p, l); };
  return a;
}

TEST(CommandWords, EachWordWithItsArguments) {
  std::string cwd = Cwd();
  std::vector<GoldenLine> cases = ReadGolden("tests/host/app/golden/command_words.txt");
  EXPECT_GE(cases.size(), 30u);
  for (const GoldenLine &c : cases) {
    ASSERT_GE(c.fields.size(), 2u) << "command_words.txt:" << c.number;
    std::vector<const char *> argv = {"kestrune.exe"};
    for (size_t i = 0; i + 2 < c.fields.size(); i++) argv.push_back(c.fields[i].c_str());
    std::string label = "command_words.txt:" + std::to_string(c.number);
    std::string call = c.fields.back() == "nothing" ? "" : c.fields.back();
    std::vector<std::string> calls;
    CommandActions a = RecordingActions(&calls);
    EXPECT_EQ(CommandDispatch(&a, (int)argv.size(), argv.data()), c.fields[c.fields.size() - 2] == "taken") << label;
    if (call.find('@') != std::string::npos) call.replace(call.find('@'), 1, cwd);
    EXPECT_EQ(calls, call.empty() ? std::vector<std::string>{} : std::vector<std::string>{call}) << label;
    // A word that acts is one the running instance also takes from a second process.
    if (!call.empty()) EXPECT_TRUE(CommandIsChannelWord(argv[1])) << label;
  }
}

TEST(CommandWords, SettingsFolderMustExistAndLosesOneTrailingSeparator) {
  TempDir dir;
  std::vector<std::string> calls;
  CommandActions a = RecordingActions(&calls);
  std::string with_slash = dir.path + "/";
  const char *ok[] = {"kestrune.exe", "--settings", with_slash.c_str()};
  EXPECT_FALSE(CommandDispatch(&a, 3, ok));  // acts, but reports not-taken
  EXPECT_EQ(calls, std::vector<std::string>{"settings " + dir.path});
  calls.clear();
  std::string missing = dir.path + "/missing";
  const char *bad[] = {"kestrune.exe", "--settings", missing.c_str()};
  EXPECT_FALSE(CommandDispatch(&a, 3, bad));
  EXPECT_TRUE(calls.empty());
  for (const char *w : {"--settings", "-g", "", "open", "open-file "}) EXPECT_FALSE(CommandIsChannelWord(w)) << w;
  EXPECT_FALSE(CommandIsChannelWord(nullptr));
}

TEST(CommandWords, NumbersAreDecimalAndNonNumbersZero) {
  const std::pair<const char *, s32> cases[] = {{"42", 42}, {"  7", 7}, {"-5", -5}, {"+9", 9}, {"abc", 0},
                                                {"", 0},    {"0x10", 0}, {"12abc", 12}, {"99999999999", 0x7FFFFFFF},
                                                {"-99999999999", (s32)0x80000000}};
  for (auto &c : cases) EXPECT_EQ(CommandReadNumber(c.first), c.second) << c.first;
  EXPECT_EQ(CommandReadNumber(nullptr), 0);
}

}  // namespace
