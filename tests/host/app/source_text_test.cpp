// The source view's text: the line table over every kind of line end, the search's case rule and
// wrap-around against a plain scan, and source paths that name one file.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "app/source_text.h"
#include "app/text_search.h"

namespace {

std::string Line(const SourceText &t, u32 i) {
  const char *b, *e;
  SourceTextLine(&t, i, &b, &e);
  return std::string(b, e);
}

TEST(SourceText, LinesEndAtLineFeedsWithOrWithoutCarriageReturns) {
  SourceText t = {};
  const char text[] = "int a;\r\n\tint bb;\n\nlast";
  ASSERT_EQ(SourceTextFromBytes(&t, text, sizeof text - 1), kSourceTextOk);
  ASSERT_EQ(t.line_count, 4u);
  EXPECT_EQ(Line(t, 0), "int a;");
  EXPECT_EQ(Line(t, 1), "\tint bb;");
  EXPECT_EQ(Line(t, 2), "");
  EXPECT_EQ(Line(t, 3), "last");
  EXPECT_EQ(Line(t, 9), "");  // past the end: empty
  EXPECT_EQ(t.longest_line, 8u);
  // The identifier under a column (what hover and Add Watch take).
  const char *b, *e;
  u32 from = 0, to = 0;
  SourceTextLine(&t, 1, &b, &e);
  EXPECT_TRUE(SourceIdentifierAt(b, e, 6, &from, &to));
  EXPECT_EQ(std::string(b + from, b + to), "bb");
  EXPECT_FALSE(SourceIdentifierAt(b, e, 7, &from, &to));  // ';'
  EXPECT_FALSE(SourceIdentifierAt(b, e, 8, &from, &to));  // past the end
  EXPECT_EQ(SourceTextLineOfOffset(&t, 0), 0u);
  EXPECT_EQ(SourceTextLineOfOffset(&t, 7), 0u);  // the line feed belongs to its line
  EXPECT_EQ(SourceTextLineOfOffset(&t, 8), 1u);
  EXPECT_EQ(SourceTextLineOfOffset(&t, (u32)sizeof text - 2), 3u);
  // A reload that fails keeps the text; an empty file is one empty line.
  EXPECT_EQ(SourceTextLoad(&t, "/nonexistent/source.c"), kSourceTextUnreadable);
  EXPECT_EQ(t.line_count, 4u);
  ASSERT_EQ(SourceTextFromBytes(&t, "", 0), kSourceTextOk);
  EXPECT_EQ(t.line_count, 1u);
  EXPECT_EQ(Line(t, 0), "");
  SourceTextFree(&t);
}

u32 Find(TextSearch *s, const std::string &text, const char *pattern, u32 cursor, bool forward = true) {
  snprintf(s->pattern, sizeof s->pattern, "%s", pattern);
  TextSearchPrepare(s);
  u32 at = 0;
  bool found = forward ? TextSearchNext(s, text.data(), (u32)text.size(), cursor, &at)
                       : TextSearchPrevious(s, text.data(), (u32)text.size(), cursor, &at);
  return found ? at : ~0u;
}

// Only a pattern of lowercase letters and spaces ignores case; the search starts after the cursor
// and wraps.
TEST(TextSearch, CaseRuleAndWrapAround) {
  TextSearch s = {};
  std::string text = "ABC1 x abc1 y ABC z";
  EXPECT_EQ(Find(&s, text, "abc", 0), 7u);
  EXPECT_EQ(Find(&s, text, "abc", 7), 14u);
  EXPECT_EQ(Find(&s, text, "abc", 14), 0u);      // from the last occurrence to the first
  EXPECT_EQ(Find(&s, text, "abc1", 8), 7u);      // the digit: case-sensitive, ABC1 is skipped
  EXPECT_EQ(Find(&s, text, "ABC", 0), 14u);
  EXPECT_EQ(Find(&s, text, "x a", 0), 5u);       // spaces keep the case rule
  EXPECT_EQ(Find(&s, text, "b", 2), 8u);         // one character, both cases
  EXPECT_EQ(Find(&s, text, "B", 2), 15u);
  EXPECT_EQ(Find(&s, text, "abc", 7, false), 0u);
  EXPECT_EQ(Find(&s, text, "abc", 0, false), 14u);  // backward wraps to the last
  EXPECT_EQ(Find(&s, text, "abcd", 0), ~0u);
  EXPECT_EQ(Find(&s, text, "", 0), ~0u);
  EXPECT_EQ(Find(&s, "ab", "abc", 0), ~0u);
}

// The skip tables never jump over a match: both directions equal a plain scan on random texts.
TEST(TextSearch, SkipsFindWhatAPlainScanFinds) {
  std::mt19937 random(7);
  const char alphabet[] = "abAB ";
  TextSearch s = {};
  for (int round = 0; round < 3000; round++) {
    std::string text, pattern;
    for (int i = random() % 60; i > 0; i--) text += alphabet[random() % 5];
    for (int i = 1 + random() % 4; i > 0; i--) pattern += alphabet[random() % 5];
    u32 cursor = text.empty() ? 0 : random() % text.size();
    bool fold = pattern.find_first_not_of("ab ") == std::string::npos;
    auto match = [&](size_t at) {
      if (at + pattern.size() > text.size()) return false;
      for (size_t i = 0; i < pattern.size(); i++)
        if ((fold ? tolower(text[at + i]) : text[at + i]) != pattern[i]) return false;
      return true;
    };
    u32 forward = ~0u, backward = ~0u;
    for (size_t k = 1; k <= text.size() + 1 && forward == ~0u; k++)
      if (match((cursor + k) % (text.size() + 1))) forward = (u32)((cursor + k) % (text.size() + 1));
    for (size_t k = 1; k <= text.size() + 1 && backward == ~0u; k++) {
      size_t at = (cursor + text.size() + 1 - k) % (text.size() + 1);
      if (match(at)) backward = (u32)at;
    }
    SCOPED_TRACE("text '" + text + "' pattern '" + pattern + "' cursor " + std::to_string(cursor));
    EXPECT_EQ(Find(&s, text, pattern.c_str(), cursor), forward);
    EXPECT_EQ(Find(&s, text, pattern.c_str(), cursor, false), backward);
  }
}

TEST(SourcePaths, SpellingsOfOneFile) {
  EXPECT_TRUE(SourcePathsEqual("C:/Src/Main.CPP", "c:\\src\\main.cpp"));
  EXPECT_TRUE(SourcePathsEqual("Z:\\work\\demo.cpp", "/work/demo.cpp"));  // a Unix build under Wine
  EXPECT_TRUE(SourcePathsEqual("/work/demo.cpp", "Z:/work/demo.cpp"));
  EXPECT_FALSE(SourcePathsEqual("C:\\work\\demo.cpp", "D:\\work\\demo.cpp"));
  EXPECT_FALSE(SourcePathsEqual("C:\\work\\demo.cpp", "work\\demo.cpp"));
  EXPECT_FALSE(SourcePathsEqual("/work/demo.cpp", "/work/demo.c"));
}

}  // namespace
