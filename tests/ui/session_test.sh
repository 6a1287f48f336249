#!/usr/bin/env bash
# Sessions, settings and saved layouts as a user meets them, on a virtual display (the helpers of
# ui_test_lib.sh: text dumps asserted on, a screenshot per step in OUT_DIR). Steps: closing with a
# modified session asks to save, and Yes writes the file; Auto Save, Open Last Session on Startup,
# the status text's place and the toolbar survive a restart (Auto Save then saves without asking,
# the last session opens, the toolbar starts the program); a layout saved in a slot, the program
# restarted with another layout, the slot loaded brings the windows back; Application and
# Parameters changes what runs; a damaged and a foreign session file open with a clear message and
# are left as they were; the attach dialog lists the processes, and a second instance attaches to
# one through the channel.
# usage: session_test.sh WINE_RUN KESTRUNE_EXE DEMO_EXE OUT_DIR
set -u
wine_run=$1 exe=$2 demo=$3 out=$4
. "$(dirname "$0")/ui_test_lib.sh"
ini="$settings/imgui180.ini"
work="$out/work.ktrn"

# make_session FILE KIND: a session whose first target command runs the demo for a second.
# whole: ends after its breakpoints (as an older file may); damaged: its breakpoint list is cut
# inside a record and followed by bytes that are no record; foreign: not a session file at all.
make_session() {
  python3 - "$1" "$2" "Z:$demo" <<'PY'
import struct, sys
path, kind, demo = sys.argv[1:]
text = lambda s: struct.pack('<I', len(s)) + s.encode()
head = b'KTRN' + text(demo) + text('1') + text('') + struct.pack('<I', 0)
data = {'whole': head + struct.pack('<I', 0),
        'damaged': head + struct.pack('<I', 3) + text('') + struct.pack('<I', 0) + text('main') + b'\xff\xff\xff',
        'foreign': b'NOPE' + bytes(range(256)) * 4}[kind]
open(path, 'wb').write(data)
PY
}

title() { xdotool getwindowname "$window"; }
title_becomes() {  # title_becomes TEXT: within 15 s
  for _ in $(seq 1 30); do
    [ "$(title)" = "$1" ] && return 0
    sleep 0.5
  done
  fail "title is '$(title)', not '$1'"
}

# 1. A modified session asks to be saved at close; Yes writes it.
make_session "$work" whole
start "Z:$work"
wait_for opened "[window Output]"
title_becomes "work.ktrn - Kestrune"
forward add-breakpoint-at-function Modified
title_becomes "work.ktrn* - Kestrune"
save_prompt_at_exit
import -window root "$out/save-prompt.png" 2>/dev/null
kill -0 "$app_pid" 2>/dev/null || fail "the program closed without waiting for the answer"
xdotool windowfocus --sync "$prompt" 2>/dev/null
xdotool key --window "$prompt" Return  # Yes, the default button
wait_exit
grep -q Modified "$work" || fail "Yes did not save the session"
grep -q demo.exe "$work" || fail "the saved session lost its target command"

# 2. Settings: Auto Save on, the status text moved to the bottom; both survive a restart.
start "Z:$work"
wait_for settings-before "[window Output]"
menu 36 101 "Auto Save"  # Session > Auto Save
menu 36 118 "Open Last Session on Startup"
click_until status-menu-top 600 29 3 "Move to Bottom"
xdotool mousemove --window "$window" 640 56 click 1
open_menu more-style 306 "Restore Default Layout"  # More > Style > Show Toolbar
for at in "320 33" "480 33"; do
  xdotool mousemove --window "$window" $at
  sleep 0.5
done
wait_for style-menu "Show Toolbar" 10
expect style-menu "UI Font" "Scrollbar Size (px)" "Text Font" "Tab Spacing" "Evaluate on Hover" "Tool-tip Delay (ms)"
xdotool mousemove --window "$window" 520 101 click 1
wait_for toolbar-shown "[window toolbar]"
quit
grep -q '^AutoSaveEnabled=1' "$ini" || fail "Auto Save not written"
grep -q '^ShowToolbar=1' "$ini" || fail "Show Toolbar not written"
grep -q '^StatusTextPosTop=0' "$ini" || fail "the status text's place not written"
start "Z:$work"
wait_for settings-after "[window Output]"
height=$(xdotool getwindowgeometry "$window" | sed -n 's/.*Geometry: [0-9]*x\([0-9]*\).*/\1/p')
click_until status-menu-bottom 600 $((height - 10)) 3 "Move to Top"
key Escape
# The toolbar is back, and its Start Debugging runs the session's program.
expect status-menu-bottom "[window toolbar]" "Start Debugging" "Break" "Restart"
xdotool mousemove --window "$window" 50 29 click 1
wait_for toolbar-run "Process exited: with exit code 0 (0x0)" 60
expect toolbar-run "second 1:"
# With Auto Save on, a named session is saved at close without a question.
forward add-breakpoint-at-function AutoSaved
title_becomes "work.ktrn* - Kestrune"
quit
grep -q AutoSaved "$work" || fail "Auto Save did not save the session"
grep -q '^AutoSaveEnabled=1' "$ini" || fail "Auto Save lost after a restart"
grep -q '^StatusTextPosTop=0' "$ini" || fail "the status text's place lost after a restart"
grep -q '^ShowToolbar=1' "$ini" || fail "Show Toolbar lost after a restart"
grep -q '^OpenLastSessionOnStartup=1' "$ini" || fail "Open Last Session on Startup not written"

# 3. Started without arguments, the last session opens. Window > Registers, saved as slot 3
# (More > Layout3 > Save Layout > Save); then hidden.
start
wait_for layout-before "[window Output]"
title_becomes "work.ktrn - Kestrune"
expect_not layout-before "[window Registers]"
menu 256 272 "Ctrl+L, Ctrl+D"  # Window > Registers
wait_for layout-registers "[window Registers]"
open_menu layout-more 306 "Restore Default Layout"
for at in "320 105" "500 105" "520 122" "600 122"; do
  xdotool mousemove --window "$window" $at
  sleep 0.5
done
wait_for layout-save-menu "{ Layout3 } [ Save ]" 10
xdotool mousemove --window "$window" 778 126 click 1
saved_layout="$settings/layout3.Layout3.ini"
for _ in $(seq 1 20); do [ -f "$saved_layout" ] && break; sleep 0.5; done
[ -f "$saved_layout" ] || fail "no layout file written"
grep -q '^\[Docking\]\[Data\]' "$saved_layout" || fail "the layout holds no docking data"
grep -A1 '^\[Kestrune\]\[RegistersWindow\]' "$saved_layout" | grep -q '^ShowWnd=1' || fail "the layout does not show the registers"
grep -q '^\[Kestrune\]\[\(RecentFiles\|WindowPos\|Other\)\]' "$saved_layout" && fail "the layout holds preferences beyond the windows"
menu 256 272 "Ctrl+L, Ctrl+D"  # Window > Registers again: hidden
for _ in $(seq 1 20); do
  dump layout-hidden
  grep -qF "[window Registers]" "$out/dumps/layout-hidden.txt" || break
  sleep 0.5
done
expect_not layout-hidden "[window Registers]"
quit

# 4. After a restart the registers stay hidden until the slot is loaded (More > Layout3 > Load).
start "Z:$work"
wait_for layout-restarted "[window Output]"
expect_not layout-restarted "[window Registers]"
open_menu layout-slots 306 "Restore Default Layout"
expect layout-slots "Layout3"
xdotool mousemove --window "$window" 320 105
wait_for layout-slot3 "Layout3 Load" 10
xdotool mousemove --window "$window" 495 105 click 1
wait_for layout-loaded "[window Registers]"
expect layout-loaded "[window Output]" "[window Modules]"

# Application and Parameters shows the session's target command; a new argument typed there is
# what the toolbar's Start Debugging runs, and the session counts as modified.
menu 36 157 "Application and Parameters"
wait_for target-editor "[window Application and Parameters]"
expect target-editor "Command Arguments" "Working Directory" "Step halts new instance at" "Nominal entry point" \
  "Environment" "Inherit from parent" "demo.exe }" "{ 1 }"
xdotool mousemove --window "$window" 600 176 click 1
sleep 0.5
xdotool key --delay 100 BackSpace 3
title_becomes "work.ktrn* - Kestrune"
wait_for target-edited "{ 3 }"
xdotool mousemove --window "$window" 50 29 click 1  # the toolbar's Start Debugging
wait_for target-run "second 3:" 60
wait_for target-run "Process exited: with exit code 0 (0x0)" 30

# 5. A damaged session opens up to its damage, unnamed, and a foreign file not at all; each says
# so, and neither file is written to.
make_session "$out/damaged.ktrn" damaged
make_session "$out/foreign.ktrn" foreign
damaged_sum=$(md5sum < "$out/damaged.ktrn") foreign_sum=$(md5sum < "$out/foreign.ktrn")
forward open-session "Z:$out/damaged.ktrn"
wait_for damaged-session "is damaged after its section 3"
expect damaged-session "the file is left as it is"
title_becomes "demo.exe - Kestrune"
forward open-session "Z:$out/foreign.ktrn"
wait_for foreign-session "foreign.ktrn: it is not a session file"
title_becomes "Untitled - Kestrune"

# 6. Session > Attach to Process... lists the running demo; a second instance's
# "attach-to-process-by-id PID --continue" attaches to it and lets it run.
"$wine_run" "$demo" 40 &
demo_pid=$!
menu 36 173 "Attach to Process..."
wait_for attach-dialog "demo.exe" 30
expect attach-dialog "[window Attach to Process]" "Sort processes by:" "   ID" "Process" "kestrune.exe"
windows_pid=$(tr -d '\r' < "$out/dumps/attach-dialog.txt" | sed -n 's/^ *\([0-9][0-9]*\) demo\.exe$/\1/p' | head -n 1)
[ -n "$windows_pid" ] || fail "no process id on the demo's row"
forward attach-to-process-by-id "$windows_pid" --continue
wait_for attached "Attaching to process ID $windows_pid...[OK]"
wait_for attached-running "second " 30
expect attached-running "[EXECUTING]"
quit  # detaches first: the demo runs on
kill -0 "$demo_pid" 2>/dev/null || fail "the demo ended with the debugger"
kill "$demo_pid" 2>/dev/null
[ "$(md5sum < "$out/damaged.ktrn")" = "$damaged_sum" ] || fail "the damaged session file was written to"
[ "$(md5sum < "$out/foreign.ktrn")" = "$foreign_sum" ] || fail "the foreign file was written to"

echo "PASS ($(ls "$out"/*.png | wc -l) screenshots and their dumps in $out)"
