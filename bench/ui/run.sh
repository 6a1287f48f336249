#!/usr/bin/env bash
# kestrune.exe beside a bare Dear ImGui + Direct3D 11 window, under Wine on a private Xvfb display:
# start-up to the first presented frame, CPU per frame, and CPU while left idle. Each round runs
# the bare window, kestrune.exe with an empty output window, kestrune.exe with OUTPUT_LINES
# lines in it, and kestrune.exe with a source file of OUTPUT_LINES lines open in a tab and scrolled
# a page every frame, in that order; the medians of the rounds are printed.
#   bench/ui/run.sh [BUILD_DIR] [ROUNDS] [FRAMES] [IDLE_MS] [OUTPUT_LINES]
set -eu
build=$(cd "${1:-build/win}" && pwd)
rounds=${2:-5} frames=${3:-300} idle_ms=${4:-3000} lines=${5:-100000}
nice -n 10 ninja -C "$build" -j2 kestrune bench_bare_window bench_stopped >/dev/null
work=$(mktemp -d)
exec 5< <(Xvfb -displayfd 1 -screen 0 1280x800x24 -nolisten tcp 2>/dev/null)
xvfb_pid=$!
trap 'kill $xvfb_pid 2>/dev/null; rm -rf "$work"' EXIT
read -r -t 20 display <&5
export DISPLAY=":$display" KTRN_BENCH_FRAMES=$frames KTRN_BENCH_IDLE_MS=$idle_ms
gen="$build/app/generated"
"$build/wine-run.sh" "$build/bin/kestrune.exe" --settings "Z:$work/warm" -q >/dev/null 2>&1 &  # warm Wine up
warm_pid=$!
sleep 5; kill $warm_pid 2>/dev/null || true; wait $warm_pid 2>/dev/null || true
python3 - "$work/big.c" "$lines" <<'PY'
import sys
with open(sys.argv[1], 'w') as f:
    for i in range(int(sys.argv[2])):
        f.write("\tparticles[%d].x += particles[%d].vx * dt; /* step %d */\n" % (i % 512, i % 512, i))
PY

run() {  # run NAME COMMAND...: one measured run; its result line is appended to $work/NAME
  local name=$1; shift
  rm -f "$work/out.txt"
  KTRN_BENCH_OUT="Z:$work/out.txt" timeout 300 "$@" >/dev/null 2>&1 || true
  [ -f "$work/out.txt" ] && cat "$work/out.txt" >> "$work/$name" || echo "failed" >> "$work/$name"
}
for round in $(seq 1 "$rounds"); do
  run bare "$build/wine-run.sh" "$build/bin/bench_bare_window.exe" "Z:$gen/ui_vs.dxbc" "Z:$gen/ui_ps.dxbc"
  rm -rf "$work/settings"; mkdir -p "$work/settings"
  run kestrune "$build/wine-run.sh" "$build/bin/kestrune.exe" --settings "Z:$work/settings"
  rm -rf "$work/settings"; mkdir -p "$work/settings"
  KTRN_BENCH_OUTPUT_LINES=$lines run kestrune_output "$build/wine-run.sh" "$build/bin/kestrune.exe" --settings "Z:$work/settings"
  rm -rf "$work/settings"; mkdir -p "$work/settings"
  KTRN_BENCH_SOURCE="Z:$work/big.c" run kestrune_source "$build/wine-run.sh" "$build/bin/kestrune.exe" --settings "Z:$work/settings"
  # Stopped in bench_stopped.exe (2,000 threads listed, a 10,000-deep recursion in the call stack,
  # a million-element array expanded in Watch 1) with the 100k-line source scrolled.
  rm -rf "$work/settings"; mkdir -p "$work/settings"
  KTRN_BENCH_STOPPED=1 KTRN_BENCH_SOURCE="Z:$work/big.c" run kestrune_stopped "$build/wine-run.sh" \
    "$build/bin/kestrune.exe" --settings "Z:$work/settings" -g "Z:$build/bench/bench_stopped.exe"
done

echo "UI benchmark: $rounds rounds, $frames frames measured, then $idle_ms ms idle; medians (load $(cut -d' ' -f1-3 /proc/loadavg))"
printf '%-40s %16s %18s %20s %18s %18s\n' "program" "first frame (ms)" "CPU per frame (us)" "frame built in (us)" "CPU while idle (%)" "idle frames per s"
for name in bare kestrune kestrune_output kestrune_source kestrune_stopped; do
  label=$name
  [ "$name" = kestrune_output ] && label="kestrune, $lines output lines"
  [ "$name" = kestrune_source ] && label="kestrune, $lines-line source scrolled"
  [ "$name" = kestrune_stopped ] && label="kestrune stopped, all four large cases"
  python3 - "$work/$name" "$label" <<'PY'
import statistics, sys
rows = [dict(zip(l.split()[::2], map(float, l.split()[1::2]))) for l in open(sys.argv[1]) if l.strip() != "failed"]
if not rows:
    print("%-40s %s" % (sys.argv[2], "every run failed")); sys.exit()
m = lambda k: statistics.median(r[k] for r in rows)
print("%-40s %16.1f %18.1f %20.1f %18.1f %18.1f%s" % (sys.argv[2], m("first_frame_ms"), m("cpu_per_frame_us"),
      m("build_per_frame_us"), m("idle_cpu_percent"), m("idle_frames_per_s"),
      "   stop to its frame: %.1f ms" % m("hit_to_frame_ms") if "hit_to_frame_ms" in rows[0] else ""))
PY
done
