// Builds small PE images in memory for the image reader's tests: headers, a section table, an
// exception directory and a debug directory with a CodeView record, each field breakable.
#pragma once
#include <string>

#include "pdb_builder.h"

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
