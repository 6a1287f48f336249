#!/usr/bin/env bash
# Builds and runs the engine benchmark under Wine:
#   bench/engine/run.sh [BUILD_DIR] [ROUNDS] [INT3S] [STRINGS] [THREADS] [HITS] [STEP_LOOP_ROUNDS]
set -eu
build=${1:-build/win}
nice -n 10 ninja -C "$build" -j2 bench_engine eng_target bench_hits >/dev/null
"$build/wine-run.sh" "$build/bin/bench_engine.exe" "${2:-5}" "${3:-5000}" "${4:-20000}" "${5:-2000}" "${6:-5000}" "${7:-2000}"
