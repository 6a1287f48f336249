#include "run_command.h"

#include "test_files.h"

#include <stdio.h>
#include <sys/wait.h>

CommandResult RunCommand(const std::string &command) {
  CommandResult result;
  FILE *pipe = popen(command.c_str(), "r");
  if (!pipe) return result;
  char buffer[65536];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0) result.output.append(buffer, got);
  int status = pclose(pipe);
  result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::string Quote(const std::string &text) {
  std::string q = "'";
  for (char c : text) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::vector<std::string> SplitLines(const std::string &text) {
  std::vector<std::string> lines = Split(text, '\n');
  if (lines.back().empty()) lines.pop_back();  // a last line's line feed starts no line
  return lines;
}
