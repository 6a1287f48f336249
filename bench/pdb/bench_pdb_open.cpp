// Times PdbOpen on one PDB beside a plain read of the same file's bytes.
//   bench_pdb_open load FILE [RUNS]  median PdbOpen time, arena bytes, peak resident memory
//   bench_pdb_open read FILE [RUNS]  median time to read the whole file once into a buffer
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <vector>

#include "base/os.h"
#include "symbols/pdb_file.h"

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

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: bench_pdb_open load|read FILE [RUNS]\n");
    return 2;
  }
  int runs = argc > 3 ? atoi(argv[3]) : 7;
  if (runs < 1) runs = 1;
  if (strcmp(argv[1], "load") == 0) return Load(argv[2], runs);
  if (strcmp(argv[1], "read") == 0) return Read(argv[2], runs);
  fprintf(stderr, "bench_pdb_open: unknown mode %s\n", argv[1]);
  return 2;
}
