#!/usr/bin/env bash
# A day's debugging of the demo in kestrune.exe, driven as a user does (keys, clicks, menus) and then
# as an editor does (a second instance's channel commands); each step asserted on the windows' text
# dumps, with a screenshot beside each in OUT_DIR. The values shown are checked against what the
# demo prints: its loop counter against "second N", the count a watch shows against the next line
# printed, TotalEnergy's energy against the line's energy.
# usage: e2e_test.sh WINE_RUN KESTRUNE_EXE DEMO_EXE SOURCE_DIR OUT_DIR
set -u
wine_run=$1 exe=$2 demo=$3 source_dir=$4 out=$5
. "$(dirname "$0")/ui_test_lib.sh"
source="Z:$source_dir/examples/demo/demo.cpp"
format_line=$(line_of "snprintf(line")
flush_line=$(line_of "fflush(stdout)")
sleep_line=$(line_of "Sleep(1000)")

# 1. The demo's session (30 seconds), opened as the program's argument.
work="$out/work.ktrn"
demo_session "$work" 30
start "Z:$work"
wait_for 1-session "[window Output]"

# 2. demo.cpp opened (as an editor hands it over), a click in the margin at main's fflush line.
forward open-file "$source" "$flush_line"
wait_for 2-opened "[window demo.cpp###001]"
click_until 2-breakpoint "$(margin_x 2-opened)" "$(line_y 2-opened "$flush_line")" 1 "breakpoint line $flush_line set"

# 3. F5: main stops there in its first second, having printed "second 1: ..." (s + 1) into the
# output window; seconds is the session's argument.
press_until 3-stopped "current line $flush_line (top frame)" F5
move_console
expect 3-stopped "breakpoint line $flush_line bound"
printed=$(grep -o 'second 1: [0-9]* particles, energy [0-9.-]*' "$out/dumps/3-stopped.txt")
[ -n "$printed" ] || fail "the demo's line is not in the output window"
click_until 3-locals 754 400 1 "| seconds | 30 | int |"
expect 3-locals "| s | 0 | int |" "| argc | 2 | int |"
click_until 3-callstack 815 223 1 "| int main("
expect 3-callstack "   int argc = 2," "Ln $flush_line |"

# 4. F10 three times: round the loop (s becomes 1) and over the second's Sleep, to the formatting.
n=0
for at in $(line_of "for (int s = 0") "$sleep_line" "$format_line"; do
  n=$((n + 1))
  xdotool mousemove --window "$window" 754 400 click 1  # Wine gives the keyboard to the demo's console
  press_until "4-step$n" "current line $at (top frame)" F10
done
click_until 4-locals 754 400 1 "| s | 1 | int |"
expect 4-locals "| seconds | 30 | int |"

# 5. Watch 1: seconds in hexadecimal, line as text (still the first second's), and g_system expanded
# to the count main formats next (the worker frozen by its "F" in the threads window, so it stays).
for _ in 1 2 3; do
  xdotool mousemove --window "$window" 715 107 click 1
  sleep 0.5
  dump 5-frozen
  case $(convert "$out/5-frozen.png" -format "%[pixel:p{709,103}]" info:) in
    "srgb(255,81,1)" | "srgb(216,35,35)") break ;;  # red: frozen (hovered or not)
  esac
done
click_until 5-watch 573 400 1 "[window Watch 1]"
y=443
for text in "seconds, x" "line, str" g_system; do
  click_until "5-edit-$y" 600 $y 1 "[edit]"
  xdotool type --delay 60 "$text"
  key Return
  wait_for "5-added-$y" "| $text |" 10
  y=$((y + 18))
done
wait_for 5-watches "| g_system | { ... } | ParticleSystem |" 10
expect 5-watches "| seconds, x | 0x1e | int |" "$printed"
click_until 5-expanded 541 479 1 "|   count | "
value_of 5-count "  count"
count=$value
[[ "$count" =~ ^[0-9]+$ ]] || fail "g_system.count is '$count'"

# 6. The caller's frame picked in the call stack: the locals window follows it, and back.
click_until 6-callstack 815 223 1 "| int main("
xdotool mousemove --window "$window" 760 "$(frame_y 6-callstack 1)" click 1
click_until 6-caller-locals 754 400 1 "[window Locals]"
expect 6-caller-locals "No local variables found in current frame"
click_until 6-main 815 223 1 "| int main("
xdotool mousemove --window "$window" 760 "$(frame_y 6-main 0)" click 1
click_until 6-main-locals 754 400 1 "| seconds | 30 | int |"

# 7. Run to Cursor from the context menu of the fputs line (short of the breakpoint): the demo has
# formatted and handed out its second line, with the count the watch showed.
put_line=$(line_of "fputs(line")
y=$(line_y 2-opened "$put_line")
click_until 7-context-menu "$(text_x 2-opened)" "$y" 3 "[window ##txtmenu]"
xdotool mousemove --window "$window" $(($(text_x 2-opened) + 30)) $((y + 12)) click 1
wait_for 7-run-to-cursor "current line $put_line (top frame)"
expect 7-run-to-cursor "second 2: $count particles"
click_until 7-watch 573 400 1 "| line, str |"
grep -F "| line, str |" "$out/dumps/7-watch.txt" | grep -qF "second 2: $count particles" || fail "line does not hold the second line"

# 8. Shift+F5 ends the run (a click on the output window first: the keyboard is the console's).
xdotool mousemove --window "$window" 200 500 click 1
press_until 8-stopped "Program halted" shift+F5
wait_for 8-stopped "Program halted with exit code" 30
expect_not 8-stopped "current line"

# 9. Saved at exit (Yes), then kestrune.exe again: the breakpoint, the watches and the open file back.
save_prompt_at_exit
xdotool windowfocus --sync "$prompt" 2>/dev/null
xdotool key --window "$prompt" Return
wait_exit
start "Z:$work"
wait_for 9-restored "[window demo.cpp###001]"
expect 9-restored "breakpoint line $flush_line set"
click_until 9-watches 573 400 1 "| seconds, x |"
expect 9-watches "| line, str |" "| g_system |"

# The same day as an editor drives it: particles.cpp opened with a breakpoint where TotalEnergy
# returns. The run stops there first (its energy is the one the demo prints), continues to main's
# fflush breakpoint after the print, runs to the next second's Sleep and ends.
particles="Z:$source_dir/examples/demo/particles.cpp"
return_line=$(grep -n -F "return energy;" "$source_dir/examples/demo/particles.cpp" | cut -d: -f1)
forward open-file "$particles"
wait_for c-opened "[window particles.cpp###002]"
forward add-breakpoint-at-file "$particles" "$return_line"
wait_for c-breakpoint "breakpoint line $return_line set"
forward start-debugging
wait_for c-started "current line $return_line (top frame)" 60
move_console
click_until c-energy 754 400 1 "| energy |"
value_of c-energy energy
energy=$(printf '%.1f' "$value")
forward continue-execution
wait_for c-continued "current line $flush_line (top frame)"
expect c-continued "particles, energy $energy"
forward run-to-cursor "$source" "$sleep_line"
wait_for c-run-to "current line $sleep_line (top frame)"
click_until c-locals 754 400 1 "| s | 1 | int |"
forward stop-debugging
wait_for c-stopped "Program halted with exit code" 30
save_prompt_at_exit
xdotool windowfocus --sync "$prompt" 2>/dev/null
xdotool key --window "$prompt" n
wait_exit
echo "PASS ($(ls "$out"/*.png | wc -l) screenshots and their dumps in $out)"
