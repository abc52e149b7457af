#!/bin/sh
# Fuzzes every reader: builds the libFuzzer targets of fuzz/ with clang (Debian packages
# clang and libclang-rt-14-dev), writes the seed files from the test writers (plus an AIFF
# by sox, a JPEG by cjpeg and a TAR by tar, as the tests make theirs), then runs each
# target for SECONDS seconds (default 60) on its own corpus in build/fuzz/corpus, under a
# memory limit. Set FUZZ_TARGETS to run only some ("song module"). Ends non-zero when a
# target found something: its input is left in build/fuzz/findings (keep it in tests/data/
# with a regression test).
set -e
cd "$(dirname "$0")/.."
SECONDS_EACH=${1:-60}
ALL="song module sample_wav sample_aiff sample_aifc sample_xi sample_raw sample_jpeg vorbis profile tar
     import_xm import_mod import_s3m import_it"
TARGETS=${FUZZ_TARGETS:-$ALL}
export CCACHE_BASEDIR="$PWD"
# The coverage ignore list changes objects without changing their sources or flags.
export CCACHE_EXTRAFILES="$PWD/fuzz/coverage_ignore.txt"
launcher=""
command -v ccache > /dev/null && launcher="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"
CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELFON_FUZZ=ON \
    -DZELFON_TESTS=OFF -DZELFON_BENCH=OFF $launcher > /dev/null
cmake --build build/fuzz -j2 --target zelfon_fuzz_targets

corpus=build/fuzz/corpus
mkdir -p $corpus build/fuzz/findings
build/fuzz/fuzz/zelfon_fuzz_seeds $corpus
sox -n -r 22050 -b 16 -c 1 $corpus/sample_aiff/tone.aiff synth 0.02 sine 440 2> /dev/null || true
cjpeg -quality 90 -outfile $corpus/sample_jpeg/gradient.jpg $corpus/seed.ppm 2> /dev/null || true
cp $corpus/song/types.zelfon build/fuzz/song.zelfon
tar -cf $corpus/tar/song.tar -C build/fuzz song.zelfon

failed=""
for target in $TARGETS; do
    mkdir -p $corpus/$target
    echo "== fuzz_$target ($SECONDS_EACH s)"
    # ASan's own overhead is in the RSS limit; a single block above 256 MB is a finding.
    if ! build/fuzz/fuzz/fuzz_$target -max_total_time="$SECONDS_EACH" -max_len=65536 -rss_limit_mb=1536 \
        -malloc_limit_mb=256 -timeout=10 -print_final_stats=1 -artifact_prefix=build/fuzz/findings/$target- \
        $corpus/$target 2> build/fuzz/$target.log; then
        failed="$failed $target"
    fi
    grep -E "^stat::number_of_executed_units|^stat::average_exec_per_sec|^stat::peak_rss_mb" build/fuzz/$target.log || true
done
if [ -n "$failed" ]; then
    echo "Findings in:$failed (inputs in build/fuzz/findings, logs in build/fuzz/<target>.log)"
    exit 1
fi
