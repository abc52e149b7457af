#!/bin/sh
# Builds Zelfon (release) and runs its main job: with a display it opens the studio on the
# bundled demo song; headless it exports the demo to zelfon_demo.wav in the working directory.
set -e
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake --preset release
cmake --build --preset release --target zelfon
build/release/zelfon
