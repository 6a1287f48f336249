# What the UI test scripts share, sourced by each: a virtual display of their own, kestrune.exe
# started with a settings folder under OUT_DIR, the text dumps of the test hook with a screenshot
# per step, assertions on them, keys and Session > Exit.
# The sourcing script sets wine_run, exe and out (emptied here); the settings folder is $settings.
rm -rf "$out"
mkdir -p "$out/settings" "$out/dumps"
settings="$out/settings"
export KTRN_TEST_DUMP_DIR="Z:$out/dumps"

last_dump=
fail() {
  echo "FAIL: $*"
  [ -n "$last_dump" ] && [ -f "$last_dump" ] && { echo "--- last text dump:"; cat "$last_dump"; }
  exit 1
}

exec 5< <(Xvfb -displayfd 1 -screen 0 1280x800x24 -nolisten tcp 2>/dev/null)
xvfb_pid=$!
read -r -t 20 display <&5 || fail "Xvfb did not start"
export DISPLAY=":$display"
app_pid=
cleanup() {
  [ -n "$app_pid" ] && kill "$app_pid" 2>/dev/null
  kill "$xvfb_pid" 2>/dev/null
}
trap cleanup EXIT

window=
forward() { "$wine_run" "$exe" "$@" || fail "the forwarding instance failed ($*)"; }  # a second instance

# demo_session FILE SECONDS: a session whose target command runs the demo ($demo) for SECONDS.
demo_session() {
  python3 - "$1" "Z:$demo" "$2" <<'PY2'
import struct, sys
text = lambda s: struct.pack('<I', len(s)) + s.encode()
open(sys.argv[1], 'wb').write(b'KTRN' + text(sys.argv[2]) + text(sys.argv[3]) + text('') + struct.pack('<II', 0, 0))
PY2
}

# line_of TEXT: the first line of the demo's source ($source_dir/examples/demo/demo.cpp) holding TEXT.
line_of() { grep -n -F -- "$1" "$source_dir/examples/demo/demo.cpp" | head -n 1 | cut -d: -f1; }

# A source tab's geometry from a step's dump: layout STEP gives "X Y MARGIN LINE_HEIGHT" of line 1;
# line_y STEP LINE the window y of a line's middle; text_x and margin_x a point in its text and margin.
layout() { grep -m1 -o 'line 1 at [0-9-]*,[0-9-]*, margin [0-9]*, line height [0-9]*' "$out/dumps/$1.txt" | tr -c '0-9\n-' ' '; }
line_y() { set -- $(layout "$1") "$2"; [ $# -eq 6 ] || fail "no layout in step $1"; echo $(($3 + ($6 - 1) * $5 + $5 / 2)); }
text_x() { set -- $(layout "$1"); echo $(($2 + $4 + 40)); }
margin_x() { set -- $(layout "$1"); echo $(($2 + $5 / 2)); }
# column_x STEP COLUMN: the window x of the middle of a (1-based) column of text.
column_x() {
  local width; width=$(grep -m1 -o 'column width [0-9.]*' "$out/dumps/$1.txt" | cut -d' ' -f3)
  set -- $(layout "$1") "$2" "$width"
  awk -v x="$2" -v m="$4" -v c="$6" -v w="$7" 'BEGIN { printf "%d\n", x + m + (c - 0.5) * w }'
}
cell() { grep -F "| $2 |" "$out/dumps/$1.txt" | head -n 1 | awk -F ' [|] ' '{print $2}'; }  # cell STEP NAME: the value
value_of() {  # value_of STEP NAME: dumps until the row NAME has a value (a row's value comes a frame or more later), in $value
  for _ in $(seq 1 20); do
    dump "$1"
    value=$(cell "$1" "$2")
    [ -n "$value" ] && return 0
    sleep 0.5
  done
  fail "step $1: no value for $2"
}

# move_console: the demo's console window opens over ours (no window manager here): moved away.
move_console() {
  for w in $(xdotool search --name 'demo\.exe$' 2>/dev/null); do [ "$w" != "$window" ] && xdotool windowmove "$w" 1270 790; done
  sleep 1
}

# frame_y STEP N: the window y of the call stack's row for frame N, from the step's dump.
frame_y() {
  local y
  y=$(grep -m1 -o "frame $2 at [0-9-]*,[0-9-]*" "$out/dumps/$1.txt" | sed 's/.*,//')
  [ -n "$y" ] || fail "no row for frame $2 in step $1"
  echo $((y + 6))
}

start() {  # start [ARGS...]: kestrune.exe with our settings folder; waits for its window
  "$wine_run" "$exe" --settings "Z:$settings" "$@" &
  app_pid=$!
  window=
  for _ in $(seq 1 120); do
    window=$(xdotool search --name " - Kestrune\$" 2>/dev/null | head -n 1)
    [ -n "$window" ] && break
    kill -0 "$app_pid" 2>/dev/null || fail "kestrune.exe ended before showing its window"
    sleep 0.5
  done
  [ -n "$window" ] || fail "no Kestrune window within 60 s"
  xdotool windowfocus --sync "$window" 2>/dev/null
}

# dump STEP: the windows' text of one frame into $out/dumps/STEP.txt, and a screenshot beside it.
dump() {
  local step=$1 file="$out/dumps/$1.txt"
  rm -f "$file"
  printf '%s' "$step" > "$out/dumps/request.part"
  mv "$out/dumps/request.part" "$out/dumps/request"
  for _ in $(seq 1 200); do
    [ -f "$file" ] && break
    sleep 0.1
  done
  [ -f "$file" ] || fail "no text dump for step $step"
  last_dump=$file
  import -window "$window" "$out/$step.png" 2>/dev/null
}

# shows_within STEP TEXT SECONDS: dumps until TEXT shows; false when it did not in time.
shows_within() {
  local step=$1 text=$2 limit=$3
  for _ in $(seq 1 $((limit * 2))); do
    dump "$step"
    grep -qF -- "$text" "$out/dumps/$step.txt" && return 0
    sleep 0.5
  done
  return 1
}

# wait_for STEP TEXT [SECONDS]: dumps until TEXT shows.
wait_for() {
  shows_within "$1" "$2" "${3:-30}" || fail "step $1: '$2' never shown"
}

expect() {  # expect STEP TEXT...: every TEXT in the step's dump
  local step=$1; shift
  for text in "$@"; do grep -qF -- "$text" "$out/dumps/$step.txt" || fail "step $step: '$text' not shown"; done
}
expect_not() {
  local step=$1; shift
  for text in "$@"; do grep -qF -- "$text" "$out/dumps/$step.txt" && fail "step $step: '$text' shown"; done
  return 0
}

# click_until STEP X Y BUTTON TEXT: clicks at (X, Y) until the step's dump shows TEXT. A click
# that Wine delivers while it still settles the window's focus can be lost or close a menu again
# at once, so the click is repeated (at most three times, with Escape between).
click_until() {
  local step=$1 x=$2 y=$3 button=$4 text=$5
  for _ in 1 2 3; do
    xdotool mousemove --window "$window" "$x" "$y" click "$button"
    sleep 0.5
    dump "$step"
    grep -qF -- "$text" "$out/dumps/$step.txt" && return 0
    key Escape
    sleep 0.5
  done
  fail "step $step: '$text' not shown after three clicks"
}
open_menu() { click_until "$1" "$2" 10 1 "$3"; }  # open_menu STEP X TEXT: the menu at x = X

wait_exit() {  # the program must end, with 0
  for _ in $(seq 1 40); do
    kill -0 "$app_pid" 2>/dev/null || break
    sleep 0.5
  done
  kill -0 "$app_pid" 2>/dev/null && fail "the program did not close"
  wait "$app_pid"
  local status=$?
  app_pid=
  [ "$status" = 0 ] || fail "exit code $status"
}

# menu X Y TEXT: opens the menu bar's menu at x = X (until its dump shows TEXT) and clicks its item
# at y = Y.
menu() {
  open_menu "menu-$1" "$1" "$3"
  xdotool mousemove --window "$window" "$1" "$2" click 1
}

quit() { menu 36 212 "Exit"; wait_exit; }  # Session > Exit, then the program must end with 0

# save_prompt_at_exit: Session > Exit with a modified session; sets $prompt to the question's window.
save_prompt_at_exit() {
  menu 36 212 "Exit"
  prompt=
  for _ in $(seq 1 40); do
    prompt=$(xdotool search --name '^Kestrune$' 2>/dev/null | head -n 1)
    [ -n "$prompt" ] && break
    sleep 0.5
  done
  [ -n "$prompt" ] || fail "no save prompt at close"
}

key() { xdotool windowfocus --sync "$window" 2>/dev/null; xdotool key --delay 60 "$@"; }

# press_until STEP TEXT KEY: presses KEY until TEXT shows. On a loaded machine a key sent while
# Wine is still settling the window's focus can be lost, so a key whose effect does not show within
# 20 s is pressed again (at most three times; the keys used here do nothing when pressed twice).
press_until() {
  local step=$1 text=$2 key_name=$3
  for _ in 1 2 3; do
    key "$key_name"
    shows_within "$step" "$text" 20 && return 0
  done
  fail "step $step: '$text' never shown after pressing $key_name three times"
}

