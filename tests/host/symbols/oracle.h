// What the oracle suites share: the files they read (the PDB corpus, the test programs of the
// Windows build, our own programs beside them), ktrn-pdb, and llvm-pdbutil's views turned into
// ktrn-pdb's line forms ("SSSS:OOOOOOOO LLLLLLLL name" for procedures, "SSSS:OOOOOOOO TTTTTTTT name"
// for data globals, "SSSS:OOOOOOOO LLLLLLLL line path" for line entries).
#pragma once
#include <stdint.h>

#include <string>
#include <vector>

#include "opened_pdb.h"
#include "run_command.h"
#include "test_files.h"

// [SECTION] The files

// The files of tests/data/pdb-corpus and of its llvm folder whose names end with suffix ("": all).
std::vector<std::string> CorpusFiles(const std::string &suffix);
std::string CorpusFile(const std::string &name);  // "llvm/NAME" for the llvm folder
std::string TargetsDir();                         // the Windows build's tests/targets
std::string TargetFile(const std::string &name);
std::string OwnProgramFile(const std::string &name);  // kestrune and ktrn-pdb's .exe and .pdb
// ktrn-pdb with the arguments, each quoted; shell_tail (redirections) is appended as it is.
CommandResult PdbTool(std::initializer_list<std::string> arguments, const std::string &shell_tail = "");

// [SECTION] llvm-objdump

struct Layout {
  uint64_t image_base = 0;
  std::vector<uint32_t> section_rvas;  // by section number - 1
  std::vector<uint32_t> instructions;  // rvas of instruction starts, ascending
};
// Instruction starts of llvm-objdump's linear sweep (of the whole image, or of the range that
// range_options give), appended to out in ascending order.
bool Disassemble(const std::string &exe, const std::string &range_options, uint64_t image_base,
                 std::vector<uint32_t> *out);
// The image base, the section rvas and the sorted instruction starts of the whole image.
bool ReadLayout(const std::string &exe, Layout *out, std::string *failure);

// [SECTION] llvm-pdbutil

struct OracleDump {
  bool ok = false;                      // llvm-pdbutil ran and reported no error
  std::string failure;                  // why not
  std::vector<std::string> procedures;  // from the module symbols
  std::vector<std::string> globals;     // S_LDATA32 / S_GDATA32 of the global stream, in order
};
OracleDump RunOracle(const std::string &pdb_path);

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
// The blocks merged into ktrn-pdb's line entries, in the order llvm-pdbutil prints them.
struct LineDump {
  bool ok = false;
  std::string failure;
  std::vector<std::string> lines;
};
LineDump RunLineOracle(const std::string &pdb_path);

// Compares two lists and describes the first differences (empty when equal).
std::string DescribeDifference(const std::vector<std::string> &ours, const std::vector<std::string> &oracle,
                               const std::string &oracle_name = "llvm-pdbutil");
// ktrn-pdb procs, globals and lines of the PDB against llvm-pdbutil: procedures and line entries
// come by address (those at one address in any order), globals exactly in hash-record order. False,
// with nothing compared, when llvm-pdbutil cannot dump the PDB's symbols.
bool ExpectAgreesWithLlvmPdbutil(const std::string &pdb, std::string *oracle_failure);
