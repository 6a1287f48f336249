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

  uint32_t Add(const Bytes &payload_with_leaf) {
    Bytes r;
    Put16(r, (uint32_t)payload_with_leaf.size());
    r.insert(r.end(), payload_with_leaf.begin(), payload_with_leaf.end());
    records.push_back(r);
    return 0x1000 + (uint32_t)records.size() - 1;
  }
  const PdbTypes *Build(uint32_t bucket_count = 64) {
    bytes.clear();
    for (const Bytes &r : records) bytes.insert(bytes.end(), r.begin(), r.end());
    bytes.resize(bytes.size() + 8, 0);
    EXPECT_EQ(PdbIndexTypeRecords(&arena, bytes.data(), (uint32_t)bytes.size() - 8, 0x1000,
                                  0x1000 + (uint32_t)records.size(), &types), 0);
    std::vector<uint32_t> values;
    for (uint32_t i = 0; i < types.count; i++) values.push_back(PdbTypeRecordHash(&types, 0x1000 + i) % bucket_count);
    EXPECT_TRUE(PdbBuildTypeBuckets(&arena, values.data(), bucket_count, &types));
    return &types;
  }
  ~Stream() { SymbolArenaRelease(&arena); }
};

Bytes Leaf(uint16_t leaf) {
  Bytes b;
  Put16(b, leaf);
  return b;
}
void Append(Bytes &b, const Bytes &more) { b.insert(b.end(), more.begin(), more.end()); }
// Pads a field-list entry to 4 bytes with LF_PADn bytes, n = the bytes to skip from there.
void PadF(Bytes &b) {
  while (b.size() % 4) b.push_back((uint8_t)(0xF0 + (4 - b.size() % 4)));
}

Bytes Member(uint32_t type, uint16_t offset, const std::string &name) {
  Bytes b = Leaf(0x150D);
  Put16(b, 3), Put32(b, type), Put16(b, offset), PutName(b, name);
  PadF(b);
  return b;
}
Bytes BaseClass(uint32_t type, uint16_t offset) {
  Bytes b = Leaf(0x1400);
  Put16(b, 3), Put32(b, type), Put16(b, offset);
  PadF(b);
  return b;
}
Bytes Enumerate(const Bytes &value, const std::string &name) {
  Bytes b = Leaf(0x1502);
  Put16(b, 3);
  Append(b, value);
  PutName(b, name);
  PadF(b);
  return b;
}
Bytes Structure(uint16_t leaf, uint16_t count, uint16_t properties, uint32_t fields, uint16_t size,
                const std::string &name, const std::string &unique = "") {
  Bytes b = Leaf(leaf);
  Put16(b, count), Put16(b, properties), Put32(b, fields), Put32(b, 0), Put32(b, 0), Put16(b, size);
  PutName(b, name);
  if (!unique.empty()) PutName(b, unique);
  return b;
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
  while (FieldWalkNext(&walk, &f))
    out.push_back(std::to_string(f.leaf) + ":" + std::string(f.name.text, f.name.length));
  if (broken) *broken = walk.broken;
  return out;
}

// [SECTION] Built-in names

TEST(BuiltinTypeNames, TheDebuggersVocabulary) {
  struct Case {
    uint32_t index;
    const char *name;
  } cases[] = {
      {0x00, "notype"}, {0x01, "abs"}, {0x02, "segment"}, {0x03, "void"}, {0x07, "not translated by cvpack"},
      {0x08, "HRESULT"}, {0x10, "signed char"}, {0x11, "short"}, {0x12, "long"}, {0x13, "s64"}, {0x76, "s64"},
      {0x14, "octect"}, {0x20, "unsigned char"}, {0x21, "unsigned short"}, {0x22, "unsigned long"},
      {0x23, "u64"}, {0x77, "u64"}, {0x24, "unsigned octect"}, {0x30, "b8"}, {0x31, "b16"}, {0x32, "b32"},
      {0x33, "b64"}, {0x40, "float"}, {0x41, "double"}, {0x42, "f80"}, {0x68, "s8"}, {0x69, "u8"},
      {0x70, "char"}, {0x71, "wchar_t"}, {0x72, "s16"}, {0x73, "u16"}, {0x74, "int"}, {0x75, "unsigned int"},
      {0x78, "s128"}, {0x79, "u128"}, {0x7A, "char16"}, {0x7B, "char32"}, {0x103, "void *"}, {0x603, "void *"},
      {0x114, "octect near*"}, {0x124, "unsigned octect near*"}, {0x214, "octect far*"},
      {0x224, "unsigned octect far*"}, {0x314, "octect huge*"}, {0x324, "unsigned octect huge*"},
      {0x414, "32poct"}, {0x424, "32puoct"}, {0x514, "32pfoct"}, {0x524, "32pfuoct"}, {0x608, "HRESULT *"},
      {0x610, "char *"}, {0x670, "char *"}, {0x611, "short *"}, {0x612, "long *"}, {0x613, "s64 *"},
      {0x676, "s64 *"}, {0x620, "unsigned char *"}, {0x621, "unsigned short *"}, {0x622, "unsigned long *"},
      {0x623, "u64 *"}, {0x677, "u64 *"}, {0x630, "b8 *"}, {0x631, "b16 *"}, {0x632, "b32 *"}, {0x633, "b64 *"},
      {0x640, "float *"}, {0x641, "double *"}, {0x642, "f80 *"}, {0x668, "s8 *"}, {0x669, "u8 *"},
      {0x671, "wchar_t *"}, {0x672, "s16 *"}, {0x673, "u16 *"}, {0x674, "int *"}, {0x675, "unsigned int *"},
      {0x678, "s128 *"}, {0x679, "u128 *"}, {0x67A, "char16 *"}, {0x67B, "char32 *"},
      // Everything else is "TBI": a 32-bit pointer to void, kinds past 0x7B, unknown kinds and modes.
      {0x403, "TBI"}, {0x67C, "TBI"}, {0x6FF, "TBI"}, {0x7C, "TBI"}, {0x04, "TBI"}, {0x43, "TBI"},
      {0x614, "TBI"}, {0x114 + 0x600, "TBI"}, {0x174, "TBI"}, {0x800, "TBI"}, {0xFFF, "TBI"},
  };
  for (const Case &c : cases) EXPECT_STREQ(BuiltinTypeName(c.index), c.name) << std::hex << c.index;
}

TEST(BuiltinTypeNames, SizesAndPointers) {
  Stream s;
  const PdbTypes *t = s.Build();
  EXPECT_EQ(PdbTypeSize(t, 0x74), 4u);
  EXPECT_EQ(PdbTypeSize(t, 0x70), 1u);
  EXPECT_EQ(PdbTypeSize(t, 0x13), 8u);
  EXPECT_EQ(PdbTypeSize(t, 0x42), 10u);
  EXPECT_EQ(PdbTypeSize(t, 0x79), 16u);
  EXPECT_EQ(PdbTypeSize(t, 0x03), 0u);
  EXPECT_EQ(PdbTypeSize(t, 0x674), 8u);
  EXPECT_EQ(PdbTypeSize(t, 0x474), 4u);
  uint32_t pointee = 0;
  EXPECT_TRUE(PdbTypeIsPointer(t, 0x674, &pointee));
  EXPECT_EQ(pointee, 0x74u);
  EXPECT_FALSE(PdbTypeIsPointer(t, 0x74, &pointee));
  EXPECT_EQ(PdbTypePointerTo(t, 0x70), 0x670u);
  EXPECT_EQ(PdbLookupType(t, nullptr, "unsigned long long", 18), 0x23u);
  EXPECT_EQ(PdbLookupType(t, nullptr, " const char * ", 14), 0x670u);
  EXPECT_EQ(PdbLookupType(t, nullptr, "u64", 3), 0x23u);
  EXPECT_EQ(PdbLookupType(t, nullptr, "int **", 6), PdbTypePointerTo(t, 0x674));  // made up: no record
  EXPECT_EQ(PdbLookupType(t, nullptr, "nothing", 7), 0u);
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
    Bytes fl = Leaf(0x1203);
    Append(fl, Member(0x74, 0, "a"));
    Append(fl, Member(0x74, 4, "b"));
    uint32_t base_list = s.Add(fl);
    base_fwd = s.Add(Structure(0x1505, 0, 0x80, 0, 0, "ns::Base"));
    base = s.Add(Structure(0x1505, 2, 0, base_list, 8, "ns::Base"));
    Bytes el = Leaf(0x1203);
    Bytes minus_one = Leaf(0x8000);  // LF_CHAR -1
    minus_one.push_back(0xFF);
    Append(el, Enumerate(minus_one, "A"));
    Bytes big = Leaf(0x8002);  // LF_USHORT 0x8000
    Put16(big, 0x8000);
    Append(el, Enumerate(big, "B"));
    uint32_t enum_list = s.Add(el);
    Bytes en = Leaf(0x1507);
    Put16(en, 2), Put16(en, 0), Put32(en, 0x74), Put32(en, enum_list);
    PutName(en, "E");
    e = s.Add(en);
    Bytes bits = Leaf(0x1205);
    Put32(bits, 0x74), bits.push_back(3), bits.push_back(5);
    uint32_t bitfield = s.Add(bits);
    Bytes ptr = Leaf(0x1002);
    Put32(ptr, base_fwd), Put32(ptr, 0x0C | (8 << 13));
    uint32_t base_ptr = s.Add(ptr);
    Bytes args = Leaf(0x1201);
    Put32(args, 2), Put32(args, 0x74), Put32(args, 0x670);
    uint32_t arglist = s.Add(args);
    Bytes proc = Leaf(0x1008);
    Put32(proc, 0x74), proc.push_back(0), proc.push_back(0), Put16(proc, 2), Put32(proc, arglist);
    uint32_t procedure = s.Add(proc);
    Bytes fptr = Leaf(0x1002);
    Put32(fptr, procedure), Put32(fptr, 0x0C | (8 << 13));
    uint32_t proc_ptr = s.Add(fptr);
    Bytes cchar = Leaf(0x1001);
    Put32(cchar, 0x70), Put16(cchar, 1);
    uint32_t const_char = s.Add(cchar);
    Bytes sptr = Leaf(0x1002);
    Put32(sptr, const_char), Put32(sptr, 0x0C | (8 << 13));
    uint32_t string = s.Add(sptr);
    Bytes inner = Leaf(0x1503);
    Put32(inner, 0x74), Put32(inner, 0x23), Put16(inner, 12), PutName(inner, "");
    uint32_t row = s.Add(inner);
    Bytes outer = Leaf(0x1503);
    Put32(outer, row), Put32(outer, 0x23), Put16(outer, 24), PutName(outer, "");
    uint32_t matrix = s.Add(outer);

    Bytes df = Leaf(0x1203);
    Append(df, BaseClass(base_fwd, 0));
    Bytes vbase = Leaf(0x1401);  // virtual base: attributes, base, vbptr type, vbptr offset, index
    Put16(vbase, 3), Put32(vbase, base), Put32(vbase, 0x674), Put16(vbase, 0), Put16(vbase, 1);
    PadF(vbase);
    Append(df, vbase);
    Bytes vft = Leaf(0x1409);
    Put16(vft, 0), Put32(vft, 0x674);
    Append(df, vft);
    Append(df, Member(bitfield, 8, "c"));
    Bytes st = Leaf(0x150E);
    Put16(st, 3), Put32(st, 0x74), PutName(st, "counter");
    PadF(st);
    Append(df, st);
    Bytes one = Leaf(0x1511);  // introducing virtual: carries its vftable offset
    Put16(one, 3 | (4 << 2)), Put32(one, procedure), Put32(one, 0), PutName(one, "Virtual");
    PadF(one);
    Append(df, one);
    Bytes plain = Leaf(0x1511);
    Put16(plain, 3), Put32(plain, procedure), PutName(plain, "Plain");
    PadF(plain);
    Append(df, plain);
    Bytes method = Leaf(0x150F);
    Put16(method, 2), Put32(method, 0), PutName(method, "Overloaded");
    PadF(method);
    Append(df, method);
    Bytes nested = Leaf(0x1510);
    Put16(nested, 0), Put32(nested, e), PutName(nested, "E");
    PadF(nested);
    Append(df, nested);
    Append(df, Member(base_ptr, 16, "self"));
    // The rest continues in a second list.
    Bytes rest = Leaf(0x1203);
    Append(rest, Member(proc_ptr, 24, "f"));
    Append(rest, Member(string, 32, "s"));
    Append(rest, Member(matrix, 40, "m"));
    Append(rest, Member(e, 64, "e"));
    uint32_t rest_list = s.Add(rest);
    Bytes index = Leaf(0x1404);
    Put16(index, 0), Put32(index, rest_list);
    Append(df, index);
    derived_fields = s.Add(df);
    derived = s.Add(Structure(0x1505, 12, 0, derived_fields, 72, "ns::Derived"));
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

TEST(TypeRecords, DeclarationNames) {
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
}

TEST(TypeRecords, EnumeratorsReadAsTheUnderlyingType) {
  Sample x;
  TypeRecord e;
  ASSERT_TRUE(PdbDecodeType(x.t, x.e, &e));
  FieldWalk walk;
  FieldWalkBegin(&walk, x.t, e.field_list);
  TypeField f;
  std::vector<long long> values;
  while (FieldWalkNext(&walk, &f)) {
    bool negative;
    uint64_t v = EnumeratorValue(&f, e.type, &negative);
    values.push_back(negative ? (long long)v : (long long)v);
  }
  EXPECT_EQ(values, (std::vector<long long>{-1, 0x8000}));
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
      {{0x05, 0x80, 0, 0, 0x80, 0x3F}, 0, false, 6},                    // LF_REAL32: stepped over
      {{0x10, 0x80, 0x02, 0x00, 'h', 'i'}, 0, false, 6},                // LF_VARSTRING
      {{0x04, 0x80, 0xFF, 0xFF}, 0, false, 0},                          // cut short
      {{0x99, 0x80, 0, 0}, 0, false, 0},                                // unknown kind
      {{0x10, 0x80, 0xFF, 0x00, 'h'}, 0, false, 0},                     // string longer than the record
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
  Bytes m1 = Leaf(0x1001);  // 0x1000 modifies 0x1001, which modifies 0x1000
  Put32(m1, 0x1001), Put16(m1, 1);
  s.Add(m1);
  Bytes m2 = Leaf(0x1001);
  Put32(m2, 0x1000), Put16(m2, 2);
  s.Add(m2);
  Bytes p = Leaf(0x1002);  // 0x1002 points to itself
  Put32(p, 0x1002), Put32(p, 0x0C | (8 << 13));
  s.Add(p);
  Bytes a = Leaf(0x1503);  // 0x1003 is an array of itself
  Put32(a, 0x1003), Put32(a, 0x23), Put16(a, 16), PutName(a, "");
  s.Add(a);
  Bytes fl = Leaf(0x1203);  // 0x1004: a class that is its own base, and a list that continues into itself
  Append(fl, BaseClass(0x1005, 0));
  Append(fl, Member(0x74, 0, "x"));
  Bytes index = Leaf(0x1404);
  Put16(index, 0), Put32(index, 0x1004);
  Append(fl, index);
  s.Add(fl);
  s.Add(Structure(0x1505, 1, 0, 0x1004, 4, "Loop"));
  Bytes pr = Leaf(0x1008);  // 0x1006 returns itself
  Put32(pr, 0x1006), pr.push_back(0), pr.push_back(0), Put16(pr, 0), Put32(pr, 0);
  s.Add(pr);
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
  Bytes fl = Leaf(0x1203);
  Append(fl, Member(0x74, 0, "ok"));
  Bytes cut = Leaf(0x150D);  // a member whose offset leaf runs past the record
  Put16(cut, 3), Put32(cut, 0x74), Put16(cut, 0x8004), Put16(cut, 1);
  Append(fl, cut);
  s.Add(fl);
  Bytes unknown = Leaf(0x1203);
  Append(unknown, Member(0x74, 0, "first"));
  Append(unknown, Leaf(0x1234));
  Append(unknown, Member(0x74, 4, "never"));
  s.Add(unknown);
  Bytes vmethod = Leaf(0x1203);  // an introducing virtual method without room for its offset
  Put16(vmethod, 0x1511), Put16(vmethod, 3 | (4 << 2)), Put32(vmethod, 0x1000);
  s.Add(vmethod);
  Bytes name = Leaf(0x150D);  // a record whose name has no terminator
  Put16(name, 3), Put32(name, 0x74), Put16(name, 0), name.push_back('x'), name.push_back('y');
  Bytes unterminated = Leaf(0x1203);
  Append(unterminated, name);
  s.Add(unterminated);
  Bytes short_class = Leaf(0x1505);  // fixed part cut short
  Put16(short_class, 1);
  s.Add(short_class);
  const PdbTypes *t = s.Build();
  bool broken = false;
  EXPECT_EQ(Walk(t, 0x1000, &broken), std::vector<std::string>{"5389:ok"});
  EXPECT_TRUE(broken);
  EXPECT_EQ(Walk(t, 0x1001, &broken), std::vector<std::string>{"5389:first"});
  EXPECT_TRUE(broken);
  EXPECT_EQ(Walk(t, 0x1002, &broken), std::vector<std::string>{});
  EXPECT_TRUE(broken);
  EXPECT_EQ(Walk(t, 0x1003, &broken), std::vector<std::string>{"5389:xy"});
  TypeRecord r;
  EXPECT_FALSE(PdbDecodeType(t, 0x1004, &r));
  EXPECT_EQ(PdbTypeSize(t, 0x1004), 0u);
  EXPECT_EQ(Walk(t, 0x1005), std::vector<std::string>{});  // past the stream
  EXPECT_EQ(Name(t, 0x2000), "<type 0x2000>");
}

// Two definitions of one name in one bucket: the lookup takes the last, where the adjusters put
// the linker's choice (and an adjuster changes which that is); without a name index nothing is
// found by name.
TEST(TypeRecords, LastCandidateOfTheBucketWins) {
  Stream s;
  s.Add(Structure(0x1505, 0, 0x80, 0, 0, "Twice"));
  s.Add(Structure(0x1505, 0, 0, 0, 4, "Twice"));
  s.Add(Structure(0x1505, 0, 0, 0, 8, "Twice"));
  const PdbTypes *t = s.Build(1);
  EXPECT_EQ(PdbFindTypeRecord(t, "Twice", 5), 0x1002u);
  EXPECT_EQ(PdbTypeDefinition(t, 0x1000), 0x1002u);
  EXPECT_EQ(PdbTypeSize(t, 0x1000), 8u);
  // An adjuster naming the first definition moves it last: the look-up then finds it.
  Bytes adjusters;
  Put32(adjusters, 1), Put32(adjusters, 1);  // size, capacity
  Put32(adjusters, 1), Put32(adjusters, 1);  // present-bit words, the word
  Put32(adjusters, 0);                       // no deleted bits
  Put32(adjusters, 1), Put32(adjusters, 0x1001);
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

}  // namespace

namespace {

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
  Bytes base_fields = Leaf(0x1203);
  Append(base_fields, Member(0x74, 0, "x"));
  s.Add(base_fields);
  uint32_t base = s.Add(Structure(0x1505, 1, 0, 0x1000, 4, "B"));
  Bytes fields = Leaf(0x1203);
  Append(fields, BaseClass(base, 0));
  Append(fields, Member(0x41, 8, "x"));
  uint32_t list = s.Add(fields);
  uint32_t derived = s.Add(Structure(0x1505, 2, 0, list, 16, "D"));
  const PdbTypes *t = s.Build();
  ASSERT_TRUE(PdbFindMember(t, derived, "x", 1, &m));
  EXPECT_EQ(m.offset, 8u);
  EXPECT_EQ(m.type, 0x41u);
}

}  // namespace

// A modifier hashes as the record it modifies, through chains of modifiers; one that modifies a
// built-in type (no record) is hashed as itself.
TEST(TypeRecords, ModifierHashesAsWhatItModifies) {
  Stream s;
  uint32_t foo = s.Add(Structure(0x1505, 0, 0, 0, 4, "Foo"));
  Bytes constant = Leaf(0x1001);
  Put32(constant, foo), Put16(constant, 1), Put16(constant, 0);
  uint32_t const_foo = s.Add(constant);
  Bytes volatile_const = Leaf(0x1001);
  Put32(volatile_const, const_foo), Put16(volatile_const, 2), Put16(volatile_const, 0);
  uint32_t volatile_const_foo = s.Add(volatile_const);
  Bytes const_int = Leaf(0x1001);
  Put32(const_int, 0x74), Put16(const_int, 1), Put16(const_int, 0);
  uint32_t const_int_index = s.Add(const_int);
  const PdbTypes *t = s.Build();
  EXPECT_EQ(PdbTypeRecordHash(t, foo), PdbNameHashV1("Foo", 3));
  EXPECT_EQ(PdbTypeRecordHash(t, const_foo), PdbNameHashV1("Foo", 3));
  EXPECT_EQ(PdbTypeRecordHash(t, volatile_const_foo), PdbNameHashV1("Foo", 3));
  const u8 *record = PdbTypeRecord(t, const_int_index);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(PdbTypeRecordHash(t, const_int_index), PdbTypeRecordHashBytes(record, ReadU16(record) + 2u));
}
