#!/bin/sh
# The studio under a real X server: it opens its window on the demo song, a screenshot of
# the screen is taken, and it quits through File > Quit clicked with the pointer.
# Usage: x11_smoke_test.sh ZELFON SCREENSHOT.png
set -u
QUIT_Y=${QUIT_Y:-196}  # the File menu's last entry, at the default scale
zelfon=$(realpath "$1")
shot=$(realpath -m "$2")
. "$(dirname "$0")/x11_server.sh"
trap 'kill $xvfb_pid $studio_pid 2>/dev/null; rm -rf "$work"' EXIT
cd "$work"
"$zelfon" >"$work/studio.log" 2>&1 &
studio_pid=$!
window=$(timeout 20 xdotool search --sync --name "Zelfon" | head -n 1)
[ -n "$window" ] || { echo "no studio window"; cat "$work/studio.log"; exit 1; }
sleep 1
# File is the first menu; Quit is its last entry. The screenshot shows the menu open.
xdotool mousemove --window "$window" 20 10 click 1
sleep 0.5
import -window root "$shot" || { echo "no screenshot"; exit 1; }
xdotool mousemove --window "$window" 30 $QUIT_Y click 1
for i in $(seq 100); do kill -0 $studio_pid 2>/dev/null || break; sleep 0.1; done
if kill -0 $studio_pid 2>/dev/null; then echo "the studio did not quit through File > Quit"; exit 1; fi
wait $studio_pid
code=$?
[ $code -eq 0 ] || { echo "the studio exited with $code"; tail -20 "$work/studio.log"; exit 1; }
echo "1 passed, 0 failed"
