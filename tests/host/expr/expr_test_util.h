// Shared helpers of the expression tests: the golden cases, and parsing a text to print its tree
// (or "parse error"), checking that every node is back in the pool afterwards.
#pragma once
#include "expr/expr_parser.h"
#include "expr/expr_print.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "test_files.h"

// The cases of tests/host/expr/golden/NAME: each line a text, a tab, and what is expected.
struct GoldenCase {
  int line;
  std::string text, expected;
};
inline std::vector<GoldenCase> ExprGoldenCases(const std::string &name) {
  std::vector<GoldenCase> cases;
  for (const GoldenLine &g : ReadGolden("tests/host/expr/golden/" + name))
    cases.push_back({g.number, g.fields[0], g.fields.size() > 1 ? g.fields[1] : "(no tab)"});
  EXPECT_GE(cases.size(), 50u) << name;
  return cases;
}

struct ParsedText {
  std::string printed;  // the S-expression line, or "parse error"
  u32 failure;          // ExprParseFailure
};

inline ParsedText ParseAndPrint(const std::string &text) {
  std::unique_ptr<ExprPool> pool(new ExprPool);
  InitExprPool(pool.get());
  ExprParseResult result;
  ParsedText out;
  if (ExprParse(pool.get(), text.c_str(), &result)) {
    std::string line(PrintExpr(nullptr, 0, result.tree, result.format) + 1, '\0');
    PrintExpr(&line[0], line.size(), result.tree, result.format);
    line.pop_back();
    out.printed = line;
    ExprFreeTree(pool.get(), result.tree);
    ExprFreeTree(pool.get(), result.format);
  } else {
    EXPECT_EQ(result.tree, nullptr) << text;
    EXPECT_EQ(result.format, nullptr) << text;
    out.printed = "parse error";
  }
  out.failure = result.failure;
  EXPECT_EQ(pool->free_count, (u32)kExprPoolCapacity) << "nodes left out of the pool by: " << text;
  return out;
}
