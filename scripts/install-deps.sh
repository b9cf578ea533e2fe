#!/bin/sh
# Installs the Debian packages that building and testing need, if missing.
#   scripts/install-deps.sh           for building and testing on this machine
#   scripts/install-deps.sh --target  also the PowerPC cross compiler and qemu-user
#   scripts/install-deps.sh --fuzz    also clang with libFuzzer
#   scripts/install-deps.sh --check   also clang-tidy and cppcheck
#   scripts/install-deps.sh --package also what makes and checks the Debian packages
set -eu
packages="cmake g++ make libgtest-dev mount strace valgrind"
case "${1:-}" in
    --target) packages="$packages g++-powerpc-linux-gnu qemu-user" ;;
    --fuzz) packages="$packages clang libclang-rt-14-dev" ;;
    --check) packages="$packages clang-tidy cppcheck" ;;
    --package) packages="$packages g++-powerpc-linux-gnu qemu-user debhelper dpkg-dev file git lintian logrotate" ;;
esac
missing=
for p in $packages; do
    dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$' ||
        missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
    echo "missing Debian packages:$missing (run as root to install them)" >&2
    exit 1
fi
echo "Installing:$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
# shellcheck disable=SC2086
apt-get install -y -q --no-install-recommends $missing
