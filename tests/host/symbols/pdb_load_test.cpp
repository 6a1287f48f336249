// Loading crafted PDBs: the information stream's version and GUID rules, "/names", the
// debug-information header, global tables and module scopes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>

#include "opened_pdb.h"
#include "pdb_builder.h"
#include "symbols/pdb_kinds.h"

namespace {

CodeViewIdentity IdentityOf(const PdbSpec &spec) {
  CodeViewIdentity id = {};
  memcpy(id.bytes, "RSDS", 4);
  memcpy(id.bytes + 4, spec.guid, 16);
  id.bytes[20] = 99;  // the age is never compared
  return id;
}

// The crafted PDB opened against its own GUID, unless told otherwise.
struct Loaded : OpenedPdb {
  explicit Loaded(const PdbSpec &spec, const CodeViewIdentity *id = nullptr, bool ignore = false)
      : OpenedPdb(WriteTempFile(BuildPdb(spec), "crafted.pdb"), id ? *id : IdentityOf(spec), ignore) {}
};

// The information stream read on its own: its own result code, and the "/names" stream it found.
int InfoStatus(const Bytes &file, const CodeViewIdentity &id, bool ignore) {
  SymbolArena arena = {};
  MsfFile msf;
  int result = MsfOpen(&arena, WriteTempFile(file, "info.pdb").c_str(), &msf);
  if (result == kPdbOk) {
    s32 names = 123;
    result = PdbReadInfoStream(&arena, &id, &msf, &names, ignore);
    EXPECT_EQ(names, result == kPdbOk ? 6 : -1);
  }
  MsfClose(&msf);
  SymbolArenaRelease(&arena);
  return result;
}

std::string Found(const PdbGlobals &g, const char *name) {
  std::string text;
  for (const PdbDataEntry *e = PdbFindData(&g, name, nullptr); e; e = PdbFindData(&g, name, e))
    text += Format("%u:%X:%X %s ", e->section_minus_1 + 1, e->offset, e->type_index, PdbDataEntryName(&g, e));
  return text;
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
    SCOPED_TRACE(c.what);
    PdbSpec spec;
    c.edit(spec);
    EXPECT_EQ(InfoStatus(BuildPdb(spec), c.id ? *c.id : IdentityOf(spec), c.ignore), c.inside);
    Loaded loaded(spec, c.id, c.ignore);
    EXPECT_EQ(loaded.status, c.outside);
    EXPECT_EQ(loaded.pdb.msf.file.handle, 0) << "the file is closed";
  }
}

// Truncated or inconsistent information streams, written over the stream of a good PDB.
TEST(PdbInfoStream, MalformedStreams) {
  PdbSpec spec;
  const Bytes good = BuildPdb(spec);
  const size_t at = 3 * 4096;                       // stream 1 is the first stream with pages: page 3
  const size_t size_at = MsfDirectoryAt(good) + 8;  // its size is the directory's word 2
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
    EXPECT_EQ(InfoStatus(file, IdentityOf(spec), false), c.expected) << c.what;
  }
}

// "/names" and the debug-information header: each broken field gives its code, and the file is
// closed in every case. A superblock rejection returns without closing the file (the caller's
// handle stays open).
TEST(PdbOpen, StringTableAndDebugInformationHeader) {
  struct Case {
    const char *what;
    void (*edit)(PdbSpec &);
    int expected;
  } cases[] = {
      {"names magic", [](PdbSpec &s) { s.names_stream = LeBytes().u32(0xEFFEEFFF).u32(1).zero32(2); }, kPdbUnreadable},
      {"names hash version", [](PdbSpec &s) { s.names_stream = LeBytes().u32(0xEFFEEFFE).u32(3).zero32(2); },
       kPdbUnreadable},
      {"names buffer beyond the stream",
       [](PdbSpec &s) { s.names_stream = LeBytes().u32(0xEFFEEFFE).u32(1).u32(100).u32(0); }, kPdbUnreadable},
      {"names stream of 4 bytes", [](PdbSpec &s) { s.names_stream = LeBytes().u32(0xEFFEEFFE); }, kPdbUnreadable},
      {"DBI one byte longer", [](PdbSpec &s) { s.dbi_size_delta = 1; }, kPdbBadFormat},
      {"DBI one byte shorter", [](PdbSpec &s) { s.dbi_size_delta = -1; }, kPdbBadFormat},
      {"DBI old format", [](PdbSpec &s) { s.dbi_signature = 19990903; }, kPdbUnsupportedVersion},
      {"DBI module list too old", [](PdbSpec &s) { s.dbi_version = 19970605; }, kPdbUnsupportedVersion},
      {"DBI oldest module list", [](PdbSpec &s) { s.dbi_version = 19970606; }, kPdbOk},
  };
  for (const Case &c : cases) {
    PdbSpec spec;
    spec.modules.resize(1);
    c.edit(spec);
    Loaded loaded(spec);
    EXPECT_EQ(loaded.status, c.expected) << c.what;
    EXPECT_EQ(loaded.pdb.msf.file.handle, 0) << c.what;
  }
  PdbSpec spec;
  Bytes file = BuildPdb(spec);
  Set32(file, 0x20, 3072);
  OpenedPdb rejected(WriteTempFile(file, "open.pdb"), IdentityOf(spec), false);
  EXPECT_EQ(rejected.status, kPdbBadFormat);
  ASSERT_NE(rejected.pdb.msf.file.handle, 0);
  EXPECT_NE(fcntl((int)(rejected.pdb.msf.file.handle - 1), F_GETFD), -1);
}

// [SECTION] Global symbols

TEST(PdbGlobals, TablesChainsAndSignExtendedNames) {
  PdbSpec spec;
  const std::string utf8_name = "gr\xC3\xBC\xC3\x9F" "e";  // "grüße": bytes that sign-extend when hashed
  auto constant = [](uint32_t type, const LeBytes &leaf, const char *name) {
    return SymbolRecord(LeBytes().u16(0x1107).u32(type).raw(leaf.b).name(name));
  };
  spec.globals = {
      DataRecord(0x110C, 0x74, 0x10, 3, "counter"),  // file static of module 1
      DataRecord(0x110D, 0x74, 0x20, 3, "total"),
      DataRecord(0x110C, 0x75, 0x30, 3, "counter"),  // file static of module 2, same name
      DataRecord(0x110D, 0x40, 0x40, 3, utf8_name),
      constant(0x13, LeBytes().u16(0x8009).u64(0x0123456789ABCDEFull), "BIG"),  // LF_QUADWORD
      constant(0x74, LeBytes().u16(42), "SMALL"),
      constant(0x10, LeBytes().u16(0x8000).u8(0x7F), "LETTER"),  // LF_CHAR
      SymbolRecord(LeBytes().u16(0x1108).u32(0x1004).name("Point")),  // S_UDT
      DataRecord(0x1113, 0x74, 0x8, 4, "tls_counter"),
      DataRecord(0x1112, 0x74, 0xC, 4, "tls_local"),
      SimpleRecord(0x110E, 12),  // S_PUB32: not kept
  };
  spec.modules.resize(1);
  Loaded loaded(spec);
  ASSERT_EQ(loaded.status, kPdbOk);
  const PdbGlobals &g = loaded.pdb.globals;
  EXPECT_EQ(g.data_count, 4u);
  EXPECT_EQ(g.constant_count, 3u);
  EXPECT_EQ(g.thread_count, 2u);
  EXPECT_EQ(loaded.summary.data_count, 4u);
  // Both statics named "counter", in hash-record order, through the chain.
  EXPECT_EQ(Found(g, "counter"), "3:10:74 counter 3:30:75 counter ");
  EXPECT_EQ(Found(g, utf8_name.c_str()), "3:40:40 " + utf8_name + " ");
  EXPECT_EQ(Found(g, "missing") + Found(g, "tota"), "");
  // A constant's name lies after its numeric leaf: 10 bytes for LF_QUADWORD, 2 for a small value.
  for (const char *name : {"BIG", "SMALL", "LETTER"}) {
    const u8 *record = PdbFindConstant(&g, name);
    ASSERT_TRUE(record) << name;
    EXPECT_STREQ(PdbGlobalRecordName(record), name);
  }
  EXPECT_EQ(PdbFindConstant(&g, "counter"), nullptr);
  EXPECT_EQ(PdbFindUdt(&g, "Point"), 0x1004u);
  EXPECT_EQ(PdbFindUdt(&g, "Poin"), 0u);
  EXPECT_TRUE(PdbFindThreadData(&g, "tls_counter") && PdbFindThreadData(&g, "tls_local"));
  EXPECT_EQ(PdbFindThreadData(&g, "total"), nullptr);
}

// A global-symbol stream with another version leaves the tables empty; a record whose name runs
// past its end is skipped. The PDB still loads.
TEST(PdbGlobals, BadStreamsLeaveTheTablesEmpty) {
  PdbSpec spec;
  spec.globals = {DataRecord(0x110D, 0x74, 0x20, 3, "total")};
  spec.gsi_version = 0xF12F091B;
  spec.modules.resize(1);
  Loaded other_version(spec);
  ASSERT_EQ(other_version.status, kPdbOk);
  EXPECT_EQ(other_version.pdb.globals.data_capacity, 0u);
  EXPECT_EQ(Found(other_version.pdb.globals, "total"), "");

  Bytes unterminated = DataRecord(0x110D, 0x74, 0x20, 3, "abc");  // 20 bytes: name at 14..17
  unterminated[17] = 'd', unterminated[18] = 'e', unterminated[19] = 'f';
  spec.globals = {unterminated, DataRecord(0x110D, 0x74, 0x30, 3, "ok")};
  spec.gsi_version = PdbSpec().gsi_version;
  Loaded skipped(spec);
  ASSERT_EQ(skipped.status, kPdbOk);
  EXPECT_EQ(skipped.pdb.globals.data_count, 1u);
  EXPECT_EQ(Found(skipped.pdb.globals, "ok"), "3:30:74 ok ");
}

// [SECTION] Module symbols

TEST(PdbScopes, ProceduresBlocksLocalsAndTheAddressList) {
  PdbSpec spec;
  ModuleSpec m1, m2, none;
  m1.name = "one.obj";
  m1.records = {
      ProcRecord(0x1110, 0x40, 0x200, 1, "main"),
      SimpleRecord(0x1012, 28),  // S_FRAMEPROC
      RegRelRecord(0x10, 334, "argc"),
      RegRelRecord(0x18, 335, "argv"),
      RegRelRecord(0x20, 328, "other"),  // not frame-based
      BlockRecord(0x20, 0x210, 1),
      RegRelRecord(0x28, 334, "inner"),
      DataRecord(0x110C, 0x74, 0x50, 3, "static_in_block"),
      BlockRecord(0x8, 0x218, 1),
      DataRecord(0x1112, 0x74, 0x4, 4, "tls_in_nested"),
      SimpleRecord(0x0006),     // ends the nested block
      SimpleRecord(0x113E, 8),  // S_LOCAL, in the outer block again
      SimpleRecord(0x1141, 8),  // S_DEFRANGE_REGISTER
      SimpleRecord(0x0006),     // ends the outer block
      SimpleRecord(0x1142, 8),
      SimpleRecord(0x0006),  // ends main
      ProcRecord(0x110F, 0x10, 0x100, 1, "helper"),
      SimpleRecord(0x0006),
  };
  m2.name = "two.obj";
  m2.records = {ProcRecord(0x110F, 0x10, 0x80, 2, "helper"),  // a static of the same name elsewhere
                SimpleRecord(0x0006), ProcRecord(0x1110, 0x30, 0x0, 1, "first"), SimpleRecord(0x0006)};
  m2.c13 = Bytes(24, 0xAB);
  none.no_stream = true;
  spec.modules = {m1, none, m2};
  Loaded loaded(spec);
  ASSERT_EQ(loaded.status, kPdbOk);
  const PdbScopes &s = loaded.pdb.scopes;
  EXPECT_EQ(loaded.summary.module_count, 3u);
  EXPECT_EQ(loaded.summary.procedure_count, 4u);
  EXPECT_EQ(loaded.summary.block_count, 2u);
  EXPECT_EQ(s.modules[1].symbols, nullptr);
  ASSERT_EQ(s.modules[2].c13_bytes, 24u);
  EXPECT_EQ(s.modules[2].c13[0], 0xAB);

  // The address list is sorted by section, then start.
  std::string addresses;
  for (u32 i = 0; i < 4; i++)
    addresses += Format("%u:%X-%X %s ", s.addresses[i].section, s.addresses[i].start, s.addresses[i].end,
                        PdbProcName(s.addresses[i].procedure));
  EXPECT_EQ(addresses, "1:0-30 first 1:100-110 helper 1:200-240 main 2:80-90 helper ");

  const PdbProcScope *main_proc = PdbFindProcedure(&s, "main", nullptr);
  ASSERT_TRUE(main_proc);
  EXPECT_EQ(PdbFindProcedure(&s, "main", main_proc), nullptr);
  EXPECT_EQ(Format("frame %d, %u frame locals from %s, %u ranges, %u blocks, module %u", main_proc->frameproc != 0,
                   main_proc->locals.frame_regrel_count, (const char *)main_proc->locals.first_regrel + 14,
                   main_proc->locals.defrange_count, main_proc->block_count, main_proc->module_index),
            "frame 1, 2 frame locals from argc, 1 ranges, 2 blocks, module 0");
  const PdbBlockScope *outer = &s.blocks[main_proc->first_block], *nested = outer + 1;
  EXPECT_EQ(outer->parent_block, kPdbNoBlock);
  EXPECT_EQ(nested->parent_block, main_proc->first_block);
  const PdbScopeLocals &o = outer->locals, &n = nested->locals;
  EXPECT_EQ(Format("%u %u %u %u", o.frame_regrel_count, o.ldata_count, o.local_count, o.defrange_count), "1 1 1 1");
  EXPECT_EQ(Format("%u %u", n.lthread_count, n.ldata_count), "1 0");

  const PdbProcScope *h1 = PdbFindProcedure(&s, "helper", nullptr);
  const PdbProcScope *h2 = h1 ? PdbFindProcedure(&s, "helper", h1) : nullptr;
  ASSERT_TRUE(h1 && h2);
  EXPECT_NE(h1->module_index, h2->module_index);
  EXPECT_EQ(PdbFindProcedure(&s, "helper", h2), nullptr);
  EXPECT_EQ(PdbFindProcedure(&s, "nothing", nullptr), nullptr);

  // Section contributions: the raw 28-byte entries.
  const PdbModuleList &m = loaded.pdb.modules;
  EXPECT_EQ(Format("%u %X %u", m.contribution_count, m.contributions[1].offset, m.contributions[1].module_index), "2 1000 1");
  EXPECT_STREQ(DbiModuleName(loaded.pdb.modules.modules[2]), "two.obj");
}

// No procedures at all; a truncated procedure list (end field wrong, no closing S_END) ends with
// the module; unknown contribution versions leave the list empty.
TEST(PdbScopes, EmptyAndTruncatedModules) {
  PdbSpec spec;
  spec.modules.resize(1);
  spec.contribution_version = 0x12345678;
  Loaded empty(spec);
  ASSERT_EQ(empty.status, kPdbOk);
  EXPECT_EQ(empty.pdb.scopes.procedure_count, 0u);
  EXPECT_EQ(empty.pdb.modules.contribution_count, 0u);

  Bytes open_ended = ProcRecord(0x1110, 0x10, 0x0, 1, "open_ended");
  Set32(open_ended, 8, 0xFFFF);
  spec.modules[0].records = {open_ended, BlockRecord(4, 0, 1), ProcRecord(0x1110, 0x10, 0x20, 1, "swallowed")};
  Loaded truncated(spec);
  ASSERT_EQ(truncated.status, kPdbOk);
  EXPECT_EQ(truncated.pdb.scopes.procedure_count, 1u);
  EXPECT_EQ(truncated.pdb.scopes.block_count, 1u);
}
