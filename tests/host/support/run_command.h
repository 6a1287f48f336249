// Running the command-line tools from tests: a shell command's whole output and exit status.
#pragma once
#include <string>
#include <vector>

struct CommandResult {
  int exit_status = -1;  // -1: killed by a signal or could not run
  std::string output;    // standard output only, unless the command redirects
};
CommandResult RunCommand(const std::string &command);
// The text as one single-quoted shell word.
std::string Quote(const std::string &text);
std::vector<std::string> SplitLines(const std::string &text);
