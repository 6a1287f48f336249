#!/usr/bin/env bash
# Every executable of the Windows build has a PDB that llvm-pdbutil reads, matched to its image:
# the GUID in the PDB equals the one in the image's CodeView record.
# usage: pdb_summary_test.sh BUILD_DIR
set -u
build=$1
count=0
failed=0
for exe in "$build"/bin/*.exe "$build"/tests/targets/*.exe "$build"/tests/*.exe; do
  [ -f "$exe" ] || continue
  pdb="${exe%.exe}.pdb"
  count=$((count + 1))
  if [ ! -f "$pdb" ]; then echo "FAIL: no PDB beside $exe"; failed=1; continue; fi
  summary=$(llvm-pdbutil-14 dump -summary "$pdb" 2>&1) || { echo "FAIL: llvm-pdbutil cannot read $pdb"; failed=1; continue; }
  pdb_guid=$(printf '%s\n' "$summary" | awk '/GUID:/ {print $2}')
  # The image lists the GUID's 16 bytes as stored; the PDB tool prints it in registry form.
  image_guid=$(llvm-readobj-14 --coff-debug-directory "$exe" 2>/dev/null | grep -m1 'PDBGUID:' |
    sed 's/.*(\(.*\)).*/\1/' | python3 -c 'import sys, uuid; b = bytes.fromhex(sys.stdin.read()); print("{%s}" % str(uuid.UUID(bytes_le=b)).upper())' 2>/dev/null)
  if [ -z "$pdb_guid" ] || [ "${pdb_guid^^}" != "${image_guid^^}" ]; then
    echo "FAIL: $exe: image GUID '$image_guid', PDB GUID '$pdb_guid'"; failed=1
  fi
done
[ "$count" -ge 4 ] || { echo "FAIL: only $count executables found under $build"; exit 1; }
echo "$count executables, each with a matching PDB"
exit $failed
