#!/bin/sh
# Makes the Debian packages of small_update from the committed sources, in
# build-package/: the source package, and the binary package with its -dbgsym
# package for this machine (native/) and for the appliance (powerpc/). Every
# build starts from a clean copy of the commit, so nothing of another build
# is reused and a commit gives the same bytes wherever it is built. lintian
# must then find nothing.
#   scripts/package.sh           no tests: seconds
#   scripts/package.sh --check   the native build runs the tests (dh_auto_test),
#                                and tests/package_test.sh tries the packages
# On a fresh Debian 12 machine, run as root: it installs what it needs.
set -eu
cd "$(dirname "$0")/.."
case "${1:-}" in
    "") profiles=-Pnocheck ;;
    --check) profiles= ;;
    *) echo "usage: $0 [--check]" >&2; exit 2 ;;
esac
scripts/install-deps.sh --package
out=$PWD/build-package
rm -rf "$out"
for arch in native powerpc; do
    mkdir -p "$out/$arch/small-update"
    git archive HEAD | tar -x -C "$out/$arch/small-update"
done
build() {
    echo "== $1"
    (cd "$out/$1/small-update" && shift && dpkg-buildpackage -us -uc "$@") > "$out/$1.log" 2>&1 ||
        { tail -n 40 "$out/$1.log" >&2; exit 1; }
}
# shellcheck disable=SC2086
build native $profiles
build powerpc -b -a powerpc -Pnocheck
echo "== lintian"
lintian --pedantic --display-info --fail-on error,warning,info,pedantic "$out"/*/*.changes
ls -l "$out"/*/*.deb
if [ -z "$profiles" ]; then
    # The end-to-end tests that the native build made try the installed program.
    tests/package_test.sh "$out"/native/small-update/obj-*/tests/vyra_test \
        "$out"/native/small-update_*_"$(dpkg --print-architecture)".deb "$out"/powerpc/small-update_*_powerpc.deb
fi
