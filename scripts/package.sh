#!/bin/sh
# Builds the Debian package of small_update (the program and its manual page).
#   scripts/package.sh           for the appliance: powerpc, in build-powerpc/package/
#   scripts/package.sh --host    for this machine, in build/package/
# On a fresh Debian 12 machine, run as root: it installs what it needs.
set -eu
cd "$(dirname "$0")/.."
case "${1:-}" in
    "")
        scripts/install-deps.sh --target
        build=build-powerpc
        set -- -DCMAKE_TOOLCHAIN_FILE=cmake/powerpc-linux-gnu.cmake
        ;;
    --host)
        scripts/install-deps.sh
        build=build
        set --
        ;;
    *)
        echo "usage: $0 [--host]" >&2
        exit 2
        ;;
esac
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
cmake --build "$build" --parallel "$(nproc)" --target small_update manpage
(cd "$build" && cpack)
