// A PDB opened by PdbOpen (by default as the debugger opens a PDB the user picked: no GUID check),
// released at the end of the scope.
#pragma once
#include <string>

#include "symbols/pdb_error.h"
#include "symbols/pdb_file.h"

struct OpenedPdb {
  SymbolArena arena = {};
  PdbFile pdb = {};
  PdbSummary summary = {};
  int status = -1;
  explicit OpenedPdb(const std::string &path, const CodeViewIdentity &identity = {}, bool ignore_guid = true) {
    status = PdbOpen(&arena, &identity, path.c_str(), ignore_guid, &pdb, &summary);
  }
  ~OpenedPdb() {
    MsfClose(&pdb.msf);
    SymbolArenaRelease(&arena);
  }
  OpenedPdb(const OpenedPdb &) = delete;
  OpenedPdb &operator=(const OpenedPdb &) = delete;
};
