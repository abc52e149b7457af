# Sourced by the X11 tests: an Xvfb server of the test's own on a display it picks itself,
# with the settings and temporary files in a folder that goes away with it. Sets work,
# DISPLAY and xvfb_pid; the caller's EXIT trap stops the server.
work=$(mktemp -d)
Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$work/display" >"$work/xvfb.log" 2>&1 &
xvfb_pid=$!
for i in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.1; done
export DISPLAY=:$(cat "$work/display") XDG_CONFIG_HOME=$work/cfg TMPDIR=$work HOME=$work
# Under the sanitizers: SDL's drivers and the libraries they load (D-Bus, sound) keep a few
# blocks of their own; the memory manager's report, which fails the exit code, covers ours.
export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1
for i in $(seq 50); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done
