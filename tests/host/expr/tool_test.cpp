// The real ktrn-expr binary: its line of output and its exit status.
#include <gtest/gtest.h>

#include <string>

#include "run_command.h"

struct ToolRun {
  std::string output;
  int status;
};

static ToolRun RunTool(const std::string &arguments) {
  CommandResult r = RunCommand(std::string(KTRN_EXPR_TOOL) + " " + arguments + " 2>/dev/null");
  return {r.output, r.exit_status};
}

TEST(KtrnExprTool, PrintsTreesAndParseErrors) {
  struct Case {
    const char *text;
    const char *output;
    int status;
  } cases[] = {
      {"a[i].b + 1", "(+ (. (index (id a) (id i)) b) (int 0x74 1))\n", 0},
      {"(unsigned int *)p, db /c16 /n256",
       "(cast \"unsigned int *\" (id p)) (format db 0x1000 cols=16 count=256 -)\n", 0},
      {"{*}p, 'ab'", "(count 999999 (id p)) (format - 0x0 cols=0 count=0 (int 0x74 24930))\n", 0},
      {"1.1f + 019", "(+ (float 1.1000000238418579) (double 19))\n", 0},
      {"a = 1", "parse error\n", 1},
      {"", "parse error\n", 1},
  };
  for (const Case &c : cases) {
    ToolRun run = RunTool("parse " + Quote(c.text));
    EXPECT_EQ(run.output, c.output) << c.text;
    EXPECT_EQ(run.status, c.status) << c.text;
  }
  ToolRun deep = RunTool("parse " + std::string(5000, '-') + "a");
  EXPECT_EQ(deep.output, "parse error\n");
  EXPECT_EQ(deep.status, 1);
}

TEST(KtrnExprTool, BadUsage) {
  const char *arguments[] = {"", "parse", "eval x", "parse a b"};
  for (const char *args : arguments) {
    ToolRun run = RunTool(args);
    EXPECT_EQ(run.status, 2) << args;
    EXPECT_EQ(run.output, "") << args;
  }
}
