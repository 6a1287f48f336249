#!/usr/bin/env bash
# Sets up the machine (if needed), builds everything and runs every test:
#   build/win  - Windows build (kestrune.exe, tools, test programs, tests under Wine and Xvfb)
#   build/host - host build of the portable layers with ASan+UBSan and libFuzzer
# Prints how long each step took. Exit status 0 only when every test passed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${KTRN_JOBS:-$(nproc)}
summary=()
step() {  # step NAME COMMAND...: runs a command and records its duration
  local name=$1; shift
  local start=$(date +%s)
  echo "==> $name"
  local rc=0
  "$@" || rc=$?
  local secs=$(( $(date +%s) - start ))
  summary+=("$(printf '%-28s %5ds  %s' "$name" "$secs" "$([ $rc = 0 ] && echo ok || echo FAILED)")")
  return $rc
}
report() {
  echo; echo "==> time per step"
  printf '%s\n' "${summary[@]}"
}
trap report EXIT

step "setup" bash scripts/setup.sh
step "configure windows" cmake -S . -B build/win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-windows-clang.cmake >/dev/null
step "build windows" ninja -C build/win -j "$jobs"
step "configure host" cmake -S . -B build/host -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-host-clang.cmake \
  -DKTRN_SANITIZE=ON -DKTRN_FUZZ=ON -DKTRN_TARGETS_DIR="$root/build/win/tests/targets" >/dev/null
step "build host" ninja -C build/host -j "$jobs"

failed=0
for group in host fuzz; do
  step "test host: $group" ctest --test-dir build/host -L "^$group\$" -j "$jobs" --output-on-failure || failed=1
done
# Programs under Wine run one test program at a time: Wine 8 has been seen to fail a
# CreateProcess (ERROR_INTERNAL_ERROR) while another test program starts many debuggees at once,
# and the window tests share one wineserver, whose focus changes can swallow a key of the other.
for group in wine ui; do
  step "test windows: $group" ctest --test-dir build/win -L "^$group\$" -j 1 --output-on-failure || failed=1
done
exit $failed
