// Builds small MSF containers, PDBs and PE images in memory for the reader's tests: the streams
// of a PDB (information, types, debug information, "/names", global symbols, module symbols) are
// assembled from records, then laid out on pages with a directory; an image has headers, a section
// table, an exception directory and a debug directory with a CodeView record. Every field can be
// broken on purpose.
#pragma once
#include <map>
#include <string>
#include <vector>

#include "byte_writer.h"

void Set32(Bytes &b, size_t at, uint32_t v);

struct MsfSpec {
  uint32_t page_size = 4096;
  uint32_t free_map_page = 1;
  std::vector<Bytes> streams;
  std::vector<bool> nil;                          // per stream: written as size 0xFFFFFFFF
  std::map<size_t, std::vector<uint32_t>> pages;  // streams placed on chosen pages
  int64_t directory_bytes_override = -1;          // the superblock's directory size
};
// Page 0 superblock, pages 1 and 2 free-page maps, then the streams, the directory and the
// directory map, each on fresh pages unless a stream's pages were chosen.
Bytes BuildMsf(const MsfSpec &spec);
// Where the directory of a built container starts in the file.
size_t MsfDirectoryAt(const Bytes &file);
// Rewrites the directory of a built container so that the stream's first page lies past the end
// of the file: the directory still loads, and reading the stream fails.
void PointStreamPastTheEnd(Bytes &file, uint32_t stream);

// [SECTION] Symbol records (length and padding filled in)
Bytes SymbolRecord(const LeBytes &kind_and_fields);
Bytes DataRecord(uint16_t kind, uint32_t type, uint32_t offset, uint16_t section, const std::string &name);
Bytes ProcRecord(uint16_t kind, uint32_t length, uint32_t offset, uint16_t section, const std::string &name);
Bytes BlockRecord(uint32_t length, uint32_t offset, uint16_t section);
Bytes RegRelRecord(uint32_t offset, uint16_t reg, const std::string &name);
Bytes SimpleRecord(uint16_t kind, size_t payload_bytes = 0);

// [SECTION] Streams
// "/names" holding the paths in order from offset 1, with an empty 8-bucket table.
Bytes NamesStream(const std::vector<std::string> &paths);
// A type stream of the records (type indices from 0x1000) whose hash values, then adjuster table,
// are in stream hash_stream (0xFFFF: none).
struct TypeStreamSpec {
  Bytes records;
  uint32_t count = 0;
  uint32_t hash_stream = 0xFFFF;
  uint32_t bucket_count = 0;
  uint32_t hash_value_bytes = 0;
  uint32_t adjuster_bytes = 0;  // after the hash values
};
Bytes TypeStream(const TypeStreamSpec &spec);

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
  std::vector<Bytes> records;  // after the 4-byte signature; each procedure's and block's end field
                               // is set to the S_END that closes it
  bool no_stream = false;      // symbol stream 0xFFFF
  Bytes c13;
};

struct PdbSpec {
  uint32_t info_version = 20000404;
  uint32_t info_signature = 0x5F000000;
  uint32_t age = 1;
  uint8_t guid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  bool names_entry = true;  // the named-stream map lists "/names"
  std::string named_stream = "/names";
  Bytes names_stream = NamesStream({"c:\\src\\a.c"});
  Bytes type_stream = TypeStream({});
  Bytes type_hash_stream;  // written as stream 5, for a type stream that names it
  uint32_t dbi_signature = 0xFFFFFFFF;
  uint32_t dbi_version = 19990903;
  int dbi_size_delta = 0;      // stream size minus the sum of its substreams
  std::vector<Bytes> globals;  // records of the symbol-record stream, all listed in the hash
  uint32_t gsi_version = 0xF12F091A;
  std::vector<ModuleSpec> modules;
  uint32_t contribution_version = 0xF12EBA2D;
  uint32_t contribution_count = 2;
};
// Streams: 0 old directory, 1 info, 2 types, 3 DBI, 4 IPI, 5 "/LinkInfo" or the type hash,
// 6 "/names", 7 globals, 8 publics, 9 symbol records, 10.. module streams.
Bytes BuildPdb(const PdbSpec &spec);

// [SECTION] PE images
struct PeSpec {
  uint16_t magic = 0x20B;
  bool bad_signature = false;
  uint32_t section_count = 3;       // each section: 0x1000 apart from rva 0x1000, 0x400 raw bytes
  uint32_t last_virtual_size = 0x234;
  uint32_t directory_count = 16;
  uint32_t exception_bytes = 36;    // three entries
  bool codeview = true;
  bool debug_directory_in_file = true;  // false: zeros where the loader's copy would be
  uint32_t other_debug_entries = 1; // entries of another type before the CodeView one
  uint8_t guid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  uint32_t age = 1;
  std::string pdb_path = "c:\\build\\app.pdb";
  int64_t codeview_size_override = -1;  // the debug entry's data size
  int64_t second_codeview_size = -1;    // another CodeView entry after the first, of this size
  uint32_t optional_bytes = 240;        // the optional header's size; directories that do not fit are left out
};

struct BuiltPe {
  Bytes bytes;
  uint32_t debug_directory_rva = 0;
  Bytes debug_directory;  // the entries as the loader maps them
};
BuiltPe BuildPe(const PeSpec &spec);
