// Type records on crafted streams: numeric leaves, stepping over every field kind, LF_INDEX
// continuations, forward references through the name index, sizes, look-up by name, built-in and
// declaration names, and hostile records (cycles, truncation, unknown entries) that must end
// cleanly without reading outside the stream.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "pdb_builder.h"
#include "symbols/pdb_type_fields.h"
#include "symbols/pdb_type_lookup.h"
#include "symbols/type_names.h"

namespace {

// [SECTION] A type stream in memory

// Type records from index 0x1000, indexed and hashed as the loader does; the record hash gives
// the hash values, so names are found as in a real PDB.
struct Stream {
  std::vector<Bytes> records;
  SymbolArena arena = {};
  PdbTypes types = {};
  Bytes bytes;

  uint32_t Add(const Bytes &leaf_and_fields) {
    records.push_back(LeBytes().u16((uint32_t)leaf_and_fields.size()).raw(leaf_and_fields));
    return 0x1000 + (uint32_t)records.size() - 1;
  }
  const PdbTypes *Build(uint32_t bucket_count = 64) {
    LeBytes all;
    for (const Bytes &r : records) all.raw(r);
    bytes = all.zero32(2);  // the loader's 8 zero bytes after the records
    EXPECT_EQ(PdbIndexTypeRecords(&arena, bytes.data(), (uint32_t)bytes.size() - 8, 0x1000,
                                  0x1000 + (uint32_t)records.size(), &types), 0);
    std::vector<uint32_t> values;
    for (uint32_t i = 0; i < types.count; i++) values.push_back(PdbTypeRecordHash(&types, 0x1000 + i) % bucket_count);
    EXPECT_TRUE(PdbBuildTypeBuckets(&arena, values.data(), bucket_count, &types));
    return &types;
  }
  ~Stream() { SymbolArenaRelease(&arena); }
};

// A field-list entry padded to 4 bytes with LF_PADn bytes, n = the bytes to skip from there.
Bytes Padded(LeBytes entry) {
  while (entry.b.size() % 4) entry.u8(0xF0 + (4 - entry.b.size() % 4));
  return entry;
}
Bytes FieldList(std::initializer_list<Bytes> entries) {
  LeBytes b;
  b.u16(0x1203);
  for (const Bytes &e : entries) b.raw(e);
  return b;
}
Bytes Member(uint32_t type, uint16_t offset, const std::string &name) {
  return Padded(LeBytes().u16(0x150D).u16(3).u32(type).u16(offset).name(name));
}
Bytes BaseClass(uint32_t type, uint16_t offset) { return Padded(LeBytes().u16(0x1400).u16(3).u32(type).u16(offset)); }
Bytes Enumerate(const LeBytes &value, const std::string &name) {
  return Padded(LeBytes().u16(0x1502).u16(3).raw(value.b).name(name));
}
Bytes Continuation(uint32_t list) { return LeBytes().u16(0x1404).u16(0).u32(list); }
Bytes Pointer64(uint32_t to) { return LeBytes().u16(0x1002).u32(to).u32(0x0C | (8 << 13)); }
Bytes Structure(uint16_t count, uint16_t properties, uint32_t fields, uint16_t size, const std::string &name) {
  return LeBytes().u16(0x1505).u16(count).u16(properties).u32(fields).zero32(2).u16(size).name(name);
}

std::string Name(const PdbTypes *t, uint32_t index) {
  char text[512];
  TypeNameFormat(t, index, text, sizeof(text));
  return text;
}

std::vector<std::string> Walk(const PdbTypes *t, uint32_t list, bool *broken = nullptr) {
  FieldWalk walk;
  FieldWalkBegin(&walk, t, list);
  TypeField f;
  std::vector<std::string> out;
  while (FieldWalkNext(&walk, &f)) out.push_back(std::to_string(f.leaf) + ":" + std::string(f.name.text, f.name.length));
  if (broken) *broken = walk.broken;
  return out;
}

// [SECTION] Built-in names

// One of each rule: base kinds and their aliases, the spellings kept as they are, 64-bit pointers
// (a pointer to signed char is "char *"), the older pointer modes, and "TBI" for everything else.
TEST(BuiltinTypeNames, OneOfEachRule) {
  struct Case {
    uint32_t index;
    const char *name;
  } cases[] = {
      {0x03, "void"},          {0x07, "not translated by cvpack"}, {0x13, "s64"},          {0x76, "s64"},
      {0x14, "octect"},        {0x24, "unsigned octect"},          {0x42, "f80"},          {0x7B, "char32"},
      {0x603, "void *"},       {0x608, "HRESULT *"},               {0x610, "char *"},      {0x670, "char *"},
      {0x677, "u64 *"},        {0x67A, "char16 *"},                {0x103, "void *"},      {0x124, "unsigned octect near*"},
      {0x314, "octect huge*"}, {0x524, "32pfuoct"},                {0x403, "TBI"},         {0x67C, "TBI"},
      {0x7C, "TBI"},           {0x04, "TBI"},                      {0x614, "TBI"},         {0x174, "TBI"},
      {0xFFF, "TBI"},
  };
  for (const Case &c : cases) EXPECT_STREQ(BuiltinTypeName(c.index), c.name) << std::hex << c.index;
}

TEST(BuiltinTypeNames, SizesAndPointers) {
  Stream s;
  const PdbTypes *t = s.Build();
  std::string sizes;
  for (uint32_t index : {0x74, 0x70, 0x13, 0x42, 0x79, 0x03, 0x674, 0x474})
    sizes += std::to_string(PdbTypeSize(t, index)) + " ";
  EXPECT_EQ(sizes, "4 1 8 10 16 0 8 4 ");
  uint32_t pointee = 0;
  EXPECT_TRUE(PdbTypeIsPointer(t, 0x674, &pointee) && pointee == 0x74u);
  EXPECT_FALSE(PdbTypeIsPointer(t, 0x74, &pointee));
  EXPECT_EQ(PdbTypePointerTo(t, 0x70), 0x670u);
  struct {
    const char *text;
    uint32_t index;
  } lookups[] = {{"unsigned long long", 0x23}, {" const char * ", 0x670}, {"u64", 0x23},
                 {"int **", PdbTypePointerTo(t, 0x674)},  // made up: no pointer-to-pointer record
                 {"nothing", 0}};
  for (auto &l : lookups) EXPECT_EQ(PdbLookupType(t, nullptr, l.text, (uint32_t)strlen(l.text)), l.index) << l.text;
}

// [SECTION] Records, fields and names

// struct Base { int a; int b; }; struct Derived : Base { int c : 3; Base *self; int (*f)(int, char*);
// const char *s; int m[2][3]; enum E e; }; with E { A = -1, B = 0x8000 (LF_USHORT) }, and every other
// field kind between the members.
struct Sample {
  Stream s;
  uint32_t base, base_fwd, derived, derived_fields, e;
  const PdbTypes *t;
  Sample() {
    uint32_t base_list = s.Add(FieldList({Member(0x74, 0, "a"), Member(0x74, 4, "b")}));
    base_fwd = s.Add(Structure(0, 0x80, 0, 0, "ns::Base"));
    base = s.Add(Structure(2, 0, base_list, 8, "ns::Base"));
    uint32_t enum_list = s.Add(FieldList({Enumerate(LeBytes().u16(0x8000).u8(0xFF), "A"),        // LF_CHAR -1
                                          Enumerate(LeBytes().u16(0x8002).u16(0x8000), "B")}));  // LF_USHORT
    e = s.Add(LeBytes().u16(0x1507).u16(2).u16(0).u32(0x74).u32(enum_list).name("E"));
    uint32_t bitfield = s.Add(LeBytes().u16(0x1205).u32(0x74).u8(3).u8(5));
    uint32_t base_ptr = s.Add(Pointer64(base_fwd));
    uint32_t arglist = s.Add(LeBytes().u16(0x1201).u32(2).u32(0x74).u32(0x670));
    uint32_t procedure = s.Add(LeBytes().u16(0x1008).u32(0x74).u8(0).u8(0).u16(2).u32(arglist));
    uint32_t proc_ptr = s.Add(Pointer64(procedure));
    uint32_t string = s.Add(Pointer64(s.Add(LeBytes().u16(0x1001).u32(0x70).u16(1))));  // const char
    uint32_t row = s.Add(LeBytes().u16(0x1503).u32(0x74).u32(0x23).u16(12).name(""));
    uint32_t matrix = s.Add(LeBytes().u16(0x1503).u32(row).u32(0x23).u16(24).name(""));
    // The rest continues in a second list.
    uint32_t rest = s.Add(FieldList(
        {Member(proc_ptr, 24, "f"), Member(string, 32, "s"), Member(matrix, 40, "m"), Member(e, 64, "e")}));
    derived_fields = s.Add(FieldList({
        BaseClass(base_fwd, 0),
        // virtual base: attributes, base, vbptr type, vbptr offset, index
        Padded(LeBytes().u16(0x1401).u16(3).u32(base).u32(0x674).u16(0).u16(1)),
        LeBytes().u16(0x1409).u16(0).u32(0x674),  // vftable pointer
        Member(bitfield, 8, "c"),
        Padded(LeBytes().u16(0x150E).u16(3).u32(0x74).name("counter")),  // static member
        // an introducing virtual method carries its vftable offset
        Padded(LeBytes().u16(0x1511).u16(3 | (4 << 2)).u32(procedure).u32(0).name("Virtual")),
        Padded(LeBytes().u16(0x1511).u16(3).u32(procedure).name("Plain")),
        Padded(LeBytes().u16(0x150F).u16(2).u32(0).name("Overloaded")),
        Padded(LeBytes().u16(0x1510).u16(0).u32(e).name("E")),  // nested type
        Member(base_ptr, 16, "self"),
        Continuation(rest),
    }));
    derived = s.Add(Structure(12, 0, derived_fields, 72, "ns::Derived"));
    t = s.Build();
  }
};

TEST(TypeRecords, FieldListsStepOverEveryKindAndFollowContinuations) {
  Sample x;
  bool broken = true;
  std::vector<std::string> walked = Walk(x.t, x.derived_fields, &broken);
  EXPECT_FALSE(broken);
  EXPECT_EQ(walked, (std::vector<std::string>{"5120:", "5121:", "5129:", "5389:c", "5390:counter", "5393:Virtual",
                                              "5393:Plain", "5391:Overloaded", "5392:E", "5389:self", "5389:f",
                                              "5389:s", "5389:m", "5389:e"}));
  std::vector<std::string> members;
  PdbForEachDataMember(
      x.t, x.derived,
      [](void *user, const DataMember *m) {
        ((std::vector<std::string> *)user)->push_back(std::string(m->field->name.text, m->field->name.length) + "@" +
                                                       std::to_string(m->offset));
        return true;
      },
      &members);
  // The base's members first, through its forward reference; the virtual base is not entered.
  EXPECT_EQ(members, (std::vector<std::string>{"a@0", "b@4", "c@8", "self@16", "f@24", "s@32", "m@40", "e@64"}));
}

TEST(TypeRecords, ForwardReferencesSizesAndNames) {
  Sample x;
  EXPECT_EQ(PdbTypeDefinition(x.t, x.base_fwd), x.base);
  EXPECT_EQ(PdbTypeSize(x.t, x.base_fwd), 8u);
  EXPECT_EQ(PdbTypeSize(x.t, x.derived), 72u);
  EXPECT_EQ(PdbFindTypeRecord(x.t, "ns::Base", 8), x.base);
  EXPECT_EQ(PdbLookupType(x.t, nullptr, "struct ns::Derived", 18), x.derived);
  // A pointer to the definition, which look-up gives.
  EXPECT_EQ(PdbLookupType(x.t, nullptr, "ns::Base *", 10), PdbTypePointerTo(x.t, x.base));
}

// Member types by their declaration names and sizes; enumerators as the underlying type reads them.
TEST(TypeRecords, DeclarationNamesAndEnumerators) {
  Sample x;
  std::vector<std::string> types;
  FieldWalk walk;
  FieldWalkBegin(&walk, x.t, x.derived_fields);
  TypeField f;
  while (FieldWalkNext(&walk, &f))
    if (f.leaf == 0x150D) types.push_back(Name(x.t, f.type) + "|" + std::to_string(PdbTypeSize(x.t, f.type)));
  EXPECT_EQ(types, (std::vector<std::string>{"int (Bits 5..7)|4", "ns::Base *|8", "int (*)(int, char *)|8", "const char *|8",
                                             "int [2][3]|24", "E|4"}));
  char small[8];
  EXPECT_EQ(TypeNameFormat(x.t, x.derived, small, sizeof(small)), 7u);
  EXPECT_STREQ(small, "ns::Der");

  TypeRecord e;
  ASSERT_TRUE(PdbDecodeType(x.t, x.e, &e));
  FieldWalkBegin(&walk, x.t, e.field_list);
  std::vector<std::string> values;
  while (FieldWalkNext(&walk, &f)) {
    bool negative;
    uint64_t v = EnumeratorValue(&f, e.type, &negative);
    values.push_back(negative ? "-" + std::to_string(0 - v) : std::to_string(v));
  }
  EXPECT_EQ(values, (std::vector<std::string>{"-1", "32768"}));
}

TEST(TypeRecords, NumericLeaves) {
  struct Case {
    Bytes bytes;
    uint64_t value;
    bool is_signed;
    uint32_t taken;
  } cases[] = {
      {{0x34, 0x12}, 0x1234, false, 2},
      {{0x00, 0x80, 0xFE}, (uint64_t)-2, true, 3},
      {{0x01, 0x80, 0x00, 0x80}, (uint64_t)-32768, true, 4},
      {{0x04, 0x80, 0xFF, 0xFF, 0xFF, 0xFF}, 0xFFFFFFFF, false, 6},
      {{0x09, 0x80, 1, 0, 0, 0, 0, 0, 0, 0x80}, 0x8000000000000001ull, true, 10},
      {{0x05, 0x80, 0, 0, 0x80, 0x3F}, 0, false, 6},      // LF_REAL32: stepped over
      {{0x10, 0x80, 0x02, 0x00, 'h', 'i'}, 0, false, 6},  // LF_VARSTRING
      {{0x04, 0x80, 0xFF, 0xFF}, 0, false, 0},            // cut short
      {{0x99, 0x80, 0, 0}, 0, false, 0},                  // unknown kind
      {{0x10, 0x80, 0xFF, 0x00, 'h'}, 0, false, 0},       // string longer than the record
  };
  for (const Case &c : cases) {
    NumericLeaf n = ReadNumericLeaf(c.bytes.data(), (uint32_t)c.bytes.size());
    EXPECT_EQ(n.bytes, c.taken) << std::hex << c.bytes[1];
    if (c.taken) EXPECT_EQ(n.value, c.value) << std::hex << c.bytes[1];
    if (c.taken) EXPECT_EQ(n.is_signed, c.is_signed) << std::hex << c.bytes[1];
  }
}

// [SECTION] Hostile records

TEST(TypeRecords, CyclesEndCleanly) {
  Stream s;
  s.Add(LeBytes().u16(0x1001).u32(0x1001).u16(1));  // 0x1000 modifies 0x1001, which modifies 0x1000
  s.Add(LeBytes().u16(0x1001).u32(0x1000).u16(2));
  s.Add(Pointer64(0x1002));                                              // points to itself
  s.Add(LeBytes().u16(0x1503).u32(0x1003).u32(0x23).u16(16).name(""));  // an array of itself
  // 0x1004: a class that is its own base, and a list that continues into itself
  s.Add(FieldList({BaseClass(0x1005, 0), Member(0x74, 0, "x"), Continuation(0x1004)}));
  s.Add(Structure(1, 0, 0x1004, 4, "Loop"));
  s.Add(LeBytes().u16(0x1008).u32(0x1006).u8(0).u8(0).u16(0).u32(0));  // 0x1006 returns itself
  const PdbTypes *t = s.Build();
  char text[4096];
  for (uint32_t i = 0x1000; i <= 0x1006; i++) {
    PdbTypeSize(t, i);
    PdbTypeLookThrough(t, i);
    PdbTypeDefinition(t, i);
    PdbTypeIsPointer(t, i, nullptr);
    EXPECT_GT(TypeNameFormat(t, i, text, sizeof(text)), 0u) << std::hex << i;
  }
  bool broken = false;
  std::vector<std::string> walked = Walk(t, 0x1004, &broken);
  EXPECT_TRUE(broken);  // the continuation chain is cut off
  EXPECT_GE(walked.size(), 2u);
  // A class that is its own base, through a list that continues into itself: the walk's budget
  // of entries ends it.
  int members = 0;
  PdbForEachDataMember(t, 0x1005, [](void *user, const DataMember *) { return ++*(int *)user > 0; }, &members);
  EXPECT_GT(members, 0);
  EXPECT_LE(members, (int)kDataMemberMaxEntries);
}

TEST(TypeRecords, TruncatedAndUnknownEntriesEndTheWalk) {
  Stream s;
  // a member whose offset leaf runs past the record
  s.Add(FieldList({Member(0x74, 0, "ok"), LeBytes().u16(0x150D).u16(3).u32(0x74).u16(0x8004).u16(1)}));
  s.Add(FieldList({Member(0x74, 0, "first"), LeBytes().u16(0x1234), Member(0x74, 4, "never")}));
  // an introducing virtual method without room for its offset
  s.Add(FieldList({LeBytes().u16(0x1511).u16(3 | (4 << 2)).u32(0x1000)}));
  s.Add(FieldList({LeBytes().u16(0x150D).u16(3).u32(0x74).u16(0).raw("xy")}));  // a name without terminator
  s.Add(LeBytes().u16(0x1505).u16(1));                                           // fixed part cut short
  const PdbTypes *t = s.Build();
  struct {
    uint32_t list;
    std::vector<std::string> walked;
    bool broken;
  } walks[] = {{0x1000, {"5389:ok"}, true},
               {0x1001, {"5389:first"}, true},
               {0x1002, {}, true},
               {0x1003, {"5389:xy"}, false},
               {0x1005, {}, false}};  // past the stream
  for (auto &w : walks) {
    bool broken = !w.broken;
    EXPECT_EQ(Walk(t, w.list, &broken), w.walked) << std::hex << w.list;
    if (w.broken) EXPECT_TRUE(broken) << std::hex << w.list;
  }
  TypeRecord r;
  EXPECT_FALSE(PdbDecodeType(t, 0x1004, &r));
  EXPECT_EQ(PdbTypeSize(t, 0x1004), 0u);
  EXPECT_EQ(Name(t, 0x2000), "<type 0x2000>");
}

// Two definitions of one name in one bucket: the lookup takes the last, where the adjusters put
// the linker's choice (and an adjuster changes which that is); without a name index nothing is
// found by name.
TEST(TypeRecords, LastCandidateOfTheBucketWins) {
  Stream s;
  s.Add(Structure(0, 0x80, 0, 0, "Twice"));
  s.Add(Structure(0, 0, 0, 4, "Twice"));
  s.Add(Structure(0, 0, 0, 8, "Twice"));
  const PdbTypes *t = s.Build(1);
  EXPECT_EQ(PdbFindTypeRecord(t, "Twice", 5), 0x1002u);
  EXPECT_EQ(PdbTypeDefinition(t, 0x1000), 0x1002u);
  EXPECT_EQ(PdbTypeSize(t, 0x1000), 8u);
  // An adjuster naming the first definition moves it last: the look-up then finds it. The table:
  // size, capacity, present-bit words and the word, no deleted bits, then (name offset, type).
  Bytes adjusters = LeBytes().u32(1).u32(1).u32(1).u32(1).u32(0).u32(1).u32(0x1001);
  std::string names("\0Twice\0", 7);
  PdbStringTable strings = {names.c_str(), (uint32_t)names.size()};
  PdbApplyHashAdjusters(adjusters.data(), (uint32_t)adjusters.size(), &strings, &s.types);
  EXPECT_EQ(PdbFindTypeRecord(t, "Twice", 5), 0x1001u);
  EXPECT_EQ(PdbTypeSize(t, 0x1000), 4u);
  PdbTypes no_index = *t;
  no_index.bucket_count = 0;
  EXPECT_EQ(PdbFindTypeRecord(&no_index, "Twice", 5), 0u);
  EXPECT_EQ(PdbTypeDefinition(&no_index, 0x1000), 0x1000u);
}

TEST(TypeRecords, MembersByNameAsCppLooksThemUp) {
  Sample x;
  FoundMember m;
  ASSERT_TRUE(PdbFindMember(x.t, x.derived, "b", 1, &m));
  EXPECT_EQ(m.offset, 4u);
  EXPECT_EQ(m.depth, 1u);
  ASSERT_TRUE(PdbFindMember(x.t, x.derived, "m", 1, &m));  // in the continuation list
  EXPECT_EQ(m.offset, 40u);
  uint32_t element = 0;
  uint64_t count = 0;
  ASSERT_TRUE(PdbTypeIsArray(x.t, m.type, &element, &count));
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(Name(x.t, element), "int [3]");
  ASSERT_TRUE(PdbFindMember(x.t, x.derived, "counter", 7, &m));
  EXPECT_EQ(m.leaf, 0x150E);
  EXPECT_FALSE(PdbFindMember(x.t, x.derived, "Plain", 5, &m));  // a method is not a member
  EXPECT_FALSE(PdbFindMember(x.t, x.derived, "nothing", 7, &m));
  EXPECT_FALSE(PdbFindMember(x.t, 0x74, "a", 1, &m));

  // A derived class's member hides the base's of the same name.
  Stream s;
  uint32_t base = s.Add(Structure(1, 0, s.Add(FieldList({Member(0x74, 0, "x")})), 4, "B"));
  uint32_t derived = s.Add(Structure(2, 0, s.Add(FieldList({BaseClass(base, 0), Member(0x41, 8, "x")})), 16, "D"));
  const PdbTypes *t = s.Build();
  ASSERT_TRUE(PdbFindMember(t, derived, "x", 1, &m));
  EXPECT_EQ(m.offset, 8u);
  EXPECT_EQ(m.type, 0x41u);
}

// A modifier hashes as the record it modifies, through chains of modifiers; one that modifies a
// built-in type (no record) is hashed as itself.
TEST(TypeRecords, ModifierHashesAsWhatItModifies) {
  Stream s;
  uint32_t foo = s.Add(Structure(0, 0, 0, 4, "Foo"));
  uint32_t const_foo = s.Add(LeBytes().u16(0x1001).u32(foo).u16(1).u16(0));
  uint32_t volatile_const_foo = s.Add(LeBytes().u16(0x1001).u32(const_foo).u16(2).u16(0));
  uint32_t const_int = s.Add(LeBytes().u16(0x1001).u32(0x74).u16(1).u16(0));
  const PdbTypes *t = s.Build();
  for (uint32_t index : {foo, const_foo, volatile_const_foo})
    EXPECT_EQ(PdbTypeRecordHash(t, index), PdbNameHashV1("Foo", 3)) << std::hex << index;
  const u8 *record = PdbTypeRecord(t, const_int);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(PdbTypeRecordHash(t, const_int), PdbTypeRecordHashBytes(record, ReadU16(record) + 2u));
}

}  // namespace
