#!/bin/sh
# Builds Zelfon and runs every test twice: a release build, then with ASan + UBSan. With
# FUZZ_SECONDS set (a few seconds), every fuzz target then runs that long (tools/fuzz.sh;
# its clang build takes several minutes on two cores, so it is not run by default).
set -e
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake --preset release
cmake --build --preset release
ctest --preset release
cmake --preset sanitize
cmake --build --preset sanitize
ctest --preset sanitize
if [ -n "$FUZZ_SECONDS" ]; then
    tools/fuzz.sh "$FUZZ_SECONDS"
fi
