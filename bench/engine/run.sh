#!/usr/bin/env bash
# Builds and runs the engine benchmark under Wine:
#   bench/engine/run.sh [BUILD_DIR] [ROUNDS] [INT3S] [STRINGS] [THREADS]
set -eu
build=${1:-build/win}
ninja -C "$build" -j2 bench_engine eng_target >/dev/null
"$build/wine-run.sh" "$build/bin/bench_engine.exe" "${2:-5}" "${3:-5000}" "${4:-20000}" "${5:-2000}"
