// Images and module load from crafted files: what the image reader accepts and refuses, where the
// PDB is looked for and which symbol status results, and the scope found at an address.
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include "pdb_builder.h"
#include "pe_builder.h"
#include "symbols/module_symbols.h"
#include "symbols/scope_lookup.h"

namespace {

int ReadImage(const Bytes &bytes, PeImage *out) {
  ImageBytes source_bytes = {bytes.data(), bytes.size()};
  ImageSource source = ImageSourceFromBytes(&source_bytes);
  return PeReadImage(&source, 0x140000000ull, out);
}

// [SECTION] The image reader

TEST(PeImage, ReadsHeadersSectionsExceptionsAndCodeView) {
  PeSpec spec;
  PeImage image;
  ASSERT_EQ(ReadImage(BuildPe(spec).bytes, &image), kPeOk);
  EXPECT_EQ(image.machine, 0x8664);
  EXPECT_EQ(image.entry_rva, 0x1010u);
  EXPECT_EQ(image.preferred_base, 0x140000000ull);
  EXPECT_EQ(image.section_count, 3u);
  EXPECT_STREQ(image.sections[2].name, ".s2");
  EXPECT_EQ(image.sections[1].virtual_address, 0x2000u);
  EXPECT_EQ(image.exception_rva, 0x1000u);
  EXPECT_EQ(image.exception_entry_count, 3u);
  EXPECT_EQ(image.debug_entry_count, 2u);  // the CodeView entry is found after another kind
  ASSERT_TRUE(image.has_codeview);
  EXPECT_EQ(memcmp(image.identity.bytes, "RSDS", 4), 0);
  EXPECT_EQ(memcmp(image.identity.bytes + 4, spec.guid, 16), 0);
  EXPECT_STREQ(image.pdb_path, "c:\\build\\app.pdb");
  // The last section ends at 0x3000 + 0x234, rounded up to the page.
  EXPECT_EQ(PeImageExtentEnd(&image, 0x7FF000000000ull), 0x7FF000004000ull);
}

TEST(PeImage, RefusesWhatIsNotA64BitImage) {
  PeImage image;
  PeSpec pe32;
  pe32.magic = 0x10B;
  EXPECT_EQ(ReadImage(BuildPe(pe32).bytes, &image), kPe32Bit);
  PeSpec rom;
  rom.magic = 0x107;
  EXPECT_EQ(ReadImage(BuildPe(rom).bytes, &image), kPeNotImage);
  PeSpec signature;
  signature.bad_signature = true;
  EXPECT_EQ(ReadImage(BuildPe(signature).bytes, &image), kPeNotImage);
  EXPECT_EQ(ReadImage(Bytes(100, 0), &image), kPeNotImage);  // new-header offset 0: "MZ" is no "PE"
}

TEST(PeImage, CodeViewRecordOf804BytesOrMoreIsRefused) {
  PeImage image;
  PeSpec longest;
  longest.pdb_path = std::string(778, 'p');  // 24 + 778 + terminator = 803 bytes
  ASSERT_EQ(ReadImage(BuildPe(longest).bytes, &image), kPeOk);
  EXPECT_EQ(strlen(image.pdb_path), 778u);
  PeSpec too_long;
  too_long.pdb_path = std::string(779, 'p');
  EXPECT_EQ(ReadImage(BuildPe(too_long).bytes, &image), kPeNotImage);
  PeSpec huge;
  huge.codeview_size_override = 0xFFFFFFFF;
  EXPECT_EQ(ReadImage(BuildPe(huge).bytes, &image), kPeNotImage);
  // Every CodeView entry is held to the limit, not only the one whose record is taken.
  PeSpec second;
  second.second_codeview_size = 804;
  EXPECT_EQ(ReadImage(BuildPe(second).bytes, &image), kPeNotImage);
  second.second_codeview_size = 100;
  ASSERT_EQ(ReadImage(BuildPe(second).bytes, &image), kPeOk);
  EXPECT_STREQ(image.pdb_path, "c:\\build\\app.pdb");
  // A record too short to hold its identity is no CodeView record, and no failure.
  PeSpec short_record;
  short_record.codeview_size_override = 20;
  ASSERT_EQ(ReadImage(BuildPe(short_record).bytes, &image), kPeOk);
  EXPECT_FALSE(image.has_codeview);
}

TEST(PeImage, KeepsTheFirst96Sections) {
  PeSpec spec;
  spec.section_count = 100;
  PeImage image;
  ASSERT_EQ(ReadImage(BuildPe(spec).bytes, &image), kPeOk);
  EXPECT_EQ(image.file_section_count, 100u);
  EXPECT_EQ(image.section_count, 96u);
  EXPECT_STREQ(image.sections[95].name, ".s95");
  EXPECT_EQ(PeImageExtentEnd(&image, 0), 0x60000u + 0x1000);  // the 96th section's end, not the 100th
  EXPECT_TRUE(image.has_codeview);
}

TEST(PeImage, DataDirectoriesThatAreNotThereAreNotRead) {
  PeImage image;
  PeSpec six;
  six.directory_count = 6;  // no debug directory entry
  ASSERT_EQ(ReadImage(BuildPe(six).bytes, &image), kPeOk);
  EXPECT_FALSE(image.has_codeview);
  EXPECT_EQ(image.exception_entry_count, 3u);
  PeSpec three;
  three.directory_count = 3;  // no exception directory either
  ASSERT_EQ(ReadImage(BuildPe(three).bytes, &image), kPeOk);
  EXPECT_EQ(image.exception_rva, 0u);
  PeSpec short_header;
  short_header.optional_bytes = 96;  // ends before the data directories: an image without them
  ASSERT_EQ(ReadImage(BuildPe(short_header).bytes, &image), kPeOk);
  EXPECT_EQ(image.section_count, 3u);
  EXPECT_EQ(image.sections[1].virtual_address, 0x2000u);
  EXPECT_EQ(image.exception_rva, 0u);
  EXPECT_FALSE(image.has_codeview);
  PeSpec lying;
  lying.directory_count = 0xFFFFFFFF;  // more than the optional header holds
  ASSERT_EQ(ReadImage(BuildPe(lying).bytes, &image), kPeOk);
  EXPECT_TRUE(image.has_codeview);
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
  PeSpec spec;
  Bytes whole = BuildPe(spec).bytes;
  // Everything up to the end of the CodeView record's path is needed; the rest is not read.
  size_t needed = std::string(whole.begin(), whole.end()).find("app.pdb") + 8;
  for (size_t cut = 0; cut < whole.size(); cut++) {
    Bytes part(whole.begin(), whole.begin() + cut);
    PeImage image;
    int result = ReadImage(part, &image);
    SCOPED_TRACE(cut);
    if (cut < needed)
      EXPECT_TRUE(result == kPeUnreadable || (cut < 0x44 && result == kPeNotImage));
    else
      EXPECT_TRUE(result == kPeOk && image.has_codeview);
  }
}

// [SECTION] The PDB search order and the symbol status

struct TempDir {
  std::string path;
  TempDir() {
    char name[] = "/tmp/ktrn-module-XXXXXX";
    path = mkdtemp(name) ? name : "/tmp";
  }
  ~TempDir() {
    std::string command = "rm -rf '" + path + "'";
    if (system(command.c_str())) {
    }
  }
  std::string Write(const std::string &name, const Bytes &bytes) {
    std::string file = path + "/" + name;
    FILE *f = fopen(file.c_str(), "wb");
    if (f) fwrite(bytes.data(), 1, bytes.size(), f), fclose(f);
    return file;
  }
};

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

TEST(ModuleLoad, CodeViewPathWithItsOwnPdbLoads) {
  TempDir dir;
  PeSpec spec;
  spec.pdb_path = dir.Write("app.pdb", PdbWithGuid(1));
  LoadedModule m(dir.Write("app.exe", BuildPe(spec).bytes));
  ASSERT_EQ(m.result, kPeOk);
  EXPECT_EQ(m.module.status, kSymbolsLoaded);
  EXPECT_STREQ(m.module.name, "app.exe");
  EXPECT_EQ(m.module.pdb_path, spec.pdb_path);
  EXPECT_EQ(m.module.extent_end, 0x180004000ull);
  EXPECT_EQ(m.module.exception_address, 0x180001000ull);
  EXPECT_STREQ(SymbolStatusText(m.module.status), "Symbols loaded");
  EXPECT_STREQ(SymbolStatusSuffix(m.module.status), "(symbols loaded)");
}

TEST(ModuleLoad, MissingCodeViewPathFallsBackToAMatchingPdbBesideTheImage) {
  TempDir dir;
  PeSpec spec;
  spec.pdb_path = dir.path + "/gone/app.pdb";
  std::string beside = dir.Write("app.pdb", PdbWithGuid(1));
  LoadedModule m(dir.Write("app.exe", BuildPe(spec).bytes));
  ASSERT_EQ(m.result, kPeOk);
  EXPECT_EQ(m.module.status, kSymbolsLoaded);
  EXPECT_EQ(m.module.pdb_path, beside);
}

TEST(ModuleLoad, NonMatchingPdbBesideTheImageLeavesTheCodeViewPathInUse) {
  TempDir dir;
  PeSpec spec;
  spec.pdb_path = dir.path + "/gone/app.pdb";
  dir.Write("app.pdb", PdbWithGuid(2));
  LoadedModule m(dir.Write("app.exe", BuildPe(spec).bytes));
  ASSERT_EQ(m.result, kPeOk);
  EXPECT_EQ(m.module.status, kSymbolsFailed);
  EXPECT_EQ(m.module.pdb_path, spec.pdb_path);
  EXPECT_STREQ(SymbolStatusName(m.module.status), "PdbFail");
  EXPECT_STREQ(SymbolStatusText(m.module.status), "Cannot find or open PDB file");
  EXPECT_STREQ(SymbolStatusSuffix(m.module.status), "");
  EXPECT_EQ(SymbolArenaChunkCount(&m.module.arena), 0u);  // nothing of the failed load is kept
}

TEST(ModuleLoad, PdbOfAnotherBuildIsOutOfSyncUnlessTheUserPickedIt) {
  TempDir dir;
  PeSpec spec;
  spec.pdb_path = dir.Write("app.pdb", PdbWithGuid(9));
  std::string image = dir.Write("app.exe", BuildPe(spec).bytes);
  {
    LoadedModule m(image);
    EXPECT_EQ(m.module.status, kSymbolsOutOfSync);
    EXPECT_STREQ(SymbolStatusText(m.module.status), "Symbols out of sync");
    EXPECT_STREQ(SymbolStatusSuffix(m.module.status), "(no symbols loaded -- PDB out of sync)");
  }
  std::string picked = dir.Write("picked.pdb", PdbWithGuid(7));
  {
    LoadedModule m(image, picked.c_str());
    EXPECT_EQ(m.module.status, kSymbolsLoaded);
    EXPECT_EQ(m.module.pdb_path, picked);
  }
  // A picked path too long to keep is not used; the searched one stands, GUID check and all.
  std::string too_long = dir.path + "/" + std::string(1100, 'p') + ".pdb";
  LoadedModule m(image, too_long.c_str());
  EXPECT_EQ(m.module.status, kSymbolsOutOfSync);
  EXPECT_EQ(m.module.pdb_path, spec.pdb_path);
}

TEST(ModuleLoad, ImagesWithoutARecordOrWithABrokenPdb) {
  TempDir dir;
  PeSpec none;
  none.codeview = false;
  {
    LoadedModule m(dir.Write("none.dll", BuildPe(none).bytes));
    ASSERT_EQ(m.result, kPeOk);
    EXPECT_EQ(m.module.status, kSymbolsNoPdb);
    EXPECT_STREQ(m.module.pdb_path, "");
    EXPECT_STREQ(SymbolStatusName(m.module.status), "NoPdb");
    EXPECT_EQ(SymbolArenaChunkCount(&m.module.arena), 0u);
  }
  PeSpec broken;
  Bytes garbage = PdbWithGuid(1);
  garbage.resize(garbage.size() / 3);
  broken.pdb_path = dir.Write("broken.pdb", garbage);
  {
    LoadedModule m(dir.Write("broken.exe", BuildPe(broken).bytes));
    EXPECT_EQ(m.module.status, kSymbolsFailed);
  }
  PeSpec pe32;
  pe32.magic = 0x10B;
  LoadedModule m(dir.Write("x86.exe", BuildPe(pe32).bytes));
  EXPECT_EQ(m.result, kPe32Bit);
  EXPECT_EQ(m.module.load_base, 0u);  // nothing stands
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
    symbols.records = {ProcRecord(0x1110, 0, 0x40, 0x10, 1, "outer"),
                       BlockRecord(0x10, 0x20, 1),
                       BlockRecord(0x4, 0x24, 1),
                       SimpleRecord(0x0006),
                       SimpleRecord(0x0006),
                       SimpleRecord(0x0006),
                       ProcRecord(0x1110, 0, 0x20, 0x80, 1, "second"),
                       SimpleRecord(0x0006),
                       ProcRecord(0x1110, 0, 0x10, 0xC0, 1, std::string(600, 'n')),
                       SimpleRecord(0x0006)};
    FixProcedureEnds(symbols);
    Bytes c13 = C13Checksums({1});
    Bytes lines = C13Lines(0x10, 1, 0x90, {{0, {{0, 100}, {0x10, 101}, {0x40, 105}, {0x70, 110}}}});
    c13.insert(c13.end(), lines.begin(), lines.end());
    symbols.c13 = c13;
    PdbSpec pdb;
    Bytes names;
    Put32(names, 0xEFFEEFFE), Put32(names, 1), Put32(names, 12);
    names.push_back(0);
    PutName(names, "c:\\src\\a.c");
    Put32(names, 4), Put32(names, 0), Put32(names, 0), Put32(names, 0), Put32(names, 0), Put32(names, 1);
    pdb.names_stream_override = names;
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

  ScopeAtAddress At(u32 offset, s32 mode, ScopeQueryContext *context) {
    ScopeAtAddress scope;
    FindScopeAtAddress(&module, context, kBase + 0x1000 + offset, mode, &scope);
    return scope;
  }
  static u32 BlockStart(const PdbBlockScope *block) { return block ? ReadU32Le(block->record + 16) : 0; }
  static u32 ReadU32Le(const u8 *p) { return p[0] | p[1] << 8 | p[2] << 16 | (u32)p[3] << 24; }
};

TEST_F(ScopeFixture, InnermostBlockDependsOnTheMode) {
  ScopeQueryContext context = {};
  ScopeAtAddress exact = At(0x28, kScopeExact, &context);
  ASSERT_NE(exact.procedure, nullptr);
  EXPECT_STREQ(PdbProcName(exact.procedure), "outer");
  EXPECT_EQ(BlockStart(exact.block), 0x20u);  // the nested block ends at 0x28: outside it
  EXPECT_EQ(exact.line, 101u);
  EXPECT_EQ(exact.section, 1u);
  EXPECT_EQ(exact.offset, 0x28u);
  EXPECT_STREQ(context.procedure_name, "");  // exact mode leaves the name alone

  ScopeAtAddress after_call = At(0x28, kScopeReturnAddress, &context);
  EXPECT_EQ(BlockStart(after_call.block), 0x24u);  // a return address at a block's end is inside it
  EXPECT_STREQ(context.procedure_name, "outer");
  EXPECT_EQ(BlockStart(At(0x24, kScopeExact, &context).block), 0x24u);
  EXPECT_EQ(BlockStart(At(0x20, kScopeReturnAddress, &context).block), 0u);  // start excluded
  EXPECT_EQ(BlockStart(At(0x28, 7, &context).block), 0x24u);  // any positive mode is the return-address mode

  ScopeAtAddress only = At(0x25, kScopeProcedureOnly, &context);
  EXPECT_NE(only.procedure, nullptr);
  EXPECT_EQ(only.block, nullptr);
  EXPECT_EQ(only.line, 101u);
}

TEST_F(ScopeFixture, NameBufferIsFilledOnlyWhenEmpty) {
  ScopeQueryContext context;
  strcpy(context.procedure_name, "caller");
  At(0x90, kScopeProcedureOnly, &context);
  EXPECT_STREQ(context.procedure_name, "caller");
  context.procedure_name[0] = 0;
  At(0x90, -5, &context);
  EXPECT_STREQ(context.procedure_name, "second");
  // A name longer than the buffer is cut to fit, terminator included.
  context.procedure_name[0] = 0;
  At(0xC4, kScopeReturnAddress, &context);
  EXPECT_EQ(std::string(context.procedure_name), std::string(kScopeNameCapacity - 1, 'n'));
}

TEST_F(ScopeFixture, GapsSectionEndsAndForeignAddresses) {
  ScopeQueryContext context = {};
  ScopeAtAddress gap = At(0x60, kScopeProcedureOnly, &context);
  EXPECT_EQ(gap.procedure, nullptr);  // between the procedures
  EXPECT_EQ(gap.line, 105u);           // but the line table covers it
  EXPECT_EQ(At(0xA0, kScopeExact, &context).procedure, nullptr);  // a procedure's end is outside it

  // The first section is 0x400 bytes at rva 0x1000; the next starts at 0x2000.
  u32 section = 0, offset = 0;
  EXPECT_TRUE(PeSectionOffsetOfRva(&module.image, 0x1400, &section, &offset));
  EXPECT_EQ(section, 1u);
  EXPECT_EQ(offset, 0x400u);
  EXPECT_FALSE(PeSectionOffsetOfRva(&module.image, 0x1401, &section, &offset));
  EXPECT_TRUE(PeSectionOffsetOfRva(&module.image, 0x2000, &section, &offset));
  EXPECT_EQ(section, 2u);
  EXPECT_FALSE(PeSectionOffsetOfRva(&module.image, 0xFFF, &section, &offset));

  ScopeAtAddress outside;
  FindScopeAtAddress(&module, &context, kBase - 1, kScopeExact, &outside);
  EXPECT_EQ(outside.section, 0u);
  FindScopeAtAddress(nullptr, &context, kBase + 0x1020, kScopeExact, &outside);
  EXPECT_EQ(outside.procedure, nullptr);
  EXPECT_EQ(outside.line, 0u);
}

}  // namespace
