#!/bin/sh
# Installs the Debian packages that building and testing need, if missing:
# always the build dependencies that debian/control lists (apt-get build-dep),
# and besides them
#   scripts/install-deps.sh --target   the PowerPC cross compiler and qemu-user
#   scripts/install-deps.sh --fuzz     clang with libFuzzer
#   scripts/install-deps.sh --check    clang-tidy, cppcheck, clang-format and shellcheck
#   scripts/install-deps.sh --package  the cross compiler and qemu-user, what
#                                      checks the packages (lintian, autopkgtest,
#                                      piuparts, reprotest, blhc, wrap-and-sort),
#                                      and the dependencies of debian/tests:
#                                      autopkgtest runs in the sandbox, which has
#                                      no network to fetch them
set -eu
cd "$(dirname "$0")/.."
case "${1:-}" in
    "") extra= ;;
    --target) extra="g++-powerpc-linux-gnu qemu-user" ;;
    --fuzz) extra="clang libclang-rt-14-dev" ;;
    --check) extra="clang-tidy cppcheck clang-format shellcheck file" ;;
    --package) extra="g++-powerpc-linux-gnu qemu-user file git lintian autopkgtest piuparts
        debootstrap reprotest faketime disorderfs blhc devscripts python3-debian
        $(awk '/^Depends:/ { f = 1; sub(/^Depends:/, "") } /^[^ \t]/ && !/^Depends:/ { f = 0 } f' \
            debian/tests/control | tr ',' '\n' | grep -v @)" ;;
    *) echo "usage: $0 [--target|--fuzz|--check|--package]" >&2; exit 2 ;;
esac
build_deps=
command -v dpkg-checkbuilddeps > /dev/null && dpkg-checkbuilddeps 2> /dev/null || build_deps=1
missing=
for p in $extra; do
    dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$' ||
        missing="$missing $p"
done
[ -z "$build_deps$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
    [ -z "$build_deps" ] || missing=" the build dependencies of debian/control$missing"
    echo "missing Debian packages:$missing (run as root to install them)" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
if [ -n "$build_deps" ]; then
    echo "Installing the build dependencies of debian/control"
    apt-get build-dep -y -q --no-install-recommends ./
fi
if [ -n "$missing" ]; then
    echo "Installing:$missing"
    # shellcheck disable=SC2086
    apt-get install -y -q --no-install-recommends $missing
fi
