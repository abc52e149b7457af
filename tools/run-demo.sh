#!/bin/sh
# Builds Zelfon (release) and runs its main job: headless, it exports the bundled demo
# song to zelfon_demo.wav in the working directory.
set -e
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake --preset release
cmake --build --preset release --target zelfon
build/release/zelfon
