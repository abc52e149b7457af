#!/bin/sh
# Installs what Zelfon needs to build and test on Debian 12 (run as root).
set -e
# Build tools and test libraries; the sound, MIDI, Ogg Vorbis, JPEG and resampling libraries; the JACK
# server the sound tests start, and the independent tools that write the test sample files;
# the studio's window libraries and fonts, and the X server and tools of its smoke tests;
# clang and its libFuzzer runtime for tools/fuzz.sh.
PACKAGES="g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev python3 python3-mido
  clang libclang-rt-14-dev
  librtaudio-dev librtmidi-dev libjack-jackd2-dev libvorbisidec-dev libjpeg62-turbo-dev libsamplerate0-dev
  jackd2 sox libjpeg-turbo-progs vorbis-tools
  libsdl2-dev libimgui-dev libstb-dev fonts-dejavu-core xvfb xauth x11-utils xdotool x11-xkb-utils imagemagick"
missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    apt-get update
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing
fi
