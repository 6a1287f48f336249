// Golden transcripts: every NAME.script of this folder is run by ktrn-cli against the engine's test
// programs, and its output (both streams, then a line "exit code N") must match NAME.expected.
//
// A script's first line is "# ktrn-cli: ARGUMENTS": what follows --script on ktrn-cli's command line.
// Replaced in the arguments, the script and the expected text before anything runs:
//   {targets}        the folder of the test programs
//   {source}         eng_target.cpp, as the test programs' PDBs name it
//   {line:MARKER}    the line of eng_target.cpp whose comment holds MARKER
//   {step_source}    eng_step.c (the stepping program), as its PDB names it
//   {step:MARKER}    the line of eng_step.c whose comment holds MARKER
//   {values_source}  values_oracle.cpp (the evaluator's oracle program), as its PDBs name it
//   {values:MARKER}  the line of values_oracle.cpp whose comment holds MARKER
//   {pid:MODE}       (arguments only) the id of an eng_target.exe started in MODE outside the debugger,
//                    ended after the run
// In expected lines: {n} stands for decimal digits, {x} for hexadecimal digits, {*} for any text,
// and a line "..." for any number of lines. Everything else must match exactly. A transcript that
// does not match is also written to the temporary folder as NAME.actual. Values a program prints
// as its own oracle are checked against the script's evals besides (see ExpectOracleValues).
#include <windows.h>

#include <gtest/gtest.h>

#include <ctype.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

// [SECTION] Files and substitutions

static std::string ReadText(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

static std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

static int MarkerLine(const char *file, const std::string &marker) {
  std::ifstream in(std::string("Z:") + KTRN_SOURCE_DIR + "/tests/targets/" + file);
  std::string line;
  for (int n = 1; std::getline(in, line); n++)
    if (line.find("// " + marker) != std::string::npos) return n;
  return -1;
}

// A program started outside the debugger, for the scripts that attach.
struct FreeProcess {
  PROCESS_INFORMATION pi = {};
  bool Start(const std::string &mode) {
    std::string line = "\"" + std::string(KTRN_TARGETS_DIR) + "/eng_target.exe\" " + mode;
    for (char &c : line)
      if (c == '/') c = '\\';
    std::wstring wide(line.begin(), line.end());
    STARTUPINFOW si = {sizeof si};
    if (!CreateProcessW(nullptr, &wide[0], nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE, nullptr, nullptr, &si, &pi))
      return false;
    Sleep(500);  // let it get going
    return true;
  }
  ~FreeProcess() {
    if (!pi.hProcess) return;
    TerminateProcess(pi.hProcess, 0);
    WaitForSingleObject(pi.hProcess, 5000);
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
  }
};

// Replaces every {KEY:VALUE} or {KEY} that substitute answers; other braces stay (the wildcards).
template <typename Substitute>
static std::string Replace(const std::string &text, Substitute substitute) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    size_t close = text[i] == '{' ? text.find('}', i) : std::string::npos;
    std::string value;
    if (close != std::string::npos && substitute(text.substr(i + 1, close - i - 1), &value)) {
      out += value;
      i = close + 1;
    } else {
      out += text[i++];
    }
  }
  return out;
}

static bool CommonSubstitution(const std::string &key, std::string *value) {
  if (key == "targets") {
    *value = KTRN_TARGETS_DIR;
    return true;
  }
  if (key == "source") {  // eng_target.cpp as its PDB names it
    *value = KTRN_SOURCE_DIR "/tests/targets/engine/eng_target.cpp";
    return true;
  }
  if (key == "step_source") {
    *value = KTRN_SOURCE_DIR "/tests/targets/engine/eng_step.c";
    return true;
  }
  if (key.compare(0, 5, "line:") == 0) {
    *value = std::to_string(MarkerLine("engine/eng_target.cpp", key.substr(5)));
    return true;
  }
  if (key == "values_source") {
    *value = KTRN_SOURCE_DIR "/tests/targets/values/values_oracle.cpp";
    return true;
  }
  if (key.compare(0, 7, "values:") == 0) {
    *value = std::to_string(MarkerLine("values/values_oracle.cpp", key.substr(7)));
    return true;
  }
  if (key.compare(0, 5, "step:") == 0) {
    *value = std::to_string(MarkerLine("engine/eng_step.c", key.substr(5)));
    return true;
  }
  return false;
}

// [SECTION] Matching

static bool IsHex(char c) { return isxdigit((unsigned char)c) != 0; }
static bool IsDecimal(char c) { return isdigit((unsigned char)c) != 0; }

static bool LineMatches(const char *pattern, const char *text) {
  if (!*pattern) return !*text;
  if (!strncmp(pattern, "{*}", 3)) {
    for (const char *t = text;; t++) {
      if (LineMatches(pattern + 3, t)) return true;
      if (!*t) return false;
    }
  }
  bool hex = !strncmp(pattern, "{x}", 3), decimal = !strncmp(pattern, "{n}", 3);
  if (hex || decimal) {
    const char *t = text;
    while (*t && (hex ? IsHex(*t) : IsDecimal(*t))) t++;
    for (; t > text; t--)  // one digit at least
      if (LineMatches(pattern + 3, t)) return true;
    return false;
  }
  return *pattern == *text && LineMatches(pattern + 1, text + 1);
}

static bool LinesMatch(const std::vector<std::string> &expected, size_t e, const std::vector<std::string> &actual,
                       size_t a) {
  if (e == expected.size()) return a == actual.size();
  if (expected[e] == "...") {
    for (size_t k = a; k <= actual.size(); k++)
      if (LinesMatch(expected, e + 1, actual, k)) return true;
    return false;
  }
  return a < actual.size() && LineMatches(expected[e].c_str(), actual[a].c_str()) &&
         LinesMatch(expected, e + 1, actual, a + 1);
}

// [SECTION] Values the program printed

// A program may print lines "ORACLE SCOPE EXPR | VALUE": in every scope the script enters (with a
// line "scope SCOPE", an echo of the script's) each such EXPR must have been evaluated, and show VALUE.
static void ExpectOracleValues(const std::vector<std::string> &lines) {
  std::map<std::string, std::string> printed, shown;  // "SCOPE EXPR" -> value text
  std::set<std::string> entered;
  std::string scope, evaluated;
  for (const std::string &line : lines) {
    size_t bar = line.find(" | ");
    if (line.compare(0, 7, "ORACLE ") == 0 && bar != std::string::npos) {
      printed[line.substr(7, bar - 7)] = line.substr(bar + 3);
    } else if (line.compare(0, 6, "scope ") == 0) {
      scope = line.substr(6);
      entered.insert(scope);
    } else if (line.compare(0, 7, "> eval ") == 0) {
      evaluated = line.substr(7);
    } else if (!evaluated.empty() && line.compare(0, evaluated.size() + 3, evaluated + " | ") == 0) {
      std::string row = line.substr(evaluated.size() + 3);
      shown[scope + " " + evaluated] = row.substr(0, row.rfind(" | "));
      evaluated.clear();
    }
  }
  for (const auto &p : printed) {
    if (!entered.count(p.first.substr(0, p.first.find(' ')))) continue;
    auto found = shown.find(p.first);
    if (found == shown.end())
      ADD_FAILURE() << "no eval of " << p.first;
    else
      EXPECT_EQ(found->second, p.second) << p.first;
  }
}

// [SECTION] Running ktrn-cli

// Output (both streams) and exit code, through the command interpreter, which takes the outer
// quotes off a command line that begins with one.
static std::string RunCli(const std::string &arguments, DWORD *exit_code) {
  std::string line = "\"\"" + std::string(KTRN_BIN_DIR) + "/ktrn-cli.exe\" " + arguments + " 2>&1\"";
  FILE *pipe = _popen(line.c_str(), "rb");
  std::string output;
  char buffer[4096];
  for (size_t got; pipe && (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, got);
  *exit_code = pipe ? (DWORD)_pclose(pipe) : 0xFFFFFFFF;
  return output;
}

static std::vector<std::string> ScriptNames() {
  std::vector<std::string> names;
  WIN32_FIND_DATAA found;
  HANDLE find = FindFirstFileA((std::string(KTRN_SCRIPTS_DIR) + "/*.script").c_str(), &found);
  if (find == INVALID_HANDLE_VALUE) return names;
  do {
    std::string name = found.cFileName;
    names.push_back(name.substr(0, name.size() - 7));
  } while (FindNextFileA(find, &found));
  FindClose(find);
  std::sort(names.begin(), names.end());
  return names;
}

class CliScript : public testing::TestWithParam<std::string> {};

TEST_P(CliScript, TranscriptMatchesGoldenFile) {
  const std::string base = std::string(KTRN_SCRIPTS_DIR) + "/" + GetParam();
  std::vector<std::string> script = Lines(ReadText(base + ".script"));
  const std::string header = "# ktrn-cli: ";
  ASSERT_FALSE(script.empty());
  ASSERT_EQ(script[0].compare(0, header.size(), header), 0) << "the first line names ktrn-cli's arguments";

  std::vector<FreeProcess> programs(4);
  size_t started = 0;
  bool start_failed = false;
  std::string arguments = Replace(script[0].substr(header.size()), [&](const std::string &key, std::string *value) {
    if (key.compare(0, 4, "pid:") != 0) return CommonSubstitution(key, value);
    if (started == programs.size() || !programs[started].Start(key.substr(4))) start_failed = true;
    *value = start_failed ? "0" : std::to_string(programs[started++].pi.dwProcessId);
    return true;
  });
  ASSERT_FALSE(start_failed) << arguments;

  std::string script_path = testing::TempDir() + GetParam() + ".script";
  {
    std::ofstream out(script_path, std::ios::binary);
    for (const std::string &line : script) out << Replace(line, CommonSubstitution) << "\n";
  }
  DWORD exit_code = 0;
  std::string output = RunCli("--script \"" + script_path + "\" " + arguments, &exit_code);
  output += "exit code " + std::to_string(exit_code) + "\n";
  std::string expected = Replace(ReadText(base + ".expected"), CommonSubstitution);
  bool match = LinesMatch(Lines(expected), 0, Lines(output), 0);
  if (!match) {
    std::ofstream(testing::TempDir() + GetParam() + ".actual", std::ios::binary) << output;
  }
  ExpectOracleValues(Lines(output));
  EXPECT_TRUE(match) << "ktrn-cli --script " << GetParam() << ".script " << arguments << "\n--- expected\n"
                     << expected << "--- actual\n"
                     << output;
}

INSTANTIATE_TEST_SUITE_P(Golden, CliScript, testing::ValuesIn(ScriptNames()),
                         [](const testing::TestParamInfo<std::string> &info) { return info.param; });

// Each script found above is a case; a folder read wrongly would otherwise pass with none.
TEST(CliScripts, FolderHasScripts) { EXPECT_GE(ScriptNames().size(), 4u) << KTRN_SCRIPTS_DIR; }
