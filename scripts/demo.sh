#!/bin/sh
# Builds small_update and shows one whole run of it on sample packages, inside
# a throw-away sandbox. On a fresh Debian 12 machine, run as root: it installs
# the Debian packages it needs when they are missing. Nothing on the machine
# changes.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
echo "Building (build/) ..."
log=$(mktemp)
cmake --preset host > "$log" 2>&1 &&
    cmake --build --preset host --parallel "$(nproc)" --target small_update_demo >> "$log" 2>&1 ||
    { cat "$log" >&2; rm -f "$log"; exit 1; }
rm -f "$log"
echo
exec sandbox/vyra-sandbox --bind "$PWD/build" -- build/demo/small_update_demo
