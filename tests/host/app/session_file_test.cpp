// Session files: exact bytes, truncated and old files, hostile counts, hooks, round trips.
#include <gtest/gtest.h>

#include <random>

#include "test_util.h"

namespace {

// A session that uses every section: three target commands, all four breakpoint kinds (a
// processor one between two function ones), watches with comments in three windows, two files.
void BuildRichSession(Session *s) {
  u32 t;
  SessionAddTarget(s, "C:\\work\\game.exe", "-level 3 \"two words\"", "C:\\work", &t);
  s->targets[t]->environment = TextDuplicateZ("PATH=C:\\bin\nMODE=fast");
  s->targets[t]->inherit_from_parent = 1;
  SessionAddTarget(s, "C:\\work\\tool.exe", nullptr, nullptr, &t);
  s->targets[t]->halt_at_nominal_entry = 0;
  SessionAddTarget(s, "C:\\other\\x.exe", "a", "C:\\other", &t);
  s->targets[t]->environment = TextDuplicateZ("A=1");
  s->current_target = 2;
  u32 b;
  SessionAddBreakpoint(s, kBreakpointFunction, "main", 0, 0, &b);
  SessionAddBreakpoint(s, kBreakpointProcessor, "&g_counter", 0, 0, &b);
  s->breakpoints[b]->size = 8;
  s->breakpoints[b]->access = kAccessReadWrite;
  s->breakpoints[b]->enabled = 1;
  SessionAddBreakpoint(s, kBreakpointFunction, "Game::Update", 0, 0, &b);
  s->breakpoints[b]->condition = TextDuplicateZ("frame > 100");
  s->breakpoints[b]->enabled = 0;
  SessionAddBreakpoint(s, kBreakpointSourceLine, "C:\\work\\src\\main.cpp", 42, 0, &b);
  SessionAddBreakpoint(s, kBreakpointAddress, nullptr, 0, 0x00007FF612340000ull, &b);
  SessionAddWatchRow(s, 0, "player.position", "where we are");
  SessionAddWatchRow(s, 0, "enemies, 8", "");
  SessionAddWatchRow(s, 3, "xmm0, ps", "lanes");
  SessionAddWatchRow(s, 7, "g_frame", "");
  SessionAddSourceFile(s, "C:\\work\\src\\main.cpp");
  SessionAddSourceFile(s, "C:\\work\\src\\game.cpp");
  s->modified = 0;
}

TEST(SessionFile, EmptySessionHasTheDocumentedBytes) {
  ScopedSession s;
  // Sections 1 and 2 (three empty strings), 3 to 7, 8 (an empty environment and a 0 byte), 9, 10,
  // 11 (seven further watch windows), 12, 13, 14 (eight windows' comments), 15.
  Bytes expected = LeBytes().raw("KTRN").zero32(3).zero32(5).u32(0).u8(0).zero32(2).u32(7).zero32(7).zero32(10).u32(0);
  EXPECT_EQ(WriteImage(s.get()), expected);
  ScopedSession back;
  u32 sections = 0;
  ASSERT_EQ(ReadImage(back.get(), expected, &sections), kSessionFileOk);
  EXPECT_EQ(sections, 15u);
  EXPECT_EQ(SessionDifference(s.get(), back.get()), nullptr);
  EXPECT_EQ(back->target_count, 0u);
}

TEST(SessionFile, ProcessorBreakpointKeepsItsPlaceAndOnlyItHasASection12Record) {
  ScopedSession s;
  SessionAddBreakpoint(s.get(), kBreakpointFunction, "a", 0, 0, nullptr);
  u32 p;
  SessionAddBreakpoint(s.get(), kBreakpointProcessor, "p+4", 0, 0, &p);
  s->breakpoints[p]->size = 8;
  s->breakpoints[p]->access = kAccessExecute;
  SessionAddBreakpoint(s.get(), kBreakpointFunction, "b", 0, 0, nullptr);
  Bytes image = WriteImage(s.get());
  // Sections 12 to 15 close the file: one processor record, three enabled bytes, empty watches.
  // Section 4 holds the three in order, the processor one with its kind and nothing else.
  Bytes tail = LeBytes().u32(3).str("p+4").u32(8).u32(kAccessExecute).u32(3).u8(1).u8(1).u8(1).zero32(8).u32(0);
  Bytes section4 = LeBytes().u32(3).u32(0).u32(0).str("a").u32(0).u32(3).u32(0).u32(0).str("b");
  ASSERT_GE(image.size(), tail.size());
  EXPECT_EQ(Bytes(image.end() - tail.size(), image.end()), tail);
  EXPECT_NE(std::search(image.begin(), image.end(), section4.begin(), section4.end()), image.end());
  ScopedSession back;
  ASSERT_EQ(ReadImage(back.get(), image), kSessionFileOk);
  EXPECT_EQ(SessionDifference(s.get(), back.get()), nullptr);
}

// Cutting the file anywhere never fails the read; the last complete section grows with the cut
// and is 15 only for the whole file, which reads back unchanged (and unmodified) and writes the same
// bytes again. Cut after section 11, it is a file written before sections 12 to 15 existed, which
// get their defaults.
TEST(SessionFile, EveryCutReadsUpToTheLastCompleteSection) {
  ScopedSession s;
  BuildRichSession(s.get());
  Bytes image = WriteImage(s.get());
  u32 previous = 0;
  u32 boundary[16] = {};
  for (size_t cut = 0; cut <= image.size(); cut++) {
    ScopedSession back;
    u32 sections = 99;
    u64 unread = 99;
    int result = SessionReadFromMemory(back.get(), image.data(), cut, nullptr, &sections, &unread);
    if (cut < 4) {
      EXPECT_EQ(result, kSessionFileBadMagic);
      EXPECT_EQ(sections, 0u);
      continue;
    }
    ASSERT_EQ(result, kSessionFileOk) << "cut " << cut;
    ASSERT_GE(sections, previous) << "cut " << cut;
    ASSERT_LE(sections, 15u);
    if (sections > previous) boundary[sections] = (u32)cut;
    previous = sections;
    // A cut inside a section leaves bytes behind; a cut at a section's end none (an old file).
    EXPECT_EQ(unread, cut - boundary[sections]) << "cut " << cut;
    EXPECT_EQ(sections == 15, cut == image.size()) << "cut " << cut;
    if (cut < image.size()) continue;
    EXPECT_EQ(SessionDifference(s.get(), back.get()), nullptr);
    EXPECT_EQ(back->modified, 0);
    EXPECT_EQ(WriteImage(back.get()), image);
  }
  for (u32 k = 1; k <= 15; k++) EXPECT_GT(boundary[k], 0u) << "section " << k << " never completed";

  ScopedSession old;
  ASSERT_EQ(ReadImage(old.get(), Bytes(image.begin(), image.begin() + boundary[11])), kSessionFileOk);
  ASSERT_EQ(old->breakpoint_count, 5u);
  for (u32 i = 0; i < old->breakpoint_count; i++) {
    const Breakpoint *b = old->breakpoints[i];
    bool starts_enabled = b->kind == kBreakpointFunction || b->kind == kBreakpointSourceLine;
    EXPECT_EQ(b->enabled, starts_enabled) << "breakpoint " << i;
    if (b->kind != kBreakpointProcessor) continue;
    EXPECT_STREQ(b->place, " ");
    EXPECT_EQ(b->access, (u32)kAccessWrite);
  }
  EXPECT_STREQ(old->breakpoints[2]->condition, "frame > 100");  // section 7 is still there
  for (u32 w = 0; w < kWatchWindowCount; w++)
    for (u32 r = 0; r < old->watches[w].count; r++) EXPECT_STREQ(old->watches[w].rows[r]->comment, "");
  EXPECT_EQ(old->watches[0].count, 2u);
  EXPECT_STREQ(old->watches[3].rows[0]->expression, "xmm0, ps");
  ASSERT_EQ(old->target_count, 3u);
  for (u32 i = 0; i < 3; i++) EXPECT_EQ(old->targets[i]->halt_at_nominal_entry, 1) << "target " << i;
  EXPECT_EQ(old->current_target, 2u);
}

// A hand-made file with only the first target command's strings (an old file cut after 2); an
// empty first target command survives a round trip.
TEST(SessionFile, FirstTargetCommand) {
  ScopedSession s, empty_first, back;
  u32 sections;
  ASSERT_EQ(ReadImage(s.get(), LeBytes().raw("KTRN").str("C:\\a.exe").str("").str("C:\\"), &sections), kSessionFileOk);
  EXPECT_EQ(sections, 2u);
  ASSERT_EQ(s->target_count, 1u);
  EXPECT_STREQ(s->targets[0]->command, "C:\\a.exe");
  EXPECT_EQ(s->targets[0]->arguments, nullptr);
  EXPECT_EQ(s->targets[0]->halt_at_nominal_entry, 1);
  SessionAddTarget(empty_first.get(), nullptr, nullptr, nullptr, nullptr);
  SessionAddTarget(empty_first.get(), "b.exe", nullptr, nullptr, nullptr);
  ASSERT_EQ(ReadImage(back.get(), WriteImage(empty_first.get())), kSessionFileOk);
  EXPECT_EQ(SessionDifference(empty_first.get(), back.get()), nullptr);
}

TEST(SessionFile, WrongMagicLeavesAnEmptySession) {
  for (std::string bytes : {std::string(), std::string("KTR"), std::string("KTRX\0\0\0\0", 8), std::string("ktrn")}) {
    ScopedSession s, empty;
    BuildRichSession(s.get());
    u32 sections = 7;
    EXPECT_EQ(ReadImage(s.get(), Bytes(bytes.begin(), bytes.end()), &sections), kSessionFileBadMagic) << bytes;
    EXPECT_EQ(sections, 0u) << bytes;
    EXPECT_EQ(SessionDifference(s.get(), empty.get()), nullptr) << bytes;
  }
}

// [SECTION] Watch rows

// A row text of 511 bytes ends that list, and the rest is read out of step: section 6 then reads
// its count from the text bytes ("xxxx" = 0x78787878 sizes), and the image ends inside it. One of
// 510 bytes is kept.
TEST(SessionFile, RowTextsOf511BytesEndTheList) {
  ScopedSession s;
  u32 sections = 0;
  Bytes image = LeBytes().raw("KTRN").zero32(5).u32(3).str("first").str(std::string(511, 'x')).str("third");
  ASSERT_EQ(ReadImage(s.get(), image, &sections), kSessionFileOk);
  ASSERT_EQ(s->watches[0].count, 1u);
  EXPECT_STREQ(s->watches[0].rows[0]->expression, "first");
  EXPECT_EQ(sections, 5u);
  ScopedSession kept;
  ASSERT_EQ(ReadImage(kept.get(), LeBytes().raw("KTRN").zero32(5).u32(1).str(std::string(510, 'y'))), kSessionFileOk);
  ASSERT_EQ(kept->watches[0].count, 1u);
  EXPECT_EQ(std::string(kept->watches[0].rows[0]->expression), std::string(510, 'y'));
}

TEST(SessionFile, WriterNeverProducesARowTextOf511Bytes) {
  ScopedSession s, back;
  std::string ascii(600, 'a');
  std::string wide;  // 300 two-byte characters: the cut must not split one
  for (int i = 0; i < 300; i++) wide += "\xC3\xA9";
  SessionAddWatchRow(s.get(), 0, ascii.c_str(), wide.c_str());
  // Rows may also be filled straight into their buffers (the watch window's edit box does).
  SessionAddWatchRow(s.get(), 1, "", "");
  memset(s->watches[1].rows[0]->expression, 'b', 511);
  s->watches[1].rows[0]->expression[511] = 0;
  ASSERT_EQ(ReadImage(back.get(), WriteImage(s.get())), kSessionFileOk);
  EXPECT_EQ(std::string(back->watches[0].rows[0]->expression), std::string(510, 'a'));
  EXPECT_EQ(strlen(back->watches[0].rows[0]->comment), 510u);
  EXPECT_EQ(std::string(back->watches[0].rows[0]->comment), wide.substr(0, 510));
  EXPECT_EQ(std::string(back->watches[1].rows[0]->expression), std::string(510, 'b'));
  EXPECT_EQ(back->target_count, 0u);  // nothing after the rows was read out of step
}

// [SECTION] Hostile counts

// Whatever is read is a session that writes and reads back whole.
TEST(SessionFile, HugeCountsStopAtTheEndOfTheImage) {
  auto through_8 = [] { return LeBytes().raw("KTRN").zero32(3).u32(0).u32(0).u32(0).u32(0).u32(0).u32(0).u8(0); };
  const struct {
    const char *name;
    Bytes image;
    u32 sections;
  } cases[] = {
      {"4 billion source files", LeBytes().raw("KTRN").zero32(3).u32(0xFFFFFFFF).str("a"), 2},
      {"4 billion watch rows", LeBytes().raw("KTRN").zero32(3).u32(0).u32(0).u32(0xFFFFFFFF).str("a").str("b"), 4},
      {"string longer than the file", LeBytes().raw("KTRN").u32(0xFFFFFFF0).raw("abc"), 1},
      {"4 billion further watch windows", through_8().u32(0).u32(0).u32(0xFFFFFFFF).zero32(20), 10},
      // Section 12's count is bounded by the real breakpoints: 4 billion with none reads nothing.
      {"section 12 count without breakpoints",
       through_8().u32(0).u32(0).u32(7).zero32(7).u32(0xFFFFFFFF).u32(0).zero32(8).u32(0), 15},
      {"unknown breakpoint kind", LeBytes().raw("KTRN").zero32(3).u32(0).u32(2).u32(0).u32(0).str("f").u32(0).u32(9).zero32(40), 3},
      {"target count 4 billion", through_8().u32(0xFFFFFFFF).zero32(9), 8},
  };
  for (auto &c : cases) {
    ScopedSession s, back;
    u32 sections = 0;
    EXPECT_EQ(ReadImage(s.get(), c.image, &sections), kSessionFileOk) << c.name;
    EXPECT_EQ(sections, c.sections) << c.name;
    EXPECT_EQ(ReadImage(back.get(), WriteImage(s.get())), kSessionFileOk) << c.name;
    EXPECT_EQ(SessionDifference(s.get(), back.get()), nullptr) << c.name;
  }
}

// Values for rows and breakpoints that do not exist are read and dropped: comments of section 14
// beyond a window's rows; values of sections 6, 7 and 13 beyond the breakpoints.
TEST(SessionFile, ValuesBeyondTheRowsAndBreakpointsAreDropped) {
  ScopedSession rows, breakpoints;
  u32 sections = 0;
  Bytes comments = LeBytes()
                       .raw("KTRN").zero32(3).u32(0).u32(0)
                       .u32(1).str("a")                             // 5
                       .zero32(3).u8(0).zero32(2).u32(7).zero32(7)  // 6 to 11
                       .zero32(2)                                   // 12, 13
                       .u32(3).str("c1").str("c2").str("c3")        // 14: window 1 has one row only
                       .u32(1).str("lonely").zero32(6).u32(0);      // window 2 has none; 15
  ASSERT_EQ(ReadImage(rows.get(), comments, &sections), kSessionFileOk);
  EXPECT_EQ(sections, 15u);
  ASSERT_EQ(rows->watches[0].count, 1u);
  EXPECT_STREQ(rows->watches[0].rows[0]->comment, "c1");
  EXPECT_EQ(rows->watches[1].count, 0u);
  Bytes extra = LeBytes()
                    .raw("KTRN").zero32(3).u32(0)
                    .u32(1).u32(0).u32(kBreakpointAddress).u64(0x1000)  // 4
                    .u32(0)                                             // 5
                    .u32(3).u32(16).u32(99).u32(98)                     // 6: two values too many
                    .u32(2).str("x == 1").str("dropped")                // 7
                    .u32(0).u8(0).zero32(2).u32(7).zero32(7)            // 8 to 11
                    .u32(1)                                             // 12: not a processor breakpoint
                    .u32(2).u8(1).u8(0)                                 // 13
                    .zero32(8).u32(0);                                  // 14, 15
  ASSERT_EQ(ReadImage(breakpoints.get(), extra, &sections), kSessionFileOk);
  EXPECT_EQ(sections, 15u);
  ASSERT_EQ(breakpoints->breakpoint_count, 1u);
  const Breakpoint &b = *breakpoints->breakpoints[0];
  EXPECT_EQ(Format("%llX %u %s %d", (unsigned long long)b.address, b.size, b.condition, b.enabled), "1000 16 x == 1 1");
}

// [SECTION] Hooks

struct HookLog {
  std::vector<std::string> opened, output;
  std::vector<std::string> breakpoints;
};

bool OpenUnlessMissing(void *user, const char *path) {
  HookLog *log = (HookLog *)user;
  if (strstr(path, "missing")) return false;
  log->opened.push_back(path);
  return true;
}
void LogOutput(void *user, const char *text) { ((HookLog *)user)->output.push_back(text); }
void LogBreakpoint(void *user, const Session *s, u32 index) {
  const Breakpoint *b = s->breakpoints[index];
  ((HookLog *)user)->breakpoints.push_back(std::string(b->place ? b->place : "") + "|" +
                                           (b->condition ? b->condition : "") + "|" + (b->enabled ? "on" : "off"));
}

// Source files go through their hook, and those that fail are reported; breakpoints reach their
// hook complete, after the whole file.
TEST(SessionFile, Hooks) {
  std::string too_long = "C:\\" + std::string(256, 'd');  // 259 bytes: skipped without a word
  HookLog log;
  SessionReadHooks hooks = {&log, OpenUnlessMissing, LogBreakpoint, LogOutput};
  ScopedSession s, rich, back;
  Bytes image = LeBytes().raw("KTRN").zero32(3).u32(4).str("C:\\a.cpp").str("C:\\missing.cpp").str(too_long).str("C:\\b.cpp");
  ASSERT_EQ(ReadImage(s.get(), image, nullptr, &hooks), kSessionFileOk);
  EXPECT_EQ(log.opened, (std::vector<std::string>{"C:\\a.cpp", "C:\\b.cpp"}));
  EXPECT_EQ(log.output, (std::vector<std::string>{"Unable to open C:\\missing.cpp\n"}));
  ASSERT_EQ(s->source_file_count, 2u);
  EXPECT_STREQ(s->source_files[1], "C:\\b.cpp");
  BuildRichSession(rich.get());
  hooks.open_source_file = nullptr;
  ASSERT_EQ(ReadImage(back.get(), WriteImage(rich.get()), nullptr, &hooks), kSessionFileOk);
  EXPECT_EQ(log.breakpoints, (std::vector<std::string>{"main||on", "&g_counter||on", "Game::Update|frame > 100|off",
                                                       "C:\\work\\src\\main.cpp||on", "||on"}));
}

// [SECTION] Files and the recent list

std::string Paths(const RecentFiles &recent) {
  std::string text;
  for (u32 i = 0; i < recent.count; i++) text += std::string(i ? " " : "") + recent.paths[i];
  return text;
}

TEST(SessionFile, SaveAndOpenThroughFilesKeepTheRecentList) {
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());
  ScopedSession s;
  BuildRichSession(s.get());
  s->modified = 1;
  RecentFiles recent = {};
  std::string path = dir.path + "/work.ktrn";
  ASSERT_EQ(SessionWriteFile(s.get(), path.c_str(), &recent), kSessionFileOk);
  EXPECT_EQ(s->modified, 0);
  EXPECT_EQ(std::string(s->path), path);
  // Saving again replaces the file whole (no temporary file left behind).
  SessionAddWatchRow(s.get(), 2, "extra", "");
  ASSERT_EQ(SessionWriteFile(s.get(), path.c_str(), &recent), kSessionFileOk);
  EXPECT_FALSE(OsFileExists((path + ".tmp").c_str()));
  EXPECT_EQ(Paths(recent), path);

  ScopedSession back;
  std::string other = dir.Write("other.ktrn", "NOPE");
  u32 sections = 0;
  ASSERT_EQ(SessionReadFile(back.get(), path.c_str(), nullptr, &recent, &sections), kSessionFileOk);
  EXPECT_EQ(sections, 15u);
  EXPECT_EQ(SessionDifference(s.get(), back.get()), nullptr);
  EXPECT_EQ(std::string(back->path), path);
  // A file with the wrong magic still goes to the head of the list; a missing one does not.
  EXPECT_EQ(SessionReadFile(back.get(), other.c_str(), nullptr, &recent, nullptr), kSessionFileBadMagic);
  EXPECT_EQ(back->breakpoint_count, 0u);
  EXPECT_EQ(back->path[0], 0);
  EXPECT_EQ(SessionReadFile(back.get(), (dir.path + "/none.ktrn").c_str(), nullptr, &recent, nullptr),
            kSessionFileUnreadable);
  EXPECT_EQ(Paths(recent), other + " " + path);
}

TEST(SessionFile, FailedSaveKeepsThePreviousFile) {
  TempDir dir;
  ScopedSession s;
  BuildRichSession(s.get());
  s->modified = 1;
  std::string nowhere = dir.path + "/no/such/folder/x.ktrn";
  EXPECT_EQ(SessionWriteFile(s.get(), nowhere.c_str(), nullptr), kSessionFileWriteFailed);
  EXPECT_EQ(s->modified, 1);
  EXPECT_EQ(s->path[0], 0);
  // A folder in the way of the target: the write fails and the folder is untouched.
  std::string blocked = dir.path + "/blocked.ktrn";
  ASSERT_EQ(mkdir(blocked.c_str(), 0755), 0);
  EXPECT_EQ(SessionWriteFile(s.get(), blocked.c_str(), nullptr), kSessionFileWriteFailed);
  EXPECT_TRUE(OsDirectoryExists(blocked.c_str()));
}

TEST(RecentFiles, TenEntriesMostRecentFirstWithoutRegardToCase) {
  RecentFiles recent = {};
  for (int i = 0; i < 11; i++) ASSERT_EQ(RecentFilesAdd(&recent, Format("/s/%d.ktrn", i).c_str()), 0);
  EXPECT_EQ(Paths(recent), "/s/10.ktrn /s/9.ktrn /s/8.ktrn /s/7.ktrn /s/6.ktrn /s/5.ktrn /s/4.ktrn /s/3.ktrn /s/2.ktrn /s/1.ktrn");
  ASSERT_EQ(RecentFilesAdd(&recent, "/S/5.KTRN"), 0);
  EXPECT_EQ(Paths(recent), "/S/5.KTRN /s/10.ktrn /s/9.ktrn /s/8.ktrn /s/7.ktrn /s/6.ktrn /s/4.ktrn /s/3.ktrn /s/2.ktrn /s/1.ktrn");
  // Relative paths are made absolute; ones too long for an entry are refused.
  char cwd[1024];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  ASSERT_EQ(RecentFilesAdd(&recent, "rel/../here.ktrn"), 0);
  EXPECT_EQ(RecentFilesAdd(&recent, ("/" + std::string(300, 'x')).c_str()), 1);
  EXPECT_EQ(RecentFilesAdd(&recent, ""), 1);
  EXPECT_EQ(std::string(recent.paths[0]), std::string(cwd) + "/here.ktrn");
  // Removing goes by the same comparison and keeps the order of the rest.
  EXPECT_EQ(RecentFilesRemove(&recent, "/s/5.ktrn"), 1u);
  EXPECT_EQ(RecentFilesRemove(&recent, "/s/none.ktrn"), 0u);
  EXPECT_EQ(Paths(recent).substr(Paths(recent).find(' ') + 1), "/s/10.ktrn /s/9.ktrn /s/8.ktrn /s/7.ktrn /s/6.ktrn /s/4.ktrn /s/3.ktrn /s/2.ktrn");
}

// [SECTION] Model helpers the command words use

TEST(SessionModel, RemoveFunctionBreakpointsRemovesAdjacentOnesByExactName) {
  ScopedSession s;
  const char *names[] = {"f", "f", "F", "g", "f", "f "};
  for (const char *n : names) SessionAddBreakpoint(s.get(), kBreakpointFunction, n, 0, 0, nullptr);
  SessionAddBreakpoint(s.get(), kBreakpointSourceLine, "f", 1, 0, nullptr);
  int seen = 0;
  EXPECT_EQ(SessionRemoveFunctionBreakpoints(s.get(), "f", [](void *u, const Breakpoint *) { ++*(int *)u; }, &seen), 3u);
  EXPECT_EQ(seen, 3);
  std::string left;
  for (u32 i = 0; i < s->breakpoint_count; i++) left += Format("%u:%s|", s->breakpoints[i]->kind, s->breakpoints[i]->place);
  EXPECT_EQ(left, Format("0:F|0:g|0:f |%u:f|", kBreakpointSourceLine));
  EXPECT_EQ(SessionFindSourceLineBreakpoint(s.get(), "F", 1), 3);
  EXPECT_EQ(SessionFindSourceLineBreakpoint(s.get(), "f", 2), -1);
}

TEST(SessionModel, RefusesWhatTheFileCouldNotHold) {
  ScopedSession s;
  EXPECT_EQ(SessionAddSourceFile(s.get(), std::string(259, 'p').c_str()), kSessionBadArgument);
  EXPECT_EQ(SessionAddSourceFile(s.get(), std::string(258, 'p').c_str()), kSessionOk);
  EXPECT_EQ(SessionAddSourceFile(s.get(), ""), kSessionBadArgument);
  EXPECT_EQ(SessionAddBreakpoint(s.get(), 4, "x", 0, 0, nullptr), kSessionBadArgument);
  EXPECT_EQ(SessionAddWatchRow(s.get(), kWatchWindowCount, "x", ""), kSessionBadArgument);
  EXPECT_EQ(SessionRemoveTarget(s.get(), 0), kSessionBadArgument);
}

// [SECTION] Randomised round trips

std::string RandomText(std::mt19937 &rng, size_t max_length) {
  static const char *const pieces[] = {"a", "Z", " ", "\"", "\\", "/", ",", "\xC3\xA9", "\xE2\x82\xAC", "\t", "9", "x"};
  size_t length = rng() % (max_length + 1);
  std::string text;
  while (text.size() < length) text += pieces[rng() % KTRN_ARRAY_COUNT(pieces)];
  return text;
}

void BuildRandomSession(std::mt19937 &rng, Session *s) {
  u32 targets = rng() % 4;
  for (u32 i = 0; i < targets; i++) {
    u32 t;
    std::string c = RandomText(rng, 40), a = RandomText(rng, 30), d = RandomText(rng, 20);
    SessionAddTarget(s, c.c_str(), a.c_str(), d.c_str(), &t);
    TextReplace(&s->targets[t]->environment, RandomText(rng, 50).c_str());
    s->targets[t]->inherit_from_parent = rng() % 2;
    s->targets[t]->halt_at_nominal_entry = rng() % 2;
  }
  s->current_target = targets ? rng() % targets : 0;
  u32 breakpoints = rng() % 7;
  for (u32 i = 0; i < breakpoints; i++) {
    u32 kind = rng() % 4, b;
    std::string place = RandomText(rng, 60);
    SessionAddBreakpoint(s, kind, place.c_str(), rng(), ((u64)rng() << 32) | rng(), &b);
    Breakpoint *bp = s->breakpoints[b];
    bp->size = rng() % 3 ? 1u << (rng() % 4) : rng();
    if (kind == kBreakpointProcessor) bp->access = rng() % 3;
    if (rng() % 2) TextReplace(&bp->condition, RandomText(rng, 30).c_str());
    bp->enabled = rng() % 2;
  }
  for (u32 w = 0; w < kWatchWindowCount; w++) {
    u32 rows = rng() % 3 == 0 ? rng() % 140 : 0;  // sometimes past the first 128 rows
    for (u32 r = 0; r < rows; r++)
      SessionAddWatchRow(s, w, RandomText(rng, rng() % 8 ? 20 : 520).c_str(), RandomText(rng, 10).c_str());
  }
  u32 files = rng() % 4;
  for (u32 i = 0; i < files; i++) SessionAddSourceFile(s, ("/src/" + RandomText(rng, 200)).c_str());
}

TEST(SessionFile, RandomSessionsRoundTrip) {
  std::mt19937 rng(20261122);
  for (int iteration = 0; iteration < 300; iteration++) {
    ScopedSession s, back;
    BuildRandomSession(rng, s.get());
    Bytes image = WriteImage(s.get());
    u32 sections = 0;
    ASSERT_EQ(ReadImage(back.get(), image, &sections), kSessionFileOk) << "iteration " << iteration;
    ASSERT_EQ(sections, 15u) << "iteration " << iteration;
    const char *difference = SessionDifference(s.get(), back.get());
    ASSERT_EQ(difference, nullptr) << "iteration " << iteration << ": " << difference;
    ASSERT_EQ(WriteImage(back.get()), image) << "iteration " << iteration;
  }
}

}  // namespace
