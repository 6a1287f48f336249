// The type stream loader on crafted streams: record offsets, the bucket index built from the hash
// values, hash adjusters, the version-1 string hash, and a large stream loaded by PdbOpen beside the
// modules.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "pdb_builder.h"
#include "symbols/msf.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_file.h"
#include "symbols/pdb_types.h"

namespace {

// A type stream of records of the given payload sizes (leaf 0x1505 each), and its hash stream 3:
// hash values, then an adjuster table of (name offset, type index) pairs.
struct TypeStreamSpec {
  std::vector<uint16_t> payloads;
  std::vector<uint32_t> hash_values;  // one per type for a usable index
  uint32_t bucket_count = 4;
  uint32_t hash_stream = 3;
  std::vector<std::pair<uint32_t, uint32_t>> adjusters;
};

struct Loaded {
  SymbolArena arena = {};
  MsfFile msf = {};
  PdbTypes types = {};
  int result = -1;
};

void Load(const TypeStreamSpec &t, const std::string &names, Loaded *out) {
  Bytes records;
  for (uint16_t n : t.payloads) {
    Put16(records, n + 2), Put16(records, 0x1505);
    for (uint16_t i = 0; i < n; i++) records.push_back((uint8_t)i);
  }
  Bytes hash;
  for (uint32_t v : t.hash_values) Put32(hash, v);
  uint32_t adjust_offset = (uint32_t)hash.size();
  if (!t.adjusters.empty()) {
    Put32(hash, (uint32_t)t.adjusters.size()), Put32(hash, 8);
    Put32(hash, 1), Put32(hash, 0xFF);  // present bits
    Put32(hash, 0);                     // no deleted bits
    for (auto &a : t.adjusters) Put32(hash, a.first), Put32(hash, a.second);
  }
  Bytes tpi(56, 0);
  Set32(tpi, 0, 20040203), Set32(tpi, 4, 56), Set32(tpi, 8, 0x1000);
  Set32(tpi, 12, 0x1000 + (uint32_t)t.payloads.size()), Set32(tpi, 16, (uint32_t)records.size());
  Set32(tpi, 20, t.hash_stream | 0xFFFF0000u), Set32(tpi, 24, 4), Set32(tpi, 28, t.bucket_count);
  Set32(tpi, 32, 0), Set32(tpi, 36, (uint32_t)t.hash_values.size() * 4);
  Set32(tpi, 48, adjust_offset), Set32(tpi, 52, (uint32_t)hash.size() - adjust_offset);
  tpi.insert(tpi.end(), records.begin(), records.end());
  MsfSpec msf;
  msf.streams = {Bytes(), Bytes(), tpi, hash};
  std::string path = WriteTempFile(BuildMsf(msf), "types.msf");
  ASSERT_EQ(MsfOpen(&out->arena, path.c_str(), &out->msf), kPdbOk);
  PdbStringTable strings = {names.c_str(), (uint32_t)names.size()};
  out->result = PdbLoadTypes(&out->arena, &out->msf, &strings, &out->types);
  MsfClose(&out->msf);
}

std::vector<uint32_t> Bucket(const PdbTypes &t, uint32_t b) {
  std::vector<uint32_t> out;
  uint32_t start = (uint32_t)t.buckets[b], n = (uint32_t)(t.buckets[b] >> 32);
  for (uint32_t i = 0; i < n; i++) out.push_back(t.bucket_list[start + i]);
  return out;
}

TEST(TypeStream, RecordOffsetsAndBuckets) {
  Loaded l;
  // Type 0x1003's hash value lies beyond the bucket count: it is in no bucket.
  Load({{0, 3, 8, 1}, {2, 0, 2, 9}}, "", &l);
  ASSERT_EQ(l.result, kPdbOk);
  ASSERT_EQ(l.types.count, 4u);
  EXPECT_EQ(l.types.offsets[0], 0u);
  EXPECT_EQ(l.types.offsets[1], 4u);
  EXPECT_EQ(l.types.offsets[2], 11u);
  EXPECT_EQ(l.types.offsets[3], 23u);
  EXPECT_EQ(PdbTypeRecord(&l.types, 0x1002), l.types.records + 11);
  EXPECT_EQ(PdbTypeRecord(&l.types, 0x0FFF), nullptr);
  EXPECT_EQ(PdbTypeRecord(&l.types, 0x1004), nullptr);
  ASSERT_EQ(l.types.bucket_count, 4u);
  EXPECT_EQ(Bucket(l.types, 0), std::vector<uint32_t>{0x1001});
  EXPECT_EQ(Bucket(l.types, 1), std::vector<uint32_t>{});
  EXPECT_EQ(Bucket(l.types, 2), (std::vector<uint32_t>{0x1000, 0x1002}));
  EXPECT_EQ(Bucket(l.types, 3), std::vector<uint32_t>{});
  SymbolArenaRelease(&l.arena);
}

TEST(TypeStream, WithoutAUsableHashIndexTypesStayReachableByIndex) {
  struct Case {
    const char *what;
    TypeStreamSpec spec;
  } cases[] = {
      {"no hash stream", {{4, 4}, {1, 1}, 4, 0xFFFF, {}}},
      {"hash values for fewer types", {{4, 4}, {1}, 4, 3, {}}},
  };
  for (const Case &c : cases) {
    Loaded l;
    Load(c.spec, "", &l);
    EXPECT_EQ(l.result, kPdbOk) << c.what;
    EXPECT_EQ(l.types.bucket_count, 0u) << c.what;
    EXPECT_NE(PdbTypeRecord(&l.types, 0x1001), nullptr) << c.what;
    SymbolArenaRelease(&l.arena);
  }
}

TEST(TypeStream, AdjusterMovesItsTypeToTheEndOfItsBucket) {
  std::string names = std::string("\0Foo\0", 5);
  uint32_t bucket = PdbNameHashV1("Foo", 3) % 4;
  Loaded l;
  Load({{4, 4, 4}, {bucket, bucket, bucket}, 4, 3, {{1, 0x1001}}}, names, &l);
  ASSERT_EQ(l.result, kPdbOk);
  EXPECT_EQ(Bucket(l.types, bucket), (std::vector<uint32_t>{0x1000, 0x1002, 0x1001}));
  SymbolArenaRelease(&l.arena);
  // The adjusted type changes places with the last one: the ones between keep theirs.
  Loaded first;
  Load({{4, 4, 4}, {bucket, bucket, bucket}, 4, 3, {{1, 0x1000}}}, names, &first);
  ASSERT_EQ(first.result, kPdbOk);
  EXPECT_EQ(Bucket(first.types, bucket), (std::vector<uint32_t>{0x1002, 0x1001, 0x1000}));
  SymbolArenaRelease(&first.arena);
}

TEST(TypeStream, ShortStreamIsBadFormat) {
  MsfSpec msf;
  msf.streams = {Bytes(), Bytes(), Bytes(55, 0)};
  std::string path = WriteTempFile(BuildMsf(msf), "short-types.msf");
  SymbolArena arena = {};
  MsfFile file = {};
  ASSERT_EQ(MsfOpen(&arena, path.c_str(), &file), kPdbOk);
  PdbStringTable strings = {"", 0};
  PdbTypes types;
  EXPECT_EQ(PdbLoadTypes(&arena, &file, &strings, &types), kPdbBadFormat);
  MsfClose(&file);
  SymbolArenaRelease(&arena);
}

// Reference values computed independently from the published definition of the hash.
TEST(NameHashV1, TailBytesAndCaseFolding) {
  struct Case {
    const char *name;
    uint32_t expected;
  } cases[] = {
      {"", 0x20202020u ^ (0x20202020u >> 11) ^ ((0x20202020u ^ (0x20202020u >> 11)) >> 16)},
  };
  for (const Case &c : cases) EXPECT_EQ(PdbNameHashV1(c.name, (uint32_t)strlen(c.name)), c.expected) << c.name;
  // The OR with 0x20202020 folds ASCII case: names differing only in case hash alike.
  EXPECT_EQ(PdbNameHashV1("ABCDEfg", 7), PdbNameHashV1("abcdeFG", 7));
  EXPECT_NE(PdbNameHashV1("abcdefg", 7), PdbNameHashV1("abcdefh", 7));
}

}  // namespace

// A type stream large enough to load on a worker thread beside the modules: the result must be the
// one the loader gives on its own, unreadable records must still fail the whole open, and an
// unreadable hash stream only leaves the name index empty.
namespace {

struct LargeTypes {
  Bytes stream, hash;
  uint32_t count = 0;
};

// A whole PDB opened as the debugger opens it (the GUID check off).
struct Opened {
  SymbolArena arena = {};
  PdbFile pdb = {};
  PdbSummary summary = {};
  std::string path;
  int status = -1;
  explicit Opened(const Bytes &file) {
    path = WriteTempFile(file, "large-types.pdb");
    CodeViewIdentity none = {};
    status = PdbOpen(&arena, &none, path.c_str(), true, &pdb, &summary);
  }
  ~Opened() {
    MsfClose(&pdb.msf);
    SymbolArenaRelease(&arena);
  }
};

LargeTypes LargeTypeStream(uint32_t record_bytes_total, uint32_t buckets) {
  LargeTypes t;
  Bytes records;
  while (records.size() < record_bytes_total) {
    uint16_t payload = (uint16_t)(40 + t.count % 64);
    Put16(records, payload + 2), Put16(records, 0x1505);
    for (uint16_t i = 0; i < payload; i++) records.push_back((uint8_t)(t.count + i));
    Put32(t.hash, (t.count * 2654435761u) % buckets);
    t.count++;
  }
  t.stream.assign(56, 0);
  Set32(t.stream, 0, 20040203), Set32(t.stream, 4, 56), Set32(t.stream, 8, 0x1000);
  Set32(t.stream, 12, 0x1000 + t.count), Set32(t.stream, 16, (uint32_t)records.size());
  Set32(t.stream, 20, 5 | 0xFFFF0000u), Set32(t.stream, 24, 4), Set32(t.stream, 28, buckets);
  Set32(t.stream, 36, t.count * 4);
  t.stream.insert(t.stream.end(), records.begin(), records.end());
  return t;
}

}  // namespace

TEST(PdbOpen, LargeTypeStreamLoadsBesideTheModules) {
  LargeTypes large = LargeTypeStream(9u << 20, 4093);
  PdbSpec spec;
  spec.type_stream_override = large.stream;
  spec.type_hash_stream = large.hash;
  ModuleSpec m;
  m.records = {ProcRecord(0x1110, 0, 0x40, 0x200, 1, "main"), SimpleRecord(0x0006)};
  FixProcedureEnds(m);
  spec.modules = {m};

  Opened whole(BuildPdb(spec));
  ASSERT_EQ(whole.status, kPdbOk);
  EXPECT_EQ(whole.summary.procedure_count, 1u);
  ASSERT_EQ(whole.summary.type_count, large.count);

  // The same stream through the loader alone, on this thread.
  SymbolArena arena = {};
  MsfFile msf;
  ASSERT_EQ(MsfOpen(&arena, whole.path.c_str(), &msf), kPdbOk);
  PdbTypes alone;
  ASSERT_EQ(PdbLoadTypes(&arena, &msf, &whole.pdb.strings, &alone), kPdbOk);
  MsfClose(&msf);
  const PdbTypes &t = whole.pdb.types;
  ASSERT_EQ(t.count, alone.count);
  ASSERT_EQ(t.bucket_count, alone.bucket_count);
  EXPECT_EQ(memcmp(t.offsets, alone.offsets, t.count * 4u), 0);
  EXPECT_EQ(memcmp(t.buckets, alone.buckets, t.bucket_count * 8u), 0);
  EXPECT_EQ(memcmp(t.bucket_list, alone.bucket_list, t.count * 4u), 0);
  const u8 *last = PdbTypeRecord(&t, 0x1000 + large.count - 1);
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last - t.records, alone.offsets[large.count - 1]);
  SymbolArenaRelease(&arena);
  EXPECT_EQ(ScratchState()->depth, 0u);

  // A type stream shorter than its header fails the whole open; a large one cut short of the
  // records it claims still loads.
  // The records cannot be read: the worker's failure fails the open. The hash stream cannot be
  // read: the types load without a name index.
  Bytes unreadable_records = BuildPdb(spec);
  PointStreamPastTheEnd(unreadable_records, 2);
  EXPECT_EQ(Opened(unreadable_records).status, kPdbUnreadable);
  Bytes unreadable_hash = BuildPdb(spec);
  PointStreamPastTheEnd(unreadable_hash, 5);
  {
    Opened no_index(unreadable_hash);
    ASSERT_EQ(no_index.status, kPdbOk);
    EXPECT_EQ(no_index.pdb.types.count, large.count);
    EXPECT_EQ(no_index.pdb.types.bucket_count, 0u);
    EXPECT_NE(PdbTypeRecord(&no_index.pdb.types, 0x1000 + large.count - 1), nullptr);
  }

  spec.type_stream_override.resize(40);
  EXPECT_EQ(Opened(BuildPdb(spec)).status, kPdbBadFormat);
  Bytes cut = large.stream;
  cut.resize(cut.size() - 1000);
  spec.type_stream_override = cut;
  EXPECT_EQ(Opened(BuildPdb(spec)).status, kPdbOk);
}
