// The model's promises to the windows: rows keep their address and id while the lists around them
// change, runtime breakpoint state never reaches the file, and the title follows the session.
#include <gtest/gtest.h>

#include <string>

#include "app/app_state.h"
#include "test_util.h"

namespace {

TEST(Model, RowsStayPutWhileTheirListsChange) {
  ScopedSession s;
  u32 index;
  for (u32 i = 0; i < 40; i++) SessionAddBreakpoint(s.get(), kBreakpointFunction, ("f" + std::to_string(i)).c_str(), 0, 0, &index);
  for (u32 i = 0; i < 300; i++) SessionAddWatchRow(s.get(), 2, ("w" + std::to_string(i)).c_str(), "");
  Breakpoint *kept = s->breakpoints[20];
  WatchRow *row = s->watches[2].rows[5];
  u32 kept_id = kept->id, row_id = row->id;
  // Growth past the first capacities and removals on both sides of the kept rows.
  for (u32 i = 0; i < 100; i++) SessionAddBreakpoint(s.get(), kBreakpointAddress, nullptr, 0, 0x1000 + i, &index);
  ASSERT_EQ(SessionRemoveBreakpoint(s.get(), 0), kSessionOk);
  ASSERT_EQ(SessionRemoveBreakpoint(s.get(), 30), kSessionOk);
  EXPECT_EQ(SessionRemoveFunctionBreakpoints(s.get(), "f3", nullptr, nullptr), 1u);
  EXPECT_EQ(SessionFindBreakpoint(s.get(), kept_id), kept);
  EXPECT_STREQ(kept->place, "f20");
  EXPECT_EQ(SessionFindWatchRow(s.get(), 2, row_id), row);
  EXPECT_STREQ(row->expression, "w5");
  // Watch rows removed before it and moved past it (Delete, Move Up/Down of the watch window).
  ASSERT_EQ(SessionRemoveWatchRow(s.get(), 2, 0), kSessionOk);
  ASSERT_EQ(SessionMoveWatchRow(s.get(), 2, 4, 0), kSessionOk);  // w5 to the top
  ASSERT_EQ(SessionMoveWatchRow(s.get(), 2, 1, 298), kSessionOk);  // w1 to the end
  EXPECT_EQ(SessionMoveWatchRow(s.get(), 2, 0, 299), kSessionBadArgument);
  EXPECT_EQ(s->watches[2].count, 299u);
  EXPECT_EQ(s->watches[2].rows[0], row);
  EXPECT_STREQ(s->watches[2].rows[1]->expression, "w2");
  EXPECT_STREQ(s->watches[2].rows[298]->expression, "w1");
  EXPECT_EQ(SessionFindWatchRow(s.get(), 2, row_id), row);
  // Ids are unique across lists and sessions.
  EXPECT_NE(kept_id, row_id);
  EXPECT_EQ(SessionFindWatchRow(s.get(), 1, row_id), nullptr);
  SessionRemoveBreakpoint(s.get(), (u32)(s->breakpoint_count - 1));
  EXPECT_EQ(SessionFindBreakpoint(s.get(), 0), nullptr);
}

TEST(Model, RuntimeStateOfBreakpointsIsNotSaved) {
  ScopedSession plain, bound;
  for (Session *s : {plain.get(), bound.get()}) {
    SessionAddBreakpoint(s, kBreakpointSourceLine, "C:\\src\\a.cpp", 12, 0, nullptr);
    SessionAddBreakpoint(s, kBreakpointFunction, "main", 0, 0, nullptr);
  }
  BreakpointRuntime *r = &bound->breakpoints[0]->runtime;
  r->state = kBreakpointStateBound;
  r->bound_address = 0x140001000;
  r->bound_line = 13;
  snprintf(r->bound_file, sizeof r->bound_file, "C:\\src\\a.cpp");
  bound->breakpoints[1]->runtime.condition_parse_failed = 1;
  EXPECT_EQ(WriteImage(plain.get()), WriteImage(bound.get()));
  SessionClearBreakpointRuntime(bound.get());
  EXPECT_EQ(bound->breakpoints[0]->runtime.state, 0u);
  EXPECT_EQ(bound->breakpoints[0]->runtime.bound_address, 0u);
}

TEST(Model, TitleNamesTheSessionOrTheProgram) {
  struct Case {
    const char *session_path, *program;
    bool modified;
    const char *title;
  } cases[] = {
      {"", nullptr, false, "Untitled - Kestrune"},
      {"", nullptr, true, "Untitled* - Kestrune"},
      {"", "C:\\work\\demo.exe", false, "demo.exe - Kestrune"},
      {"", "/z/tools/prog.exe", true, "prog.exe* - Kestrune"},
      {"C:\\s\\mine.ktrn", "C:\\work\\demo.exe", false, "mine.ktrn - Kestrune"},
      {"C:\\s\\mine.ktrn", nullptr, true, "mine.ktrn* - Kestrune"},
  };
  for (const Case &c : cases) {
    AppState *app = new AppState;
    AppStateInit(app);
    snprintf(app->session.path, sizeof app->session.path, "%s", c.session_path);
    if (c.program) SessionAddTarget(&app->session, c.program, nullptr, nullptr, nullptr);
    app->session.modified = c.modified;
    char title[kAppTitleCapacity];
    AppStateTitle(app, title, sizeof title);
    EXPECT_STREQ(title, c.title);
    AppStateFree(app);
    delete app;
  }
}

TEST(Model, OutputLogGrowsAndClears) {
  OutputLog log = {};
  std::string expected;
  for (int i = 0; i < 5000; i++) {
    std::string line = "Loaded 'C:\\Windows\\System32\\module" + std::to_string(i) + ".dll'.\n";
    OutputAppendZ(&log, line.c_str());
    expected += line;
  }
  EXPECT_EQ(std::string(log.text, log.length), expected);
  OutputClear(&log);
  EXPECT_STREQ(log.text, "");
  free(log.text);
}

}  // namespace
