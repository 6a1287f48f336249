// The settings file: defaults, the exact written text, line reading rules, round trips.
#include <gtest/gtest.h>

#include <math.h>

#include <string>

#include "app/saved_layouts.h"
#include "app/settings.h"
#include "test_files.h"

namespace {

void AppendToString(void *user, const char *text, u64 length) { ((std::string *)user)->append(text, length); }

std::string Written(const Settings *s) {
  std::string text;
  SettingsTextSink sink = {&text, AppendToString};
  SettingsWriteAll(s, &sink);
  return text;
}

Settings Loaded(const std::string &ini) {
  Settings s;
  SettingsInitDefaults(&s);
  SettingsLoadIniText(&s, ini.data(), ini.size());
  return s;
}

TEST(Settings, DefaultsAreWrittenInTheFileOrder) {
  Settings s;
  SettingsInitDefaults(&s);
  EXPECT_EQ(Written(&s), ReadFile(std::string(KTRN_SOURCE_DIR) + "/tests/host/app/golden/settings_defaults.ini"));
  EXPECT_EQ(s.callstack_verbosity, 2);  // the stored default, written as 1 above
}

// The written defaults with some lines ("Section/Key=value") changed.
std::string DefaultsWith(const std::vector<std::string> &changes) {
  std::string text = ReadFile(std::string(KTRN_SOURCE_DIR) + "/tests/host/app/golden/settings_defaults.ini");
  for (const std::string &c : changes) {
    size_t slash = c.find('/'), equals = c.find('=');
    size_t section = text.find("[Kestrune][" + c.substr(0, slash) + "]\n");
    size_t key = text.find("\n" + c.substr(slash + 1, equals - slash), section) + 1;
    text.replace(key, text.find('\n', key) - key, c.substr(slash + 1));
  }
  return text;
}

// Each text read over the defaults and written again: the defaults with these lines changed.
TEST(Settings, LinesAreReadByTheirRules) {
  const struct {
    const char *ini;
    std::vector<std::string> changes;
  } cases[] = {
      {"[Kestrune][Style]\nEvaluateOnHover=no\n", {}},  // reads as true
      {"[Kestrune][Style]\nEvaluateOnHover=0\n", {"Style/EvaluateOnHover=0"}},
      {"[Kestrune][Other]\nAutoSaveEnabled=2\n", {"Other/AutoSaveEnabled=1"}},
      {"[Kestrune][Style]\nShowToolbar=\n", {"Style/ShowToolbar=1"}},
      {"[Kestrune][WindowPos]\nx=abc\ny=-20\nw=1024\nh=+5\n", {"WindowPos/y=-20", "WindowPos/w=1024"}},
      {"[Kestrune][Style]\nTooltipDelayMs=99999999999\nUiFontSizePx=-99999999999\n",  // clamped to 32 bits
       {"Style/TooltipDelayMs=2147483647", "Style/UiFontSizePx=-2147483648"}},
      {"[Kestrune][Memory-2]\nNumColumns=24 bytes\n", {"Memory-2/NumColumns=24"}},
      {"[Kestrune][CallstackWindow]\nVerbosity=0\n", {"CallstackWindow/Verbosity=0"}},
      {"[Kestrune][Style]\nTextForegroundClr=#FF8000\n", {"Style/TextForegroundClr=#FF8000"}},
      {"[Kestrune][Style]\nTextBackgroundClr=#12345\nTextForegroundClr=FF8000\n", {}},  // bad colours
      {"[Kestrune][Style]\nUiFontName=C:\\Fonts\\sub/consola.ttf\n", {"Style/UiFontName=C:\\Fonts\\sub/consola.ttf"}},
      {"[Kestrune][Watch-9]\nShowWnd=1\nShowComment=1\n", {}},
      {"[Kestrune][Watch-6]\nShowComment=1\nHexadecimal=1\n", {"Watch-6/ShowComment=1", "Watch-6/Hexadecimal=1"}},
      {"[Kestrune][Layout]\nO=0\nM=0\n", {"Layout/O=0", "OutputWindow/ShowWnd=0"}},  // the output window's flag
      {"[Kestrune][ThreadsWindow]\nShowWndX=0\nShowWnd =0\nshowwnd=0\n", {}},  // keys need their = at once
      {"[Kestrune][ModulesWindow]\nShowName=0\nShowRIP=0\n", {}},  // keys of other sections
      {"[Window][Kestrune]\nShowWnd=0\n[Other][Style]\nUiStyle=7\n", {}},  // sections of other types
      {"[Kestrune][Style]\nUiStyle=3\n[Docking][Data]\nUiStyle=5\n", {"Style/UiStyle=3"}},
      {"[Kestrune][Style]\r\nUiStyle=2\r\nUiFontName=a\\b.ttf\r\n", {"Style/UiStyle=2", "Style/UiFontName=a\\b.ttf"}},
      {"UiStyle=9\n[Kestrune][Style]\n", {}},  // lines before any section
  };
  for (auto &c : cases) {
    Settings s = Loaded(c.ini);
    EXPECT_EQ(Written(&s), DefaultsWith(c.changes)) << c.ini;
  }
  // What the text does not show: the colour's exact values, the font names' file parts; and font
  // names stop at 259 characters.
  std::string long_name = "C:\\" + std::string(400, 'f');
  Settings s = Loaded("[Kestrune][Style]\nTextForegroundClr=#FF8000\nUiFontName=C:\\Fonts\\sub/consola.ttf\nTextFontName=" +
                      long_name + "\n");
  EXPECT_TRUE(s.text_foreground.r == 1.0f && s.text_foreground.g == 128 / 255.0f && s.text_foreground.b == 0.0f);
  EXPECT_STREQ(s.ui_font_name + s.ui_font_file_part, "consola.ttf");
  EXPECT_EQ(std::string(s.text_font_name), long_name.substr(0, 259));
  EXPECT_EQ(s.text_font_file_part, 3u);
}

TEST(Settings, VerbosityTwoIsReadAsTwoAndWrittenAsOne) {
  Settings s = Loaded("[Kestrune][CallstackWindow]\nVerbosity=2\n");
  EXPECT_EQ(s.callstack_verbosity, 2);
  std::string text = Written(&s);
  EXPECT_NE(text.find("[Kestrune][CallstackWindow]\nShowWnd=1\nShowModuleName=1\nShowAddress=1\nVerbosity=1\n"),
            std::string::npos);
  EXPECT_EQ(Loaded(text).callstack_verbosity, 1);
  EXPECT_EQ(Loaded("[Kestrune][CallstackWindow]\nVerbosity=1\nVerbosity=x\n").callstack_verbosity, 2);  // other values
}

TEST(Settings, RecentFilesSkipOnlyARepeatOfTheLineBefore) {
  Settings s = Loaded(
      "[Kestrune][RecentFiles]\nC:\\a.ktrn\nc:\\A.KTRN\nC:\\b.ktrn\nC:\\a.ktrn\n\nC:\\c.ktrn\n"
      "[Kestrune][Other]\nC:\\d.ktrn\n");
  ASSERT_EQ(s.recent_files.count, 4u);
  EXPECT_STREQ(s.recent_files.paths[0], "C:\\a.ktrn");
  EXPECT_STREQ(s.recent_files.paths[1], "C:\\b.ktrn");
  EXPECT_STREQ(s.recent_files.paths[2], "C:\\a.ktrn");
  EXPECT_STREQ(s.recent_files.paths[3], "C:\\c.ktrn");
  std::string many = "[Kestrune][RecentFiles]\n";
  for (int i = 0; i < 14; i++) many += "C:\\s" + std::to_string(i) + ".ktrn\n";
  many += "C:\\" + std::string(300, 'x') + "\n";
  Settings full = Loaded(many);
  EXPECT_EQ(full.recent_files.count, 10u);
  EXPECT_STREQ(full.recent_files.paths[9], "C:\\s9.ktrn");
  std::string text = Written(&full);
  EXPECT_NE(text.find("[Kestrune][RecentFiles]\nC:\\s0.ktrn\nC:\\s1.ktrn\n"), std::string::npos);
}

TEST(Settings, ColoursAreClampedAndRoundedWhenWritten) {
  Settings s;
  SettingsInitDefaults(&s);
  s.text_foreground = {1.5f, -0.25f, 0.5f};
  s.text_background = {0.999f, 0.0021f, NAN};
  std::string text = Written(&s);
  EXPECT_NE(text.find("TextForegroundClr=#FF0080\n"), std::string::npos);
  EXPECT_NE(text.find("TextBackgroundClr=#FF0100\n"), std::string::npos);
}

TEST(Settings, HandlerCallsAsDearImGuiMakesThem) {
  Settings s;
  SettingsInitDefaults(&s);
  const SettingsSection *entry = SettingsReadOpen(&s, "Memory-3");
  ASSERT_NE(entry, nullptr);
  SettingsReadLine(&s, entry, "ReadOnly=1");
  SettingsReadLine(&s, entry, "NumColumns=8");
  SettingsReadLine(&s, nullptr, "NumColumns=4");  // an entry that was never opened
  EXPECT_EQ(s.memory[3].read_only, 1);
  EXPECT_EQ(s.memory[3].num_columns, 8);
  EXPECT_EQ(s.memory[2].read_only, 0);
  for (const char *unknown : {"Watch-8", "Memory-4", "watch-0", "", "Layout ", "Kestrune"})
    EXPECT_EQ(SettingsReadOpen(&s, unknown), nullptr) << unknown;
}

// [SECTION] Saved layouts

TEST(SavedLayouts, SlotsAreNamedByTheirFiles) {
  struct Case { const char *file; s32 slot; const char *name; };
  const Case cases[] = {
      {"layout3.Debug.ini", 3, "Debug"},   {"LAYOUT0.a.b.INI", 0, "a.b"}, {"layout9.x.ini", 9, "x"},
      {"layout3..ini", -1, nullptr},       {"layout3.ini", -1, nullptr},  {"layoutx.a.ini", -1, nullptr},
      {"layout12.a.ini", -1, nullptr},     {"imgui180.ini", -1, nullptr}, {"layout4.a.txt", -1, nullptr},
      {"layout", -1, nullptr},             {"", -1, nullptr},
  };
  for (const Case &c : cases) {
    SavedLayouts layouts;
    SavedLayoutsReset(&layouts);
    EXPECT_EQ(SavedLayoutsTakeFileName(&layouts, c.file), c.slot) << c.file;
    for (u32 i = 0; i < kSavedLayoutCount; i++) {
      bool named = (s32)i == c.slot;
      EXPECT_EQ(layouts.saved[i], named) << c.file;
      EXPECT_EQ(std::string(layouts.names[i]), named ? std::string(c.name) : "Layout" + std::to_string(i)) << c.file;
    }
  }
  // A name is made fit for a file name, and the file reads back under that name.
  char file[kSavedLayoutFileCapacity];
  ASSERT_TRUE(SavedLayoutFileName(2, "a/b:c*\"", file, sizeof file));
  EXPECT_STREQ(file, "layout2.a_b_c__.ini");
  SavedLayouts layouts;
  SavedLayoutsReset(&layouts);
  EXPECT_EQ(SavedLayoutsTakeFileName(&layouts, file), 2);
  EXPECT_STREQ(layouts.names[2], "a_b_c__");
  EXPECT_FALSE(SavedLayoutFileName(10, "x", file, sizeof file));
  EXPECT_FALSE(SavedLayoutFileName(1, "", file, sizeof file));
  EXPECT_FALSE(SavedLayoutFileName(1, "x", file, 8));
}

void AppendPiece(void *user, const char *text, u64 length) { ((std::string *)user)->append(text, length); }

// A layout keeps Dear ImGui's sections and those of ours about the tool windows; the placement,
// style, recent sessions, behaviours and status text stay the user's.
TEST(SavedLayouts, LayoutTextKeepsOnlyTheWindows) {
  Settings s;
  SettingsInitDefaults(&s);
  s.registers_show = 1;
  std::string ini = "[Window][Output]\r\nPos=0,0\r\nDockId=0x1\r\n\r\n[Docking][Data]\nDockSpace ID=0x1\n\n" + Written(&s);
  std::string kept;
  SavedLayoutFilterText(ini.data(), ini.size(), AppendPiece, &kept);
  EXPECT_EQ(kept.find("[Window][Output]\r\nPos=0,0\r\nDockId=0x1\r\n\r\n[Docking][Data]\nDockSpace ID=0x1\n\n"), 0u);
  for (const char *gone : {"[Kestrune][WindowPos]", "[Kestrune][Style]", "[Kestrune][RecentFiles]", "[Kestrune][Other]",
                           "[Kestrune][LayoutOther]", "UiFontSizePx", "AutoSaveEnabled", "StatusTextPosTop"})
    EXPECT_EQ(kept.find(gone), std::string::npos) << gone;
  Settings back;
  SettingsInitDefaults(&back);
  back.registers_show = 0;
  back.auto_save_enabled = 1;
  SettingsLoadIniText(&back, kept.data(), kept.size());
  EXPECT_EQ(back.registers_show, 1);
  EXPECT_EQ(back.auto_save_enabled, 1);
  // Every section of ours that is kept reads back to the same text.
  Settings again;
  SettingsInitDefaults(&again);
  SettingsLoadIniText(&again, kept.data(), kept.size());
  std::string whole = Written(&again), rewritten;
  SavedLayoutFilterText(whole.data(), whole.size(), AppendPiece, &rewritten);
  EXPECT_EQ(kept.substr(kept.find("[Kestrune]")), rewritten);
}

}  // namespace
