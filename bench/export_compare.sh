#!/bin/sh
# Export comparison: writes the dense Sampler song (zelfon_dense_song --samplers) and exports
# it as the 16-bit mix with a baseline zelfon (an earlier commit's build) and with this
# build, each on 1 thread and on every core, in turn, all in the same run; prints the best
# ×realtime (song seconds per wall second) of each and the ratios. Two rounds: into a new
# WAV file (the disk's share included: its writes and the final sync), and into /dev/null
# (the render and the conversion alone). Stops if an export differs from the baseline's.
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
frames=$(cd "$work" && "$build/zelfon" export dense.zelfon reference.wav --threads 1 | sed -n 's/^Song length (frames): //p')
seconds=$(echo "$frames / 44100" | bc -l)

# One export, timed on the wall clock: `run NAME OUT ZELFON [OPTIONS...]` keeps the best
# time per name. A file output is new each time (replacing the last one would time the
# release of its pages too) and must equal the reference.
run() {
    name=$1
    out=$2
    program=$3
    shift 3
    start=$(date +%s.%N)
    (cd "$work" && "$program" export dense.zelfon "$out" "$@" >/dev/null)
    t=$(echo "$(date +%s.%N) - $start" | bc -l)
    best=$(cat "$work/best_$name" 2>/dev/null || echo 999999)
    if [ "$(echo "$t < $best" | bc -l)" = 1 ]; then echo "$t" >"$work/best_$name"; fi
    if [ "$out" != /dev/null ]; then
        cmp -s "$work/$out" "$work/reference.wav" || { echo "$name: the export differs from the reference"; exit 1; }
        rm -f "$work/$out"
    fi
}

i=0
while [ $i -lt "$runs" ]; do
    for out in out.wav /dev/null; do
        kind=file
        [ "$out" = /dev/null ] && kind=null
        run "${kind}_base_1" "$out" "$base" --threads 1
        run "${kind}_this_1" "$out" "$build/zelfon" --threads 1
        run "${kind}_base_all" "$out" "$base" --threads "$cores"
        run "${kind}_this_all" "$out" "$build/zelfon" --threads "$cores"
    done
    i=$((i + 1))
done

xrt() { echo "$seconds / $(cat "$work/best_$1")" | bc -l; }
printf 'song: %.1f s (%s frames), best of %s runs, %s cores\n' "$seconds" "$frames" "$runs" "$cores"
for kind in file null; do
    [ $kind = file ] && echo "into a new WAV file:" || echo "into /dev/null (render and conversion):"
    b1=$(xrt ${kind}_base_1)
    ba=$(xrt ${kind}_base_all)
    t1=$(xrt ${kind}_this_1)
    ta=$(xrt ${kind}_this_all)
    printf '  baseline, 1 thread   %7.1f x realtime\n' "$b1"
    printf '  baseline, %s threads  %7.1f x realtime  (%.2f x its 1 thread)\n' "$cores" "$ba" "$(echo "$ba / $b1" | bc -l)"
    printf '  this, 1 thread       %7.1f x realtime  (%.2f x baseline)\n' "$t1" "$(echo "$t1 / $b1" | bc -l)"
    printf '  this, %s threads      %7.1f x realtime  (%.2f x baseline, %.2f x this 1 thread)\n' "$cores" "$ta" \
        "$(echo "$ta / $ba" | bc -l)" "$(echo "$ta / $t1" | bc -l)"
done
