// llvm-pdbutil as the oracle: runs it and ktrn-pdb on the same PDB and turns both outputs into
// the same line forms ("SSSS:OOOOOOOO LLLLLLLL name" for procedures, "SSSS:OOOOOOOO TTTTTTTT
// name" for data globals).
#pragma once
#include <stdint.h>

#include <string>
#include <vector>

#include "run_command.h"

struct OracleDump {
  bool ok = false;             // llvm-pdbutil ran and reported no error
  std::string failure;         // why not
  std::vector<std::string> procedures;  // from the module symbols
  std::vector<std::string> globals;     // S_LDATA32 / S_GDATA32 of the global stream, in order
};
OracleDump RunOracle(const std::string &pdb_path);

// `llvm-pdbutil dump -l` turned into ktrn-pdb's `lines` form ("SSSS:OOOOOOOO LLLLLLLL line path"),
// in the order llvm-pdbutil prints them.
struct LineDump {
  bool ok = false;
  std::string failure;
  std::vector<std::string> lines;
};
LineDump RunLineOracle(const std::string &pdb_path);

// The blocks of `llvm-pdbutil dump -l` as printed: file path, section, [start, end) and the raw
// (line, offset) records in their stored order, before any merging.
struct LineBlock {
  std::string path;
  unsigned section = 0, start = 0, end = 0;
  std::vector<std::pair<uint32_t, uint32_t>> raw;
};
struct LineBlockDump {
  bool ok = false;
  std::string failure;
  std::vector<LineBlock> blocks;
};
LineBlockDump RunLineBlockOracle(const std::string &pdb_path);


// Compares two lists and describes the first differences (empty when equal).
std::string DescribeDifference(const std::vector<std::string> &ours, const std::vector<std::string> &oracle);
