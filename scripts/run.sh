#!/usr/bin/env bash
# Sets up the machine (if needed), builds kestrune.exe and the demo program, and runs Kestrune
# under Wine with the demo as its target. On a machine without a display it uses a virtual one,
# saves a screenshot to build/win/kestrune-screenshot.png, and closes the program again.
# Extra arguments replace the demo: scripts/run.sh path/to/program.exe [args...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
cmake -S . -B build/win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-windows-clang.cmake >/dev/null
ninja -C build/win kestrune demo

if [ $# -gt 0 ]; then
  target=("$@")
  case "${target[0]}" in /*) target[0]="Z:${target[0]}";; esac
else
  target=("Z:$root/build/win/bin/demo.exe")
fi
exe="$root/build/win/bin/kestrune.exe"

if [ -n "${DISPLAY:-}" ] && xdpyinfo >/dev/null 2>&1 || xdotool getmouselocation >/dev/null 2>&1; then
  exec build/win/wine-run.sh "$exe" "${target[@]}"
fi

echo "run: no display; using a virtual one"
exec 5< <(Xvfb -displayfd 1 -screen 0 1280x800x24 -nolisten tcp 2>/dev/null)
xvfb_pid=$!
read -r -t 20 display <&5
export DISPLAY=":$display"
build/win/wine-run.sh "$exe" "${target[@]}" &
app=$!
window=
for _ in $(seq 1 120); do
  window=$(xdotool search --name " - Kestrune\$" 2>/dev/null | head -n 1 || true)
  [ -n "$window" ] && break
  sleep 0.5
done
sleep 2
shot="$root/build/win/kestrune-screenshot.png"
if [ -n "$window" ] && import -window root "$shot"; then
  echo "run: Kestrune is up; screenshot saved to $shot"
  status=0
else
  echo "run: Kestrune's window did not appear" >&2
  status=1
fi
kill "$app" 2>/dev/null || true
wait "$app" 2>/dev/null || true
kill "$xvfb_pid" 2>/dev/null || true
exit $status
