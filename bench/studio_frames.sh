#!/bin/sh
# Frame time of the studio's desktop with the demo song playing, software renderer,
# 1280 × 800, on SDL's offscreen driver (a JACK dummy server of its own gives the sound
# thread its real load); then the CPU an idle studio takes under Xvfb over 20 seconds.
# Usage: bench/studio_frames.sh [BUILD_DIR]
set -eu
build=$(realpath "${1:-build/release}")
work=$(mktemp -d)
trap 'kill $jack_pid $xvfb_pid 2>/dev/null; rm -rf "$work"' EXIT
export JACK_DEFAULT_SERVER=zelfon_bench JACK_NO_AUDIO_RESERVATION=1 XDG_CONFIG_HOME=$work TMPDIR=$work
jackd --no-realtime -n zelfon_bench -d dummy -r 44100 -p 256 >/dev/null 2>&1 &
jack_pid=$!
sleep 2
printf 'window_width 1280\nwindow_height 800\n' > "$work/zelfon_config.txt"
frames=600
printf 'action play_stop\nwait 10\nwait %d\nquit\n' $frames > "$work/play.txt"
printf 'wait 10\nwait %d\nquit\n' $frames > "$work/idle.txt"
cd "$work"
# Typing: a new song whose pattern is made 32 tracks × 256 lines through the timeline's
# menu, the song playing, a note typed every second frame in edit mode.
{
    printf 'action new\nwait 2\nclick_id timeline.pattern.0 right\n'
    printf 'doubleclick_id timeline.menu.lines\nkey ctrl+A\ntext 256\nkey Return\n'
    printf 'doubleclick_id timeline.menu.tracks\nkey ctrl+A\ntext 32\nkey Return\nkey Escape\n'
    printf 'click_id pattern.cell.0.0\nclick_id pattern.cell.0.0\nkey Escape\naction play_stop\nwait 10\n'
    i=0; while [ $i -lt $((frames / 2)) ]; do printf 'key Z\n'; i=$((i + 1)); done
    printf 'screenshot %s/typing.png\nquit\nclick_id msgbox.button.1\n' "$work"
} > "$work/typing.txt"
# The net editor with 64 modules and 128 links, two module windows open (the net pane
# widened to most of the window), the song playing.
"$build/bench/zelfon_dense_song" --net "$work/net.zelfon"
{
    printf 'doubleclick_id net.module.1\ndoubleclick_id net.module.9\naction play_stop\nwait 10\nwait %d\n' $frames
    printf 'screenshot %s/net.png\nquit\n' "$work"
} > "$work/net.txt"
# CPU time per frame: the process's (sound thread included) and the GUI thread's alone,
# sampled from /proc until the program ends (start-up included in both).
gui_ticks() { awk '{print $14 + $15}' /proc/$1/task/$1/stat 2>/dev/null; }
for kind in play idle typing net; do
    song=""
    [ $kind = net ] && song="$work/net.zelfon" && printf 'split_x 250\nsplit_y 700\n' >> "$work/zelfon_config.txt"
    SDL_VIDEODRIVER=offscreen /usr/bin/time -f "%U %S" -o "$work/time.txt" "$build/zelfon" --script "$work/$kind.txt" $song >/dev/null 2>&1 &
    timer=$!
    sleep 0.2
    pid=$(pgrep -n -f "zelfon --script $work/$kind.txt")
    gui=0
    while [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; do
        t=$(gui_ticks "$pid")
        [ -n "$t" ] && gui=$t
        sleep 0.05
    done
    wait $timer
    echo "$kind: $(awk -v n=$((frames + 12)) '{printf "%.2f", ($1 + $2) * 1000 / n}' "$work/time.txt") ms CPU per frame," \
         "GUI thread $(awk -v t=$gui -v n=$((frames + 12)) -v hz=$(getconf CLK_TCK) 'BEGIN {printf "%.2f", t * 1000 / hz / n}') ms"
done
Xvfb :77 -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
xvfb_pid=$!
sleep 1
DISPLAY=:77 "$build/zelfon" >/dev/null 2>&1 &
studio=$!
sleep 5
# CPU ticks per thread: the main (GUI) thread is the process's own id.
ticks() { for t in /proc/$studio/task/*; do echo "$(basename $t) $(cat $t/comm) $(awk '{print $14 + $15}' $t/stat)"; done; }
ticks | sort > "$work/t0.txt"
sleep 20
ticks | sort > "$work/t1.txt"
kill $studio
join "$work/t0.txt" "$work/t1.txt" | awk -v main=$studio -v hz=$(getconf CLK_TCK) '
    { d = $5 - $3; all += d; if ($1 == main) gui = d; else if ($2 ~ /llvmpipe/) gl += d; else other += d }
    END { printf "idle studio, %% of a core: all %.2f, GUI thread %.2f, software GL %.2f, sound and other threads %.2f\n",
          all / hz / 20 * 100, gui / hz / 20 * 100, gl / hz / 20 * 100, other / hz / 20 * 100 }'
