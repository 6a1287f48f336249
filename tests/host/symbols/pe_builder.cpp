#include "pe_builder.h"

#include <string.h>

namespace {
const uint32_t kLfanew = 0x40, kRawBytes = 0x400;
}

BuiltPe BuildPe(const PeSpec &spec) {
  BuiltPe out;
  Bytes &b = out.bytes;
  const uint32_t kOptionalBytes = spec.optional_bytes;
  uint32_t headers_end = kLfanew + 4 + 20 + (kOptionalBytes > 240 ? kOptionalBytes : 240) + spec.section_count * 40;
  uint32_t headers_bytes = (headers_end + kRawBytes - 1) / kRawBytes * kRawBytes;
  b.assign(headers_bytes + spec.section_count * kRawBytes, 0);
  b[0] = 'M', b[1] = 'Z';
  Set32(b, 60, kLfanew);
  memcpy(&b[kLfanew], spec.bad_signature ? "PE\0\1" : "PE\0\0", 4);
  uint32_t fh = kLfanew + 4;
  b[fh] = 0x64, b[fh + 1] = 0x86;  // machine x64
  b[fh + 2] = (uint8_t)spec.section_count, b[fh + 3] = (uint8_t)(spec.section_count >> 8);
  b[fh + 16] = (uint8_t)kOptionalBytes, b[fh + 17] = (uint8_t)(kOptionalBytes >> 8);
  uint32_t oh = fh + 20;
  b[oh] = (uint8_t)spec.magic, b[oh + 1] = (uint8_t)(spec.magic >> 8);
  Set32(b, oh + 16, 0x1010);                                 // entry point
  Set32(b, oh + 24, 0x40000000), Set32(b, oh + 28, 0x1);    // image base 0x140000000
  Set32(b, oh + 56, 0x1000 * (spec.section_count + 1));      // size of image
  Set32(b, oh + 108, spec.directory_count);

  uint32_t sections_at = oh + kOptionalBytes;
  for (uint32_t i = 0; i < spec.section_count; i++) {
    uint32_t at = sections_at + i * 40;
    std::string name = ".s" + std::to_string(i);
    memcpy(&b[at], name.data(), name.size() < 8 ? name.size() : 8);
    bool last = i + 1 == spec.section_count;
    Set32(b, at + 8, last ? spec.last_virtual_size : 0x400);   // virtual size
    Set32(b, at + 12, 0x1000 * (i + 1));                       // virtual address
    Set32(b, at + 16, kRawBytes);
    Set32(b, at + 20, headers_bytes + i * kRawBytes);
  }

  // Exception directory at the start of the first section; the debug directory and the CodeView
  // record in the second (or the first when there is one section).
  uint32_t dirs = oh + 112;
  if (kOptionalBytes < 112 + 7 * 8) return out;  // no room for the directories used here
  Set32(b, dirs + 3 * 8, 0x1000), Set32(b, dirs + 3 * 8 + 4, spec.exception_bytes);
  if (spec.section_count == 0) return out;
  uint32_t debug_section = spec.section_count > 1 ? 1 : 0;
  uint32_t debug_rva = 0x1000 * (debug_section + 1) + 0x10;
  uint32_t debug_file = headers_bytes + debug_section * kRawBytes + 0x10;
  uint32_t entries = spec.other_debug_entries + (spec.codeview ? 1 : 0) + (spec.second_codeview_size >= 0 ? 1 : 0);
  Set32(b, dirs + 6 * 8, entries ? debug_rva : 0), Set32(b, dirs + 6 * 8 + 4, entries * 28);
  out.debug_directory_rva = debug_rva;

  // Entries: characteristics, time stamp, version, type, size, rva, file offset.
  uint32_t record_rva = debug_rva + entries * 28;
  uint32_t record_file = debug_file + entries * 28;
  LeBytes directory;
  for (uint32_t i = 0; i < spec.other_debug_entries; i++) directory.zero32(3).u32(16).zero32(3);  // repro entries
  if (spec.codeview) {
    Bytes record = LeBytes().raw("RSDS").raw(Bytes(spec.guid, spec.guid + 16)).u32(spec.age).name(spec.pdb_path);
    uint32_t size = spec.codeview_size_override >= 0 ? (uint32_t)spec.codeview_size_override : (uint32_t)record.size();
    directory.zero32(3).u32(2).u32(size).u32(record_rva).u32(record_file);
    if (spec.second_codeview_size >= 0)
      directory.zero32(3).u32(2).u32((uint32_t)spec.second_codeview_size).u32(record_rva).u32(record_file);
    if (record_file + record.size() > b.size()) b.resize(record_file + record.size(), 0);
    memcpy(&b[record_file], record.data(), record.size());
  }
  if (spec.debug_directory_in_file) memcpy(&b[debug_file], directory.b.data(), directory.b.size());
  out.debug_directory = directory;
  return out;
}
