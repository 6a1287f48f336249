// Times PdbOpen on one PDB beside a plain read of the same file's bytes.
//   bench_pdb_open load FILE [RUNS]  median PdbOpen time, arena bytes, peak resident memory
//   bench_pdb_open read FILE [RUNS]  median time to read the whole file once into a buffer
//   bench_pdb_open lines FILE        one million address-to-line and one million file-and-line
//                                    queries, beside std::upper_bound over the same entries
//   bench_pdb_open types FILE [RUNS] median type-stream load time; one million type-by-name
//                                    look-ups beside std::unordered_map over the same names; one
//                                    million pointer-to, "Name *" look-ups, and a name found nowhere
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/os.h"
#include "symbols/pdb_file.h"
#include "symbols/pdb_type_lookup.h"

static double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

static u64 PeakResidentBytes() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (u64)usage.ru_maxrss * 1024;
}

static int Load(const char *path, int runs) {
  std::vector<double> ms;
  u64 used = 0, reserved = 0;
  for (int i = 0; i < runs; i++) {
    SymbolArena arena = {};
    PdbFile pdb;
    PdbSummary summary;
    CodeViewIdentity none = {};
    u64 start = OsTimeMicroseconds();
    int status = PdbOpen(&arena, &none, path, true, &pdb, &summary);
    ms.push_back((double)(OsTimeMicroseconds() - start) / 1000.0);
    if (status != 0) {
      fprintf(stderr, "bench_pdb_open: %s: status %d\n", path, status);
      return 1;
    }
    used = SymbolArenaUsedBytes(&arena);
    reserved = SymbolArenaReservedBytes(&arena);
    if (i == runs - 1)
      printf("procedures %u globals %u modules %u\n", summary.procedure_count, summary.data_count, summary.module_count);
    MsfClose(&pdb.msf);
    SymbolArenaRelease(&arena);
  }
  printf("load_ms_median %.2f\nload_ms_min %.2f\narena_used_bytes %llu\narena_reserved_bytes %llu\npeak_rss_bytes %llu\n",
         Median(ms), *std::min_element(ms.begin(), ms.end()), (unsigned long long)used,
         (unsigned long long)reserved, (unsigned long long)PeakResidentBytes());
  return 0;
}

static int Read(const char *path, int runs) {
  std::vector<double> ms;
  std::vector<char> buffer;
  for (int i = 0; i < runs; i++) {
    u64 start = OsTimeMicroseconds();
    OsFile file;
    u64 size = 0, got = 0;
    if (OsFileOpenRead(path, &file) != kOsOk || OsFileSize(file, &size) != kOsOk) return 1;
    buffer.resize(size);
    int result = OsFileRead(file, buffer.data(), size, &got);
    OsFileClose(&file);
    ms.push_back((double)(OsTimeMicroseconds() - start) / 1000.0);
    if (result != kOsOk || got != size) return 1;
  }
  printf("read_ms_median %.2f\nfile_bytes %llu\n", Median(ms), (unsigned long long)buffer.size());
  return 0;
}

// Address keys are drawn inside random line entries (with a tenth shifted past all code), line
// keys from random entries' files with a line up to 12 below theirs, so that the ten-line search
// walks as it does for breakpoints.
static int Lines(const char *path) {
  SymbolArena arena = {};
  PdbFile pdb;
  PdbSummary summary;
  CodeViewIdentity none = {};
  if (PdbOpen(&arena, &none, path, true, &pdb, &summary) != 0 || !pdb.lines.count) {
    fprintf(stderr, "bench_pdb_open: %s: no line entries\n", path);
    return 1;
  }
  const u32 kQueries = 1000000;
  const PdbLines &lines = pdb.lines;
  std::vector<u64> keys(kQueries);
  std::vector<std::pair<u32, u32>> line_keys(kQueries);
  u64 state = 88172645463325252ull;
  auto next = [&state] { state ^= state << 13, state ^= state >> 7, state ^= state << 17; return state; };
  for (u32 i = 0; i < kQueries; i++) {
    const PdbLineEntry &e = lines.by_address[next() % lines.count];
    u32 offset = e.offset + (e.length ? (u32)(next() % e.length) : 0);
    if (i % 10 == 0) offset += 0x40000000;
    keys[i] = (u64)e.section << 32 | offset;
    const PdbLineEntry &f = lines.by_file[next() % lines.count];
    u32 back = (u32)(next() % 13);
    line_keys[i] = {PdbLineFileOffset(&f), f.line > back ? f.line - back : 1};
  }
  u64 found = 0;
  u64 start = OsTimeMicroseconds();
  for (u64 key : keys) found += PdbLineAtAddress(&lines, (u32)(key >> 32), (u32)key) != nullptr;
  double address_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;

  std::vector<u64> starts(lines.count);
  for (u32 i = 0; i < lines.count; i++)
    starts[i] = (u64)lines.by_address[i].section << 32 | lines.by_address[i].offset;
  u64 reference_found = 0;
  start = OsTimeMicroseconds();
  for (u64 key : keys) reference_found += std::upper_bound(starts.begin(), starts.end(), key) != starts.begin();
  double reference_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;

  u64 line_found = 0;
  start = OsTimeMicroseconds();
  for (auto &[file, line] : line_keys) line_found += PdbAddressOfLine(&lines, file, line) != nullptr;
  double line_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  printf("line_entries %u\naddress_to_line_ns %.1f\naddress_found %llu\nreference_upper_bound_ns %.1f\n"
         "reference_found %llu\nline_to_address_ns %.1f\nline_found %llu\n",
         lines.count, address_ns, (unsigned long long)found, reference_ns, (unsigned long long)reference_found,
         line_ns, (unsigned long long)line_found);
  MsfClose(&pdb.msf);
  SymbolArenaRelease(&arena);
  return 0;
}

// The type stream loaded alone (the container opened once, outside the timing), then names of
// the stream's named definitions (one query in ten a name that is not there) looked up through
// the name index, through the whole user-facing look-up, and in a std::unordered_map.
static int Types(const char *path, int runs) {
  SymbolArena arena = {};
  PdbFile pdb;
  PdbSummary summary;
  CodeViewIdentity none = {};
  if (PdbOpen(&arena, &none, path, true, &pdb, &summary) != 0) {
    fprintf(stderr, "bench_pdb_open: %s: does not load\n", path);
    return 1;
  }
  SymbolArena msf_arena = {};
  MsfFile msf;
  if (MsfOpen(&msf_arena, path, &msf) != 0) return 1;
  std::vector<double> ms;
  u64 type_bytes = 0;
  for (int i = 0; i < runs; i++) {
    SymbolArena type_arena = {};
    PdbTypes types;
    u64 start = OsTimeMicroseconds();
    int status = PdbLoadTypes(&type_arena, &msf, &pdb.strings, &types);
    ms.push_back((double)(OsTimeMicroseconds() - start) / 1000.0);
    type_bytes = SymbolArenaUsedBytes(&type_arena);
    SymbolArenaRelease(&type_arena);
    if (status != 0) return 1;
  }
  MsfClose(&msf);
  SymbolArenaRelease(&msf_arena);

  const PdbTypes &t = pdb.types;
  std::vector<std::string> names;
  std::unordered_map<std::string_view, u32> reference;
  for (u32 i = 0; i < t.count; i++) {
    TypeRecord r;
    if (!PdbDecodeType(&t, t.first_index + i, &r) || !TypeLeafIsTag(r.leaf) || !r.name.length) continue;
    if (r.properties & (kTypePropForwardRef | kTypePropScoped) || TypeNameIsAnonymous(r.name)) continue;
    names.emplace_back(r.name.text, r.name.length);
  }
  if (names.empty()) {
    fprintf(stderr, "bench_pdb_open: %s: no named types\n", path);
    return 1;
  }
  for (const std::string &n : names) reference.emplace(std::string_view(n), 0);
  for (u32 i = 0; i < t.count; i++) {
    TypeRecord r;
    if (PdbDecodeType(&t, t.first_index + i, &r) && TypeLeafIsTag(r.leaf) && !(r.properties & kTypePropForwardRef)) {
      auto it = reference.find(std::string_view(r.name.text, r.name.length));
      if (it != reference.end()) it->second = t.first_index + i;
    }
  }
  const u32 kQueries = 1000000;
  std::vector<std::string> missing = {"NoSuchType", "ns::Absent<int>", "Widget_missing", "zzz"};
  std::vector<const std::string *> queries(kQueries);
  u64 state = 88172645463325252ull;
  auto next = [&state] { state ^= state << 13, state ^= state >> 7, state ^= state << 17; return state; };
  for (u32 i = 0; i < kQueries; i++) queries[i] = i % 10 == 9 ? &missing[next() % 4] : &names[next() % names.size()];

  u64 found = 0, start = OsTimeMicroseconds();
  for (const std::string *q : queries) found += PdbFindTypeRecord(&t, q->data(), (u32)q->size()) != 0;
  double record_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  u64 lookup_found = 0;
  start = OsTimeMicroseconds();
  for (const std::string *q : queries) lookup_found += PdbLookupType(&t, &pdb.globals, q->data(), (u32)q->size()) != 0;
  double lookup_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  u64 reference_found = 0;
  start = OsTimeMicroseconds();
  for (const std::string *q : queries) reference_found += reference.find(std::string_view(*q)) != reference.end();
  double reference_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  // Pointer-to of the named definitions, and the whole look-up of "Name *".
  std::vector<u32> definitions;
  for (auto &[name, index] : reference) definitions.push_back(index);
  u64 pointers = 0;
  start = OsTimeMicroseconds();
  for (u32 i = 0; i < kQueries; i++) pointers += PdbTypePointerTo(&t, definitions[i % definitions.size()]) != 0;
  double pointer_to_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  std::vector<std::string> starred;
  for (u32 i = 0; i < 100000; i++) starred.push_back(names[next() % names.size()] + " *");
  u64 starred_found = 0;
  start = OsTimeMicroseconds();
  for (const std::string &q : starred) starred_found += PdbLookupType(&t, &pdb.globals, q.data(), (u32)q.size()) != 0;
  double starred_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / (double)starred.size();
  // A name that is nowhere: after the name index, the built-ins and the typedefs miss, the
  // declared-only search walks every record.
  const u32 kMisses = 20;
  start = OsTimeMicroseconds();
  for (u32 i = 0; i < kMisses; i++) PdbLookupType(&t, &pdb.globals, "NoSuchTypeAnywhere", 18);
  double miss_us = (double)(OsTimeMicroseconds() - start) / kMisses;
  printf("type_count %u\nbucket_count %u\nnamed_definitions %zu\ntype_load_ms_median %.2f\ntype_arena_bytes %llu\n"
         "find_type_record_ns %.1f\nfound %llu\nlookup_type_ns %.1f\nlookup_found %llu\n"
         "reference_unordered_map_ns %.1f\nreference_found %llu\n"
         "pointer_to_ns %.1f\npointers %llu\npointer_lookup_ns %.1f\npointer_lookup_found %llu\nmissing_lookup_us %.1f\n",
         t.count, t.bucket_count, names.size(), Median(ms), (unsigned long long)type_bytes, record_ns,
         (unsigned long long)found, lookup_ns, (unsigned long long)lookup_found, reference_ns,
         (unsigned long long)reference_found, pointer_to_ns, (unsigned long long)pointers, starred_ns,
         (unsigned long long)starred_found, miss_us);
  MsfClose(&pdb.msf);
  SymbolArenaRelease(&arena);
  return 0;
}

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: bench_pdb_open load|read|lines|types FILE [RUNS]\n");
    return 2;
  }
  int runs = argc > 3 ? atoi(argv[3]) : 7;
  if (runs < 1) runs = 1;
  if (strcmp(argv[1], "load") == 0) return Load(argv[2], runs);
  if (strcmp(argv[1], "read") == 0) return Read(argv[2], runs);
  if (strcmp(argv[1], "lines") == 0) return Lines(argv[2]);
  if (strcmp(argv[1], "types") == 0) return Types(argv[2], runs);
  fprintf(stderr, "bench_pdb_open: unknown mode %s\n", argv[1]);
  return 2;
}
