#!/usr/bin/env bash
# The watch windows and the locals window at a stop of the demo, as a user works them: rows typed
# into "Watch 1", F5 to a breakpoint in TotalEnergy, a value against what the demo then prints, a
# matrix shown by rows and by columns, a structure expanded, "Format As" > "Hexadecimal (lower)"
# from the rows' menu, rows that say why they have no value, the locals window following the frame
# chosen in the call stack, values kept (dimmed) while the demo runs on and drawn red at the next
# stop when they changed, and the rows back after a restart.
# usage: watch_test.sh WINE_RUN KESTRUNE_EXE DEMO_EXE OUT_DIR
set -u
wine_run=$1 exe=$2 demo=$3 out=$4
. "$(dirname "$0")/ui_test_lib.sh"
work="$out/work.ktrn"

# A session whose target command runs the demo for 30 seconds.
demo_session "$work" 30

start "Z:$work"
wait_for start "[window Watch 1]"

# Rows typed into the line below the last row (a click opens it for editing, Enter adds the row).
y=443
for text in g_system.seed g_system g_system.count no_such_name "1 +" "g_system.particles, mtx3x4"; do
  click_until "edit-$y" 600 $y 1 "[edit]"
  xdotool type --delay 60 "$text"
  key Return
  wait_for "added-$y" "| $text |" 10
  y=$((y + 18))
done

forward add-breakpoint-at-function TotalEnergy
press_until stopped "[SUSPENDED]" F5
# The demo's console window opens over ours (no window manager here): move it out of the way.
for w in $(xdotool search --name 'demo\.exe$' 2>/dev/null); do
  [ "$w" != "$window" ] && xdotool windowmove "$w" 1270 790
done
wait_for stopped "| g_system | { ... } | ParticleSystem |" 30
expect stopped "| no_such_name | Identifier \"no_such_name\" not found |  |" "| 1 + | Parse error |  |"
count=$(cell stopped g_system.count)
seed=$(cell stopped g_system.seed)
[[ "$count" =~ ^[0-9]+$ && "$seed" =~ ^[0-9]+$ ]] || fail "g_system.count is '$count', g_system.seed '$seed'"

# The particles' floats as a 3x4 matrix, expanded: its rows; with "Column Major Display" from the
# rows' menu (it opens upward there), its rows are its columns, which must be the rows turned over.
# The window has room for two of its rows: the wheel scrolls them into view, and back after.
click_until matrix-open 541 533 1 "|   [0] |"
click_until matrix 600 500 5 "|   [2] |"
click_until matrix-menu 600 500 3 "[window watch menu]"
xdotool mousemove --window "$window" 680 446 click 1
wait_for column-major "|   col 3 |" 20
for _ in 1 2 3 4 5; do xdotool mousemove --window "$window" 600 500 click 4; sleep 0.2; done
python3 - "$out/dumps/matrix.txt" "$out/dumps/column-major.txt" <<'PY' || fail "the matrix's columns are not its rows turned over"
import re, sys
def rows(path, label):
    found = {}
    for line in open(path):
        m = re.match(r'\|   ((?:\[|col )\d\]?) \| \{ (.*) \} \| float \[\d\] \|', line)
        if m and m.group(1).startswith(label): found[m.group(1)] = m.group(2).split(', ')
    return [found[k] for k in sorted(found)]
r, c = rows(sys.argv[1], '['), rows(sys.argv[2], 'col')
sys.exit(not (len(r) == 3 and len(c) == 4 and c == [list(column) for column in zip(*r)]))
PY

# g_system expanded: its members, the count among them.
click_until expanded 541 461 1 "|   count | $count | int |"
expect expanded "|   particles | { ... } | Particle [256] |" "|   seed | $seed | unsigned int |"

# "Format As" > "Hexadecimal (lower)" on the selected g_system.seed row.
xdotool mousemove --window "$window" 600 443 click 1
click_until menu 600 443 3 "[window watch menu]"
xdotool mousemove --window "$window" 640 463
wait_for format-menu "Hexadecimal (lower) x" 10
xdotool mousemove --window "$window" 450 497 click 1
hex=$(printf '0x%x' "$seed")
wait_for hexadecimal "| g_system.seed, x | $hex | unsigned int |" 20

# The locals window: TotalEnergy's parameter and local.
click_until locals 754 400 1 "| system |"
expect locals "| energy |"
# main's frame chosen in the call stack: the locals window follows it (30 seconds, as the demo was told).
click_until callstack 815 223 1 "| int main("
click_until main-frame 760 "$(frame_y callstack 1)" 1 "| seconds | 30 | int |"
click_until watch-again 573 400 1 "| g_system.seed, x |"

# On to the next second's stop: the rows keep their values while the demo runs, and the demo
# prints the count the watch showed.
press_until running "[EXECUTING]" F5
expect running "| g_system.seed, x | $hex | unsigned int |"
wait_for printed "second 1: " 30
grep -qF "second 1: $count particles" "$out/dumps/printed.txt" || fail "the demo printed another count than $count"
# The next second's stop: the count changed, and its value is drawn red.
wait_for second-stop "[SUSPENDED]" 30
wait_for second-stop "| g_system.count |" 10
[ "$(cell second-stop g_system.count)" != "$count" ] || fail "the count did not change between the stops"
red=$(convert "$out/second-stop.png" -crop 60x14+668+521 txt:- | grep -c "#FF5959")
[ "$red" -gt 0 ] || fail "the changed count is not drawn red"
forward stop-debugging
wait_for stopped-debugging "Program halted" 30

# Saved (Ctrl+S) and read again at the next start.
for _ in 1 2 3; do
  key ctrl+s
  sleep 1
  [ "$(xdotool getwindowname "$window")" = "work.ktrn - Kestrune" ] && break
done
[ "$(xdotool getwindowname "$window")" = "work.ktrn - Kestrune" ] || fail "Ctrl+S did not save the session: title $(xdotool getwindowname "$window")"
quit
start "Z:$work"
click_until restored 573 400 1 "| g_system.seed, x |"
wait_for restored "| 1 + |" 10  # the first frames lay the window out
expect restored "| g_system |" "| g_system.count |" "| no_such_name |"
quit
echo PASS
