#!/bin/sh
# Builds everything and runs every test. On a fresh Debian 12 machine, run as
# root: it installs the Debian packages it needs when they are missing.
#
#   scripts/test.sh              warnings as errors; the whole suite on this
#                                machine (build/), then again built for the
#                                appliance's 32-bit big-endian PowerPC and run
#                                under qemu-user (build-powerpc/)
#   scripts/test.sh --sanitize   the suite on this machine under AddressSanitizer
#                                and UndefinedBehaviorSanitizer (build-sanitize/)
set -eu
cd "$(dirname "$0")/.."

# As root the sandboxed tests must run: a skip would be a silent pass.
if [ "$(id -u)" -eq 0 ]; then
    export VYRA_SANDBOX_REQUIRED=1
fi

suite() {
    build=$1
    shift
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYRA_WERROR=ON "$@"
    cmake --build "$build" --parallel "$(nproc)"
    ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)"
}

case "${1:-}" in
    "")
        scripts/install-deps.sh --target
        suite build
        suite build-powerpc -DCMAKE_TOOLCHAIN_FILE=cmake/powerpc-linux-gnu.cmake
        ;;
    --sanitize)
        scripts/install-deps.sh
        suite build-sanitize -DVYRA_SANITIZE=ON
        ;;
    *)
        echo "usage: $0 [--sanitize]" >&2
        exit 2
        ;;
esac
