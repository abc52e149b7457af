#!/bin/sh
# Real-time run: plays a dense song (16 Generator voices through Echo and Reverb) with
# `zelfon play` on a private JACK server with the dummy driver, then prints the
# underruns and the render's share of each period (median, 99th percentile, maximum).
# usage: bench/realtime_jack.sh [SECONDS (300)] [PERIOD FRAMES (64)]
# env: BUILD (build/release), REALTIME=0 to run the server without real-time scheduling.
set -e
seconds=${1:-300}
period=${2:-64}
build=${BUILD:-build/release}
name=zelfon_bench_$$
work=$(mktemp -d)
export JACK_DEFAULT_SERVER=$name TMPDIR=$work

rt="-R -P 70"
[ "${REALTIME:-1}" = 0 ] && rt="--no-realtime"
jackd $rt -t 2000 -n "$name" -d dummy -r 44100 -p "$period" >"$work/jackd.log" 2>&1 &
jack_pid=$!
trap 'kill $jack_pid 2>/dev/null; wait $jack_pid 2>/dev/null; rm -rf "$work"' EXIT
jack_wait -w -t 20 -s "$name" >/dev/null 2>&1

"$build/bench/zelfon_dense_song" "$work/dense.zelfon" >/dev/null
echo "JACK dummy server, 44100 Hz, $period-frame periods ($rt); playing $seconds s"
(cd "$work" && timeout -s INT "$seconds" "$OLDPWD/$build/zelfon" play dense.zelfon --buffer "$period" </dev/null) |
    grep -E "^(Played|Render share|zelfon)"
# The dummy driver's own late wake-ups (the host's scheduling, not the render): each one
# is an underrun for every client.
echo "Server-side late wake-ups: $(grep -c "JackTimedDriver::Process XRun" "$work/jackd.log" || true)"
