#!/bin/sh
# Builds Zelfon and runs every test twice: a release build, then with ASan + UBSan; then
# every fuzz target runs FUZZ_SECONDS seconds (default 3; 0 skips them) on its seeds and the
# corpus earlier runs left (tools/fuzz.sh: a clang build of about two minutes on two cores).
set -e
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake --preset release
cmake --build --preset release
ctest --preset release
cmake --preset sanitize
cmake --build --preset sanitize
ctest --preset sanitize
FUZZ_SECONDS=${FUZZ_SECONDS:-3}
if [ "$FUZZ_SECONDS" -gt 0 ]; then
    tools/fuzz.sh "$FUZZ_SECONDS"
fi
