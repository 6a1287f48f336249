#!/bin/sh
# ktrn-session against its golden outputs: print of a current and an old file, a byte-exact round
# trip, and the empty session for a file that cannot be read.
set -u
tool=$1
here=$(cd "$(dirname "$0")" && pwd)
seeds=$here/fuzz/seeds/session
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail=0
check() { if ! "$@"; then echo "FAILED: $*"; fail=1; fi; }

"$tool" print "$seeds/rich.ktrn" > "$work/rich.txt"
check diff -u "$here/golden/rich.print.txt" "$work/rich.txt"
"$tool" print "$seeds/old_without_12_to_15.ktrn" > "$work/old.txt"
check diff -u "$here/golden/old.print.txt" "$work/old.txt"

check "$tool" roundtrip "$seeds/rich.ktrn" "$work/rich.ktrn"
check cmp "$seeds/rich.ktrn" "$work/rich.ktrn"
check "$tool" roundtrip "$seeds/old_without_12_to_15.ktrn" "$work/upgraded.ktrn"
"$tool" print "$work/upgraded.ktrn" > "$work/upgraded.txt"
check grep -q '^\[15\] target 2 halts at the nominal entry point$' "$work/upgraded.txt"

"$tool" print "$work/none.ktrn" > "$work/none.txt" 2> "$work/none.err"
check test $? -eq 1
check grep -qx '(empty session)' "$work/none.txt"
check grep -q 'using an empty session' "$work/none.err"
"$tool" roundtrip "$work/none.ktrn" "$work/empty.ktrn" 2> /dev/null
check test $? -eq 1
check cmp "$seeds/empty.ktrn" "$work/empty.ktrn"

"$tool" > /dev/null 2>&1
check test $? -eq 2
exit $fail
