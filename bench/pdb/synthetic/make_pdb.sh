#!/usr/bin/env bash
# Makes OUT_DIR/synth.exe and OUT_DIR/synth.pdb: the synthetic program of write_program.py, UNITS
# units of FUNCTIONS functions each, compiled by clang-cl 14 for the MSVC ABI with CodeView in the
# objects (/Z7, optimised for size) and linked by lld-link 14 with a PDB. Freestanding: no SDK, no
# C runtime, its own entry point.
#   bench/pdb/synthetic/make_pdb.sh UNITS FUNCTIONS OUT_DIR [JOBS]
# The reference of the PDB benchmarks is 400 400 (a 254 MiB PDB; about half an hour with two
# compilers: run it at low priority); 20 50 makes a 1.7 MiB one in seconds. JOBS compilers run at
# once (2 unless given).
# The sources stay in OUT_DIR/src, so the paths in the PDB name files that exist; the objects are
# deleted once linked.
set -euo pipefail
if [ $# -lt 3 ]; then
  echo "usage: $0 UNITS FUNCTIONS OUT_DIR [JOBS]" >&2
  exit 2
fi
units=$1 functions=$2 out=$(realpath -m "$3") jobs=${4:-2}
here=$(cd "$(dirname "$0")" && pwd)

mkdir -p "$out"
rm -rf "$out/src" "$out/obj" "$out/synth.exe" "$out/synth.pdb"
mkdir -p "$out/obj"
python3 "$here/write_program.py" "$units" "$functions" "$out/src"

# /GS- and /GR-: no stack cookies or run-time type information, which would need the C runtime.
compile_flags=(--target=x86_64-pc-windows-msvc /c /Z7 /O1 /GS- /GR- /W0)
export out
printf '%s\n' "$out"/src/*.cpp |
  xargs -P "$jobs" -I{} sh -c 'f={}; b=${f##*/}; exec clang-cl-14 "$@" /Fo"$out/obj/${b%.cpp}.obj" -- "$f"' \
    compile "${compile_flags[@]}"

# /Brepro: a time stamp and PDB signature drawn from the contents, so the same sources give the
# same image and PDB.
lld-link-14 /debug /nodefaultlib /entry:synth_start /subsystem:console /Brepro \
  /out:"$out/synth.exe" /pdb:"$out/synth.pdb" "$out"/obj/*.obj
rm -rf "$out/obj"
ls -l "$out/synth.exe" "$out/synth.pdb"
