#!/bin/sh
# Builds everything and runs every test. On a fresh Debian 12 machine, run as
# root: it installs the Debian packages it needs when they are missing.
#
#   scripts/test.sh              warnings as errors, the whole test suite
#   scripts/test.sh --sanitize   the same under AddressSanitizer and UBSan
set -eu
cd "$(dirname "$0")/.."

build=build
flags="-DVYRA_WERROR=ON"
case "${1:-}" in
    "") ;;
    --sanitize) build=build-sanitize; flags="$flags -DVYRA_SANITIZE=ON" ;;
    *) echo "usage: $0 [--sanitize]" >&2; exit 2 ;;
esac

scripts/install-deps.sh

# shellcheck disable=SC2086
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo $flags
cmake --build "$build" --parallel "$(nproc)"
# As root the sandboxed tests must run: a skip would be a silent pass.
if [ "$(id -u)" -eq 0 ]; then
    export VYRA_SANDBOX_REQUIRED=1
fi
ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)"
