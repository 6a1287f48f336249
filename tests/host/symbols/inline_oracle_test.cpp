// Inlined frames against llvm-symbolizer --inlines: at every instruction of the optimised test
// programs (and a sample of our own programs) the chain of frames that `ktrn-pdb inline` lists
// must name the same functions, innermost first, and give each inlined frame the same file and
// line; `ktrn-pdb addr` must lead with the same innermost frame. llvm-symbolizer 14 reads an
// inline site's line table one row late in places (it gives a row's range the next row's line);
// where it disagrees with us, the site's annotations as llvm-pdbutil decodes and prints them
// decide. The procedure's own line comes from the line tables, which the address oracle checks.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "oracle.h"

namespace {

struct FrameLine {
  std::string function, file;
  unsigned line = 0;
  unsigned module = 0, record = 0;  // ours only: the record that opens the frame's function
};

// [SECTION] Inline sites as llvm-pdbutil prints them

struct SiteRow {
  unsigned start, end;
  int line;  // relative to the inlinee's first line
};

struct Site {
  unsigned inlinee = 0;
  std::vector<SiteRow> rows;
};

struct PrintedAnnotation {
  bool has_code = false, has_end = false, has_line = false;
  unsigned code = 0, end = 0;
  int line = 0;
};

// One printed annotation: "code 0x1A (+0x1A)", "code end 0x48 (+0x24)", "line 2 (+2)",
// "code 0x20 (+0x6) line 1 (-1)", "code 0x31 (+0x31) code end 0x4D (+0x1C)".
bool ReadAnnotation(const std::string &text, PrintedAnnotation *a) {
  const char *p = text.c_str();
  for (const char *at = strstr(p, "code "); at; at = strstr(at + 5, "code ")) {
    unsigned value;
    if (sscanf(at, "code end 0x%x", &value) == 1) a->has_end = true, a->end = value;
    else if (sscanf(at, "code 0x%x", &value) == 1) a->has_code = true, a->code = value;
  }
  const char *line = strstr(p, "line ");
  if (line && sscanf(line, "line %d", &a->line) == 1) a->has_line = true;
  return a->has_code || a->has_end || a->has_line;
}

// The rows of a site: a code offset opens a row with the line in force; a line change that no
// code move follows opens a row at the current offset (or renames the row that starts there); a
// code end closes the open row.
std::vector<SiteRow> RowsOf(const std::vector<PrintedAnnotation> &ops) {
  std::vector<SiteRow> rows;
  bool open = false;
  unsigned code = 0;
  int line = 0;
  auto close = [&](unsigned end) {
    if (open && end > rows.back().start) rows.back().end = end;
    else if (open) rows.pop_back();
    open = false;
  };
  auto start = [&](unsigned at) {
    close(at);
    rows.push_back({at, at, line});
    open = true;
  };
  for (size_t i = 0; i < ops.size(); i++) {
    const PrintedAnnotation &a = ops[i];
    if (a.has_line) line = a.line;
    if (a.has_code) {
      code = a.code;
      start(code);
    } else if (a.has_line && !(i + 1 < ops.size() && ops[i + 1].has_code && !ops[i + 1].has_line)) {
      if (open && rows.back().start == code) rows.back().line = line;
      else start(code);
    }
    if (a.has_end) {
      close(a.end);
      code = a.end;
    }
  }
  if (open) rows.pop_back();  // no known end
  return rows;
}

// Per module: sites by record offset, and each inlinee's first line.
struct PrintedModule {
  std::map<unsigned, Site> sites;
  std::map<unsigned, unsigned> first_lines;
};

std::vector<PrintedModule> ReadSites(const std::string &pdb) {
  std::vector<PrintedModule> modules;
  CommandResult run = RunCommand("llvm-pdbutil-14 dump -symbols " + Quote(pdb) + " 2>&1");
  Site *site = nullptr;
  std::vector<PrintedAnnotation> ops;
  auto finish = [&]() {
    if (site) site->rows = RowsOf(ops);
    site = nullptr;
    ops.clear();
  };
  for (const std::string &line : SplitLines(run.output)) {
    if (line.rfind("Mod ", 0) == 0 || line.rfind("  Mod ", 0) == 0) {
      finish();
      modules.emplace_back();
      continue;
    }
    unsigned offset;
    char kind[64];
    if (line.find(" | S_") != std::string::npos && sscanf(line.c_str(), " %u | %63s", &offset, kind) == 2) {
      finish();
      if (!modules.empty() && (strcmp(kind, "S_INLINESITE") == 0 || strcmp(kind, "S_INLINESITE2") == 0))
        site = &modules.back().sites[offset];
      continue;
    }
    const char *inlinee = strstr(line.c_str(), "inlinee = 0x");
    PrintedAnnotation a;
    if (site && inlinee) site->inlinee = (unsigned)strtoul(inlinee + 10, nullptr, 16);
    else if (site && ReadAnnotation(line, &a)) ops.push_back(a);
  }
  finish();
  CommandResult il = RunCommand("llvm-pdbutil-14 dump -il " + Quote(pdb) + " 2>&1");
  size_t module = 0;
  bool first = true;
  for (const std::string &line : SplitLines(il.output)) {
    if (line.rfind("Mod ", 0) == 0 || line.rfind("  Mod ", 0) == 0) {
      module = first ? 0 : module + 1;
      first = false;
      continue;
    }
    unsigned id, number;
    if (module < modules.size() && sscanf(line.c_str(), " 0x%x | %u |", &id, &number) == 2)
      modules[module].first_lines[id] = number;
  }
  return modules;
}

// The line the printed annotations give the site at an offset in its procedure, or -1.
int PrintedLine(const std::vector<PrintedModule> &modules, const FrameLine &frame, unsigned offset) {
  if (frame.module >= modules.size()) return -1;
  const PrintedModule &m = modules[frame.module];
  auto site = m.sites.find(frame.record);
  if (site == m.sites.end()) return -1;
  auto first = m.first_lines.find(site->second.inlinee);
  if (first == m.first_lines.end()) return -1;
  for (const SiteRow &row : site->second.rows)
    if (offset >= row.start && offset < row.end) return (int)first->second + row.line;
  return -1;
}

// [SECTION] The two tools

// "0001:00000519 #0 frames::Clamp /path/frames.cpp:43 (module 2 record 336)"
bool ReadOurFrame(const std::string &line, std::string *address, FrameLine *out) {
  char text[16];
  unsigned index;
  if (sscanf(line.c_str(), "%13s #%u", text, &index) != 2) return false;
  size_t name_at = line.find(' ', line.find('#')) + 1, tail = line.rfind(" (module ");
  if (tail == std::string::npos || sscanf(line.c_str() + tail, " (module %u record %u)", &out->module, &out->record) != 2)
    return false;
  std::string middle = line.substr(name_at, tail - name_at);
  size_t colon = middle.rfind(':'), blank = middle.rfind(' ', colon);
  if (colon == std::string::npos || blank == std::string::npos) return false;
  out->function = middle.substr(0, blank);
  out->file = middle.substr(blank + 1, colon - blank - 1);
  out->line = (unsigned)atoi(middle.c_str() + colon + 1);
  *address = text;
  return true;
}

// The frames of one line of llvm-symbolizer's JSON output, innermost first.
std::vector<FrameLine> ReadTheirFrames(const std::string &json) {
  std::vector<FrameLine> frames;
  for (size_t at = json.find("\"FileName\":\""); at != std::string::npos; at = json.find("\"FileName\":\"", at + 1)) {
    FrameLine f;
    size_t file_end = json.find('"', at + 12);
    f.file = json.substr(at + 12, file_end - at - 12);
    size_t name = json.find("\"FunctionName\":\"", at);
    f.function = json.substr(name + 16, json.find('"', name + 16) - name - 16);
    size_t line = json.find("\"Line\":", at);
    f.line = (unsigned)atoi(json.c_str() + line + 7);
    frames.push_back(f);
  }
  return frames;
}

std::string Describe(const std::vector<FrameLine> &frames) {
  std::string text;
  for (const FrameLine &f : frames) text += "\n    " + f.function + " " + f.file + ":" + std::to_string(f.line);
  return text;
}

void ExpectInlineFramesAgree(const std::string &exe, unsigned every) {
  SCOPED_TRACE(exe);
  std::string pdb = exe.substr(0, exe.size() - 4) + ".pdb";
  Layout layout;
  std::string failure;
  ASSERT_TRUE(ReadLayout(exe, &layout, &failure)) << failure;
  std::vector<uint32_t> rvas;
  for (size_t i = 0; i < layout.instructions.size(); i += every) rvas.push_back(layout.instructions[i]);
  std::vector<PrintedModule> printed = ReadSites(pdb);

  int compared = 0, inlined = 0, late_rows = 0, differences = 0;
  for (size_t first = 0; first < rvas.size(); first += 2000) {
    size_t last = std::min(rvas.size(), first + 2000);
    std::string addresses, input;
    for (size_t i = first; i < last; i++) {
      char text[16];
      snprintf(text, sizeof(text), "%X", rvas[i]);
      addresses += std::string(" ") + text, input += std::string("0x") + text + "\n";
    }
    std::string input_path = "/tmp/ktrn-inline-oracle-" + std::to_string(getpid()) + ".txt";
    FILE *f = fopen(input_path.c_str(), "w");
    ASSERT_TRUE(f);
    fputs(input.c_str(), f);
    fclose(f);
    CommandResult ours = PdbTool({"inline", exe}, addresses), addr = PdbTool({"addr", exe}, addresses);
    CommandResult theirs = RunCommand("llvm-symbolizer-14 --obj=" + Quote(exe) +
                                      " --relative-address --inlines --functions=short --output-style=JSON < " +
                                      Quote(input_path));
    remove(input_path.c_str());
    ASSERT_EQ(ours.exit_status, 0);
    ASSERT_EQ(addr.exit_status, 0);
    ASSERT_EQ(theirs.exit_status, 0);
    std::vector<std::string> their_lines = SplitLines(theirs.output), addr_lines = SplitLines(addr.output);
    ASSERT_EQ(their_lines.size(), last - first);
    ASSERT_EQ(addr_lines.size(), last - first + 1);  // after the symbol status

    // Our frames, grouped by address in the order asked.
    std::vector<std::vector<FrameLine>> our_frames;
    std::string previous;
    for (const std::string &line : SplitLines(ours.output)) {
      std::string address;
      FrameLine frame;
      bool parsed = ReadOurFrame(line, &address, &frame);
      if (!parsed || address != previous || line.find(" #0 ") != std::string::npos) our_frames.emplace_back();
      if (parsed) our_frames.back().push_back(frame);
      previous = parsed ? address : "";
    }
    ASSERT_EQ(our_frames.size(), last - first);

    for (size_t i = 0; i < last - first; i++) {
      std::vector<FrameLine> theirs_here = ReadTheirFrames(their_lines[i]), &ours_here = our_frames[i];
      if (ours_here.empty() || theirs_here.empty() || theirs_here[0].function.empty()) continue;  // no procedure
      compared++;
      uint32_t rva = rvas[first + i];
      bool same = ours_here.size() == theirs_here.size();
      for (size_t k = 0; same && k < ours_here.size(); k++) same = ours_here[k].function == theirs_here[k].function;
      for (size_t k = 0; same && k + 1 < ours_here.size(); k++) {
        same = ours_here[k].file == theirs_here[k].file;
        if (!same || ours_here[k].line == theirs_here[k].line) continue;
        // The procedure starts where the last frame's record says: the offset into it from the
        // addr line ("NAME+0xOFF").
        const std::string &a = addr_lines[i + 1];
        size_t plus = a.rfind("+0x");
        unsigned into = plus == std::string::npos ? 0 : (unsigned)strtoul(a.c_str() + plus + 3, nullptr, 16);
        same = PrintedLine(printed, ours_here[k], into) == (int)ours_here[k].line;
        late_rows += same;
      }
      inlined += ours_here.size() > 1;
      // addr leads with the innermost frame.
      if (ours_here.size() > 1) {
        char head[32];
        snprintf(head, sizeof(head), "0x%08X ", rva);
        std::string expected = head + ours_here[0].function + " " + ours_here[0].file + ":" +
                               std::to_string(ours_here[0].line) + " @ " + ours_here.back().function + "+0x";
        same = same && addr_lines[i + 1].compare(0, expected.size(), expected) == 0;
      }
      if (!same && differences++ < 15)
        ADD_FAILURE() << "at rva " << std::hex << rva << std::dec << "\n  ours:" << Describe(ours_here)
                      << "\n  llvm-symbolizer:" << Describe(theirs_here) << "\n  addr: " << addr_lines[i + 1];
    }
  }
  EXPECT_EQ(differences, 0) << "of " << compared;
  EXPECT_GT(inlined, 0) << "no inlined code met";
  printf("%s: %d addresses, %d in inlined code, %d inlined frames whose row llvm-symbolizer reads late\n", exe.c_str(),
         compared, inlined, late_rows);
}

}  // namespace

// The frames program optimised, by clang for mingw and by clang-cl: every instruction.
TEST(InlineOracle, OptimisedTestProgramsAgreeWithLlvmSymbolizer) {
  ASSERT_FALSE(TargetsDir().empty());
  for (const char *name : {"frames_o2.exe", "frames_msvc_o2.exe"}) ExpectInlineFramesAgree(TargetFile(name), 1);
}

// Our own optimised programs: every 16th instruction of kestrune.exe, every 2nd of ktrn-pdb.exe.
TEST(InlineOracle, OwnProgramsAgreeWithLlvmSymbolizer) {
  ASSERT_FALSE(TargetsDir().empty());
  ExpectInlineFramesAgree(OwnProgramFile("kestrune.exe"), 16);
  ExpectInlineFramesAgree(OwnProgramFile("ktrn-pdb.exe"), 2);
}
