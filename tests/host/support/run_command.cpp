#include "run_command.h"

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
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}
