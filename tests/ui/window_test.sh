#!/usr/bin/env bash
# Drives kestrune.exe in a real window on a virtual display: the window comes up titled after the
# program named on its command line, draws its menu bar, opens the Session menu on a click, and
# Session > Exit ends the process with exit code 0. Screenshots are kept in the build tree.
# usage: window_test.sh WINE_RUN KESTRUNE_EXE TARGET_EXE OUT_DIR
set -u
wine_run=$1 exe=$2 target=$3 out=$4

source "$(dirname "$0")/ui_test_lib.sh"

start "Z:$target"
want_title="$(basename "$target") - Kestrune"
[ "$(xdotool getwindowname "$window")" = "$want_title" ] || fail "title is '$(xdotool getwindowname "$window")'"
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
wait_exit
echo "PASS"
