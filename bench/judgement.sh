#!/bin/sh
# bench/judgement.sh [--script]: what the service's judgement (small-update-service pending)
# costs when nothing changed since a clean run, in the sandbox: 20 candidates of 5 MB, then
# 1,000 and 10,000 of a few hundred bytes, each its own package. Beside it the floor, a
# find -printf of the update directory and one dpkg --audit of the candidates' packages,
# measured in turn with it; medians of 9 wall times. Then the judgement's peak resident set at
# 10,000, with a dpkg that does nothing, so that only its own counts. --script also times, once
# each, the shell script that the program replaced, taken from the history, at 20 and 1,000
# (at 10,000 it would take hours). As root, after cmake --build --preset host.
set -eu
cd "$(dirname "$0")/.."
build=$PWD/build
[ -x "$build/service/small-update-service" ] && [ -x "$build/bench/bench_measure" ] ||
    { echo "bench/judgement.sh: build first (cmake --build --preset host)" >&2 && exit 1; }
script=
if [ "${1:-}" = --script ]; then
    script=$(mktemp) && trap 'rm -f "$script"' EXIT
    git show 8be4deb:tool/small-update-service > "$script" && chmod 755 "$script"
fi
sandbox/vyra-sandbox -- /bin/sh -eu -c '
service=$1/service/small-update-service measure=$1/bench/bench_measure noop=$1/bench/bench_noop
script=$2 state=/var/lib/small-update
mkdir -p /etc.defaults && echo "buildnumber=\"2668\"" > /etc.defaults/VERSION
printf "#!/bin/sh\n" > /usr/sbin/small_update && chmod 755 /usr/sbin/small_update
# COUNT fixes of MEGABYTES (0: a few hundred bytes), renamed in an hour old.
fixes() {
    rm -rf /smallupd@te "$state" && mkdir /smallupd@te
    seq "$1" | xargs -P 2 -n 100 sh -c "for i; do
        p=/tmp/p\$i && mkdir -p \$p/DEBIAN \$p/usr/share
        head -c $2M /dev/urandom > \$p/usr/share/b
        printf \"Package: vyra-b%s\nVersion: 1.0\nArchitecture: all\n%s\n%s\n\" \$i \
            \"Maintainer: N <n@a.invalid>\" \"Description: b\" > \$p/DEBIAN/control
        dpkg-deb -Znone --root-owner-group -b \$p /smallupd@te/vyra-b\${i}_1.0-2668-s\${i}_all.deb
        rm -rf \$p
    done > /dev/null" sh
    find /smallupd@te -name "*.deb" -exec touch -d "1 hour ago" {} +
}
seconds() { "$measure" "$@" | cut -d " " -f 1; }
median() { sort -n | sed -n 5p; }
printf "%-12s %10s %10s %8s %10s\n" candidates floor judgement ratio script
for size in "20 5" "1000 0" "10000 0"; do
    set -- $size
    fixes "$1" "$2"
    # The digests taken, and the record of a clean run by a tool that does nothing.
    "$service" pending 2> /dev/null || :
    sleep 2
    "$service" run 2> /dev/null
    packages=$(sed -n "s/^candidate f [^ ]* \([^ ]*\) .*/\1/p" $state/last-run)
    for _ in 1 2 3 4 5 6 7 8 9; do
        # shellcheck disable=SC2086 # a word a package
        echo "$(seconds /bin/sh -c "find /smallupd@te -name \"*.deb\" -printf \"%s %T@ %C@ %p\n\"
            dpkg --audit \"\$@\"" sh $packages) $(seconds "$service" pending)"
    done > /tmp/times
    floor=$(cut -d " " -f 1 /tmp/times | median) judged=$(cut -d " " -f 2 /tmp/times | median)
    old=-
    if [ -n "$script" ] && [ "$1" -le 1000 ]; then
        rm -rf "$state"
        "$script" pending 2> /dev/null || :
        "$script" run 2> /dev/null || :
        old=$(printf "%.3fs" "$(seconds "$script" pending)")
    fi
    echo "$1x${2}M $floor $judged $old" | awk "{ printf \"%-12s %9.3fs %9.3fs %7.2fx %10s\n\",
        \$1, \$2, \$3, \$3 / \$2, \$4 }"
done
mount --bind "$noop" /usr/bin/dpkg
echo "peak resident set of the judgement at 10,000: $("$measure" "$service" pending |
    cut -d " " -f 2) KiB"
' sh "$build" "$script"
