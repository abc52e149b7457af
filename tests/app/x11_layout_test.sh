#!/bin/sh
# Note keys follow the keys' places, not their letters: under X, the same three physical
# keys are typed once with a US layout ("z s x") and once with a German one, where the
# key at the US "z" place gives "y" ("y s x"); both songs must come out byte-identical.
# Usage: x11_layout_test.sh ZELFON SCREENSHOT_DIR
set -u
zelfon=$(realpath "$1")
shots=$(realpath -m "$2")
. "$(dirname "$0")/x11_server.sh"
trap 'kill $xvfb_pid 2>/dev/null; rm -rf "$work"' EXIT
cd "$work"
"$zelfon" demo original.zelfon >/dev/null 2>&1 || { echo "no demo song"; exit 1; }

# Types `keys` into a studio on a copy of the song under `layout`.
type_in_layout() {
    layout=$1
    keys=$2
    cp original.zelfon "$layout.zelfon"
    setxkbmap -layout "$layout" || { echo "setxkbmap $layout failed"; exit 1; }
    if ! setxkbmap -query | grep -q "layout: *$layout"; then
        # Some X servers keep their first keymap whatever setxkbmap says (or go away).
        echo "the X server did not take the $layout layout: skipped"
        exit 77
    fi
    "$zelfon" "$layout.zelfon" >"$work/$layout.log" 2>&1 &
    pid=$!
    window=$(timeout 20 xdotool search --sync --name "Zelfon" | head -n 1)
    [ -n "$window" ] || { echo "no studio window"; cat "$work/$layout.log"; exit 1; }
    xdotool windowfocus --sync "$window" 2>/dev/null
    sleep 0.5
    xdotool key --delay 80 Escape $keys
    sleep 0.3
    import -window root "$shots/x11_layout_$layout.png"
    xdotool key --delay 80 ctrl+s ctrl+q
    for i in $(seq 100); do kill -0 $pid 2>/dev/null || break; sleep 0.1; done
    if kill -0 $pid 2>/dev/null; then kill $pid; echo "the studio did not quit ($layout)"; exit 1; fi
}

mkdir -p "$shots"
type_in_layout us "z s x"
type_in_layout de "y s x"
cmp -s original.zelfon us.zelfon && { echo "nothing was typed"; exit 1; }
cmp us.zelfon de.zelfon || { echo "the layouts gave different notes"; exit 1; }
echo "1 passed, 0 failed"
