// ktrn-pdb: prints what the PDB reader loads from a file, in stable text forms that tests compare
// with other tools.
#include <stdio.h>
#include <string.h>

#include "base/os.h"
#include "ktrn_pdb.h"
#include "symbols/pdb_error.h"
#include "symbols/pe_image.h"

struct Command {
  const char *name;
  const char *arguments;
  int argument_count;  // arguments after the name: exactly this many, or at least -argument_count
  CommandFn run;
  const char *help;
};

static const Command kCommands[] = {
    {"info", "FILE.pdb", 1, CommandInfo, "load status and counts"},
    {"procs", "FILE.pdb", 1, CommandProcs, "procedures by address: SSSS:OOOOOOOO LLLLLLLL name"},
    {"globals", "FILE.pdb", 1, CommandGlobals, "data globals: SSSS:OOOOOOOO TTTTTTTT name"},
    {"find", "FILE.pdb NAME", 2, CommandFind, "procedures and data globals of that name"},
    {"lines", "FILE.pdb", 1, CommandLines, "line entries by address: SSSS:OOOOOOOO LLLLLLLL line path"},
    {"line2addr", "FILE.pdb PATH LINE", 3, CommandLineToAddress, "first line with code from LINE: SSSS:OOOOOOOO line"},
    {"pe", "IMAGE.exe", 1, CommandPe, "image headers, sections, exception directory and CodeView record"},
    {"addr", "IMAGE.exe [RVA...]", -1, CommandAddr,
     "procedure+offset and path:line of each RVA (hex; stdin when none); inlined code: the inlined function first"},
    {"locals", "FILE ADDRESS...", -2, CommandLocals,
     "variables of each frame at SSSS:OOOOOOOO (or an image's hex RVA): NAME | TYPE | param|local | STORAGE"},
    {"inline", "FILE ADDRESS...", -2, CommandInline, "frames of inlined code at each address, innermost first"},
    {"type-records", "FILE.pdb", 1, CommandTypeRecords, "type records in index order: 0xINDEX leaf length"},
    {"type", "FILE.pdb NAME|0xINDEX", 2, CommandType, "one type with its members or enumerators (tab-separated)"},
    {"types", "FILE.pdb", 1, CommandTypes, "every type index: 0xINDEX kind size name"},
};

static void Usage(FILE *to) {
  fprintf(to, "usage: ktrn-pdb COMMAND ARGS...\n");
  for (const Command &c : kCommands) fprintf(to, "  ktrn-pdb %-12s %-22s %s\n", c.name, c.arguments, c.help);
}

const char *PdbErrorText(int status) {
  switch (status) {
    case kPdbOk: return "loaded";
    case kPdbUnreadable: return "the file cannot be opened or read";
    case kPdbBadFormat: return "not a valid PDB (bad format)";
    case kPdbUnsupportedVersion: return "unsupported PDB version";
    case kPdbSignatureMismatch: return "the PDB information stream is unusable";
    case kPdbStreamMissing: return "a required stream is missing";
  }
  return "unknown error";
}

bool LoadPdb(const char *path, LoadedPdb *out) {
  memset(out, 0, sizeof(*out));
  CodeViewIdentity no_image = {};
  u64 start = OsTimeMicroseconds();
  out->status = PdbOpen(&out->arena, &no_image, path, true, &out->pdb, &out->summary);
  out->load_ms = (double)(OsTimeMicroseconds() - start) / 1000.0;
  if (out->status != kPdbOk) {
    fprintf(stderr, "ktrn-pdb: %s: %s (status %d)\n", path, PdbErrorText(out->status), out->status);
    UnloadPdb(out);
    return false;
  }
  return true;
}

void UnloadPdb(LoadedPdb *loaded) {
  MsfClose(&loaded->pdb.msf);  // still open only after a rejected superblock
  SymbolArenaRelease(&loaded->arena);
}

const char *PeResultText(int result) {
  switch (result) {
    case kPeUnreadable: return "the image cannot be read";
    case kPe32Bit: return "32-bit images are not supported";
    case kPeNotImage: return "not a PE32+ image";
  }
  return "unknown error";
}

// Loads an image from a file as the debugger would at load base 0, so that addresses are RVAs.
int LoadImageModule(const char *path, ModuleSymbols *module) {
  OsFile file;
  if (OsFileOpenRead(path, &file) != kOsOk) {
    fprintf(stderr, "ktrn-pdb: %s: %s\n", path, PeResultText(kPeUnreadable));
    return kPeUnreadable;
  }
  char absolute[kModulePathCapacity];
  if (OsPathMakeAbsolute(path, absolute, sizeof(absolute)) != kOsOk) snprintf(absolute, sizeof(absolute), "%s", path);
  ImageSource source = ImageSourceFromFile(&file);
  int result = LoadModuleSymbols(module, &source, absolute, 0, nullptr);
  OsFileClose(&file);
  if (result != kPeOk) fprintf(stderr, "ktrn-pdb: %s: %s (result %d)\n", path, PeResultText(result), result);
  return result;
}

int main(int argc, char **argv) {
  if (argc < 2) {
    Usage(stderr);
    return 2;
  }
  if (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "help") == 0) {
    Usage(stdout);
    return 0;
  }
  for (const Command &c : kCommands) {
    if (strcmp(argv[1], c.name) != 0) continue;
    int given = argc - 2;
    if (c.argument_count >= 0 ? given != c.argument_count : given < -c.argument_count) {
      fprintf(stderr, "ktrn-pdb: usage: ktrn-pdb %s %s\n", c.name, c.arguments);
      return 2;
    }
    return c.run(argc - 2, argv + 2);
  }
  fprintf(stderr, "ktrn-pdb: unknown command '%s' (try ktrn-pdb --help)\n", argv[1]);
  return 2;
}
