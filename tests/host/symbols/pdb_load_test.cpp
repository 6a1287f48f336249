// Loading crafted PDBs: the information stream's version and GUID rules, "/names", the
// debug-information header, global tables and module scopes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>

#include "base/hash.h"
#include "pdb_builder.h"
#include "symbols/pdb_error.h"
#include "symbols/pdb_file.h"
#include "symbols/pdb_kinds.h"

namespace {

CodeViewIdentity IdentityOf(const PdbSpec &spec) {
  CodeViewIdentity id = {};
  memcpy(id.bytes, "RSDS", 4);
  memcpy(id.bytes + 4, spec.guid, 16);
  id.bytes[20] = 99;  // the age is never compared
  return id;
}

struct Loaded {
  SymbolArena arena = {};
  PdbFile pdb = {};
  PdbSummary summary = {};
  int status = -1;
  ~Loaded() {
    MsfClose(&pdb.msf);
    SymbolArenaRelease(&arena);
  }
};

void Load(Loaded &out, const PdbSpec &spec, const CodeViewIdentity *id = nullptr, bool ignore = false) {
  CodeViewIdentity own = IdentityOf(spec);
  std::string path = WriteTempFile(BuildPdb(spec), "crafted.pdb");
  out.status = PdbOpen(&out.arena, id ? id : &own, path.c_str(), ignore, &out.pdb, &out.summary);
}

int InfoStatus(const PdbSpec &spec, const CodeViewIdentity *id, bool ignore) {
  CodeViewIdentity own = IdentityOf(spec);
  std::string path = WriteTempFile(BuildPdb(spec), "info.pdb");
  SymbolArena arena = {};
  MsfFile msf;
  int result = MsfOpen(&arena, path.c_str(), &msf);
  if (result == kPdbOk) {
    s32 names = 123;
    result = PdbReadInfoStream(&arena, id ? id : &own, &msf, &names, ignore);
    if (result != kPdbOk) EXPECT_EQ(names, -1);
    if (result == kPdbOk) EXPECT_EQ(names, 6);
  }
  MsfClose(&msf);
  SymbolArenaRelease(&arena);
  return result;
}

}  // namespace

// Inside, the information stream says what is wrong; PdbOpen reports every such failure as a
// signature mismatch. The age is never compared; the ignore flag accepts another GUID.
TEST(PdbInfoStream, VersionGuidAndNamedStreamRules) {
  PdbSpec other_guid_spec;
  other_guid_spec.guid[0] ^= 0xFF;
  CodeViewIdentity other_guid = IdentityOf(other_guid_spec);
  struct Case {
    const char *what;
    void (*edit)(PdbSpec &);
    const CodeViewIdentity *id;
    bool ignore;
    int inside, outside;
  } cases[] = {
      {"plain", [](PdbSpec &) {}, nullptr, false, kPdbOk, kPdbOk},
      {"newest version", [](PdbSpec &s) { s.info_version = 20140508; }, nullptr, false, kPdbOk, kPdbOk},
      {"oldest version", [](PdbSpec &s) { s.info_version = 19990605; }, nullptr, false, kPdbOk, kPdbOk},
      {"too new", [](PdbSpec &s) { s.info_version = 20140509; }, nullptr, false, kPdbUnsupportedVersion,
       kPdbSignatureMismatch},
      {"too old", [](PdbSpec &s) { s.info_version = 19990604; }, nullptr, false, kPdbUnsupportedVersion,
       kPdbSignatureMismatch},
      {"PDB 2.0 signature", [](PdbSpec &s) { s.info_signature = 19941610; }, nullptr, false, kPdbBadFormat,
       kPdbSignatureMismatch},
      {"other GUID", [](PdbSpec &) {}, &other_guid, false, kPdbSignatureMismatch, kPdbSignatureMismatch},
      {"other GUID, ignored", [](PdbSpec &) {}, &other_guid, true, kPdbOk, kPdbOk},
      {"other age", [](PdbSpec &s) { s.age = 77; }, nullptr, false, kPdbOk, kPdbOk},
      {"no /names entry", [](PdbSpec &s) { s.names_entry = false; }, nullptr, false, kPdbStreamMissing,
       kPdbSignatureMismatch},
      {"/names not in the buffer", [](PdbSpec &s) { s.named_stream = "/nameZ"; }, nullptr, false,
       kPdbStreamMissing, kPdbSignatureMismatch},
  };
  for (const Case &c : cases) {
    PdbSpec spec;
    c.edit(spec);
    EXPECT_EQ(InfoStatus(spec, c.id, c.ignore), c.inside) << c.what;
    Loaded loaded;
    Load(loaded, spec, c.id, c.ignore);
    EXPECT_EQ(loaded.status, c.outside) << c.what;
    EXPECT_EQ(loaded.pdb.msf.file.handle, 0) << c.what << ": the file is closed";
  }
}

// Truncated or inconsistent information streams, written over the stream of a good PDB.
TEST(PdbInfoStream, MalformedStreams) {
  PdbSpec spec;
  Bytes good = BuildPdb(spec);
  // Stream 1 is the first stream with pages: page 3 (see BuildMsf).
  const size_t at = 3 * 4096;
  uint32_t size_at = 0;
  {  // its size lies in the directory: word 2
    uint32_t map_page = good[0x34] | good[0x35] << 8;
    uint32_t dir_page = good[map_page * 4096] | good[map_page * 4096 + 1] << 8;
    size_at = dir_page * 4096 + 8;
  }
  struct {
    const char *what;
    uint32_t size;
    size_t patch_at;
    uint32_t patch;
    int expected;
  } cases[] = {
      {"12 bytes", 12, 0, 0, kPdbBadFormat},
      {"28 bytes", 28, 0, 0, kPdbBadFormat},
      {"no room for the names length", 30, 0, 0, kPdbBadFormat},
      {"names length beyond the stream", 0, 28, 100000, kPdbBadFormat},
      {"empty names buffer", 0, 28, 0, kPdbStreamMissing},
      {"entry count beyond the stream", 0, 32 + 17, 100000, kPdbBadFormat},
      {"present-bit words beyond the stream", 0, 32 + 17 + 8, 100000, kPdbBadFormat},
  };
  for (auto &c : cases) {
    Bytes file = good;
    if (c.size) Set32(file, size_at, c.size);
    if (c.patch_at) Set32(file, at + c.patch_at, c.patch);
    SymbolArena arena = {};
    MsfFile msf;
    ASSERT_EQ(MsfOpen(&arena, WriteTempFile(file, "info.pdb").c_str(), &msf), kPdbOk) << c.what;
    s32 names = 0;
    CodeViewIdentity id = IdentityOf(spec);
    EXPECT_EQ(PdbReadInfoStream(&arena, &id, &msf, &names, false), c.expected) << c.what;
    MsfClose(&msf);
    SymbolArenaRelease(&arena);
  }
}

// "/names" and the debug-information header: each broken field gives its code, and the file is
// closed in every case.
TEST(PdbOpen, StringTableAndDebugInformationHeader) {
  Bytes bad_magic, bad_version, short_buffer, tiny;
  Put32(bad_magic, 0xEFFEEFFF), Put32(bad_magic, 1), Put32(bad_magic, 0), Put32(bad_magic, 0);
  Put32(bad_version, 0xEFFEEFFE), Put32(bad_version, 3), Put32(bad_version, 0), Put32(bad_version, 0);
  Put32(short_buffer, 0xEFFEEFFE), Put32(short_buffer, 1), Put32(short_buffer, 100), Put32(short_buffer, 0);
  Put32(tiny, 0xEFFEEFFE);
  struct Case {
    const char *what;
    void (*edit)(PdbSpec &, const Bytes &);
    const Bytes *names;
    int expected;
  } cases[] = {
      {"names magic", [](PdbSpec &s, const Bytes &b) { s.names_stream_override = b; }, &bad_magic, kPdbUnreadable},
      {"names hash version", [](PdbSpec &s, const Bytes &b) { s.names_stream_override = b; }, &bad_version,
       kPdbUnreadable},
      {"names buffer beyond the stream", [](PdbSpec &s, const Bytes &b) { s.names_stream_override = b; },
       &short_buffer, kPdbUnreadable},
      {"names stream of 4 bytes", [](PdbSpec &s, const Bytes &b) { s.names_stream_override = b; }, &tiny,
       kPdbUnreadable},
      {"DBI one byte longer", [](PdbSpec &s, const Bytes &) { s.dbi_size_delta = 1; }, nullptr, kPdbBadFormat},
      {"DBI one byte shorter", [](PdbSpec &s, const Bytes &) { s.dbi_size_delta = -1; }, nullptr, kPdbBadFormat},
      {"DBI old format", [](PdbSpec &s, const Bytes &) { s.dbi_signature = 19990903; }, nullptr,
       kPdbUnsupportedVersion},
      {"DBI module list too old", [](PdbSpec &s, const Bytes &) { s.dbi_version = 19970605; }, nullptr,
       kPdbUnsupportedVersion},
      {"DBI oldest module list", [](PdbSpec &s, const Bytes &) { s.dbi_version = 19970606; }, nullptr, kPdbOk},
  };
  for (const Case &c : cases) {
    PdbSpec spec;
    spec.modules.resize(1);
    c.edit(spec, c.names ? *c.names : Bytes());
    Loaded loaded;
    Load(loaded, spec);
    EXPECT_EQ(loaded.status, c.expected) << c.what;
    EXPECT_EQ(loaded.pdb.msf.file.handle, 0) << c.what;
  }
}

// A superblock rejection returns without closing the file (the caller's handle stays open).
TEST(PdbOpen, SuperblockRejectionLeavesTheFileOpen) {
  PdbSpec spec;
  Bytes file = BuildPdb(spec);
  Set32(file, 0x20, 3072);
  Loaded loaded;
  CodeViewIdentity id = IdentityOf(spec);
  loaded.status = PdbOpen(&loaded.arena, &id, WriteTempFile(file, "open.pdb").c_str(), false, &loaded.pdb,
                          &loaded.summary);
  EXPECT_EQ(loaded.status, kPdbBadFormat);
  ASSERT_NE(loaded.pdb.msf.file.handle, 0);
  EXPECT_NE(fcntl((int)(loaded.pdb.msf.file.handle - 1), F_GETFD), -1);
}

// [SECTION] Global symbols

TEST(PdbGlobals, TablesChainsAndSignExtendedNames) {
  PdbSpec spec;
  const std::string utf8_name = "gr\xC3\xBC\xC3\x9F" "e";  // "grüße"
  Bytes quad_leaf, small_leaf, char_leaf;
  Put16(quad_leaf, 0x8009), Put32(quad_leaf, 0x89ABCDEF), Put32(quad_leaf, 0x01234567);
  Put16(small_leaf, 42);
  char_leaf = {0x00, 0x80, 0x7F};
  spec.globals = {
      DataRecord(0x110C, 0x74, 0x10, 3, "counter"),  // file static of module 1
      DataRecord(0x110D, 0x74, 0x20, 3, "total"),
      DataRecord(0x110C, 0x75, 0x30, 3, "counter"),  // file static of module 2, same name
      DataRecord(0x110D, 0x40, 0x40, 3, utf8_name),
      ConstantRecord(0x13, quad_leaf, "BIG"),
      ConstantRecord(0x74, small_leaf, "SMALL"),
      ConstantRecord(0x10, char_leaf, "LETTER"),
      UdtRecord(0x1004, "Point"),
      DataRecord(0x1113, 0x74, 0x8, 4, "tls_counter"),
      DataRecord(0x1112, 0x74, 0xC, 4, "tls_local"),
      SimpleRecord(0x110E, 12),  // S_PUB32: not kept
  };
  spec.modules.resize(1);
  Loaded loaded;
  Load(loaded, spec);
  ASSERT_EQ(loaded.status, kPdbOk);
  const PdbGlobals &g = loaded.pdb.globals;
  EXPECT_EQ(g.data_count, 4u);
  EXPECT_EQ(g.data_capacity, 6u);
  EXPECT_EQ(g.constant_count, 3u);
  EXPECT_EQ(g.constant_capacity, 4u);
  EXPECT_EQ(g.udt_capacity, 1u);
  EXPECT_EQ(g.thread_count, 2u);
  EXPECT_EQ(loaded.summary.data_count, 4u);

  // Both statics named "counter", in hash-record order, through the chain.
  const PdbDataEntry *first = PdbFindData(&g, "counter", nullptr);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->offset, 0x10u);
  EXPECT_EQ(first->section_minus_1, 2u);
  EXPECT_EQ(first->type_index, 0x74u);
  const PdbDataEntry *second = PdbFindData(&g, "counter", first);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->offset, 0x30u);
  EXPECT_EQ(second->type_index, 0x75u);
  EXPECT_EQ(PdbFindData(&g, "counter", second), nullptr);
  EXPECT_EQ(first->next, (u32)(second - g.data));
  EXPECT_EQ(second->next, kPdbNoEntry);

  // The stored hash is the sign-extending one, so the lookup with the same rule finds it.
  const PdbDataEntry *utf8 = PdbFindData(&g, utf8_name.c_str(), nullptr);
  ASSERT_TRUE(utf8);
  EXPECT_EQ(utf8->name_hash, HashNameZ(utf8_name.c_str()));
  EXPECT_EQ(utf8->offset, 0x40u);
  EXPECT_STREQ(PdbDataEntryName(&g, utf8), utf8_name.c_str());
  EXPECT_EQ(PdbFindData(&g, "missing", nullptr), nullptr);
  EXPECT_EQ(PdbFindData(&g, "tota", nullptr), nullptr);

  // A constant's name lies after its numeric leaf: 10 bytes for LF_QUADWORD, 2 for a small value.
  const u8 *big = PdbFindConstant(&g, "BIG");
  ASSERT_TRUE(big);
  EXPECT_STREQ(PdbGlobalRecordName(big), "BIG");
  EXPECT_EQ(PdbGlobalRecordName(big), (const char *)big + 8 + 10);
  EXPECT_TRUE(PdbFindConstant(&g, "SMALL"));
  EXPECT_TRUE(PdbFindConstant(&g, "LETTER"));
  EXPECT_EQ(PdbFindConstant(&g, "counter"), nullptr);

  EXPECT_EQ(PdbFindUdt(&g, "Point"), 0x1004u);
  EXPECT_EQ(PdbFindUdt(&g, "Poin"), 0u);
  EXPECT_TRUE(PdbFindThreadData(&g, "tls_counter"));
  EXPECT_TRUE(PdbFindThreadData(&g, "tls_local"));
  EXPECT_EQ(PdbFindThreadData(&g, "total"), nullptr);
}

// A global-symbol stream with another version, or records pointing outside the record stream,
// leave the tables empty (or skip those records) and the PDB still loads.
TEST(PdbGlobals, BadStreamsLeaveTheTablesEmpty) {
  PdbSpec spec;
  spec.globals = {DataRecord(0x110D, 0x74, 0x20, 3, "total")};
  spec.gsi_version = 0xF12F091B;
  spec.modules.resize(1);
  Loaded loaded;
  Load(loaded, spec);
  ASSERT_EQ(loaded.status, kPdbOk);
  EXPECT_EQ(loaded.pdb.globals.data_capacity, 0u);
  EXPECT_EQ(PdbFindData(&loaded.pdb.globals, "total", nullptr), nullptr);

  // A record whose name runs past its end is skipped; the others load.
  PdbSpec spec2;
  Bytes unterminated = DataRecord(0x110D, 0x74, 0x20, 3, "abc");  // 20 bytes: name at 14..17
  unterminated[17] = 'd', unterminated[18] = 'e', unterminated[19] = 'f';
  spec2.globals = {unterminated, DataRecord(0x110D, 0x74, 0x30, 3, "ok")};
  spec2.modules.resize(1);
  Loaded loaded2;
  Load(loaded2, spec2);
  ASSERT_EQ(loaded2.status, kPdbOk);
  EXPECT_EQ(loaded2.pdb.globals.data_count, 1u);
  EXPECT_TRUE(PdbFindData(&loaded2.pdb.globals, "ok", nullptr));
}

// [SECTION] Module symbols

TEST(PdbScopes, ProceduresBlocksLocalsAndTheAddressList) {
  PdbSpec spec;
  ModuleSpec m1, m2, none;
  m1.name = "one.obj";
  m1.records = {
      ProcRecord(0x1110, 0, 0x40, 0x200, 1, "main"),
      SimpleRecord(0x1012, 28),  // S_FRAMEPROC
      RegRelRecord(0x10, 334, "argc"),
      RegRelRecord(0x18, 335, "argv"),
      RegRelRecord(0x20, 328, "other"),  // not frame-based
      BlockRecord(0x20, 0x210, 1),
      RegRelRecord(0x28, 334, "inner"),
      DataRecord(0x110C, 0x74, 0x50, 3, "static_in_block"),
      BlockRecord(0x8, 0x218, 1),
      DataRecord(0x1112, 0x74, 0x4, 4, "tls_in_nested"),
      SimpleRecord(0x0006),  // ends the nested block
      SimpleRecord(0x113E, 8),  // S_LOCAL, in the outer block again
      SimpleRecord(0x1141, 8),  // S_DEFRANGE_REGISTER
      SimpleRecord(0x0006),  // ends the outer block
      SimpleRecord(0x1142, 8),
      SimpleRecord(0x0006),  // ends main
      ProcRecord(0x110F, 0, 0x10, 0x100, 1, "helper"),
      SimpleRecord(0x0006),
  };
  FixProcedureEnds(m1);
  m2.name = "two.obj";
  m2.records = {
      ProcRecord(0x110F, 0, 0x10, 0x80, 2, "helper"),  // a static of the same name elsewhere
      SimpleRecord(0x0006),
      ProcRecord(0x1110, 0, 0x30, 0x0, 1, "first"),
      SimpleRecord(0x0006),
  };
  FixProcedureEnds(m2);
  m2.c13 = Bytes(24, 0xAB);
  none.no_stream = true;
  spec.modules = {m1, none, m2};
  Loaded loaded;
  Load(loaded, spec);
  ASSERT_EQ(loaded.status, kPdbOk);
  const PdbScopes &s = loaded.pdb.scopes;
  EXPECT_EQ(loaded.summary.module_count, 3u);
  EXPECT_EQ(loaded.summary.procedure_count, 4u);
  EXPECT_EQ(loaded.summary.block_count, 2u);
  EXPECT_EQ(s.procedure_capacity, 8u);
  EXPECT_EQ(s.modules[1].symbols, nullptr);
  ASSERT_EQ(s.modules[2].c13_bytes, 24u);
  EXPECT_EQ(s.modules[2].c13[0], 0xAB);

  // The address list is sorted by section, then start.
  const char *expected[] = {"first", "helper", "main", "helper"};
  const u32 starts[] = {0x0, 0x100, 0x200, 0x80};
  for (u32 i = 0; i < 4; i++) {
    EXPECT_STREQ(PdbProcName(s.addresses[i].procedure), expected[i]) << i;
    EXPECT_EQ(s.addresses[i].start, starts[i]) << i;
  }
  EXPECT_EQ(s.addresses[2].end, 0x240u);
  EXPECT_EQ(s.addresses[3].section, 2u);

  const PdbProcScope *main_proc = PdbFindProcedure(&s, "main", nullptr);
  ASSERT_TRUE(main_proc);
  EXPECT_EQ(PdbFindProcedure(&s, "main", main_proc), nullptr);
  EXPECT_TRUE(main_proc->frameproc);
  EXPECT_EQ(main_proc->locals.frame_regrel_count, 2u);
  EXPECT_STREQ((const char *)main_proc->locals.first_regrel + 14, "argc");
  EXPECT_EQ(main_proc->locals.defrange_count, 1u);
  EXPECT_EQ(main_proc->block_count, 2u);
  EXPECT_EQ(main_proc->module_index, 0u);
  const PdbBlockScope *outer = &s.blocks[main_proc->first_block];
  const PdbBlockScope *nested = outer + 1;
  EXPECT_EQ(outer->parent_block, kPdbNoBlock);
  EXPECT_EQ(nested->parent_block, main_proc->first_block);
  EXPECT_EQ(outer->locals.frame_regrel_count, 1u);
  EXPECT_EQ(outer->locals.ldata_count, 1u);
  EXPECT_EQ(outer->locals.local_count, 1u);
  EXPECT_EQ(outer->locals.defrange_count, 1u);
  EXPECT_EQ(nested->locals.lthread_count, 1u);
  EXPECT_EQ(nested->locals.ldata_count, 0u);

  const PdbProcScope *h1 = PdbFindProcedure(&s, "helper", nullptr);
  ASSERT_TRUE(h1);
  const PdbProcScope *h2 = PdbFindProcedure(&s, "helper", h1);
  ASSERT_TRUE(h2);
  EXPECT_NE(h1->module_index, h2->module_index);
  EXPECT_EQ(PdbFindProcedure(&s, "helper", h2), nullptr);
  EXPECT_EQ(PdbFindProcedure(&s, "nothing", nullptr), nullptr);

  // Section contributions: the raw 28-byte entries.
  EXPECT_EQ(loaded.pdb.modules.contribution_count, 2u);
  EXPECT_EQ(loaded.pdb.modules.contributions[1].offset, 0x1000);
  EXPECT_EQ(loaded.pdb.modules.contributions[1].module_index, 1u);
  EXPECT_STREQ(DbiModuleName(loaded.pdb.modules.modules[2]), "two.obj");
}

// No procedures at all still gives an 8-slot table; a truncated procedure list (end field
// wrong, no closing S_END) ends with the module; unknown contribution versions leave the list
// empty.
TEST(PdbScopes, EmptyAndTruncatedModules) {
  PdbSpec spec;
  spec.modules.resize(1);
  spec.contribution_version = 0x12345678;
  Loaded loaded;
  Load(loaded, spec);
  ASSERT_EQ(loaded.status, kPdbOk);
  EXPECT_EQ(loaded.pdb.scopes.procedure_capacity, 8u);
  EXPECT_EQ(loaded.pdb.scopes.procedure_count, 0u);
  EXPECT_EQ(loaded.pdb.modules.contribution_count, 0u);

  PdbSpec spec2;
  ModuleSpec m;
  m.records = {ProcRecord(0x1110, 0xFFFF, 0x10, 0x0, 1, "open_ended"), BlockRecord(4, 0, 1),
               ProcRecord(0x1110, 0, 0x10, 0x20, 1, "swallowed")};
  spec2.modules = {m};
  Loaded loaded2;
  Load(loaded2, spec2);
  ASSERT_EQ(loaded2.status, kPdbOk);
  EXPECT_EQ(loaded2.pdb.scopes.procedure_count, 1u);
  EXPECT_EQ(loaded2.pdb.scopes.block_count, 1u);
}
