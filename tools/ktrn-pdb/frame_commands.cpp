// The frame subcommands: locals (the variables of each frame at an address) and inline (the frames
// of inlined code at an address). FILE is a PDB, whose addresses are written SSSS:OOOOOOOO, or an
// image, whose addresses may also be hexadecimal RVAs.
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ktrn_pdb.h"
#include "symbols/cv_registers.h"
#include "symbols/pdb_inline.h"
#include "symbols/pdb_locals.h"
#include "symbols/pdb_raw.h"
#include "symbols/type_names.h"

enum { kExitLoadFailed = 3, kExitUsage = 2, kNameBytes = 4096 };

// [SECTION] The file and its addresses

struct FrameSource {
  LoadedPdb loaded;
  ModuleSymbols *module = nullptr;  // an image's module; null for a PDB
  const PdbFile *pdb = nullptr;
};

static bool EndsWith(const char *text, const char *suffix) {
  size_t n = strlen(text), m = strlen(suffix);
  return n >= m && strcmp(text + n - m, suffix) == 0;
}

static bool OpenSource(const char *path, FrameSource *source) {
  if (EndsWith(path, ".pdb") || EndsWith(path, ".PDB")) {
    if (!LoadPdb(path, &source->loaded)) return false;
    source->pdb = &source->loaded.pdb;
    return true;
  }
  static ModuleSymbols module;
  if (LoadImageModule(path, &module) != kPeOk) return false;
  source->module = &module;
  if (module.status != kSymbolsLoaded) {
    fprintf(stderr, "ktrn-pdb: %s: %s\n", path, SymbolStatusText(module.status));
    return false;
  }
  source->pdb = &module.pdb;
  return true;
}

static void CloseSource(FrameSource *source) {
  if (source->module) UnloadModuleSymbols(source->module);
  else UnloadPdb(&source->loaded);
}

// SSSS:OOOOOOOO, or with an image a hexadecimal RVA.
static bool ParseAddress(const FrameSource *source, const char *text, u32 *section, u32 *offset) {
  char *end = nullptr;
  unsigned long long first = strtoull(text, &end, 16);
  if (end == text || first > 0xFFFFFFFFull) return false;
  if (*end == ':') {
    const char *second = end + 1;
    unsigned long long value = strtoull(second, &end, 16);
    if (end == second || *end || first > 0xFFFF || value > 0xFFFFFFFFull) return false;
    *section = (u32)first, *offset = (u32)value;
    return true;
  }
  return !*end && source->module && PeSectionOffsetOfRva(&source->module->image, (u32)first, section, offset);
}

static bool ParseAll(const FrameSource *source, int argc, char **argv) {
  for (int i = 1; i < argc; i++) {
    u32 section, offset;
    if (!ParseAddress(source, argv[i], &section, &offset)) {
      fprintf(stderr, "ktrn-pdb: '%s' is not an address (SSSS:OOOOOOOO%s)\n", argv[i],
              source->module ? " or a hexadecimal RVA" : "");
      return false;
    }
  }
  return true;
}

static void FrameName(const PdbFile *pdb, const PdbProcScope *procedure, const ScopeChain *chain, u32 frame,
                      char *out, u32 capacity) {
  if (frame < chain->inline_count)
    PdbInlineeName(pdb, PdbInlineSiteInlinee(chain->inlines[frame]), out, capacity);
  else
    snprintf(out, capacity, "%s", PdbProcName(procedure));
}

// The record that opens the frame's function (the inline site or the procedure), as its module
// index and its offset in the module's symbol stream.
static void FrameRecord(const PdbFile *pdb, const PdbProcScope *procedure, const ScopeChain *chain, u32 frame,
                        u32 *module, u32 *offset) {
  const u8 *record = frame < chain->inline_count ? chain->inlines[frame]->record : procedure->record;
  *module = procedure->module_index;
  *offset = (u32)(record - pdb->scopes.modules[procedure->module_index].symbols) + 4;
}

// [SECTION] locals

static void PrintRegister(u16 reg) {
  const char *name = CvRegisterName(reg);
  if (name) printf("%s", name);
  else printf("reg#%u", reg);
}

static void PrintRelative(u16 reg, s32 offset) {
  printf("[");
  PrintRegister(reg);
  printf("%c0x%X]", offset < 0 ? '-' : '+', offset < 0 ? 0u - (u32)offset : (u32)offset);
}

static void PrintStorage(const LocalVariable *v) {
  switch (v->storage) {
    case kLocalRegister: printf("reg "), PrintRegister(v->reg); return;
    case kLocalRegisterRelative: PrintRelative(v->reg, v->offset); return;
    case kLocalFrameRelative: printf("frame "), PrintRelative(v->reg, v->offset); return;
    case kLocalStatic: printf("static %04X:%08X", v->section, v->section_offset); return;
    case kLocalThreadStatic: printf("tls %04X:%08X", v->section, v->section_offset); return;
    case kLocalConstant:
      if (v->constant.is_signed) printf("const %" PRId64, (s64)v->constant.value);
      else printf("const %" PRIu64, v->constant.value);
      return;
    case kLocalParts:
      printf("parts");
      for (u32 i = 0; i < v->part_count; i++) {
        const LocalPart *part = &v->parts[i];
        printf(" ");
        if (part->storage == kLocalRegister) PrintRegister(part->reg);
        else PrintRelative(part->reg, part->offset);
        printf("@%u", part->parent_offset);
      }
      return;
  }
  printf("unavailable");
}

static bool PrintLocal(void *user, const LocalVariable *v) {
  const PdbFile *pdb = (const PdbFile *)user;
  static char type[kNameBytes];
  TypeNameFormat(&pdb->types, v->type_index, type, sizeof(type));
  printf("%s | %s | %s | ", v->name, type, v->is_parameter ? "param" : "local");
  PrintStorage(v);
  printf("\n");
  return true;
}

// One frame of the inline chain at an address, as both commands print it.
struct AddressFrame {
  const PdbFile *pdb;
  const PdbProcScope *procedure;
  const ScopeChain *chain;
  u32 section, offset, frame;
  const char *name;
  u32 module, record;  // where the frame's procedure or inline site record lives
};
typedef void (*AddressFrameFn)(const AddressFrame *frame);

// Opens the image, then for each address: its inline chain, innermost frame first.
static int ForEachAddressFrame(int argc, char **argv, AddressFrameFn print) {
  FrameSource source;
  if (!OpenSource(argv[0], &source)) return kExitLoadFailed;
  if (!ParseAll(&source, argc, argv)) {
    CloseSource(&source);
    return kExitUsage;
  }
  static char name[kNameBytes];
  AddressFrame f = {};
  f.pdb = source.pdb;
  for (int i = 1; i < argc; i++) {
    ParseAddress(&source, argv[i], &f.section, &f.offset);
    f.procedure = PdbProcedureAt(&f.pdb->scopes, f.section, f.offset);
    if (!f.procedure) {
      printf("%04X:%08X ?\n", f.section, f.offset);
      continue;
    }
    ScopeChain chain;
    PdbScopeChainAt(f.pdb, f.procedure, f.offset, kScopeExact, &chain);
    f.chain = &chain;
    for (f.frame = 0; f.frame <= chain.inline_count; f.frame++) {
      FrameName(f.pdb, f.procedure, &chain, f.frame, name, sizeof(name));
      f.name = name;
      FrameRecord(f.pdb, f.procedure, &chain, f.frame, &f.module, &f.record);
      print(&f);
    }
  }
  fflush(stdout);
  CloseSource(&source);
  return 0;
}

static void PrintFrameLocals(const AddressFrame *f) {
  printf("%04X:%08X frame %u %s (module %u record %u)\n", f->section, f->offset, f->frame, f->name, f->module,
         f->record);
  PdbForEachLocal(f->pdb, f->procedure, f->chain, f->section, f->offset, f->frame, PrintLocal, (void *)f->pdb);
}

int CommandLocals(int argc, char **argv) { return ForEachAddressFrame(argc, argv, PrintFrameLocals); }

// [SECTION] inline

static void PrintFrameLine(const AddressFrame *f) {
  u32 line = 0;
  const u8 *file = nullptr;
  if (f->frame < f->chain->inline_count) {
    u32 start = ReadU32(f->procedure->record + kProcSymOffset);
    PdbInlineSiteLineAt(f->pdb, f->chain->inlines[f->frame], f->offset - start, &line, &file);
  } else if (const PdbLineEntry *entry = PdbLineAtAddress(&f->pdb->lines, f->section, f->offset)) {
    line = entry->line, file = entry->file;
  }
  printf("%04X:%08X #%u %s %s:%u (module %u record %u)\n", f->section, f->offset, f->frame, f->name,
         file ? PdbStringAt(&f->pdb->strings, ReadU32(file)) : "?", line, f->module, f->record);
}

int CommandInline(int argc, char **argv) { return ForEachAddressFrame(argc, argv, PrintFrameLine); }
