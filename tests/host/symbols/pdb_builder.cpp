#include "pdb_builder.h"

#include <string.h>

#include <algorithm>

void Set32(Bytes &b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; i++) b[at + i] = (v >> (8 * i)) & 0xFF;
}

static uint32_t Get32(const Bytes &b, size_t at) {
  return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | (uint32_t)b[at + 3] << 24;
}

// [SECTION] MSF layout

Bytes BuildMsf(const MsfSpec &spec) {
  const uint32_t ps = spec.page_size;
  std::map<uint32_t, std::pair<const uint8_t *, size_t>> pages;  // page -> its bytes (page-sized or less)
  for (auto &chosen : spec.pages)
    for (uint32_t p : chosen.second) pages[p] = {nullptr, 0};  // reserved
  uint32_t next_page = 3;
  auto place = [&](const Bytes &data, const std::vector<uint32_t> *chosen, LeBytes *list) {
    for (size_t k = 0; k * ps < data.size(); k++) {
      uint32_t p = chosen ? (*chosen)[k] : next_page;
      if (!chosen) {
        while (pages.count(p)) p++;
        next_page = p + 1;
      }
      pages[p] = {data.data() + k * ps, std::min<size_t>(ps, data.size() - k * ps)};
      list->u32(p);
    }
  };
  auto nil = [&](size_t i) { return i < spec.nil.size() && spec.nil[i]; };
  LeBytes sizes, page_lists, map, map_pages;
  sizes.u32((uint32_t)spec.streams.size());
  for (size_t i = 0; i < spec.streams.size(); i++) {
    sizes.u32(nil(i) ? 0xFFFFFFFFu : (uint32_t)spec.streams[i].size());
    auto chosen = spec.pages.find(i);
    if (!nil(i)) place(spec.streams[i], chosen != spec.pages.end() ? &chosen->second : nullptr, &page_lists);
  }
  Bytes directory = LeBytes(sizes).raw(page_lists);
  place(directory, nullptr, &map);
  place(map, nullptr, &map_pages);
  uint32_t last = std::max<uint32_t>(2, pages.rbegin()->first);
  Bytes file((size_t)(last + 1) * ps, 0);
  memcpy(file.data(), "Microsoft C/C++ MSF 7.00\r\n\x1A" "DS\0\0", 32);
  Set32(file, 0x20, ps);
  Set32(file, 0x24, spec.free_map_page);
  Set32(file, 0x28, last + 1);
  Set32(file, 0x2C, spec.directory_bytes_override >= 0 ? (uint32_t)spec.directory_bytes_override
                                                        : (uint32_t)directory.size());
  memcpy(file.data() + 0x34, map_pages.b.data(), std::min<size_t>(map_pages.b.size(), 19 * 4));
  for (auto &[page, bytes] : pages)
    if (bytes.first) memcpy(file.data() + (size_t)page * ps, bytes.first, bytes.second);
  return file;
}

size_t MsfDirectoryAt(const Bytes &file) {
  uint32_t ps = Get32(file, 0x20);
  return (size_t)Get32(file, (size_t)Get32(file, 0x34) * ps) * ps;
}

void PointStreamPastTheEnd(Bytes &file, uint32_t stream) {
  uint32_t ps = Get32(file, 0x20), directory_bytes = Get32(file, 0x2C), map_page = Get32(file, 0x34);
  // Byte k of the directory lives in directory page k / ps, whose number the map page lists.
  auto directory_offset = [&](uint32_t k) { return (size_t)Get32(file, (size_t)map_page * ps + 4 * (k / ps)) * ps + k % ps; };
  uint32_t streams = Get32(file, directory_offset(0));
  uint32_t entry = 4 + 4 * streams;  // the page lists follow the sizes
  for (uint32_t i = 0; i < stream && i < streams; i++) {
    uint32_t size = Get32(file, directory_offset(4 + 4 * i));
    if (size != 0xFFFFFFFFu) entry += 4 * ((size + ps - 1) / ps);
  }
  if (entry + 4 <= directory_bytes) Set32(file, directory_offset(entry), (uint32_t)(file.size() / ps) + 1000);
}

// [SECTION] Records

Bytes SymbolRecord(const LeBytes &kind_and_fields) {
  Bytes r = LeBytes().u16(0).raw(kind_and_fields.b).pad4();
  r[0] = (r.size() - 2) & 0xFF, r[1] = ((r.size() - 2) >> 8) & 0xFF;
  return r;
}
Bytes DataRecord(uint16_t kind, uint32_t type, uint32_t offset, uint16_t section, const std::string &name) {
  return SymbolRecord(LeBytes().u16(kind).u32(type).u32(offset).u16(section).name(name));
}
Bytes ProcRecord(uint16_t kind, uint32_t length, uint32_t offset, uint16_t section, const std::string &name) {
  // parent, end (set by BuildPdb), next, length, debug start and end, type, offset, section, flags
  return SymbolRecord(LeBytes().u16(kind).zero32(3).u32(length).u32(0).u32(length).u32(0x1001).u32(offset)
                          .u16(section).u8(0).name(name));
}
Bytes BlockRecord(uint32_t length, uint32_t offset, uint16_t section) {
  return SymbolRecord(LeBytes().u16(0x1103).zero32(2).u32(length).u32(offset).u16(section).name(""));
}
Bytes RegRelRecord(uint32_t offset, uint16_t reg, const std::string &name) {
  return SymbolRecord(LeBytes().u16(0x1111).u32(offset).u32(0x74).u16(reg).name(name));
}
Bytes SimpleRecord(uint16_t kind, size_t payload_bytes) {
  return SymbolRecord(LeBytes().u16(kind).raw(Bytes(payload_bytes, 0)));
}

// Sets each procedure's and block's end field (both at byte 8) to the stream offset of its S_END.
static void FixEnds(std::vector<Bytes> &records) {
  std::vector<size_t> open;
  size_t at = 4;
  for (size_t i = 0; i < records.size(); at += records[i++].size()) {
    uint16_t kind = records[i][2] | (records[i][3] << 8);
    if (kind == 0x110F || kind == 0x1110 || kind == 0x1103) {
      open.push_back(i);
    } else if (kind == 0x0006 && !open.empty()) {
      Set32(records[open.back()], 8, (uint32_t)at);
      open.pop_back();
    }
  }
}

// [SECTION] Streams

Bytes NamesStream(const std::vector<std::string> &paths) {
  LeBytes buffer;
  buffer.u8(0);
  for (const std::string &p : paths) buffer.name(p);
  return LeBytes().u32(0xEFFEEFFE).u32(1).u32((uint32_t)buffer.b.size()).raw(buffer.b).u32(8).zero32(8)
      .u32((uint32_t)paths.size());
}

Bytes TypeStream(const TypeStreamSpec &s) {
  return LeBytes().u32(20040203).u32(56).u32(0x1000).u32(0x1000 + s.count).u32((uint32_t)s.records.size())
      .u16(s.hash_stream).u16(0xFFFF).u32(4).u32(s.bucket_count).u32(0).u32(s.hash_value_bytes).zero32(2)
      .u32(s.hash_value_bytes).u32(s.adjuster_bytes).raw(s.records);
}

static Bytes InfoStream(const PdbSpec &spec, uint32_t names_stream) {
  LeBytes names;
  names.name("/LinkInfo");
  uint32_t target = (uint32_t)names.b.size();
  names.name(spec.named_stream);
  LeBytes b;
  b.u32(spec.info_version).u32(spec.info_signature).u32(spec.age).raw(Bytes(spec.guid, spec.guid + 16));
  b.u32((uint32_t)names.b.size()).raw(names.b);
  // The hash map: size, capacity, present bits, no deleted bits, then the entries.
  b.u32(spec.names_entry ? 2 : 1).u32(4).u32(1).u32(spec.names_entry ? 3 : 1).u32(0).u32(0).u32(5);
  if (spec.names_entry) b.u32(target).u32(names_stream);
  return b.u32(0).u32(20140508);  // feature code
}

Bytes BuildPdb(const PdbSpec &spec) {
  MsfSpec msf;
  msf.streams.resize(10);
  msf.streams[1] = InfoStream(spec, 6);
  msf.streams[2] = spec.type_stream;
  msf.streams[4] = TypeStream({});
  msf.streams[5] = spec.type_hash_stream;
  msf.streams[6] = spec.names_stream;
  LeBytes records, hash;
  hash.u32(0xFFFFFFFF).u32(spec.gsi_version).u32((uint32_t)spec.globals.size() * 8).u32(0);
  for (auto &r : spec.globals) hash.u32((uint32_t)records.b.size() + 1).u32(1), records.raw(r);
  msf.streams[7] = hash;
  msf.streams[9] = records;

  LeBytes module_info;
  for (const ModuleSpec &mod : spec.modules) {
    std::vector<Bytes> symbols = mod.records;
    FixEnds(symbols);
    LeBytes stream;
    stream.u32(4);
    for (auto &r : symbols) stream.raw(r);
    uint32_t symbol_bytes = (uint32_t)stream.b.size();
    stream.raw(mod.c13).u32(0);  // no global references
    uint16_t stream_index = mod.no_stream ? 0xFFFF : (uint16_t)msf.streams.size();
    if (!mod.no_stream) msf.streams.push_back(stream);
    Bytes rec(64, 0);
    rec[4] = 1;  // contribution section
    rec[34] = stream_index & 0xFF, rec[35] = stream_index >> 8;
    Set32(rec, 36, symbol_bytes), Set32(rec, 44, (uint32_t)mod.c13.size());
    module_info.raw(rec).name(mod.name).name(mod.name).pad4();
  }
  LeBytes contributions;
  contributions.u32(spec.contribution_version);
  for (uint32_t i = 0; i < spec.contribution_count; i++)
    contributions.u16(1).u16(0).u32(0x1000 * i).u32(0x100).u32(0).u16(i).u16(0).zero32(2);
  // Header: global, public and symbol-record streams 7, 8, 9; an empty section map and source info.
  LeBytes dbi;
  dbi.u32(spec.dbi_signature).u32(spec.dbi_version).u32(spec.age).u16(7).u16(0).u16(8).u16(0).u16(9).u16(0);
  dbi.u32((uint32_t)module_info.b.size()).u32((uint32_t)contributions.b.size()).u32(4).u32(4).zero32(6);
  dbi.raw(module_info.b).raw(contributions.b).zero32(2);
  dbi.b.resize(dbi.b.size() + spec.dbi_size_delta, 0);
  msf.streams[3] = dbi;
  return BuildMsf(msf);
}

// [SECTION] C13 line subsections

Bytes C13Subsection(uint32_t kind, const Bytes &payload) {
  return LeBytes().u32(kind).u32((uint32_t)payload.size()).raw(payload).pad4();
}

Bytes C13Checksums(const std::vector<uint32_t> &name_offsets) {
  LeBytes b;
  for (uint32_t name : name_offsets) b.u32(name).u8(16).u8(1).raw(Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}).pad4();
  return C13Subsection(0xF4, b);
}

Bytes C13Lines(uint32_t start, uint16_t section, uint32_t code_size, const std::vector<C13Block> &blocks,
               bool columns) {
  LeBytes b;
  b.u32(start).u16(section).u16(columns ? 1 : 0).u32(code_size);
  for (const C13Block &block : blocks) {
    uint32_t count = (uint32_t)block.lines.size();
    b.u32(block.file_id).u32(count).u32(12 + count * (columns ? 12 : 8));
    for (auto &[offset, line] : block.lines) b.u32(offset).u32(line | 0x80000000u);  // statement bit
    for (uint32_t i = 0; columns && i < count; i++) b.u32(0x00050001);
  }
  return C13Subsection(0xF2, b);
}

// [SECTION] PE images

static const uint32_t kLfanew = 0x40, kRawBytes = 0x400;

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
