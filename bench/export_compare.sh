#!/bin/sh
# Export comparison: writes the dense Sampler song (zelfon_dense_song --samplers) and exports
# it as the 16-bit mix, alternately with a baseline zelfon (an earlier commit's build) and
# with this build at 1 thread and at every core, all in the same run; prints the best
# ×realtime (song seconds per wall second) of each and the ratios to the baseline.
# usage: bench/export_compare.sh BASELINE_ZELFON [MINUTES (3)] [RUNS (3)]
# env: BUILD (build/release). A baseline: git worktree add /tmp/base 762905d && cmake it there.
set -e
base=$(realpath "$1")
minutes=${2:-3}
runs=${3:-3}
build=$(realpath "${BUILD:-build/release}")
cores=$(nproc)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work

"$build/bench/zelfon_dense_song" --samplers "$minutes" "$work/dense.zelfon" >/dev/null
frames=$(cd "$work" && "$build/zelfon" export dense.zelfon out.wav --threads 1 | sed -n 's/^Song length (frames): //p')
seconds=$(echo "$frames / 44100" | bc -l)

# One export, timed on the wall clock: `run NAME ZELFON [OPTIONS...]` keeps the best time per name.
run() {
    name=$1
    program=$2
    shift 2
    start=$(date +%s.%N)
    (cd "$work" && "$program" export dense.zelfon out.wav "$@" >/dev/null)
    t=$(echo "$(date +%s.%N) - $start" | bc -l)
    best=$(cat "$work/best_$name" 2>/dev/null || echo 999999)
    if [ "$(echo "$t < $best" | bc -l)" = 1 ]; then echo "$t" >"$work/best_$name"; fi
    cmp -s "$work/out.wav" "$work/reference.wav" || { echo "$name: the export differs from the baseline's"; exit 1; }
}

(cd "$work" && "$base" export dense.zelfon reference.wav >/dev/null)
i=0
while [ $i -lt "$runs" ]; do
    run baseline "$base"
    run threads_1 "$build/zelfon" --threads 1
    run threads_all "$build/zelfon" --threads "$cores"
    i=$((i + 1))
done

xrt() { echo "$seconds / $(cat "$work/best_$1")" | bc -l; }
b=$(xrt baseline)
one=$(xrt threads_1)
all=$(xrt threads_all)
printf 'song: %.1f s (%s frames), best of %s runs, %s cores\n' "$seconds" "$frames" "$runs" "$cores"
printf 'baseline         %7.1f x realtime\n' "$b"
printf 'this, 1 thread   %7.1f x realtime  (%.2f x baseline)\n' "$one" "$(echo "$one / $b" | bc -l)"
printf 'this, %s threads  %7.1f x realtime  (%.2f x baseline, %.2f x 1 thread)\n' "$cores" "$all" \
    "$(echo "$all / $b" | bc -l)" "$(echo "$all / $one" | bc -l)"
