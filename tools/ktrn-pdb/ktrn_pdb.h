// ktrn-pdb: the contents of a PDB on the command line. Each group of subcommands lives in a file
// of its own and is listed in the command table of main.cpp.
#pragma once
#include "symbols/module_symbols.h"
#include "symbols/pdb_file.h"

// A PDB opened for a subcommand (no image at hand, so the GUID check is off).
struct LoadedPdb {
  SymbolArena arena;
  PdbFile pdb;
  PdbSummary summary;
  int status;
  double load_ms;
};

// Opens the PDB; on failure prints a one-line message to stderr, releases what it loaded and
// returns false.
bool LoadPdb(const char *path, LoadedPdb *out);
void UnloadPdb(LoadedPdb *loaded);
const char *PdbErrorText(int status);
const char *PeResultText(int result);
// Loads an image as the debugger would, at load base 0 (addresses are then RVAs), with its PDB
// found the debugger's way; on failure prints a message and returns the PeResult.
int LoadImageModule(const char *path, ModuleSymbols *module);

// A subcommand: args are what follows the subcommand's name. Returns the exit status.
typedef int (*CommandFn)(int argc, char **argv);

// Symbol commands (symbol_commands.cpp).
int CommandInfo(int argc, char **argv);
int CommandProcs(int argc, char **argv);
int CommandGlobals(int argc, char **argv);
int CommandFind(int argc, char **argv);

// Line commands (line_commands.cpp).
int CommandLines(int argc, char **argv);
int CommandLineToAddress(int argc, char **argv);

// Image commands (image_commands.cpp).
int CommandPe(int argc, char **argv);
int CommandAddr(int argc, char **argv);

// Frame commands (frame_commands.cpp).
int CommandLocals(int argc, char **argv);
int CommandInline(int argc, char **argv);

// Type commands (type_commands.cpp).
int CommandTypeRecords(int argc, char **argv);
int CommandType(int argc, char **argv);
int CommandTypes(int argc, char **argv);
