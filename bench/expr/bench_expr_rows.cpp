// Watch rows at one stop: ROWS watches of "a.b.c[k]", each parsed once into a pool of its own (as
// the engine keeps them), evaluated into their rows (value, type and value texts) against the
// fixed image of the evaluator's tests, median of ROUNDS rounds:
//   bench_expr_rows [ROUNDS] [ROWS]
// Reference in the same run: the same number of memory reads through the same host callback,
// with nothing evaluated, so that what the evaluator adds to the reads shows. The image answers
// reads from memory; a real target's reads cost what the engine's cache makes of them.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <vector>

#include "eval_image.h"
#include "expr/expr_parser.h"
#include "expr/expr_row.h"

static u64 Nanoseconds(clockid_t clock) {
  timespec t;
  clock_gettime(clock, &t);
  return (u64)t.tv_sec * 1000000000ull + (u64)t.tv_nsec;
}

static double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

int main(int argc, char **argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 21;
  int count = argc > 2 ? atoi(argv[2]) : 1000;
  if (rounds < 1 || count < 1) {
    fprintf(stderr, "usage: bench_expr_rows [ROUNDS] [ROWS]\n");
    return 2;
  }
  static eval_image::Image image;
  eval_image::Fill(&image);
  ExprEvalHost host = eval_image::Host(&image);
  const char *text = "a.b.c[k]";
  std::vector<ExprPool> pools((size_t)count);
  std::vector<ExprParseResult> trees((size_t)count);
  u64 parse_start = Nanoseconds(CLOCK_MONOTONIC);
  for (int i = 0; i < count; i++) {
    InitExprPool(&pools[i]);
    if (!ExprParse(&pools[i], text, &trees[i])) {
      fprintf(stderr, "bench_expr_rows: %s does not parse\n", text);
      return 1;
    }
  }
  double parse_us = (double)(Nanoseconds(CLOCK_MONOTONIC) - parse_start) / 1000.0;

  std::vector<double> rows_us, rows_cpu_us, reads_us;
  u32 reads_per_stop = 0;
  ExprRow row;
  for (int r = 0; r < rounds; r++) {
    image.reads = 0;
    u64 start = Nanoseconds(CLOCK_MONOTONIC), cpu = Nanoseconds(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < count; i++) {
      ExprEvalContext context = {&host, 0, {}, nullptr};
      ExprEvaluateRow(&context, text, trees[i].tree, trees[i].format, 0, &row);
    }
    rows_us.push_back((double)(Nanoseconds(CLOCK_MONOTONIC) - start) / 1000.0);
    rows_cpu_us.push_back((double)(Nanoseconds(CLOCK_THREAD_CPUTIME_ID) - cpu) / 1000.0);
    reads_per_stop = image.reads;
    if (row.failed || row.value_text[0] != '1') {
      fprintf(stderr, "bench_expr_rows: %s gave %s\n", text, row.value_text);
      return 1;
    }
    // The reference: the same reads, of the same sizes, with nothing evaluated.
    u8 bytes[8];
    start = Nanoseconds(CLOCK_MONOTONIC);
    for (u32 i = 0; i < reads_per_stop; i++) host.read_memory(host.context, 0x10124 - (i & 1) * 4, bytes, 4);
    reads_us.push_back((double)(Nanoseconds(CLOCK_MONOTONIC) - start) / 1000.0);
  }
  printf("rows %d\nrounds %d\nparse_us %.1f\nrows_us_median %.1f\nrows_cpu_us_median %.1f\nreads_per_stop %u\n"
         "reads_alone_us_median %.1f\nrow_ns %.0f\n",
         count, rounds, parse_us, Median(rows_us), Median(rows_cpu_us), reads_per_stop, Median(reads_us),
         Median(rows_us) * 1000.0 / count);
  return 0;
}
