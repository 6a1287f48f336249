#!/usr/bin/env bash
# PdbOpen on synthetic PDBs beside llvm-pdbutil and a plain read of the same file, in one run;
# then a million line queries each way beside std::upper_bound over the same entries; then the
# type stream's load time and a million type-by-name look-ups beside std::unordered_map; then module
# load and a million address lookups through the image beside llvm-symbolizer on the same
# addresses, and a million line-to-address queries from source paths.
#   bench/pdb/run.sh [RUNS]
# Builds the benchmarks in build/pdb-release (release, no sanitizers), makes the PDBs with
# bench/pdb/synthetic/make_pdb.sh into build/bench-pdb/{small,ref} when they are missing (small is
# 20 units of 50 functions, the reference 400 of 400 and a long build; KTRN_BENCH_PDB_DIR puts
# them elsewhere), and prints one table row per PDB. KTRN_BENCH_REF names another folder holding
# the reference synth.exe and synth.pdb (one made for another tree).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
runs=${1:-7}
build=$root/build/pdb-release
out=${KTRN_BENCH_PDB_DIR:-$root/build/bench-pdb}
make_pdb=$root/bench/pdb/synthetic/make_pdb.sh
ref=${KTRN_BENCH_REF:-$out/ref}
symbolizer_addresses=${KTRN_SYMBOLIZER_ADDRESSES:-20000}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-host-clang.cmake \
  -DCMAKE_BUILD_TYPE=Release -DKTRN_SANITIZE=OFF -DKTRN_FUZZ=OFF >/dev/null
ninja -C "$build" -j2 bench_pdb_open bench_pdb_addr >/dev/null

make_missing() {  # make_missing DIR UNITS FUNCTIONS
  if [ ! -f "$1/synth.pdb" ]; then
    echo "making $1 ($2 x $3) ..." >&2
    nice -n 19 "$make_pdb" "$2" "$3" "$1" 2 >&2
  fi
}
make_missing "$out/small" 20 50
make_missing "$ref" 400 400
dir_of() { if [ "$1" = ref ]; then echo "$ref"; else echo "$out/$1"; fi; }

value() { grep "^$1 " <<<"$2" | cut -d' ' -f2; }
median_pdbutil() {  # prints "seconds peak_kib", the median run of three by time
  for i in 1 2 3; do
    /usr/bin/time -f '%e %M' llvm-pdbutil-14 dump -globals -l "$1" 2>&1 >/dev/null | tail -1
  done | sort -n | sed -n 2p
}

echo "| PDB | file MB | read once ms | PdbOpen ms (median of $runs) | arena MB (x file) | peak RSS MB | llvm-pdbutil dump -globals -l s | llvm-pdbutil peak RSS MB |"
echo "|---|---|---|---|---|---|---|---|"
for name in small ref; do
  pdb=$(dir_of $name)/synth.pdb
  read=$("$build/bin/bench_pdb_open" read "$pdb" "$runs")
  load=$("$build/bin/bench_pdb_open" load "$pdb" "$runs")
  util=$(median_pdbutil "$pdb")
  bytes=$(value file_bytes "$read")
  arena=$(value arena_used_bytes "$load")
  awk -v n="$name" -v b="$bytes" -v r="$(value read_ms_median "$read")" -v l="$(value load_ms_median "$load")" \
      -v a="$arena" -v rss="$(value peak_rss_bytes "$load")" -v us="${util% *}" -v um="${util#* }" \
      'BEGIN { printf "| %s | %.1f | %.1f | %.1f | %.1f (%.2fx) | %.1f | %.2f | %.1f |\n", n, b/1048576, r, l, a/1048576, a/b, rss/1048576, us, um/1024 }'
done

echo
echo "| PDB | line entries | address to line ns | std::upper_bound over the entry starts ns | line to address ns |"
echo "|---|---|---|---|---|"
for name in small ref; do
  q=$("$build/bin/bench_pdb_open" lines "$(dir_of $name)/synth.pdb")
  echo "| $name | $(value line_entries "$q") | $(value address_to_line_ns "$q") | $(value reference_upper_bound_ns "$q") | $(value line_to_address_ns "$q") |"
done

echo
echo "| PDB | types | type stream load ms (median of $runs) | type arena MB | find type record ns | whole look-up ns | std::unordered_map ns | pointer-to ns | \"Name *\" look-up ns | a name found nowhere µs |"
echo "|---|---|---|---|---|---|---|---|---|---|"
for name in small ref; do
  q=$("$build/bin/bench_pdb_open" types "$(dir_of $name)/synth.pdb" "$runs")
  echo "| $name | $(value type_count "$q") | $(value type_load_ms_median "$q") | $(awk -v b="$(value type_arena_bytes "$q")" 'BEGIN { printf "%.1f", b/1048576 }') | $(value find_type_record_ns "$q") | $(value lookup_type_ns "$q") | $(value reference_unordered_map_ns "$q") | $(value pointer_to_ns "$q") | $(value pointer_lookup_ns "$q") | $(value missing_lookup_us "$q") |"
done
# Address lookups through the image: ours on a million addresses, llvm-symbolizer on the first
# $symbolizer_addresses of them and on one (its start-up and PDB load), so that its cost per
# address is the difference. kestrune.exe joins when the Windows build has made it.
seconds() { /usr/bin/time -f '%e' "$@" 2>&1 >/dev/null | tail -1; }
echo
echo "| image | module load ms (median of $runs) | FindScopeAtAddress exact ns (wall / thread CPU) | procedure and line ns (wall / CPU) | addresses in a procedure / with a line | path + line to address ns (wall / CPU) | locals at an address ns (wall / CPU; variables) | llvm-symbolizer, 1 address s | llvm-symbolizer, $symbolizer_addresses addresses s | llvm-symbolizer per address µs |"
echo "|---|---|---|---|---|---|---|---|---|---|"
images=("small:$out/small/synth.exe" "ref:$ref/synth.exe")
[ -f "$root/build/win/bin/kestrune.exe" ] && images+=("kestrune.exe:$root/build/win/bin/kestrune.exe")
subset=$(mktemp)
one=$(mktemp)
for item in "${images[@]}"; do
  name=${item%%:*} exe=${item#*:}
  q=$("$build/bin/bench_pdb_addr" "$exe" "$runs" "$subset" "$symbolizer_addresses")
  head -1 "$subset" >"$one"
  flags=(--obj="$exe" --relative-address --functions=short --no-inlines)
  s1=$(seconds llvm-symbolizer-14 "${flags[@]}" <"$one")
  sn=$(seconds llvm-symbolizer-14 "${flags[@]}" <"$subset")
  awk -v n="$name" -v l="$(value load_ms_median "$q")" -v e="$(value exact_ns "$q")" -v p="$(value procedure_line_ns "$q")" \
      -v ec="$(value exact_cpu_ns "$q")" -v pc="$(value procedure_line_cpu_ns "$q")" -v lc="$(value line_to_address_cpu_ns "$q")" \
      -v wp="$(value with_procedure "$q")" -v wl="$(value with_line "$q")" -v la="$(value line_to_address_ns "$q")" \
      -v lo="$(value locals_ns "$q")" -v loc="$(value locals_cpu_ns "$q")" -v v="$(value variables "$q")" \
      -v s1="$s1" -v sn="$sn" -v k="$symbolizer_addresses" \
      'BEGIN { printf "| %s | %.1f | %.0f / %.0f | %.0f / %.0f | %d / %d | %.0f / %.0f | %.0f / %.0f; %d | %.2f | %.2f | %.0f |\n", n, l, e, ec, p, pc, wp, wl, la, lc, lo, loc, v, s1, sn, (sn - s1) * 1e6 / (k - 1) }'
done
rm -f "$subset" "$one"
