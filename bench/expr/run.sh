#!/usr/bin/env bash
# Watch rows at one stop: 1,000 rows of "a.b.c[k]" against the evaluator's fixed image, beside the
# same number of memory reads alone, in one run.
#   bench/expr/run.sh [ROUNDS] [ROWS]
# Builds the benchmark in build/expr-release (release, no sanitizers).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$root/build/expr-release
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-host-clang.cmake \
  -DCMAKE_BUILD_TYPE=Release -DKTRN_SANITIZE=OFF -DKTRN_FUZZ=OFF >/dev/null
nice ninja -C "$build" -j2 bench_expr_rows >/dev/null
"$build/bin/bench_expr_rows" "${1:-21}" "${2:-1000}"
