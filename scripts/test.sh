#!/bin/sh
# Builds everything and runs every test, with warnings as errors. Every test
# runs in a sandbox of its own (sandbox/vyra-sandbox), which needs root; here
# a test that cannot run fails, where a build without root would skip it. On
# a fresh Debian 12 machine, run as root: it installs the Debian packages it
# needs when they are missing.
#
#   scripts/test.sh              the whole suite on this machine (preset host,
#                                build/), then again built for the appliance's
#                                32-bit big-endian PowerPC and run under
#                                qemu-user (preset powerpc, build-powerpc/)
#   scripts/test.sh --sanitize   the suite on this machine under AddressSanitizer
#                                and UndefinedBehaviorSanitizer (preset sanitize)
set -eu
cd "$(dirname "$0")/.."
export VYRA_SANDBOX_REQUIRED=1

suite() {
    cmake --preset "$1"
    cmake --build --preset "$1" --parallel "$(nproc)"
    ctest --preset "$1" --parallel "$(nproc)"
}

case "${1:-}" in
    "")
        scripts/install-deps.sh --target
        suite host
        suite powerpc
        ;;
    --sanitize)
        scripts/install-deps.sh
        suite sanitize
        ;;
    *)
        echo "usage: $0 [--sanitize]" >&2
        exit 2
        ;;
esac
