#!/usr/bin/env bash
# Drives kestrune.exe in a real window on a virtual display: the window comes up titled after the
# program named on its command line, draws its menu bar, opens the Session menu on a click, and
# Session > Exit ends the process with exit code 0. Screenshots are kept in the build tree.
# usage: window_test.sh WINE_RUN KESTRUNE_EXE TARGET_EXE OUT_DIR
set -u
wine_run=$1 exe=$2 target=$3 out=$4
mkdir -p "$out"

fail() { echo "FAIL: $*"; exit 1; }

# A display of our own, so that parallel tests and the user's display are left alone.
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

"$wine_run" "$exe" "Z:$target" &
app_pid=$!

want_title="$(basename "$target") - Kestrune"
window=
for _ in $(seq 1 120); do
  window=$(xdotool search --name "^${want_title}\$" 2>/dev/null | head -n 1)
  [ -n "$window" ] && break
  kill -0 "$app_pid" 2>/dev/null || fail "kestrune.exe ended before showing its window"
  sleep 0.5
done
[ -n "$window" ] || fail "no window titled '$want_title' within 60 s"
pixel() { convert "$1" -format "%[pixel:p{$2}]" info:; }
# Light pixels along the menu bar are the menu titles' text.
bright_pixels() { convert "$1" -crop "$2" -colorspace gray -threshold 60% -format "%[fx:mean*w*h]" info:; }

# The first frames can come late on a fresh Wine prefix or a busy machine: wait for the menu bar.
menu_bar=
for _ in $(seq 1 60); do
  if import -window "$window" "$out/kestrune-window.png" 2>/dev/null; then
    menu_bar=$(pixel "$out/kestrune-window.png" "300,10")
    [ "$menu_bar" = "srgb(36,36,36)" ] && break
  fi
  sleep 0.5
done
sleep 1  # a few more frames, so that the window's contents are settled
import -window "$window" "$out/kestrune-window.png" || fail "screenshot failed"
work_area=$(pixel "$out/kestrune-window.png" "500,300")
text=$(bright_pixels "$out/kestrune-window.png" "240x19+0+0")
echo "menu bar $menu_bar, work area $work_area, menu title pixels $text"
[ "$menu_bar" = "srgb(36,36,36)" ] || fail "menu bar colour is $menu_bar"
[ "$work_area" != "$menu_bar" ] || fail "work area looks like the menu bar"
[ "$work_area" != "srgb(0,0,0)" ] || fail "nothing drawn in the work area"
awk -v n="$text" 'BEGIN { exit !(n > 50) }' || fail "no menu titles drawn ($text light pixels)"

xdotool mousemove --window "$window" 25 10 click 1
sleep 1
import -window "$window" "$out/kestrune-file-menu.png"
highlight=$(pixel "$out/kestrune-file-menu.png" "20,10")
echo "Session title when open: $highlight"
[ "$highlight" != "$menu_bar" ] || fail "clicking Session did not open its menu"

xdotool mousemove --window "$window" 25 212 click 1  # Session > Exit, the last item
for _ in $(seq 1 40); do
  kill -0 "$app_pid" 2>/dev/null || break
  sleep 0.5
done
kill -0 "$app_pid" 2>/dev/null && fail "Session > Exit did not end the program"
wait "$app_pid"
status=$?
app_pid=
[ "$status" = 0 ] || fail "exit code $status"
echo "PASS"
