// The settings file: defaults, the exact written text, line reading rules, round trips.
#include <gtest/gtest.h>

#include <math.h>

#include <random>
#include <string>

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

struct LineCase {
  const char *name;
  const char *ini;
  bool (*check)(const Settings &s);
};

TEST(Settings, LinesAreReadByTheirRules) {
  const LineCase cases[] = {
      {"EvaluateOnHover=no reads as true", "[Kestrune][Style]\nEvaluateOnHover=no\n",
       [](const Settings &s) { return s.evaluate_on_hover == 1; }},
      {"EvaluateOnHover=0 reads as false", "[Kestrune][Style]\nEvaluateOnHover=0\n",
       [](const Settings &s) { return s.evaluate_on_hover == 0; }},
      {"0/1 value 2 reads as true", "[Kestrune][Other]\nAutoSaveEnabled=2\n",
       [](const Settings &s) { return s.auto_save_enabled == 1; }},
      {"empty 0/1 value reads as true", "[Kestrune][Style]\nShowToolbar=\n",
       [](const Settings &s) { return s.show_toolbar == 1; }},
      {"x=abc keeps x", "[Kestrune][WindowPos]\nx=abc\ny=-20\nw=1024\nh=+5\n",
       [](const Settings &s) {
         return s.window_x == kSettingsUseDefault && s.window_y == -20 && s.window_w == 1024 &&
                s.window_h == kSettingsUseDefault;
       }},
      {"integers clamp to 32 bits", "[Kestrune][Style]\nTooltipDelayMs=99999999999\nUiFontSizePx=-99999999999\n",
       [](const Settings &s) { return s.tooltip_delay_ms == 0x7FFFFFFF && s.ui_font_size_px == (s32)0x80000000; }},
      {"digits up to the first other character", "[Kestrune][Memory-2]\nNumColumns=24 bytes\n",
       [](const Settings &s) { return s.memory[2].num_columns == 24 && s.memory[0].num_columns == 16; }},
      {"Verbosity 0, 1, other", "[Kestrune][CallstackWindow]\nVerbosity=0\n",
       [](const Settings &s) { return s.callstack_verbosity == 0; }},
      {"Verbosity x gives 2", "[Kestrune][CallstackWindow]\nVerbosity=1\nVerbosity=x\n",
       [](const Settings &s) { return s.callstack_verbosity == 2; }},
      {"colour", "[Kestrune][Style]\nTextForegroundClr=#FF8000\n",
       [](const Settings &s) {
         return s.text_foreground.r == 1.0f && s.text_foreground.g == 128 / 255.0f && s.text_foreground.b == 0.0f;
       }},
      {"bad colours keep the old one", "[Kestrune][Style]\nTextBackgroundClr=#12345\nTextForegroundClr=FF8000\n",
       [](const Settings &s) {
         return s.text_background.r == 0x3F / 255.0f && s.text_foreground.r == 0xDC / 255.0f;
       }},
      {"font name and its file part", "[Kestrune][Style]\nUiFontName=C:\\Fonts\\sub/consola.ttf\n",
       [](const Settings &s) {
         return strcmp(s.ui_font_name, "C:\\Fonts\\sub/consola.ttf") == 0 &&
                strcmp(s.ui_font_name + s.ui_font_file_part, "consola.ttf") == 0;
       }},
      {"Watch-9 and its lines are ignored", "[Kestrune][Watch-9]\nShowWnd=1\nShowComment=1\n",
       [](const Settings &s) {
         for (int i = 1; i < 8; i++)
           if (s.watch[i].show || s.watch[i].show_comment) return false;
         return s.watch[0].show_comment == 0;
       }},
      {"each watch section has its own options", "[Kestrune][Watch-6]\nShowComment=1\nHexadecimal=1\n",
       [](const Settings &s) { return s.watch[6].show_comment && s.watch[6].hexadecimal && !s.watch[5].hexadecimal; }},
      {"Layout O is the output window's flag", "[Kestrune][Layout]\nO=0\nM=0\n",
       [](const Settings &s) { return s.output_show == 0 && s.window_maximized == 0; }},
      {"keys need their = at once", "[Kestrune][ThreadsWindow]\nShowWndX=0\nShowWnd =0\nshowwnd=0\n",
       [](const Settings &s) { return s.threads_show == 1; }},
      {"keys of another section do not apply", "[Kestrune][ModulesWindow]\nShowName=0\nShowRIP=0\n",
       [](const Settings &s) { return s.threads_show_name == 1 && s.registers_show_rip == 1; }},
      {"sections of other types are skipped", "[Window][Kestrune]\nShowWnd=0\n[Other][Style]\nUiStyle=7\n",
       [](const Settings &s) { return s.ui_style == 1; }},
      {"a later foreign section closes ours", "[Kestrune][Style]\nUiStyle=3\n[Docking][Data]\nUiStyle=5\n",
       [](const Settings &s) { return s.ui_style == 3; }},
      {"CR LF line ends", "[Kestrune][Style]\r\nUiStyle=2\r\nUiFontName=a\\b.ttf\r\n",
       [](const Settings &s) { return s.ui_style == 2 && strcmp(s.ui_font_name, "a\\b.ttf") == 0; }},
      {"lines before any section are ignored", "UiStyle=9\n[Kestrune][Style]\n",
       [](const Settings &s) { return s.ui_style == 1; }},
  };
  for (const LineCase &c : cases) EXPECT_TRUE(c.check(Loaded(c.ini))) << c.name;
}

TEST(Settings, VerbosityTwoIsReadAsTwoAndWrittenAsOne) {
  Settings s = Loaded("[Kestrune][CallstackWindow]\nVerbosity=2\n");
  EXPECT_EQ(s.callstack_verbosity, 2);
  std::string text = Written(&s);
  EXPECT_NE(text.find("[Kestrune][CallstackWindow]\nShowWnd=1\nShowModuleName=1\nShowAddress=1\nVerbosity=1\n"),
            std::string::npos);
  EXPECT_EQ(Loaded(text).callstack_verbosity, 1);
}

TEST(Settings, FontNamesStopAt259Characters) {
  std::string name = "C:\\" + std::string(400, 'f');
  Settings s = Loaded("[Kestrune][Style]\nTextFontName=" + name + "\n");
  EXPECT_EQ(std::string(s.text_font_name), name.substr(0, 259));
  EXPECT_EQ(s.text_font_file_part, 3u);
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

// Random settings written, read back and written again give the same text.
TEST(Settings, RandomSettingsRoundTrip) {
  std::mt19937 rng(7);
  for (int iteration = 0; iteration < 200; iteration++) {
    Settings s;
    SettingsInitDefaults(&s);
    // Random values go in through the text form itself.
    std::string ini = "[Kestrune][WindowPos]\nx=" + std::to_string((s32)rng()) + "\nM=" + std::to_string(rng() % 2) +
                      "\n[Kestrune][Style]\nUiFontName=C:\\f\\" + std::to_string(rng()) + ".ttf\nTextForegroundClr=#" +
                      "A1B2C3\nUiStyle=" + std::to_string((s32)rng()) + "\n[Kestrune][CallstackWindow]\nVerbosity=" +
                      std::to_string(rng() % 3) + "\n[Kestrune][Watch-" + std::to_string(rng() % 8) +
                      "]\nShowComment=1\nColumnMaj=" + std::to_string(rng() % 2) + "\n[Kestrune][RecentFiles]\n";
    for (u32 i = 0, n = rng() % 12; i < n; i++) ini += "C:\\r" + std::to_string(rng() % 4) + ".ktrn\n";
    SettingsLoadIniText(&s, ini.data(), ini.size());
    std::string once = Written(&s);
    Settings back = Loaded(once);
    ASSERT_EQ(Written(&back), once) << "iteration " << iteration;
    ASSERT_EQ(back.recent_files.count, s.recent_files.count);
    for (u32 i = 0; i < s.recent_files.count; i++) EXPECT_STREQ(back.recent_files.paths[i], s.recent_files.paths[i]);
  }
}

}  // namespace
