// The type stream loader on crafted streams: record offsets, the bucket index built from the hash
// values, hash adjusters, the version-1 string hash, and a large stream loaded by PdbOpen beside the
// modules.
#include <gtest/gtest.h>
#include <string.h>

#include "opened_pdb.h"
#include "pdb_builder.h"
#include "symbols/pdb_types.h"

namespace {

// A PDB whose type stream holds records of the given payload sizes (leaf 0x1505 each), in 4
// buckets by the hash values of its hash stream, which then holds an adjuster table of (name
// offset, type index) pairs; "/names" holds "Foo" at offset 1.
struct TypeStreamCase {
  std::vector<uint16_t> payloads;
  std::vector<uint32_t> hash_values;  // one per type for a usable index
  bool hash_stream = true;
  std::vector<std::pair<uint32_t, uint32_t>> adjusters;
};

struct Loaded : OpenedPdb {
  explicit Loaded(const TypeStreamCase &t) : OpenedPdb(Write(t)) {}
  static std::string Write(const TypeStreamCase &t) {
    LeBytes records, hash;
    for (uint16_t n : t.payloads) {
      records.u16(n + 2).u16(0x1505);
      for (uint16_t i = 0; i < n; i++) records.u8(i);
    }
    for (uint32_t v : t.hash_values) hash.u32(v);
    if (!t.adjusters.empty()) {  // size, capacity, present bits, no deleted bits, the pairs
      hash.u32((uint32_t)t.adjusters.size()).u32(8).u32(1).u32(0xFF).u32(0);
      for (auto &a : t.adjusters) hash.u32(a.first).u32(a.second);
    }
    uint32_t values = (uint32_t)t.hash_values.size() * 4;
    PdbSpec spec;
    spec.names_stream = NamesStream({"Foo"});
    spec.type_stream = TypeStream({records, (uint32_t)t.payloads.size(), t.hash_stream ? 5u : 0xFFFFu, 4, values,
                                   (uint32_t)hash.b.size() - values});
    spec.type_hash_stream = hash;
    return WriteTempFile(BuildPdb(spec), "types.pdb");
  }
  std::vector<uint32_t> Bucket(uint32_t b) const {
    const PdbTypes &t = pdb.types;
    uint32_t start = (uint32_t)t.buckets[b], n = (uint32_t)(t.buckets[b] >> 32);
    return std::vector<uint32_t>(t.bucket_list + start, t.bucket_list + start + n);
  }
};

}  // namespace

TEST(TypeStream, RecordOffsetsAndBuckets) {
  // Type 0x1003's hash value lies beyond the bucket count: it is in no bucket.
  Loaded l({{0, 3, 8, 1}, {2, 0, 2, 9}});
  const PdbTypes &t = l.pdb.types;
  ASSERT_EQ(l.status, kPdbOk);
  ASSERT_EQ(t.count, 4u);
  EXPECT_EQ(std::vector<uint32_t>(t.offsets, t.offsets + 4), (std::vector<uint32_t>{0, 4, 11, 23}));
  EXPECT_EQ(PdbTypeRecord(&t, 0x1002), t.records + 11);
  EXPECT_EQ(PdbTypeRecord(&t, 0x0FFF), nullptr);
  EXPECT_EQ(PdbTypeRecord(&t, 0x1004), nullptr);
  ASSERT_EQ(t.bucket_count, 4u);
  EXPECT_EQ((std::vector<std::vector<uint32_t>>{l.Bucket(0), l.Bucket(1), l.Bucket(2), l.Bucket(3)}),
            (std::vector<std::vector<uint32_t>>{{0x1001}, {}, {0x1000, 0x1002}, {}}));
}

TEST(TypeStream, WithoutAUsableHashIndexTypesStayReachableByIndex) {
  struct Case {
    const char *what;
    TypeStreamCase spec;
  } cases[] = {
      {"no hash stream", {{4, 4}, {1, 1}, false, {}}},
      {"hash values for fewer types", {{4, 4}, {1}, true, {}}},
  };
  for (const Case &c : cases) {
    Loaded l(c.spec);
    EXPECT_EQ(l.status, kPdbOk) << c.what;
    EXPECT_EQ(l.pdb.types.bucket_count, 0u) << c.what;
    EXPECT_NE(PdbTypeRecord(&l.pdb.types, 0x1001), nullptr) << c.what;
  }
}

// The adjusted type changes places with the last one of its bucket: the ones between keep theirs.
TEST(TypeStream, AdjusterMovesItsTypeToTheEndOfItsBucket) {
  uint32_t bucket = PdbNameHashV1("Foo", 3) % 4;
  Loaded middle({{4, 4, 4}, {bucket, bucket, bucket}, true, {{1, 0x1001}}});
  ASSERT_EQ(middle.status, kPdbOk);
  EXPECT_EQ(middle.Bucket(bucket), (std::vector<uint32_t>{0x1000, 0x1002, 0x1001}));
  Loaded first({{4, 4, 4}, {bucket, bucket, bucket}, true, {{1, 0x1000}}});
  ASSERT_EQ(first.status, kPdbOk);
  EXPECT_EQ(first.Bucket(bucket), (std::vector<uint32_t>{0x1002, 0x1001, 0x1000}));
}

// Reference values computed independently from the published definition of the hash.
TEST(NameHashV1, TailBytesAndCaseFolding) {
  const uint32_t spaces = 0x20202020u ^ (0x20202020u >> 11);
  EXPECT_EQ(PdbNameHashV1("", 0), spaces ^ (spaces >> 16));
  // The OR with 0x20202020 folds ASCII case: names differing only in case hash alike.
  EXPECT_EQ(PdbNameHashV1("ABCDEfg", 7), PdbNameHashV1("abcdeFG", 7));
  EXPECT_NE(PdbNameHashV1("abcdefg", 7), PdbNameHashV1("abcdefh", 7));
}

// A type stream large enough to load on a worker thread beside the modules: the result must be the
// one the loader gives on its own, unreadable records must still fail the whole open, and an
// unreadable hash stream only leaves the name index empty.
TEST(PdbOpen, LargeTypeStreamLoadsBesideTheModules) {
  const uint32_t buckets = 4093;
  LeBytes records, hash;
  uint32_t count = 0;
  for (; records.b.size() < (9u << 20); count++) {
    uint16_t payload = (uint16_t)(40 + count % 64);
    records.u16(payload + 2).u16(0x1505);
    for (uint16_t i = 0; i < payload; i++) records.u8(count + i);
    hash.u32((count * 2654435761u) % buckets);
  }
  PdbSpec spec;
  spec.type_stream = TypeStream({records, count, 5, buckets, count * 4});
  spec.type_hash_stream = hash;
  spec.modules.resize(1);
  spec.modules[0].records = {ProcRecord(0x1110, 0x40, 0x200, 1, "main"), SimpleRecord(0x0006)};
  std::string path = WriteTempFile(BuildPdb(spec), "large-types.pdb");
  OpenedPdb whole(path);
  ASSERT_EQ(whole.status, kPdbOk);
  EXPECT_EQ(whole.summary.procedure_count, 1u);
  ASSERT_EQ(whole.summary.type_count, count);

  // The same stream through the loader alone, on this thread.
  SymbolArena arena = {};
  MsfFile msf;
  ASSERT_EQ(MsfOpen(&arena, path.c_str(), &msf), kPdbOk);
  PdbTypes alone;
  ASSERT_EQ(PdbLoadTypes(&arena, &msf, &whole.pdb.strings, &alone), kPdbOk);
  MsfClose(&msf);
  const PdbTypes &t = whole.pdb.types;
  ASSERT_EQ(t.count, alone.count);
  ASSERT_EQ(t.bucket_count, alone.bucket_count);
  EXPECT_EQ(memcmp(t.offsets, alone.offsets, t.count * 4u), 0);
  EXPECT_EQ(memcmp(t.buckets, alone.buckets, t.bucket_count * 8u), 0);
  EXPECT_EQ(memcmp(t.bucket_list, alone.bucket_list, t.count * 4u), 0);
  const u8 *last = PdbTypeRecord(&t, 0x1000 + count - 1);
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last - t.records, alone.offsets[count - 1]);
  SymbolArenaRelease(&arena);
  EXPECT_EQ(ScratchState()->depth, 0u);

  // The records cannot be read: the worker's failure fails the open. The hash stream cannot be
  // read: the types load without a name index.
  Bytes unreadable_records = BuildPdb(spec);
  PointStreamPastTheEnd(unreadable_records, 2);
  EXPECT_EQ(OpenedPdb(WriteTempFile(unreadable_records, "large-types.pdb")).status, kPdbUnreadable);
  Bytes unreadable_hash = BuildPdb(spec);
  PointStreamPastTheEnd(unreadable_hash, 5);
  OpenedPdb no_index(WriteTempFile(unreadable_hash, "no-index.pdb"));
  ASSERT_EQ(no_index.status, kPdbOk);
  EXPECT_EQ(no_index.pdb.types.count, count);
  EXPECT_EQ(no_index.pdb.types.bucket_count, 0u);
  EXPECT_NE(PdbTypeRecord(&no_index.pdb.types, 0x1000 + count - 1), nullptr);

  // A type stream shorter than its header fails the whole open; a large one cut short of the
  // records it claims still loads.
  spec.type_stream.resize(55);
  EXPECT_EQ(OpenedPdb(WriteTempFile(BuildPdb(spec), "short.pdb")).status, kPdbBadFormat);
  spec.type_stream = TypeStream({records, count, 5, buckets, count * 4});
  spec.type_stream.resize(spec.type_stream.size() - 1000);
  EXPECT_EQ(OpenedPdb(WriteTempFile(BuildPdb(spec), "cut.pdb")).status, kPdbOk);
}
