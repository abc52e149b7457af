#!/bin/sh
# Fuzzes the tracker readers: builds the libFuzzer targets with clang (Debian packages
# clang and libclang-rt-14-dev), writes the seed files from the test writers, then runs
# each target for SECONDS seconds (default 60) on its own corpus in build/fuzz/corpus.
# A crash leaves its input in build/fuzz; keep it in tests/data/ with a regression test.
set -e
cd "$(dirname "$0")/.."
SECONDS_EACH=${1:-60}
CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELFON_FUZZ=ON \
    -DZELFON_TESTS=OFF -DZELFON_BENCH=OFF
cmake --build build/fuzz -j2 --target fuzz_import_xm fuzz_import_mod fuzz_import_s3m fuzz_import_it zelfon_fuzz_seeds
for format in xm mod s3m it; do mkdir -p build/fuzz/corpus/$format; done
build/fuzz/fuzz/zelfon_fuzz_seeds build/fuzz/corpus
for format in xm mod s3m it; do
    (cd build/fuzz && ./fuzz/fuzz_import_$format -max_total_time="$SECONDS_EACH" -max_len=65536 \
        -rss_limit_mb=2048 corpus/$format)
done
