// The real ktrn-expr binary: its line of output and its exit status, for texts that parse, texts
// that do not, and bad usage.
#include <gtest/gtest.h>

#include <string>

#include "run_command.h"

TEST(KtrnExprTool, PrintsTreesParseErrorsAndRefusesBadUsage) {
  struct Case {
    std::string arguments;
    const char *output;
    int status;
  } cases[] = {
      {"parse " + Quote("a[i].b + 1"), "(+ (. (index (id a) (id i)) b) (int 0x74 1))\n", 0},
      {"parse " + Quote("(unsigned int *)p, db /c16 /n256"),
       "(cast \"unsigned int *\" (id p)) (format db 0x1000 cols=16 count=256 -)\n", 0},
      {"parse " + Quote("{*}p, 'ab'"), "(count 999999 (id p)) (format - 0x0 cols=0 count=0 (int 0x74 24930))\n", 0},
      {"parse " + Quote("1.1f + 019"), "(+ (float 1.1000000238418579) (double 19))\n", 0},
      {"parse " + Quote("a = 1"), "parse error\n", 1},
      {"parse " + Quote(""), "parse error\n", 1},
      {"parse " + std::string(5000, '-') + "a", "parse error\n", 1},
      {"", "", 2},
      {"parse", "", 2},
      {"eval x", "", 2},
      {"parse a b", "", 2},
  };
  for (const Case &c : cases) {
    CommandResult run = RunCommand(std::string(KTRN_EXPR_TOOL) + " " + c.arguments + " 2>/dev/null");
    EXPECT_EQ(run.output, c.output) << c.arguments.substr(0, 60);
    EXPECT_EQ(run.exit_status, c.status) << c.arguments.substr(0, 60);
  }
}
