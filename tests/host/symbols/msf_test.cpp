// The MSF container: superblock checks, the directory, stream reads; and which failures keep the
// file open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>

#include "pdb_builder.h"
#include "symbols/msf.h"
#include "symbols/pdb_error.h"

namespace {

bool FdIsOpen(const OsFile &file) { return file.handle && fcntl((int)(file.handle - 1), F_GETFD) != -1; }

Bytes Pattern(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; i++) b[i] = (uint8_t)(i * 7 + seed);
  return b;
}

struct Opened {
  SymbolArena arena = {};
  MsfFile msf = {};
  int result;
  explicit Opened(const Bytes &file) { result = MsfOpen(&arena, WriteTempFile(file, "test.msf").c_str(), &msf); }
  ~Opened() {
    MsfClose(&msf);
    SymbolArenaRelease(&arena);
  }
};

}  // namespace

TEST(MsfOpen, ChecksTheSuperblockFieldByField) {
  const struct {
    const char *what;
    uint32_t page_size, free_map_page;
    int64_t directory_bytes;  // -1: the real one
    bool break_magic;
    int expected;
    bool file_left_open;
  } cases[] = {
      {"page size 1024", 1024, 1, -1, false, kPdbOk, true},
      {"page size 2048", 2048, 2, -1, false, kPdbOk, true},
      {"page size 4096", 4096, 1, -1, false, kPdbOk, true},
      {"page size 512", 512, 1, -1, false, kPdbBadFormat, true},
      {"page size 3072", 3072, 1, -1, false, kPdbBadFormat, true},
      {"page size 8192", 8192, 1, -1, false, kPdbBadFormat, true},
      {"free-page map 0", 4096, 0, -1, false, kPdbBadFormat, true},
      {"free-page map 3", 4096, 3, -1, false, kPdbBadFormat, true},
      {"directory of 3 bytes", 4096, 1, 3, false, kPdbBadFormat, true},
      {"magic", 4096, 1, -1, true, kPdbBadFormat, true},
      // More directory pages than 19 map pages can list: refused before anything is read.
      {"20 map pages", 1024, 1, 19 * 256 * 1024 + 1, false, kPdbBadFormat, false},
      // The largest directory that 19 map pages list, but the file does not hold it.
      {"19 map pages, file too short", 1024, 1, 19 * 256 * 1024, false, kPdbUnreadable, false},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.what);
    MsfSpec spec;
    spec.page_size = c.page_size == 512 || c.page_size == 3072 || c.page_size == 8192 ? 4096 : c.page_size;
    spec.free_map_page = c.free_map_page;
    spec.directory_bytes_override = c.directory_bytes;
    spec.streams = {Pattern(10, 1), Pattern(5000, 2)};
    Bytes file = BuildMsf(spec);
    Set32(file, 0x20, c.page_size);
    if (c.break_magic) file[27] = 'X';
    Opened o(file);
    EXPECT_EQ(o.result, c.expected);
    EXPECT_EQ(FdIsOpen(o.msf.file), c.file_left_open);
    if (o.result != kPdbOk) continue;
    EXPECT_EQ(o.msf.stream_count, 2u);
    EXPECT_EQ(o.msf.page_size, c.page_size);
  }
}

// Short files and directories that contradict themselves or the file: refused, the file closed.
TEST(MsfOpen, ShortFilesAndBrokenDirectories) {
  MsfSpec spec;
  spec.streams = {Pattern(10, 1), Pattern(9000, 2)};
  const Bytes good = BuildMsf(spec);
  auto patched = [&](size_t at, uint32_t value) {
    Bytes file = good;
    Set32(file, at, value);
    return file;
  };
  size_t directory = MsfDirectoryAt(good), map = (good[0x34] | good[0x35] << 8) * 4096u;
  const struct {
    const char *what;
    Bytes file;
    int expected;
  } cases[] = {
      {"empty", {}, kPdbBadFormat},
      {"127 bytes with the magic", Bytes(good.begin(), good.begin() + 127), kPdbBadFormat},
      {"stream count beyond the directory", patched(directory, 1000000), kPdbBadFormat},
      {"page lists beyond the directory", patched(directory + 8, 4096u * 100), kPdbBadFormat},
      {"directory page beyond the end of the file", patched(map, 5000), kPdbUnreadable},
  };
  for (auto &c : cases) {
    Opened o(c.file);
    EXPECT_EQ(o.result, c.expected) << c.what;
    EXPECT_FALSE(FdIsOpen(o.msf.file)) << c.what;
  }
  SymbolArena arena = {};
  MsfFile msf;
  EXPECT_EQ(MsfOpen(&arena, "/nonexistent/dir/file.pdb", &msf), kPdbUnreadable);
}

// A nil stream owns no pages; the next stream's list starts where it would have; a directory that
// spans several pages (page size 1024, many streams) is parsed across page boundaries.
TEST(MsfOpen, MapsStreamsAcrossNilStreamsAndDirectoryPages) {
  MsfSpec spec;
  spec.page_size = 1024;
  for (int i = 0; i < 400; i++) spec.streams.push_back(Pattern(i % 7 == 0 ? 0 : 100 + 37 * i, (uint8_t)i));
  spec.nil.assign(400, false);
  spec.nil[3] = spec.nil[200] = true;
  Opened o(BuildMsf(spec));
  MsfFile &msf = o.msf;
  ASSERT_EQ(o.result, kPdbOk);
  ASSERT_EQ(msf.stream_count, 400u);
  EXPECT_EQ(msf.streams[3].size, kMsfNilStreamSize);
  EXPECT_EQ(msf.streams[4].pages, msf.streams[3].pages);
  EXPECT_EQ(MsfStreamSize(&msf, 3), 0u);
  EXPECT_EQ(MsfStreamSize(&msf, 400), 0u);
  EXPECT_EQ(MsfStreamAt(&msf, 400), nullptr);
  for (u32 i = 0; i < 400; i++) {
    if (spec.nil[i]) continue;
    Bytes got(spec.streams[i].size() + 8, 0xEE);
    ASSERT_EQ(MsfReadStream(&msf, &msf.streams[i], got.data(), got.size(), 0), kPdbOk);
    got.resize(spec.streams[i].size() + 1);
    ASSERT_EQ(got, LeBytes().raw(spec.streams[i]).u8(0xEE).b) << "stream " << i << ", clipped to its end";
  }
}

// Pages 7, 8, 9, 12: the run 7-9 is one system read, page 12 a second one. Reads at or past the
// end succeed with nothing read.
TEST(MsfReadStream, MergesConsecutivePagesIntoOneRead) {
  MsfSpec spec;
  spec.page_size = 1024;
  Bytes data = Pattern(4 * 1024, 9);
  spec.streams = {Pattern(10, 1), data};
  spec.pages[1] = {7, 8, 9, 12};
  Opened o(BuildMsf(spec));
  ASSERT_EQ(o.result, kPdbOk);
  struct {
    u64 offset, count, reads;
  } cases[] = {
      {0, 4096, 2},     // 7-9, 12
      {100, 2900, 1},   // inside 7-9
      {1500, 2596, 2},  // 8-9, 12
      {3072, 1024, 1},  // 12 alone
      {3000, 500, 2},   // end of 9, start of 12
      {4096, 10, 0},    // at the end
      {5000, 10, 0},    // past the end
  };
  for (auto &c : cases) {
    Bytes got(c.count, 0);
    u64 before = OsFileReadCallCount();
    ASSERT_EQ(MsfReadStream(&o.msf, &o.msf.streams[1], got.data(), c.count, c.offset), kPdbOk);
    EXPECT_EQ(OsFileReadCallCount() - before, c.reads) << c.offset;
    if (c.offset < data.size()) EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin() + c.offset)) << c.offset;
  }
  // A page beyond the end of the file shows up as a short read.
  o.msf.streams[1].pages[3] = 100000;
  Bytes got(4096);
  EXPECT_EQ(MsfReadStream(&o.msf, &o.msf.streams[1], got.data(), 4096, 0), kPdbUnreadable);
}
