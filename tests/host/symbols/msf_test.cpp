// The MSF container: superblock checks, the directory, stream reads; and which failures keep the
// file open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>

#include "pdb_builder.h"
#include "symbols/msf.h"
#include "symbols/pdb_error.h"

static bool FdIsOpen(const OsFile &file) { return file.handle && fcntl((int)(file.handle - 1), F_GETFD) != -1; }

static Bytes Pattern(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; i++) b[i] = (uint8_t)(i * 7 + seed);
  return b;
}

struct SuperblockCase {
  const char *what;
  uint32_t page_size;
  uint32_t free_map_page;
  int64_t directory_bytes;  // -1: the real one
  bool break_magic;
  int expected;
  bool file_left_open;
};

TEST(MsfOpen, ChecksTheSuperblockField_ByField) {
  const SuperblockCase cases[] = {
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
  for (const SuperblockCase &c : cases) {
    MsfSpec spec;
    spec.page_size = c.page_size == 3072 || c.page_size == 512 || c.page_size == 8192 ? 4096 : c.page_size;
    spec.free_map_page = c.free_map_page;
    spec.directory_bytes_override = c.directory_bytes;
    spec.streams = {Pattern(10, 1), Pattern(5000, 2)};
    Bytes file = BuildMsf(spec);
    Set32(file, 0x20, c.page_size);
    if (c.break_magic) file[27] = 'X';
    std::string path = WriteTempFile(file, "superblock.msf");
    SymbolArena arena = {};
    MsfFile msf;
    int result = MsfOpen(&arena, path.c_str(), &msf);
    EXPECT_EQ(result, c.expected) << c.what;
    EXPECT_EQ(FdIsOpen(msf.file), c.file_left_open) << c.what;
    if (result == kPdbOk) {
      EXPECT_EQ(msf.stream_count, 2u) << c.what;
      EXPECT_EQ(msf.page_size, c.page_size) << c.what;
    }
    MsfClose(&msf);
    SymbolArenaRelease(&arena);
  }
}

TEST(MsfOpen, ShortAndMissingFiles) {
  SymbolArena arena = {};
  MsfFile msf;
  EXPECT_EQ(MsfOpen(&arena, "/nonexistent/dir/file.pdb", &msf), kPdbUnreadable);
  Bytes small(127, 0);
  static const char magic[] = "Microsoft C/C++ MSF 7.00\r\n\x1A" "DS";
  memcpy(small.data(), magic, 30);
  EXPECT_EQ(MsfOpen(&arena, WriteTempFile(small, "small.pdb").c_str(), &msf), kPdbBadFormat);
  EXPECT_FALSE(FdIsOpen(msf.file));
  EXPECT_EQ(MsfOpen(&arena, WriteTempFile({}, "empty.pdb").c_str(), &msf), kPdbBadFormat);
  SymbolArenaRelease(&arena);
}

// A directory whose stream count or page lists do not fit in its own size is corrupt.
TEST(MsfOpen, RefusesDirectoriesThatContradictThemselves) {
  MsfSpec spec;
  spec.streams = {Pattern(10, 1), Pattern(9000, 2)};
  Bytes good = BuildMsf(spec);
  uint32_t directory_page = 0;
  {  // find the directory through the map page
    uint32_t map_page = good[0x34] | good[0x35] << 8;
    directory_page = good[map_page * 4096] | good[map_page * 4096 + 1] << 8;
  }
  struct {
    const char *what;
    size_t at;
    uint32_t value;
  } cases[] = {
      {"stream count beyond the directory", directory_page * 4096u, 1000000},
      {"page lists beyond the directory", directory_page * 4096u + 8, 4096u * 100},
  };
  for (auto &c : cases) {
    Bytes file = good;
    Set32(file, c.at, c.value);
    SymbolArena arena = {};
    MsfFile msf;
    EXPECT_EQ(MsfOpen(&arena, WriteTempFile(file, "dir.msf").c_str(), &msf), kPdbBadFormat) << c.what;
    EXPECT_FALSE(FdIsOpen(msf.file)) << c.what;
    SymbolArenaRelease(&arena);
  }
  // A directory page beyond the end of the file is a short read.
  Bytes file = good;
  uint32_t map_page = good[0x34] | good[0x35] << 8;
  Set32(file, map_page * 4096u, 5000);
  SymbolArena arena = {};
  MsfFile msf;
  EXPECT_EQ(MsfOpen(&arena, WriteTempFile(file, "dir.msf").c_str(), &msf), kPdbUnreadable);
  SymbolArenaRelease(&arena);
}

// A nil stream owns no pages; the next stream's list starts where it would have; a directory that
// spans several pages (page size 1024, many streams) is parsed across page boundaries.
TEST(MsfOpen, MapsStreamsAcrossNilStreamsAndDirectoryPages) {
  MsfSpec spec;
  spec.page_size = 1024;
  for (int i = 0; i < 400; i++) spec.streams.push_back(Pattern(i % 7 == 0 ? 0 : 100 + 37 * i, (uint8_t)i));
  spec.nil.assign(400, false);
  spec.nil[3] = spec.nil[200] = true;
  Bytes file = BuildMsf(spec);
  SymbolArena arena = {};
  MsfFile msf;
  ASSERT_EQ(MsfOpen(&arena, WriteTempFile(file, "many.msf").c_str(), &msf), kPdbOk);
  ASSERT_EQ(msf.stream_count, 400u);
  EXPECT_EQ(msf.streams[3].size, kMsfNilStreamSize);
  EXPECT_EQ(msf.streams[4].pages, msf.streams[3].pages);
  EXPECT_EQ(MsfStreamSize(&msf, 3), 0u);
  EXPECT_EQ(MsfStreamSize(&msf, 400), 0u);
  EXPECT_EQ(MsfStreamAt(&msf, 400), nullptr);
  for (u32 i = 0; i < 400; i++) {
    if (spec.nil[i]) continue;
    std::vector<uint8_t> got(spec.streams[i].size() + 8, 0xEE);
    ASSERT_EQ(MsfReadStream(&msf, &msf.streams[i], got.data(), got.size(), 0), kPdbOk);
    ASSERT_TRUE(std::equal(spec.streams[i].begin(), spec.streams[i].end(), got.begin())) << "stream " << i;
    EXPECT_EQ(got[spec.streams[i].size()], 0xEE) << "clipped to the stream's end";
  }
  MsfClose(&msf);
  SymbolArenaRelease(&arena);
}

// Pages 7, 8, 9, 12: the run 7-9 is one system read, page 12 a second one. Reads at or past the
// end succeed with nothing read.
TEST(MsfReadStream, MergesConsecutivePagesIntoOneRead) {
  MsfSpec spec;
  spec.page_size = 1024;
  Bytes data = Pattern(4 * 1024, 9);
  spec.streams = {Pattern(10, 1), data};
  spec.pages[1] = {7, 8, 9, 12};
  Bytes file = BuildMsf(spec);
  SymbolArena arena = {};
  MsfFile msf;
  ASSERT_EQ(MsfOpen(&arena, WriteTempFile(file, "runs.msf").c_str(), &msf), kPdbOk);
  struct {
    u64 offset, count;
    u64 reads;
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
    std::vector<uint8_t> got(c.count, 0);
    u64 before = OsFileReadCallCount();
    ASSERT_EQ(MsfReadStream(&msf, &msf.streams[1], got.data(), c.count, c.offset), kPdbOk);
    EXPECT_EQ(OsFileReadCallCount() - before, c.reads) << c.offset;
    if (c.offset < data.size())
      EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin() + c.offset)) << c.offset;
  }
  // A page beyond the end of the file shows up as a short read.
  msf.streams[1].pages[3] = 100000;
  std::vector<uint8_t> got(4096);
  EXPECT_EQ(MsfReadStream(&msf, &msf.streams[1], got.data(), 4096, 0), kPdbUnreadable);
  MsfClose(&msf);
  SymbolArenaRelease(&arena);
}
