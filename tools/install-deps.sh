#!/bin/sh
# Installs what Zelfon needs to build and test on Debian 12 (run as root).
set -e
PACKAGES="g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev python3 python3-mido"
missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    apt-get update
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing
fi
