#!/usr/bin/env bash
# The call stack, threads and modules windows at a stop of the demo, as a user gets there: F5,
# Control > Break once the demo prints, then the windows' text (a screenshot beside each dump).
# Modules: demo.exe with its symbols, ntdll without; threads: the main thread current, the worker
# listed; call stack: the main thread's chain down to main, then the worker's after a double click;
# a session breakpoint added between runs binds when the next run starts.
# Selection: the keys, Shift+ and Ctrl+click, Ctrl+A, and Copy (by Ctrl+C and from the context menu)
# with the clipboard's text after it.
# usage: target_windows_test.sh WINE_RUN KESTRUNE_EXE DEMO_EXE OUT_DIR
set -u
wine_run=$1 exe=$2 demo=$3 out=$4
. "$(dirname "$0")/ui_test_lib.sh"

# selected STEP WINDOW: the window's selected rows by their first text cell past the ID, comma-ended.
selected() {
  sed -n "/^\[window $2\]/,/^\[window /p" "$out/dumps/$1.txt" | grep -F '(selected) |' |
    awk -F ' [|] ' -v c="$([ "$2" = Threads ] && echo 4 || echo 1)" '{sub(/^[|] /, "", $c); sub(/ [(]selected[)]$/, "", $c); print $c}' | tr '\n' ,
}
# select_step STEP WINDOW ROWS [KEY]: presses KEY, then dumps until the selection is ROWS. A key
# whose effect does not show is pressed again (a Ctrl combination can lose its Ctrl under Xvfb);
# only keys that do nothing the second time are given to it, Up and Down once only.
select_step() {
  local step=$1 window_name=$2 rows=$3 key_name=${4:-} tries=3
  [[ "$key_name" =~ ^(Up|Down|)$ ]] && tries=1
  for _ in $(seq 1 $tries); do
    [ -n "$key_name" ] && key "$key_name"
    for _ in $(seq 1 10); do
      dump "$step"
      [ "$(selected "$step" "$window_name")" = "$rows" ] && return 0
      sleep 0.5
    done
  done
  fail "step $step: $window_name selection is '$(selected "$step" "$window_name")', not '$rows'"
}
clipboard() { sed -n '/^\[window clipboard\]/,$p' "$out/dumps/$1.txt" | sed 1d | tr -d '\r' | grep -v '^$'; }
# copy_step STEP FIELD ROWS: Ctrl+C (again if its Ctrl was lost), then dumps until the FIELDth cells
# of the copied rows are ROWS.
copy_step() {
  for _ in 1 2 3; do
    key ctrl+c
    for _ in $(seq 1 10); do
      dump "$1"
      [ "$(clipboard "$1" | cut -f"$2" | tr '\n' ,)" = "$3" ] && return 0
      sleep 0.5
    done
  done
  fail "step $1: copied '$(clipboard "$1")', not the rows $3"
}

start "Z:$demo" 30
wait_for first-start "[window Output]"
press_until running "Module loaded:" F5
wait_for running "second 1:" 60

# The demo's console window opens over ours (no window manager here): move it out of the way.
for w in $(xdotool search --name 'demo\.exe$' 2>/dev/null); do
  [ "$w" != "$window" ] && xdotool windowmove "$w" 1270 790
done
sleep 1
# Control > Break: the engine stops the demo; the lists fill from the stopped target.
menu 190 85 "Ctrl+Shift+X"
wait_for modules "Symbols loaded" 30
expect modules "| Name | Path | Address | Symbol File | Symbol Status |" "Cannot find or open PDB file" "| ntdll.dll |"
# The address column: base-end in hex, the end above the base.
range=$(grep -F '| demo.exe |' "$out/dumps/modules.txt" | awk -F ' [|] ' '{print $3}' | head -n 1)
[[ "$range" =~ ^[0-9A-F]+-[0-9A-F]+$ ]] || fail "demo.exe's address cell is '$range'"
[ $((16#${range%-*})) -lt $((16#${range#*-})) ] || fail "demo.exe range $range is empty"
grep -F '| demo.exe |' "$out/dumps/modules.txt" | grep -qF '| Symbols loaded |' || fail "demo.exe without its symbols"
# A click selects demo.exe, Down moves to ntdll, Shift+click on kernelbase takes the rows between,
# Ctrl+C copies them: tab-separated cells, the status by its short name.
xdotool mousemove --window "$window" 700 266 click 1
select_step module-click Modules "demo.exe,"
select_step module-down Modules "ntdll.dll," Down
xdotool mousemove --window "$window" 700 317 keydown shift click 1 keyup shift
select_step module-range Modules "ntdll.dll,kernel32.dll,kernelbase.dll,"
copy_step module-copy 1 "ntdll.dll,kernel32.dll,kernelbase.dll,"
clipboard module-copy | grep -qE '^kernel32\.dll	Z:.*kernel32\.dll	[0-9A-F]+-[0-9A-F]+		NoPdb$' || fail "the copied row: $(clipboard module-copy)"
expect modules "| ID | Name | Module | Function Name | Last Known Caller | Address | Priority |" "Normal (0)"
# The main thread is current (marked), the demo's worker is listed beside it.
main_row=$(grep -F '| > |' "$out/dumps/modules.txt") || fail "no current thread marked"
[[ "$main_row" == *"Main Thread"* ]] || fail "the current thread is not the main thread: $main_row"
grep -qF "msvcrt.dll thread" "$out/dumps/modules.txt" || fail "the worker thread is not listed"

# The Call Stack tab (beside Modules): the main thread's chain, from the system's Sleep down to main,
# each frame detailed (the default): its return type, then one line per parameter with its value.
click_until callstack 815 223 1 "[window Call Stack]"
wait_for callstack "| int main("
expect callstack "| Module Name | Function Name | Address |" "| kernelbase.dll | kernelbase.dll!" "   int argc = 2," \
  "   char ** argv = "
grep -qE '^   char \*\* argv = [0-9A-F]{16}\) Ln [0-9]+ \|' "$out/dumps/callstack.txt" || fail "main's argv line"
# A double click on the worker's row makes it current: the stack follows it into Simulate.
# (Again when a loaded machine draws the two clicks' frames too far apart to make a double click.)
for _ in 1 2 3; do
  xdotool mousemove --window "$window" 780 107 click --repeat 2 --delay 80 1
  shows_within worker-selected "| void Simulate(" 10 && break
done
expect worker-selected "| void Simulate("
worker_row=$(grep -F '| > |' "$out/dumps/worker-selected.txt")
[[ "$worker_row" == *"msvcrt.dll thread"* ]] || fail "the worker is not marked current: $worker_row"
# The keys move the selection (two threads: a page is the other end), Ctrl+A selects both.
select_step key-up Threads "Main Thread," Up
select_step key-page-down Threads "msvcrt.dll thread," Next
select_step key-home Threads "Main Thread," Home
select_step key-end Threads "msvcrt.dll thread," End
select_step key-page-up Threads "Main Thread," Prior
select_step key-down Threads "msvcrt.dll thread," Down
select_step key-all Threads "Main Thread,msvcrt.dll thread," ctrl+a
# The context menu's "Copy" copies both rows; a click on a selected row keeps the selection, a
# Ctrl+click takes the worker out of it, Ctrl+C copies the one row left and Enter makes it current.
click_until threads-menu 780 90 3 "[window threads-wnd]"
menu_items=$(sed -n '/^\[window threads-wnd\]/,/^\[window /p' "$out/dumps/threads-menu.txt" | tr -d '\r' | grep -v '^$' | sed -n 2,4p | tr '\n' ,)
[[ "$menu_items" =~ ^"Copy Ctrl+C,"-+",ID,"$ ]] || fail "the menu starts with $menu_items"
xdotool mousemove --window "$window" 780 105 click 1
wait_for threads-copy "Main Thread	ntdll.dll	"
clipboard threads-copy | grep -qE '^[0-9]+	Main Thread	ntdll\.dll	ntdll\.dll![0-9A-F]+	.+	[0-9A-F]+	Normal \(0\)$' ||
  fail "copied main thread: $(clipboard threads-copy)"
[ "$(clipboard threads-copy | cut -f2 | tr '\n' ,)" = "Main Thread,msvcrt.dll thread," ] || fail "copied threads: $(clipboard threads-copy)"
xdotool mousemove --window "$window" 780 90 click 1
select_step click-selected Threads "Main Thread,msvcrt.dll thread,"
xdotool mousemove --window "$window" 780 107 keydown ctrl click 1 keyup ctrl
select_step ctrl-click Threads "Main Thread,"
copy_step thread-copy 2 "Main Thread,"
key Return
wait_for enter "| int main("
[[ "$(grep -F '| > |' "$out/dumps/enter.txt")" == *"Main Thread"* ]] || fail "Enter did not make the main thread current"
# The worker's "F" button freezes it: drawn red from then on.
xdotool mousemove --window "$window" 715 107 click 1
sleep 1
dump frozen
colour=$(convert "$out/frozen.png" -format "%[pixel:p{709,103}]" info:)
[ "$colour" = "srgb(255,81,1)" ] || [ "$colour" = "srgb(216,35,35)" ] || fail "the frozen thread's F button is $colour"

"$wine_run" "$exe" stop-debugging || fail "the forwarding instance failed"
wait_for stopped "Program halted with exit code 0x00007E57" 30

# A function breakpoint of the session (forwarded as an editor would) binds when the next run starts:
# F5 stops the worker in StepParticles, called from Simulate.
"$wine_run" "$exe" add-breakpoint-at-function StepParticles || fail "the forwarding instance failed"
for w in $(xdotool search --name 'demo\.exe$' 2>/dev/null); do
  [ "$w" != "$window" ] && xdotool windowmove "$w" 1270 790
done
press_until breakpoint-run "[SUSPENDED]" F5  # F5 again while running does nothing
wait_for breakpoint-run "| void StepParticles(" 30
# At the function's first instruction its parameters are typed but not stored yet.
expect breakpoint-run "| void Simulate(" "   float dt = ???) Ln "
"$wine_run" "$exe" stop-debugging || fail "the forwarding instance failed"
wait_for stopped-again "Program halted with exit code 0x00007E57" 30

# Exit asks to save the session the breakpoint changed: No.
save_prompt_at_exit
xdotool windowfocus --sync "$prompt" 2>/dev/null
xdotool key --window "$prompt" n
wait_exit
echo PASS
