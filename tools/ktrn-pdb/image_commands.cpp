// The image subcommands: pe (an image's headers and CodeView record) and addr (address lookups
// through an image and the PDB its record leads to, found the way the debugger finds it; in
// inlined code the innermost inlined function and its line, then the procedure and its line).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ktrn_pdb.h"
#include "symbols/module_symbols.h"
#include "symbols/pdb_inline.h"
#include "symbols/pdb_raw.h"
#include "symbols/scope_lookup.h"

enum { kExitLoadFailed = 3, kExitUsage = 2 };

static void FormatGuid(const u8 *guid, char out[39]) {
  snprintf(out, 39, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", ReadU32(guid), ReadU16(guid + 4),
           ReadU16(guid + 6), guid[8], guid[9], guid[10], guid[11], guid[12], guid[13], guid[14], guid[15]);
}

int CommandPe(int argc, char **argv) {
  static ModuleSymbols module;
  if (LoadImageModule(argv[0], &module) != kPeOk) return kExitLoadFailed;
  const PeImage *image = &module.image;
  printf("base 0x%016llX\n", (unsigned long long)image->preferred_base);
  printf("machine 0x%04X\n", image->machine);
  printf("entry 0x%08X\n", image->entry_rva);
  printf("size 0x%08X\n", image->size_of_image);
  printf("sections %u of %u\n", image->section_count, image->file_section_count);
  for (u32 i = 0; i < image->section_count; i++) {
    const PeSectionHeader *s = &image->sections[i];
    printf("section %u %-8.8s 0x%08X 0x%08X 0x%08X\n", i + 1, s->name, s->virtual_address, s->virtual_size,
           s->characteristics);
  }
  printf("exception 0x%08X %u\n", image->exception_rva, image->exception_entry_count);
  if (image->has_codeview) {
    char guid[39];
    FormatGuid(image->identity.bytes + 4, guid);
    printf("codeview %s %u\n", guid, ReadU32(image->identity.bytes + 20));
    printf("pdb %s\n", image->pdb_path);
  } else {
    printf("codeview none\n");
  }
  UnloadModuleSymbols(&module);
  return 0;
}

static bool ParseRva(const char *text, u32 *out) {
  char *end = nullptr;
  unsigned long long value = strtoull(text, &end, 16);
  if (!*text || *end || value > 0xFFFFFFFFull) return false;
  *out = (u32)value;
  return true;
}

static void PrintAddress(const ModuleSymbols *module, u32 rva) {
  ScopeQueryContext context;
  context.procedure_name[0] = 0;
  ScopeAtAddress scope;
  FindScopeAtAddress(module, &context, rva, kScopeProcedureOnly, &scope);
  printf("0x%08X ", rva);
  if (scope.procedure) {
    // Inlined code: the inlined function and its line come first, then the procedure's.
    const PdbFile *pdb = &module->pdb;
    u32 start = ReadU32(scope.procedure->record + kProcSymOffset);
    ScopeChain chain;
    PdbScopeChainAt(pdb, scope.procedure, scope.offset, kScopeExact, &chain);
    if (chain.inline_count) {
      static char name[4096];
      PdbInlineeName(pdb, PdbInlineSiteInlinee(chain.inlines[0]), name, sizeof(name));
      u32 line = 0;
      const u8 *file = nullptr;
      PdbInlineSiteLineAt(pdb, chain.inlines[0], scope.offset - start, &line, &file);
      printf("%s %s:%u @ ", name, file ? PdbStringAt(&pdb->strings, ReadU32(file)) : "?", line);
    }
    printf("%s+0x%X ", context.procedure_name, scope.offset - start);
  } else {
    printf("? ");
  }
  if (scope.line_entry && scope.line_entry->file)
    printf("%s:%u\n", PdbStringAt(&module->pdb.strings, PdbLineFileOffset(scope.line_entry)), scope.line);
  else
    printf("?\n");
}

int CommandAddr(int argc, char **argv) {
  for (int i = 1; i < argc; i++) {
    u32 rva;
    if (!ParseRva(argv[i], &rva)) {
      fprintf(stderr, "ktrn-pdb: '%s' is not a hexadecimal address\n", argv[i]);
      return kExitUsage;
    }
  }
  static ModuleSymbols module;
  if (LoadImageModule(argv[0], &module) != kPeOk) return kExitLoadFailed;
  printf("%s\n", SymbolStatusText(module.status));
  if (argc > 1) {
    for (int i = 1; i < argc; i++) {
      u32 rva = 0;
      ParseRva(argv[i], &rva);
      PrintAddress(&module, rva);
    }
  } else {
    char line[256];
    while (fgets(line, sizeof(line), stdin)) {
      line[strcspn(line, "\r\n")] = 0;
      u32 rva;
      if (!ParseRva(line, &rva)) {
        printf("%s ?\n", line);
        continue;
      }
      PrintAddress(&module, rva);
    }
  }
  fflush(stdout);
  UnloadModuleSymbols(&module);
  return 0;
}
