#!/usr/bin/env bash
# The source view as a user and an editor drive it: the demo's source opened through the command
# channel in a tab of its own, a breakpoint set by a click in the margin, F5 stopping there with the
# current line shown, Run to Cursor from the context menu, the channel's continue-execution and
# run-to-cursor, a stop in a file whose tab was closed opening it again, the caller's frame picked in
# the call stack marking its line, Find and Go to Line, a file
# changed on disk reloaded in its tab, and the session's open files and breakpoint back after a restart.
# usage: source_view_test.sh WINE_RUN KESTRUNE_EXE DEMO_EXE SOURCE_DIR OUT_DIR
set -u
wine_run=$1 exe=$2 demo=$3 source_dir=$4 out=$5
. "$(dirname "$0")/ui_test_lib.sh"
source="Z:$source_dir/examples/demo/demo.cpp"
step_line=$(line_of "StepParticles(&g_system")
count_line=$(line_of "InterlockedIncrement(&g_frames)")
sleep_line=$(line_of "Sleep(16)")

# A session whose target command runs the demo for 30 s.
work="$out/work.ktrn"
demo_session "$work" 30
start "Z:$work"
wait_for first-start "[window Output]"
forward open-file "$source" "$step_line"
wait_for opened "[window demo.cpp###001]"
expect opened "lines)" "cursor line $step_line column 1"
expect_not opened "current line"

# A click in the margin sets a breakpoint on the line (not bound: nothing runs yet).
click_until margin "$(margin_x opened)" "$(line_y opened "$step_line")" 1 "breakpoint line $step_line set"

# F5: the worker stops there; the tab shows the current line and the breakpoint bound. The demo's
# console window opens over ours (no window manager here): it is moved out of the way.
press_until hit "current line $step_line (top frame)" F5
expect hit "breakpoint line $step_line bound" "Program stopped because a user breakpoint was hit"
for w in $(xdotool search --name 'demo\.exe$' 2>/dev/null); do [ "$w" != "$window" ] && xdotool windowmove "$w" 1270 790; done
sleep 1

# The mouse resting on an identifier shows its value: "frame" (line 15, column 9) is 0 at the first stop.
frame_line=$(line_of "if (frame % 10 == 0)")
# A click there first: the launched demo took the keyboard focus, and the window is given it back.
xdotool mousemove --window "$window" "$(column_x hit 9)" "$(line_y hit "$frame_line")" click 1
wait_for hover "hover frame = 0"

# Right click on a later line, then "Run to Cursor" at the top of the context menu.
y=$(line_y hit "$sleep_line")
click_until context-menu "$(text_x hit)" "$y" 3 "[window ##txtmenu]"
expect context-menu "Run to Cursor" "Set Next Statement" "Add Watch"
xdotool mousemove --window "$window" $(($(text_x hit) + 30)) $((y + 12)) click 1
wait_for run-to-cursor "current line $sleep_line (top frame)"
expect run-to-cursor "run-to-cursor"

# The channel: continue-execution stops at the breakpoint again, run-to-cursor runs to a line.
forward continue-execution
wait_for continued "current line $step_line (top frame)"
forward run-to-cursor "$source" "$count_line"
wait_for channel-run-to "current line $count_line (top frame)"

# The tab closed, the next stop in its file opens it again (a new serial number) at the line.
forward close-file "$source"
wait_for tab-closed "[window Output]"
expect_not tab-closed "demo.cpp###"
forward continue-execution
wait_for reopened-at-stop "[window demo.cpp###002]"
expect reopened-at-stop "current line $step_line (top frame)"

# A stop in StepParticles opens particles.cpp; the caller's frame picked in the call stack brings
# demo.cpp back to the front with the call's line marked as the selected frame's.
forward add-breakpoint-at-function StepParticles
forward continue-execution
wait_for in-callee "[window particles.cpp###003]"
expect in-callee "(top frame)"
click_until callstack 815 223 1 "   int frames = "
expect callstack "| void Simulate(" ") Ln $step_line |"
xdotool mousemove --window "$window" 800 "$(frame_y callstack 1)" click 1
wait_for caller-frame "current line $step_line (selected frame)"
forward remove-breakpoint-at-function StepParticles
forward close-file "$(grep -m1 -o '^file .*particles.cpp' "$out/dumps/in-callee.txt" | cut -c6-)"

# Find: "interlockedincrement" ignores case and finds InterlockedIncrement; Go to Line moves the cursor.
press_until find "[window Find in File]" ctrl+f
xdotool type --delay 40 "interlockedincrement"
key Return
wait_for found "selection from line $count_line column 5"
expect found "cursor line $count_line column 25"
key Escape
press_until goto-line "[window Goto Line]" ctrl+g
key ctrl+a
xdotool type --delay 40 "3"
key Return
wait_for goto "cursor line 3 column 1"

forward stop-debugging
wait_for stopped "Program halted with exit code 0x00007E57" 30
expect_not stopped "current line"

# A file changed on disk is read again, in its own tab beside the first.
printf 'int a;\nint b;\n' > "$out/changed.c"
forward open-file "Z:$out/changed.c"
wait_for second-tab "[window changed.c###004]"
expect second-tab "(3 lines)"  # the empty line after the last line end counts
printf 'int c;\n' >> "$out/changed.c"
wait_for reloaded "(4 lines)"
forward close-file "Z:$out/changed.c"
wait_for closed "[window demo.cpp###002]"
expect_not closed "changed.c###"

# Saved at exit (Yes), the session brings back its open file and its breakpoint.
save_prompt_at_exit
xdotool windowfocus --sync "$prompt" 2>/dev/null
xdotool key --window "$prompt" Return
wait_exit
start "Z:$work"
wait_for restored "[window demo.cpp###001]"
expect restored "breakpoint line $step_line set"
expect_not restored "changed.c"
quit
echo PASS
