// Times the questions a stopped debugger asks of a loaded module, on an image and its PDB:
//   bench_pdb_addr IMAGE [RUNS] [SUBSET_FILE SUBSET_COUNT]
// - module load (image headers, PDB search, PdbOpen with lines), median of RUNS;
// - one million random addresses through FindScopeAtAddress, exact mode (procedure, innermost
//   block, line) and procedure-and-line mode: nine in ten inside a random procedure, one in ten
//   anywhere in the image (gaps, data, headers);
// - the same addresses again, with the chain of inlined frames and the innermost frame's locals
//   and parameters listed;
// - one million line-to-address queries as a line breakpoint makes them: a source path through
//   the path hash to its file, then the ten-line search from a line up to 12 before a line with
//   code.
// The first SUBSET_COUNT addresses are written to SUBSET_FILE, one rva a line, for llvm-symbolizer
// to be timed on the same addresses (run.sh does that).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <vector>

#include "base/os.h"
#include "symbols/module_symbols.h"
#include "symbols/pdb_lines.h"
#include "symbols/pdb_locals.h"
#include "symbols/scope_lookup.h"

// The machine is shared with builds: the thread's own CPU time is printed beside the wall time, so
// that a run that lost the processor to other work shows it.
static u64 ThreadCpuNanoseconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return (u64)t.tv_sec * 1000000000ull + (u64)t.tv_nsec;
}

static bool CountLocal(void *user, const LocalVariable *variable) {
  (void)variable;
  ++*(u64 *)user;
  return true;
}

static int Load(const char *path, ModuleSymbols *module) {
  OsFile file;
  if (OsFileOpenRead(path, &file) != kOsOk) return kPeUnreadable;
  char absolute[kModulePathCapacity];
  if (OsPathMakeAbsolute(path, absolute, sizeof(absolute)) != kOsOk) return kPeUnreadable;
  ImageSource source = ImageSourceFromFile(&file);
  int result = LoadModuleSymbols(module, &source, absolute, 0, nullptr);
  OsFileClose(&file);
  return result;
}

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: bench_pdb_addr IMAGE [RUNS] [SUBSET_FILE SUBSET_COUNT]\n");
    return 2;
  }
  int runs = argc > 2 ? atoi(argv[2]) : 5;
  if (runs < 1) runs = 1;
  static ModuleSymbols module;
  std::vector<double> ms;
  for (int i = 0; i < runs; i++) {
    if (i) UnloadModuleSymbols(&module);
    u64 start = OsTimeMicroseconds();
    int result = Load(argv[1], &module);
    ms.push_back((double)(OsTimeMicroseconds() - start) / 1000.0);
    if (result != kPeOk || module.status != kSymbolsLoaded) {
      fprintf(stderr, "bench_pdb_addr: %s: result %d, %s\n", argv[1], result, SymbolStatusText(module.status));
      return 1;
    }
  }
  std::sort(ms.begin(), ms.end());
  const PdbScopes &scopes = module.pdb.scopes;
  const PdbLines &lines = module.pdb.lines;
  const PeImage &image = module.image;
  if (!scopes.procedure_count || !lines.count) {
    fprintf(stderr, "bench_pdb_addr: %s: no procedures or no lines\n", argv[1]);
    return 1;
  }

  const u32 kQueries = 1000000;
  u64 state = 88172645463325252ull;
  auto next = [&state] { state ^= state << 13, state ^= state >> 7, state ^= state << 17; return state; };
  std::vector<u32> rvas(kQueries);
  for (u32 i = 0; i < kQueries; i++) {
    const PdbProcAddress &p = scopes.addresses[next() % scopes.procedure_count];
    if (i % 10 == 9 || p.section == 0 || p.section > image.section_count || p.end <= p.start)
      rvas[i] = (u32)(next() % image.size_of_image);
    else
      rvas[i] = image.sections[p.section - 1].virtual_address + p.start + (u32)(next() % (p.end - p.start));
  }

  ScopeQueryContext context;
  ScopeAtAddress scope;
  u64 procedures = 0, blocks = 0, found_lines = 0;
  u64 start = OsTimeMicroseconds(), cpu = ThreadCpuNanoseconds();
  for (u32 rva : rvas) {
    context.procedure_name[0] = 0;
    FindScopeAtAddress(&module, &context, module.load_base + rva, kScopeExact, &scope);
    procedures += scope.procedure != nullptr;
    blocks += scope.block != nullptr;
    found_lines += scope.line != 0;
  }
  double exact_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  double exact_cpu_ns = (double)(ThreadCpuNanoseconds() - cpu) / kQueries;
  u64 named = 0;
  start = OsTimeMicroseconds(), cpu = ThreadCpuNanoseconds();
  for (u32 rva : rvas) {
    context.procedure_name[0] = 0;
    FindScopeAtAddress(&module, &context, module.load_base + rva, kScopeProcedureOnly, &scope);
    named += context.procedure_name[0] != 0;
  }
  double procedure_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  double procedure_cpu_ns = (double)(ThreadCpuNanoseconds() - cpu) / kQueries;

  // Locals at an address: the scope lookup, then the innermost frame's variables with their places.
  u64 variables = 0;
  ScopeChain chain;
  start = OsTimeMicroseconds(), cpu = ThreadCpuNanoseconds();
  for (u32 rva : rvas) {
    FindScopeAtAddress(&module, nullptr, module.load_base + rva, kScopeExact, &scope);
    if (!scope.procedure) continue;
    PdbScopeChainAt(&module.pdb, scope.procedure, scope.offset, kScopeExact, &chain);
    PdbForEachLocal(&module.pdb, scope.procedure, &chain, scope.section, scope.offset, 0, CountLocal, &variables);
  }
  double locals_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  double locals_cpu_ns = (double)(ThreadCpuNanoseconds() - cpu) / kQueries;

  // Line breakpoints: the path as the user's source view holds it, hashed and looked up each time.
  std::vector<std::pair<const char *, u32>> line_keys(kQueries);
  for (u32 i = 0; i < kQueries; i++) {
    const PdbLineEntry &e = lines.by_file[next() % lines.count];
    u32 back = (u32)(next() % 13);
    u32 file = PdbLineFileOffset(&e);
    line_keys[i] = {file ? PdbStringAt(&module.pdb.strings, file) : "", e.line > back ? e.line - back : 1};
  }
  u64 bound = 0;
  start = OsTimeMicroseconds(), cpu = ThreadCpuNanoseconds();
  for (auto &[path, line] : line_keys) {
    u32 file = PdbFindSourceFile(&module.pdb.source_files, path);
    bound += file && PdbAddressOfLine(&lines, file, line) != nullptr;
  }
  double line_ns = (double)(OsTimeMicroseconds() - start) * 1000.0 / kQueries;
  double line_cpu_ns = (double)(ThreadCpuNanoseconds() - cpu) / kQueries;

  if (argc > 4) {
    FILE *subset = fopen(argv[3], "w");
    if (!subset) return 1;
    u32 count = (u32)atoi(argv[4]);
    for (u32 i = 0; i < count && i < kQueries; i++) fprintf(subset, "0x%X\n", rvas[i]);
    fclose(subset);
  }
  printf("load_ms_median %.2f\nload_ms_min %.2f\nprocedures %u\nline_entries %u\n", ms[ms.size() / 2], ms[0],
         scopes.procedure_count, lines.count);
  printf("exact_cpu_ns %.1f\nprocedure_line_cpu_ns %.1f\nline_to_address_cpu_ns %.1f\n", exact_cpu_ns, procedure_cpu_ns,
         line_cpu_ns);
  printf("lookups %u\nexact_ns %.1f\nwith_procedure %llu\nwith_block %llu\nwith_line %llu\n", kQueries, exact_ns,
         (unsigned long long)procedures, (unsigned long long)blocks, (unsigned long long)found_lines);
  printf("procedure_line_ns %.1f\nnamed %llu\n", procedure_ns, (unsigned long long)named);
  printf("locals_ns %.1f\nlocals_cpu_ns %.1f\nvariables %llu\n", locals_ns, locals_cpu_ns, (unsigned long long)variables);
  printf("line_to_address_ns %.1f\nline_bound %llu\n", line_ns, (unsigned long long)bound);
  UnloadModuleSymbols(&module);
  return 0;
}
