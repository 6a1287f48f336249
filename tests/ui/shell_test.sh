#!/usr/bin/env bash
# kestrune.exe as a user meets it, on a virtual display: each step asks the program (through its
# test hook) for the text of every shown window, asserts on that text and keeps a screenshot beside
# it in OUT_DIR. Steps: the first start builds the default layout; F5 debugs the demo and the output
# window shows its module loads, debug strings and exit; "stop-debugging" from a second instance
# stops a run; a window shown from the Window menu and the layout survive a restart; a corrupt ini
# starts cleanly with defaults; a second instance forwards open-session.
# usage: shell_test.sh WINE_RUN KESTRUNE_EXE DEMO_EXE OUT_DIR
set -u
wine_run=$1 exe=$2 demo=$3 out=$4
. "$(dirname "$0")/ui_test_lib.sh"
ini="$settings/imgui180.ini"

# 1. First start: no ini file, so the default layout: the lists, the output and Watch 1 shown.
start "Z:$demo" 30
wait_for first-start "[window Output]"
expect first-start "Session" "Control" "Window" "[window Threads]" "[window Modules]" "[window Watch 1]"
expect_not first-start "[window Watch 2]" "[window Memory 1]" "[window Registers]"
[ "$(xdotool getwindowname "$window")" = "demo.exe - Kestrune" ] || fail "title is '$(xdotool getwindowname "$window")'"

# 2. F5 starts the demo (here for 30 s): module loads and its debug strings. A second instance
# with "stop-debugging" hands the command to this one through the channel, which ends the run.
press_until f5-running "Module loaded:" F5
wait_for f5-running "second 1:" 60
expect f5-running "Module loaded:" "demo.exe (symbols loaded)" "ntdll.dll" "[EXECUTING]"
"$wine_run" "$exe" stop-debugging || fail "the forwarding instance failed"
wait_for shift-f5 "Program halted with exit code 0x00007E57" 30
expect shift-f5 "Process exited: with exit code 32343 (0x7e57)"
expect_not shift-f5 "second 30:"

# 3. Window > Registers shows the registers window; it and the layout survive a restart.
xdotool mousemove --window "$window" 256 10 click 1
sleep 0.5
dump window-menu
expect window-menu "Registers" "Ctrl+L, Ctrl+R"
xdotool mousemove --window "$window" 265 272 click 1
wait_for registers-shown "[window Registers]"
quit
[ -f "$ini" ] || fail "no ini file written"
grep -q '^\[Docking\]\[Data\]' "$ini" || fail "the ini file holds no docking data"
grep -A1 '^\[Kestrune\]\[RegistersWindow\]' "$ini" | grep -q '^ShowWnd=1' || fail "the registers window is not saved as shown"

# 4. After the restart: the same windows; F5 runs the demo (2 s) to its exit line.
start "Z:$demo" 2
wait_for restarted "[window Registers]"
expect restarted "[window Output]" "[window Watch 1]"  # Threads shares its dock node with Registers, shown last
press_until f5-exit "Module loaded:" F5
wait_for f5-exit "Process exited: with exit code 0 (0x0)" 60
expect f5-exit "second 1:" "second 2:" "Program halted with exit code 0"
# F11 with nothing running launches the program halted at its entry (its main); F10 steps over
# main's first line; stop-debugging from a second instance ends the run. A click before each key:
# under Wine a program that starts takes the keyboard focus from the window.
xdotool mousemove --window "$window" 640 400 click 1
press_until f11-entry "Program stopped at entry point" F11
expect f11-entry "[SUSPENDED]"
xdotool mousemove --window "$window" 640 400 click 1
press_until f10-step "Program stopped because a step-over operation completed" F10
"$wine_run" "$exe" stop-debugging || fail "the forwarding instance failed"
wait_for f11-stopped "Program halted with exit code 0x00007E57" 30
# The stop opened main's source in a tab, which changed the session: Exit asks to save it (No).
expect f11-stopped "[window demo.cpp###001]"
save_prompt_at_exit
xdotool windowfocus --sync "$prompt" 2>/dev/null
xdotool key --window "$prompt" n
wait_exit

# 5. A corrupt ini: the program starts with its defaults and writes a clean file again.
head -c 3000 /dev/urandom > "$ini"
printf '\n[Kestrune][WindowPos]\nx=abc\n[Kestrune][Watch-9]\nShowWnd=1\n[Docking][Data]\nDockSpace ID=zz\n' >> "$ini"
printf '[Kestrune][Style]\nUiFontName=Z:\\no\\such.ttf\n' >> "$ini"  # a font that is not there: reported
start "Z:$demo" 2
wait_for corrupt-ini "Control"
expect corrupt-ini "[window Output]" 'ERROR: Unable to open UI font file "Z:\no\such.ttf". Using default font.'

# 6. A second instance with open-session: the running one opens the session (a file that ends after
# its first target command, as old files may) and takes its name; F5 then runs its program.
python3 - "$out/forwarded.ktrn" "Z:$demo" <<'PY'
import struct, sys
text = lambda s: struct.pack('<I', len(s)) + s.encode()
open(sys.argv[1], 'wb').write(b'KTRN' + text(sys.argv[2]) + text('1') + text(''))
PY
"$wine_run" "$exe" open-session "Z:$out/forwarded.ktrn" || fail "the forwarding instance failed"
for _ in $(seq 1 20); do
  [ "$(xdotool getwindowname "$window")" = "forwarded.ktrn - Kestrune" ] && break
  sleep 0.5
done
[ "$(xdotool getwindowname "$window")" = "forwarded.ktrn - Kestrune" ] || fail "title is '$(xdotool getwindowname "$window")'"
press_until forwarded-session-run "Module loaded:" F5
wait_for forwarded-session-run "second 1: " 60
expect_not forwarded-session-run "second 2:"
quit
grep -q '^\[Kestrune\]\[Other\]' "$ini" || fail "the ini file was not written again after a corrupt one"

echo "PASS ($(ls "$out"/*.png | wc -l) screenshots and their dumps in $out)"
