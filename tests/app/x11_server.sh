# Sourced by the X11 tests: an Xvfb server of the test's own on a free display, with the
# settings and temporary files in a folder that goes away with it, and the paths made
# absolute. Sets work, DISPLAY and xvfb_pid; the caller's EXIT trap stops the server.
work=$(mktemp -d)
display=:$((60 + $$ % 60))
Xvfb "$display" -screen 0 1024x768x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
xvfb_pid=$!
export DISPLAY=$display XDG_CONFIG_HOME=$work/cfg TMPDIR=$work HOME=$work
for i in $(seq 50); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done
