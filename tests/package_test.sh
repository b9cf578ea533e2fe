#!/bin/sh
# tests/package_test.sh TEST-BINARY HOST-DEB POWERPC-DEB: in a sandbox, the host
# package installs, its program installs a real package with standard output
# closed and passes the end-to-end tests; the powerpc one starts under qemu.
set -eu
test_binary=$(realpath "$1") host=$(realpath "$2") ppc=$(realpath "$3")
cd "$(dirname "$0")/.."
sandbox/vyra-sandbox --bind "$(dirname "$test_binary")" --bind "$(dirname "$host")" -- /bin/sh -euc '
    dpkg -i "$2" > /dev/null
    test "$(stat -c %U:%G:%a /smallupd@te)" = root:root:755
    logrotate --debug /etc/logrotate.d/small-update 2> /dev/null
    mkdir -p /tmp/a/DEBIAN /etc.defaults && echo "buildnumber=\"2668\"" > /etc.defaults/VERSION
    printf "Package: vyra-a\nVersion: 1.0\nArchitecture: all\nMaintainer: N <n@a.invalid>\nDescription: a\n" > /tmp/a/DEBIAN/control
    dpkg-deb --root-owner-group -b /tmp/a /smallupd@te/vyra-a_1.0-2668-s1_all.deb > /dev/null
    /usr/sbin/small_update >&-
    dpkg -s vyra-a | grep -q "^Status: install ok installed"
    grep -q "^Setting up vyra-a (1.0)" /var/log/dpkg_upgrade.log
    VYRA_TOOL=/usr/sbin/small_update "$1" --gtest_brief=1 --gtest_filter="SmallUpdate.*"
' sh "$test_binary" "$host"
sandbox/vyra-sandbox --bind "$(dirname "$ppc")" -- /bin/sh -euc '
    dpkg-deb -x "$1" /tmp/ppc
    file -b /tmp/ppc/usr/sbin/small_update | grep -q "32-bit MSB pie executable, PowerPC.*dynamically linked"
    qemu-ppc -L /usr/powerpc-linux-gnu /tmp/ppc/usr/sbin/small_update && false || test $? -eq 255
' sh "$ppc"
echo "package tests passed"
