// Builds small MSF containers and PDBs in memory for the reader's tests: the streams of a PDB
// (information, debug information, "/names", global symbols, module symbols) are assembled from
// records, then laid out on pages with a directory. Every field can be broken on purpose.
#pragma once
#include <stdint.h>

#include <map>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

void Put16(Bytes &b, uint32_t v);
void Put32(Bytes &b, uint32_t v);
void PutName(Bytes &b, const std::string &name);  // with terminator
void Pad4(Bytes &b);
void Set32(Bytes &b, size_t at, uint32_t v);

struct MsfSpec {
  uint32_t page_size = 4096;
  uint32_t free_map_page = 1;
  std::vector<Bytes> streams;
  std::vector<bool> nil;                           // per stream: written as size 0xFFFFFFFF
  std::map<size_t, std::vector<uint32_t>> pages;   // streams placed on chosen pages
  int64_t directory_bytes_override = -1;           // the superblock's directory size
};
Bytes BuildMsf(const MsfSpec &spec);
// Rewrites the directory of a built container so that the stream's first page lies past the end
// of the file: the directory still loads, and reading the stream fails.
void PointStreamPastTheEnd(Bytes &file, uint32_t stream);

// [SECTION] Symbol records (length and padding filled in)
Bytes DataRecord(uint16_t kind, uint32_t type, uint32_t offset, uint16_t section, const std::string &name);
Bytes UdtRecord(uint32_t type, const std::string &name);
Bytes ConstantRecord(uint32_t type, const Bytes &numeric_leaf, const std::string &name);
Bytes ProcRecord(uint16_t kind, uint32_t end, uint32_t length, uint32_t offset, uint16_t section,
                 const std::string &name);
Bytes BlockRecord(uint32_t length, uint32_t offset, uint16_t section);
Bytes RegRelRecord(uint32_t offset, uint16_t reg, const std::string &name);
Bytes SimpleRecord(uint16_t kind, size_t payload_bytes = 0);

// [SECTION] C13 line subsections
Bytes C13Subsection(uint32_t kind, const Bytes &payload);
// Checksum records of 16 MD5 bytes each; record i sits at file id 24 * i.
Bytes C13Checksums(const std::vector<uint32_t> &name_offsets);
struct C13Block {
  uint32_t file_id;
  std::vector<std::pair<uint32_t, uint32_t>> lines;  // offset from the subsection start, line
};
Bytes C13Lines(uint32_t start, uint16_t section, uint32_t code_size, const std::vector<C13Block> &blocks,
               bool columns = false);

struct ModuleSpec {
  std::string name = "a.obj";
  std::vector<Bytes> records;   // laid out after the 4-byte signature; S_GPROC32 end fields are
                                // patched by FixProcedureEnds
  bool no_stream = false;       // symbol stream 0xFFFF
  Bytes c13;
};
// Sets each procedure's end field to the stream offset of the S_END that closes it.
void FixProcedureEnds(ModuleSpec &module);

struct PdbSpec {
  uint32_t page_size = 4096;
  uint32_t info_version = 20000404;
  uint32_t info_signature = 0x5F000000;
  uint32_t age = 1;
  uint8_t guid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  bool names_entry = true;       // the named-stream map lists "/names"
  std::string named_stream = "/names";
  Bytes names_stream_override;   // replaces the generated "/names" stream when not empty
  Bytes type_stream_override;    // replaces the empty type stream (2) when not empty
  Bytes type_hash_stream;        // written as stream 5, for a type stream that names it
  uint32_t dbi_signature = 0xFFFFFFFF;
  uint32_t dbi_version = 19990903;
  int dbi_size_delta = 0;        // stream size minus the sum of its substreams
  std::vector<Bytes> globals;    // records of the symbol-record stream, all listed in the hash
  uint32_t gsi_version = 0xF12F091A;
  std::vector<ModuleSpec> modules;
  uint32_t contribution_version = 0xF12EBA2D;
  uint32_t contribution_count = 2;
};
Bytes BuildPdb(const PdbSpec &spec);
std::string WriteTempFile(const Bytes &bytes, const std::string &name);
