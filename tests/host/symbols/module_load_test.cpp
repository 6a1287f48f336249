// Images and module load from crafted files: what the image reader accepts and refuses, where the
// PDB is looked for and which symbol status results, and the scope found at an address.
#include <gtest/gtest.h>
#include <string.h>

#include "pdb_builder.h"
#include "symbols/module_symbols.h"
#include "symbols/scope_lookup.h"

namespace {

int ReadImage(const Bytes &bytes, PeImage *out) {
  ImageBytes source_bytes = {bytes.data(), bytes.size()};
  ImageSource source = ImageSourceFromBytes(&source_bytes);
  return PeReadImage(&source, 0x140000000ull, out);
}

// [SECTION] The image reader

// What the reader made of an image, on one line.
std::string Describe(const PeImage &image) {
  return Format("machine %X entry %X base %llX, sections %u of %u (last %s at %X), exceptions %X*%u, debug %u, %s, end %llX",
                image.machine, image.entry_rva, (unsigned long long)image.preferred_base, image.section_count,
                image.file_section_count, image.section_count ? image.sections[image.section_count - 1].name : "-",
                image.section_count ? image.sections[image.section_count - 1].virtual_address : 0, image.exception_rva,
                image.exception_entry_count, image.debug_entry_count,
                image.has_codeview ? image.pdb_path : "no CodeView record",
                (unsigned long long)PeImageExtentEnd(&image, 0x7FF000000000ull));
}

TEST(PeImage, ReadsWhatTheHeadersSayAndRefusesTheRest) {
  const std::string head = "machine 8664 entry 1010 base 140000000, sections ";
  struct Case {
    const char *what;
    void (*edit)(PeSpec &);
    int result;
    std::string image;  // as Describe puts it, after head
  } cases[] = {
      // The CodeView entry is found after another kind; the last section ends at 0x3000 + 0x234,
      // rounded up to the page.
      {"plain", [](PeSpec &) {}, kPeOk,
       "3 of 3 (last .s2 at 3000), exceptions 1000*3, debug 2, c:\\build\\app.pdb, end 7FF000004000"},
      {"32-bit", [](PeSpec &s) { s.magic = 0x10B; }, kPe32Bit, ""},
      {"ROM image", [](PeSpec &s) { s.magic = 0x107; }, kPeNotImage, ""},
      {"signature", [](PeSpec &s) { s.bad_signature = true; }, kPeNotImage, ""},
      // CodeView records of 804 bytes or more are refused: 24 + 778 + terminator = 803 bytes.
      {"longest path", [](PeSpec &s) { s.pdb_path = std::string(778, 'p'); }, kPeOk,
       "3 of 3 (last .s2 at 3000), exceptions 1000*3, debug 2, " + std::string(778, 'p') + ", end 7FF000004000"},
      {"path too long", [](PeSpec &s) { s.pdb_path = std::string(779, 'p'); }, kPeNotImage, ""},
      {"huge record", [](PeSpec &s) { s.codeview_size_override = 0xFFFFFFFF; }, kPeNotImage, ""},
      // Every CodeView entry is held to the limit, not only the one whose record is taken.
      {"second record too long", [](PeSpec &s) { s.second_codeview_size = 804; }, kPeNotImage, ""},
      {"second record", [](PeSpec &s) { s.second_codeview_size = 100; }, kPeOk,
       "3 of 3 (last .s2 at 3000), exceptions 1000*3, debug 3, c:\\build\\app.pdb, end 7FF000004000"},
      // A record too short to hold its identity is no CodeView record, and no failure.
      {"short record", [](PeSpec &s) { s.codeview_size_override = 20; }, kPeOk,
       "3 of 3 (last .s2 at 3000), exceptions 1000*3, debug 2, no CodeView record, end 7FF000004000"},
      // The first 96 sections are kept; the extent ends with the 96th.
      {"100 sections", [](PeSpec &s) { s.section_count = 100; }, kPeOk,
       "96 of 100 (last .s95 at 60000), exceptions 1000*3, debug 2, c:\\build\\app.pdb, end 7FF000061000"},
      // Data directories that are not there are not read.
      {"no debug directory", [](PeSpec &s) { s.directory_count = 6; }, kPeOk,
       "3 of 3 (last .s2 at 3000), exceptions 1000*3, debug 0, no CodeView record, end 7FF000004000"},
      {"no exception directory", [](PeSpec &s) { s.directory_count = 3; }, kPeOk,
       "3 of 3 (last .s2 at 3000), exceptions 0*0, debug 0, no CodeView record, end 7FF000004000"},
      // An optional header that ends before the data directories: an image without them.
      {"short optional header", [](PeSpec &s) { s.optional_bytes = 96; }, kPeOk,
       "3 of 3 (last .s2 at 3000), exceptions 0*0, debug 0, no CodeView record, end 7FF000004000"},
      {"more directories than fit", [](PeSpec &s) { s.directory_count = 0xFFFFFFFF; }, kPeOk,
       "3 of 3 (last .s2 at 3000), exceptions 1000*3, debug 2, c:\\build\\app.pdb, end 7FF000004000"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    PeSpec spec;
    c.edit(spec);
    PeImage image;
    ASSERT_EQ(ReadImage(BuildPe(spec).bytes, &image), c.result);
    if (c.result == kPeOk) EXPECT_EQ(Describe(image), head + c.image);
    if (c.result == kPeOk && image.has_codeview) {
      EXPECT_EQ(memcmp(image.identity.bytes, "RSDS", 4), 0);
      EXPECT_EQ(memcmp(image.identity.bytes + 4, spec.guid, 16), 0);
    }
  }
  PeImage image;
  EXPECT_EQ(ReadImage(Bytes(100, 0), &image), kPeNotImage);  // new-header offset 0: "MZ" is no "PE"
}

// The debugger reads the debug directory where the loader mapped it; the file's copy is not used.
TEST(PeImage, DebugDirectoryComesFromTheMappedImageWhenTheSourceCanReadIt) {
  PeSpec spec;
  spec.debug_directory_in_file = false;
  BuiltPe pe = BuildPe(spec);
  struct Mapped {
    ImageBytes file;
    BuiltPe *pe;
    uint64_t base_seen;
  } mapped = {{pe.bytes.data(), pe.bytes.size()}, &pe, 0};
  ImageSource source = ImageSourceFromBytes(&mapped.file);
  PeImage image;
  ASSERT_EQ(PeReadImage(&source, 0x7000000, &image), kPeOk);
  EXPECT_FALSE(image.has_codeview);  // zeros in the file

  source.context = &mapped;
  source.read_file = [](void *context, u64 offset, void *buffer, u32 size) {
    ImageBytes *file = &((Mapped *)context)->file;
    if (offset > file->size || size > file->size - offset) return 1;
    memcpy(buffer, file->bytes + offset, size);
    return 0;
  };
  source.read_mapped = [](void *context, u64 base, u32 rva, void *buffer, u32 size) {
    Mapped *m = (Mapped *)context;
    m->base_seen = base;
    const Bytes &d = m->pe->debug_directory;
    if (rva < m->pe->debug_directory_rva || rva - m->pe->debug_directory_rva + size > d.size()) return 1;
    memcpy(buffer, d.data() + (rva - m->pe->debug_directory_rva), size);
    return 0;
  };
  ASSERT_EQ(PeReadImage(&source, 0x7000000, &image), kPeOk);
  EXPECT_TRUE(image.has_codeview);
  EXPECT_EQ(mapped.base_seen, 0x7000000u);
}

TEST(PeImage, EveryTruncationFailsCleanly) {
  Bytes whole = BuildPe(PeSpec()).bytes;
  // Everything up to the end of the CodeView record's path is needed; the rest is not read.
  size_t needed = std::string(whole.begin(), whole.end()).find("app.pdb") + 8;
  for (size_t cut = 0; cut < whole.size(); cut++) {
    PeImage image;
    int result = ReadImage(Bytes(whole.begin(), whole.begin() + cut), &image);
    if (cut < needed)
      EXPECT_TRUE(result == kPeUnreadable || (cut < 0x44 && result == kPeNotImage)) << cut;
    else
      EXPECT_TRUE(result == kPeOk && image.has_codeview) << cut;
  }
}

// [SECTION] The PDB search order and the symbol status

Bytes PdbWithGuid(uint8_t first_byte) {
  PdbSpec spec;
  spec.guid[0] = first_byte;
  return BuildPdb(spec);
}

struct LoadedModule {
  ModuleSymbols module;
  int result = -1;
  LoadedModule(const std::string &image_path, const char *override_path = nullptr) {
    OsFile file;
    if (OsFileOpenRead(image_path.c_str(), &file) != kOsOk) return;
    ImageSource source = ImageSourceFromFile(&file);
    result = LoadModuleSymbols(&module, &source, image_path.c_str(), 0x180000000ull, override_path);
    OsFileClose(&file);
  }
  ~LoadedModule() { UnloadModuleSymbols(&module); }
};

// The image's own GUID starts with 1. The PDB at the CodeView path is taken when it matches; when
// that path does not exist, a matching PDB of the image's name beside it; a PDB the user picked is
// taken whatever its GUID, unless its path is too long to keep. A failed load keeps nothing.
TEST(ModuleLoad, SearchOrderAndStatus) {
  struct Case {
    const char *what;
    const char *codeview;  // the record's path in the folder; nullptr: no record
    std::vector<std::pair<const char *, int>> pdbs;  // files written: name, GUID's first byte (0: cut short)
    const char *picked;    // in the folder
    const char *expected;  // status name, text, and the PDB path in the folder
  } cases[] = {
      {"own PDB", "app.pdb", {{"app.pdb", 1}}, nullptr, "PdbLoaded, Symbols loaded, app.pdb"},
      {"beside the image", "gone/app.pdb", {{"app.pdb", 1}}, nullptr, "PdbLoaded, Symbols loaded, app.pdb"},
      {"another build beside the image", "gone/app.pdb", {{"app.pdb", 2}}, nullptr,
       "PdbFail, Cannot find or open PDB file, gone/app.pdb"},
      {"another build", "app.pdb", {{"app.pdb", 9}}, nullptr, "PdbOutOfSync, Symbols out of sync, app.pdb"},
      {"picked", "app.pdb", {{"app.pdb", 9}, {"picked.pdb", 7}}, "picked.pdb", "PdbLoaded, Symbols loaded, picked.pdb"},
      {"picked path too long", "app.pdb", {{"app.pdb", 9}}, "long", "PdbOutOfSync, Symbols out of sync, app.pdb"},
      {"no record", nullptr, {}, nullptr, "NoPdb, Cannot find or open PDB file, "},
      {"broken PDB", "app.pdb", {{"app.pdb", 0}}, nullptr, "PdbFail, Cannot find or open PDB file, app.pdb"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    for (auto &[name, guid] : c.pdbs) {
      Bytes pdb = PdbWithGuid((uint8_t)guid);
      if (!guid) pdb.resize(pdb.size() / 3);
      dir.Write(name, pdb);
    }
    PeSpec spec;
    spec.codeview = c.codeview != nullptr;
    if (c.codeview) spec.pdb_path = dir.path + "/" + c.codeview;
    std::string picked = !c.picked ? "" : strcmp(c.picked, "long") ? dir.path + "/" + c.picked
                                                                    : dir.path + "/" + std::string(1100, 'p') + ".pdb";
    LoadedModule m(dir.Write("app.exe", BuildPe(spec).bytes), c.picked ? picked.c_str() : nullptr);
    ASSERT_EQ(m.result, kPeOk);
    std::string path = m.module.pdb_path;
    if (path.rfind(dir.path + "/", 0) == 0) path = path.substr(dir.path.size() + 1);
    EXPECT_EQ(Format("%s, %s, %s", SymbolStatusName(m.module.status), SymbolStatusText(m.module.status), path.c_str()),
              c.expected);
    EXPECT_STREQ(m.module.name, "app.exe");
    if (m.module.status != kSymbolsLoaded) EXPECT_EQ(SymbolArenaChunkCount(&m.module.arena), 0u);
  }
  TempDir dir;
  LoadedModule own(dir.Write("app.exe", BuildPe(PeSpec()).bytes));
  EXPECT_EQ(own.module.extent_end, 0x180004000ull);
  EXPECT_EQ(own.module.exception_address, 0x180001000ull);
  PeSpec pe32;
  pe32.magic = 0x10B;
  LoadedModule x86(dir.Write("x86.exe", BuildPe(pe32).bytes));
  EXPECT_EQ(x86.result, kPe32Bit);
  EXPECT_EQ(x86.module.load_base, 0u);  // nothing stands
}

// [SECTION] Scope at an address

// One module: "outer" at 1:0x10 (0x40 bytes) with a block at 0x20 (0x10 bytes) and a block nested
// in it at 0x24 (4 bytes); "second" at 1:0x80 (0x20 bytes); a gap between them that the line table
// still covers.
struct ScopeFixture : ::testing::Test {
  TempDir dir;
  ModuleSymbols module;
  static constexpr u64 kBase = 0x7FF600000000ull;
  void SetUp() override {
    ModuleSpec symbols;
    symbols.records = {ProcRecord(0x1110, 0x40, 0x10, 1, "outer"),
                       BlockRecord(0x10, 0x20, 1),
                       BlockRecord(0x4, 0x24, 1),
                       SimpleRecord(0x0006),
                       SimpleRecord(0x0006),
                       SimpleRecord(0x0006),
                       ProcRecord(0x1110, 0x20, 0x80, 1, "second"),
                       SimpleRecord(0x0006),
                       ProcRecord(0x1110, 0x10, 0xC0, 1, std::string(600, 'n')),
                       SimpleRecord(0x0006)};
    symbols.c13 = LeBytes()
                      .raw(C13Checksums({1}))
                      .raw(C13Lines(0x10, 1, 0x90, {{0, {{0, 100}, {0x10, 101}, {0x40, 105}, {0x70, 110}}}}));
    PdbSpec pdb;
    pdb.modules = {symbols};
    PeSpec image;
    image.pdb_path = dir.Write("scopes.pdb", BuildPdb(pdb));
    image.last_virtual_size = 0x400;
    std::string path = dir.Write("scopes.exe", BuildPe(image).bytes);
    OsFile file;
    ASSERT_EQ(OsFileOpenRead(path.c_str(), &file), kOsOk);
    ImageSource source = ImageSourceFromFile(&file);
    ASSERT_EQ(LoadModuleSymbols(&module, &source, path.c_str(), kBase, nullptr), kPeOk);
    OsFileClose(&file);
    ASSERT_EQ(module.status, kSymbolsLoaded);
  }
  void TearDown() override { UnloadModuleSymbols(&module); }

  // The scope at the offset from the first section, as "procedure block START line N at SECTION:OFFSET".
  std::string At(u32 offset, s32 mode, ScopeQueryContext *context) {
    ScopeAtAddress scope;
    FindScopeAtAddress(&module, context, kBase + 0x1000 + offset, mode, &scope);
    return Format("%s block %X line %u at %u:%X", scope.procedure ? PdbProcName(scope.procedure) : "-",
                  scope.block ? ReadU32(scope.block->record + 16) : 0, scope.line, scope.section, scope.offset);
  }
};

// Exact mode: a block ends before its end address. A return address at a block's end is inside it,
// at its start outside (any positive mode is the return-address mode). Procedure-only mode finds
// no block. Between procedures there is no procedure, but the line table covers the gap; a
// procedure's end is outside it.
TEST_F(ScopeFixture, ScopeDependsOnTheMode) {
  const struct {
    u32 offset;
    s32 mode;
    const char *scope;
  } cases[] = {
      {0x28, kScopeExact, "outer block 20 line 101 at 1:28"},
      {0x24, kScopeExact, "outer block 24 line 101 at 1:24"},
      {0x28, kScopeReturnAddress, "outer block 24 line 101 at 1:28"},
      {0x20, kScopeReturnAddress, "outer block 0 line 101 at 1:20"},
      {0x28, 7, "outer block 24 line 101 at 1:28"},
      {0x25, kScopeProcedureOnly, "outer block 0 line 101 at 1:25"},
      {0x60, kScopeProcedureOnly, "- block 0 line 105 at 1:60"},
      {0xA0, kScopeExact, "- block 0 line 0 at 1:A0"},  // the end of the lines too
  };
  for (auto &c : cases) {
    ScopeQueryContext context = {};
    EXPECT_EQ(At(c.offset, c.mode, &context), c.scope) << std::hex << c.offset << " mode " << c.mode;
  }
}

// Only modes other than exact fill the name, and only when it is empty; a name longer than the
// buffer is cut to fit, terminator included.
TEST_F(ScopeFixture, NameBufferIsFilledOnlyWhenEmpty) {
  ScopeQueryContext context = {};
  At(0x28, kScopeExact, &context);
  EXPECT_STREQ(context.procedure_name, "");
  At(0x28, kScopeReturnAddress, &context);
  EXPECT_STREQ(context.procedure_name, "outer");
  strcpy(context.procedure_name, "caller");
  At(0x90, kScopeProcedureOnly, &context);
  EXPECT_STREQ(context.procedure_name, "caller");
  context.procedure_name[0] = 0;
  At(0x90, -5, &context);
  EXPECT_STREQ(context.procedure_name, "second");
  context.procedure_name[0] = 0;
  At(0xC4, kScopeReturnAddress, &context);
  EXPECT_EQ(std::string(context.procedure_name), std::string(kScopeNameCapacity - 1, 'n'));
}

// The first section is 0x400 bytes at rva 0x1000; the next starts at 0x2000. Addresses outside the
// module, or no module, give no scope.
TEST_F(ScopeFixture, SectionEndsAndForeignAddresses) {
  struct {
    u32 rva;
    bool found;
    u32 section, offset;
  } rvas[] = {{0x1400, true, 1, 0x400}, {0x1401, false, 0, 0}, {0x2000, true, 2, 0}, {0xFFF, false, 0, 0}};
  for (auto &r : rvas) {
    u32 section = 0, offset = 0;
    EXPECT_EQ(PeSectionOffsetOfRva(&module.image, r.rva, &section, &offset), r.found) << std::hex << r.rva;
    if (r.found) EXPECT_EQ(Format("%u:%X", section, offset), Format("%u:%X", r.section, r.offset));
  }
  ScopeQueryContext context = {};
  ScopeAtAddress outside;
  FindScopeAtAddress(&module, &context, kBase - 1, kScopeExact, &outside);
  EXPECT_EQ(outside.section, 0u);
  FindScopeAtAddress(nullptr, &context, kBase + 0x1020, kScopeExact, &outside);
  EXPECT_EQ(outside.procedure, nullptr);
  EXPECT_EQ(outside.line, 0u);
}

}  // namespace
