#!/bin/sh
# Builds Zelfon and runs every test twice: a release build, then with ASan + UBSan.
set -e
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake --preset release
cmake --build --preset release
ctest --preset release
cmake --preset sanitize
cmake --build --preset sanitize
ctest --preset sanitize
