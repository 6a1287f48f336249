#include "pdb_builder.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

void Put16(Bytes &b, uint32_t v) {
  b.push_back(v & 0xFF);
  b.push_back((v >> 8) & 0xFF);
}
void Put32(Bytes &b, uint32_t v) {
  for (int i = 0; i < 4; i++) b.push_back((v >> (8 * i)) & 0xFF);
}
void PutName(Bytes &b, const std::string &name) {
  b.insert(b.end(), name.begin(), name.end());
  b.push_back(0);
}
void Pad4(Bytes &b) {
  while (b.size() % 4) b.push_back(0);
}
void Set32(Bytes &b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; i++) b[at + i] = (v >> (8 * i)) & 0xFF;
}

// [SECTION] MSF layout: page 0 superblock, pages 1 and 2 free-page maps, then the streams, the
// directory and the directory map, each on fresh pages unless a stream's pages were chosen.
Bytes BuildMsf(const MsfSpec &spec) {
  const uint32_t ps = spec.page_size;
  std::map<uint32_t, const uint8_t *> page_data;  // page -> source bytes (page-sized or less)
  std::map<uint32_t, size_t> page_len;
  uint32_t next_page = 3;
  auto take_page = [&]() {
    while (page_data.count(next_page)) next_page++;
    return next_page++;
  };
  for (auto &chosen : spec.pages)
    for (uint32_t p : chosen.second) page_data[p] = nullptr;  // reserve
  std::vector<std::vector<uint32_t>> stream_pages(spec.streams.size());
  for (size_t i = 0; i < spec.streams.size(); i++) {
    bool nil = i < spec.nil.size() && spec.nil[i];
    if (nil) continue;
    const Bytes &s = spec.streams[i];
    size_t count = (s.size() + ps - 1) / ps;
    auto chosen = spec.pages.find(i);
    for (size_t k = 0; k < count; k++) {
      uint32_t p = chosen != spec.pages.end() ? chosen->second[k] : take_page();
      stream_pages[i].push_back(p);
      page_data[p] = s.data() + k * ps;
      page_len[p] = std::min<size_t>(ps, s.size() - k * ps);
    }
  }
  Bytes directory;
  Put32(directory, (uint32_t)spec.streams.size());
  for (size_t i = 0; i < spec.streams.size(); i++)
    Put32(directory, (i < spec.nil.size() && spec.nil[i]) ? 0xFFFFFFFFu : (uint32_t)spec.streams[i].size());
  for (auto &pages : stream_pages)
    for (uint32_t p : pages) Put32(directory, p);
  std::vector<uint32_t> directory_pages;
  for (size_t k = 0; k * ps < directory.size(); k++) {
    uint32_t p = take_page();
    directory_pages.push_back(p);
    page_data[p] = directory.data() + k * ps;
    page_len[p] = std::min<size_t>(ps, directory.size() - k * ps);
  }
  Bytes map;
  for (uint32_t p : directory_pages) Put32(map, p);
  std::vector<uint32_t> map_pages;
  for (size_t k = 0; k * ps < map.size(); k++) {
    uint32_t p = take_page();
    map_pages.push_back(p);
    page_data[p] = map.data() + k * ps;
    page_len[p] = std::min<size_t>(ps, map.size() - k * ps);
  }
  uint32_t last = 2;
  for (auto &pd : page_data) last = std::max(last, pd.first);
  Bytes file((size_t)(last + 1) * ps, 0);
  static const char magic[] = "Microsoft C/C++ MSF 7.00\r\n\x1A" "DS\0\0";
  memcpy(file.data(), magic, 32);
  Set32(file, 0x20, ps);
  Set32(file, 0x24, spec.free_map_page);
  Set32(file, 0x28, last + 1);
  Set32(file, 0x2C, spec.directory_bytes_override >= 0 ? (uint32_t)spec.directory_bytes_override
                                                        : (uint32_t)directory.size());
  for (size_t k = 0; k < map_pages.size() && k < 19; k++) Set32(file, 0x34 + 4 * k, map_pages[k]);
  for (auto &pd : page_data)
    if (pd.second) memcpy(file.data() + (size_t)pd.first * ps, pd.second, page_len[pd.first]);
  return file;
}

void PointStreamPastTheEnd(Bytes &file, uint32_t stream) {
  auto at = [&](size_t offset) { return (uint32_t)(file[offset] | file[offset + 1] << 8 | file[offset + 2] << 16 | file[offset + 3] << 24); };
  uint32_t ps = at(0x20), directory_bytes = at(0x2C), map_page = at(0x34);
  // Byte k of the directory lives in directory page k / ps, whose number the map page lists.
  auto directory_offset = [&](uint32_t k) { return (size_t)at((size_t)map_page * ps + 4 * (k / ps)) * ps + k % ps; };
  uint32_t streams = at(directory_offset(0));
  uint32_t entry = 4 + 4 * streams;  // the page lists follow the sizes
  for (uint32_t i = 0; i < stream && i < streams; i++) {
    uint32_t size = at(directory_offset(4 + 4 * i));
    if (size != 0xFFFFFFFFu) entry += 4 * ((size + ps - 1) / ps);
  }
  if (entry + 4 > directory_bytes) return;
  Set32(file, directory_offset(entry), (uint32_t)(file.size() / ps) + 1000);
}

// [SECTION] Records
static Bytes Finish(Bytes body) {  // body starts with the kind; prepends the length, pads to 4
  Bytes r;
  Put16(r, 0);
  r.insert(r.end(), body.begin(), body.end());
  Pad4(r);
  r[0] = (r.size() - 2) & 0xFF;
  r[1] = ((r.size() - 2) >> 8) & 0xFF;
  return r;
}

Bytes DataRecord(uint16_t kind, uint32_t type, uint32_t offset, uint16_t section, const std::string &name) {
  Bytes b;
  Put16(b, kind), Put32(b, type), Put32(b, offset), Put16(b, section), PutName(b, name);
  return Finish(b);
}
Bytes UdtRecord(uint32_t type, const std::string &name) {
  Bytes b;
  Put16(b, 0x1108), Put32(b, type), PutName(b, name);
  return Finish(b);
}
Bytes ConstantRecord(uint32_t type, const Bytes &leaf, const std::string &name) {
  Bytes b;
  Put16(b, 0x1107), Put32(b, type);
  b.insert(b.end(), leaf.begin(), leaf.end());
  PutName(b, name);
  return Finish(b);
}
Bytes ProcRecord(uint16_t kind, uint32_t end, uint32_t length, uint32_t offset, uint16_t section,
                 const std::string &name) {
  Bytes b;
  Put16(b, kind), Put32(b, 0), Put32(b, end), Put32(b, 0), Put32(b, length), Put32(b, 0), Put32(b, length);
  Put32(b, 0x1001), Put32(b, offset), Put16(b, section), b.push_back(0), PutName(b, name);
  return Finish(b);
}
Bytes BlockRecord(uint32_t length, uint32_t offset, uint16_t section) {
  Bytes b;
  Put16(b, 0x1103), Put32(b, 0), Put32(b, 0), Put32(b, length), Put32(b, offset), Put16(b, section), PutName(b, "");
  return Finish(b);
}
Bytes RegRelRecord(uint32_t offset, uint16_t reg, const std::string &name) {
  Bytes b;
  Put16(b, 0x1111), Put32(b, offset), Put32(b, 0x74), Put16(b, reg), PutName(b, name);
  return Finish(b);
}
Bytes SimpleRecord(uint16_t kind, size_t payload_bytes) {
  Bytes b;
  Put16(b, kind);
  b.resize(b.size() + payload_bytes, 0);
  return Finish(b);
}

void FixProcedureEnds(ModuleSpec &module) {
  std::vector<size_t> offsets;  // stream offset of each record
  size_t at = 4;
  for (auto &r : module.records) offsets.push_back(at), at += r.size();
  std::vector<size_t> open;  // procedures and blocks not yet closed; both keep "end" at byte 8
  for (size_t i = 0; i < module.records.size(); i++) {
    uint16_t kind = module.records[i][2] | (module.records[i][3] << 8);
    if (kind == 0x110F || kind == 0x1110 || kind == 0x1103) {
      open.push_back(i);
    } else if (kind == 0x0006 && !open.empty()) {
      Set32(module.records[open.back()], 8, (uint32_t)offsets[i]);
      open.pop_back();
    }
  }
}

// [SECTION] PDB streams
static Bytes InfoStream(const PdbSpec &spec, uint32_t names_stream) {
  Bytes b;
  Put32(b, spec.info_version), Put32(b, spec.info_signature), Put32(b, spec.age);
  b.insert(b.end(), spec.guid, spec.guid + 16);
  Bytes names;
  PutName(names, "/LinkInfo");
  uint32_t target = (uint32_t)names.size();
  PutName(names, spec.named_stream);
  Put32(b, (uint32_t)names.size());
  b.insert(b.end(), names.begin(), names.end());
  uint32_t entries = spec.names_entry ? 2 : 1;
  Put32(b, entries), Put32(b, 4);  // size, capacity
  Put32(b, 1), Put32(b, spec.names_entry ? 3 : 1);  // present bits
  Put32(b, 0);                                      // deleted bits
  Put32(b, 0), Put32(b, 5);                         // "/LinkInfo" -> 5
  if (spec.names_entry) Put32(b, target), Put32(b, names_stream);
  Put32(b, 0);
  Put32(b, 20140508);  // feature code
  return b;
}

static Bytes NamesStream() {
  Bytes b;
  Put32(b, 0xEFFEEFFE), Put32(b, 1);
  Bytes buffer;
  buffer.push_back(0);
  PutName(buffer, "c:\\src\\a.c");
  Put32(b, (uint32_t)buffer.size());
  b.insert(b.end(), buffer.begin(), buffer.end());
  Put32(b, 4);  // buckets
  Put32(b, 0), Put32(b, 1), Put32(b, 0), Put32(b, 0);
  Put32(b, 1);  // names count
  return b;
}

Bytes BuildPdb(const PdbSpec &spec) {
  // Streams: 0 old directory, 1 info, 2 types, 3 DBI, 4 IPI, 5 "/LinkInfo", 6 "/names",
  // 7 globals, 8 publics, 9 symbol records, 10.. module streams.
  MsfSpec msf;
  msf.page_size = spec.page_size;
  msf.streams.resize(10);
  msf.streams[1] = InfoStream(spec, 6);
  Bytes tpi(56, 0);
  Set32(tpi, 0, 20040203), Set32(tpi, 4, 56), Set32(tpi, 8, 0x1000), Set32(tpi, 12, 0x1000);
  msf.streams[2] = spec.type_stream_override.empty() ? tpi : spec.type_stream_override;
  msf.streams[4] = tpi;
  msf.streams[5] = spec.type_hash_stream;
  msf.streams[6] = spec.names_stream_override.empty() ? NamesStream() : spec.names_stream_override;

  Bytes records, hash;
  Put32(hash, 0xFFFFFFFF), Put32(hash, spec.gsi_version), Put32(hash, (uint32_t)spec.globals.size() * 8), Put32(hash, 0);
  for (auto &r : spec.globals) {
    Put32(hash, (uint32_t)records.size() + 1), Put32(hash, 1);
    records.insert(records.end(), r.begin(), r.end());
  }
  msf.streams[7] = hash;
  msf.streams[9] = records;

  Bytes module_info;
  for (size_t m = 0; m < spec.modules.size(); m++) {
    const ModuleSpec &mod = spec.modules[m];
    Bytes stream;
    Put32(stream, 4);
    for (auto &r : mod.records) stream.insert(stream.end(), r.begin(), r.end());
    uint32_t symbol_bytes = (uint32_t)stream.size();
    stream.insert(stream.end(), mod.c13.begin(), mod.c13.end());
    Put32(stream, 0);  // global references size
    uint16_t stream_index = mod.no_stream ? 0xFFFF : (uint16_t)msf.streams.size();
    if (!mod.no_stream) msf.streams.push_back(stream);
    Bytes rec(64, 0);
    rec[4] = 1;  // contribution section
    rec[34] = stream_index & 0xFF, rec[35] = stream_index >> 8;
    Set32(rec, 36, symbol_bytes), Set32(rec, 44, (uint32_t)mod.c13.size());
    PutName(rec, mod.name);
    PutName(rec, mod.name);
    Pad4(rec);
    module_info.insert(module_info.end(), rec.begin(), rec.end());
  }
  Bytes contributions;
  Put32(contributions, spec.contribution_version);
  for (uint32_t i = 0; i < spec.contribution_count; i++) {
    Bytes e(28, 0);
    e[0] = 1, Set32(e, 4, 0x1000 * i), Set32(e, 8, 0x100), e[16] = (uint8_t)i;
    contributions.insert(contributions.end(), e.begin(), e.end());
  }
  Bytes section_map(4, 0), source_info(4, 0);
  Bytes dbi(64, 0);
  Set32(dbi, 0, spec.dbi_signature), Set32(dbi, 4, spec.dbi_version), Set32(dbi, 8, spec.age);
  dbi[12] = 7, dbi[16] = 8, dbi[20] = 9;  // global, public, symbol-record streams
  Set32(dbi, 24, (uint32_t)module_info.size()), Set32(dbi, 28, (uint32_t)contributions.size());
  Set32(dbi, 32, (uint32_t)section_map.size()), Set32(dbi, 36, (uint32_t)source_info.size());
  dbi.insert(dbi.end(), module_info.begin(), module_info.end());
  dbi.insert(dbi.end(), contributions.begin(), contributions.end());
  dbi.insert(dbi.end(), section_map.begin(), section_map.end());
  dbi.insert(dbi.end(), source_info.begin(), source_info.end());
  if (spec.dbi_size_delta > 0) dbi.resize(dbi.size() + spec.dbi_size_delta, 0);
  if (spec.dbi_size_delta < 0) dbi.resize(dbi.size() + spec.dbi_size_delta);
  msf.streams[3] = dbi;
  return BuildMsf(msf);
}

std::string WriteTempFile(const Bytes &bytes, const std::string &name) {
  std::string dir = "/tmp/ktrn-pdb-test-" + std::to_string(getpid());
  mkdir(dir.c_str(), 0700);
  std::string path = dir + "/" + name;
  FILE *f = fopen(path.c_str(), "wb");
  if (!f) return "";
  fwrite(bytes.data(), 1, bytes.size(), f);
  fclose(f);
  return path;
}

// [SECTION] C13 line subsections

Bytes C13Subsection(uint32_t kind, const Bytes &payload) {
  Bytes b;
  Put32(b, kind), Put32(b, (uint32_t)payload.size());
  b.insert(b.end(), payload.begin(), payload.end());
  Pad4(b);
  return b;
}

Bytes C13Checksums(const std::vector<uint32_t> &name_offsets) {
  Bytes b;
  for (uint32_t name : name_offsets) {
    Put32(b, name);
    b.push_back(16), b.push_back(1);
    for (int i = 0; i < 16; i++) b.push_back((uint8_t)i);
    Pad4(b);
  }
  return C13Subsection(0xF4, b);
}

Bytes C13Lines(uint32_t start, uint16_t section, uint32_t code_size, const std::vector<C13Block> &blocks,
               bool columns) {
  Bytes b;
  Put32(b, start), Put16(b, section), Put16(b, columns ? 1 : 0), Put32(b, code_size);
  for (const C13Block &block : blocks) {
    uint32_t count = (uint32_t)block.lines.size();
    Put32(b, block.file_id), Put32(b, count), Put32(b, 12 + count * (columns ? 12 : 8));
    for (auto &[offset, line] : block.lines) Put32(b, offset), Put32(b, line | 0x80000000u);  // statement bit
    if (columns)
      for (uint32_t i = 0; i < count; i++) Put32(b, 0x00050001);
  }
  return C13Subsection(0xF2, b);
}
