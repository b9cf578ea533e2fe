#!/bin/sh
# Makes the Debian packages of small_update from the committed sources, in
# build-package/: the source package, and the binary package with its -dbgsym
# package for this machine (native/) and for the appliance (powerpc/). Every
# build starts from a clean copy of the commit, so nothing of another build
# is reused and a commit gives the same bytes wherever it is built. lintian
# must then find nothing, blhc finds every build flag in both build logs, and
# debian/control and debian/tests/control are as wrap-and-sort -ast writes them.
#   scripts/package.sh           no tests: seconds
#   scripts/package.sh --check   the native build runs the tests, then the
#                                packages are checked as Debian checks them:
#                                a build by a user without root, tests on;
#                                autopkgtest (in a sandbox, so this machine
#                                stays as it is), piuparts (install, remove
#                                and purge in a fresh Debian 12 chroot), and
#                                reprotest (two builds in varied surroundings
#                                give the same bytes); the powerpc program
#                                starts under qemu-ppc
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
echo "== wrap-and-sort"
# debian/control and debian/tests/control as wrap-and-sort -ast writes them.
unsorted=$(cd "$out/native/small-update" && wrap-and-sort -ast --dry-run)
[ -z "$unsorted" ] || { echo "not as wrap-and-sort -ast writes them:" "$unsorted" >&2; exit 1; }
# As root every test runs; a skip would hide a fault.
export VYRA_SANDBOX_REQUIRED=1
build() {
    echo "== $1"
    (cd "$out/$1/small-update" && shift && dpkg-buildpackage -us -uc "$@") > "$out/$1.log" 2>&1 ||
        { tail -n 40 "$out/$1.log" >&2; exit 1; }
}
# shellcheck disable=SC2086
build native $profiles
build powerpc -b -a powerpc -Pnocheck
echo "== blhc"
# Every compile and link line of both builds carries the hardening flags. PIE
# is the compiler's default on both, so dpkg-buildflags passes no -fPIE to find.
blhc "$out/native.log" "$out/powerpc.log"
echo "== lintian"
lintian --pedantic --display-info --fail-on error,warning,info,pedantic "$out"/*/*.changes
ls -l "$out"/*/*.deb
[ -z "$profiles" ] || exit 0

native=$(echo "$out"/native/small-update_*_"$(dpkg --print-architecture)".deb)
dsc=$(echo "$out"/native/small-update_*.dsc)
check() {
    echo "== $1"
    log=$out/$1.log
    shift
    "$@" > "$log" 2>&1 || { tail -n 40 "$log" >&2; exit 1; }
}
# A build as Debian's builders run it, as a user without privileges: the tests
# that need the sandbox are skipped there, the others run. In /tmp, as the
# clone may lie where that user cannot go (under /root, say).
user=$(mktemp -d /tmp/small-update-user.XXXXXX)
trap 'rm -rf "$user"' EXIT
mkdir "$user/small-update"
git archive HEAD | tar -x -C "$user/small-update"
chown -R nobody "$user"
check user-build runuser -u nobody -- env -u VYRA_SANDBOX_REQUIRED HOME="$user" \
    sh -c 'cd "$1" && dpkg-buildpackage -b -uc -us' sh "$user/small-update"
check autopkgtest sandbox/vyra-sandbox --bind "$out" --bind /sys -- autopkgtest \
    --output-dir="$out/autopkgtest" "$native" "$dsc" -- null
check piuparts piuparts --distribution=bookworm --mirror="http://deb.debian.org/debian main" \
    --tmpdir="$out" "$native"
check reprotest env DEB_BUILD_OPTIONS=nocheck reprotest --verbosity=1 \
    --vary=-all,+environment,+build_path,+time,+timezone,+locales,+umask,+fileordering \
    --store-dir="$out/reprotest" "$dsc" -- null
echo "== powerpc"
sandbox/vyra-sandbox --bind "$out/powerpc" -- /bin/sh -euc '
    dpkg-deb -x "$1" /tmp/ppc
    file -b /tmp/ppc/usr/sbin/small_update | grep -q "32-bit MSB pie executable, PowerPC.*dynamic"
    status=0
    qemu-ppc -L /usr/powerpc-linux-gnu /tmp/ppc/usr/sbin/small_update || status=$?
    test "$status" -eq 255
' sh "$(echo "$out"/powerpc/small-update_*_powerpc.deb)"
echo "packages checked"
