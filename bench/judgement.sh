#!/bin/sh
# bench/judgement.sh [CANDIDATES [MEGABYTES]]: what the service's judgement
# (small-update-service pending) costs, in the sandbox, with CANDIDATES fixes
# of MEGABYTES each (default 20 of 5) after a clean run of them: the first
# judgement, which takes every digest; one when nothing changed; one after a
# fix was rewritten with other content. Medians of 5 wall times. As root.
set -eu
cd "$(dirname "$0")/.."
exec sandbox/vyra-sandbox -- /bin/sh -eu -c '
count=$1 mb=$2 service=$PWD/tool/small-update-service
mkdir -p /etc.defaults /smallupd@te /tmp/p/DEBIAN /tmp/p/usr/share
echo "buildnumber=\"2668\"" > /etc.defaults/VERSION
fix() {
    printf "Package: vyra-b%s\nVersion: %s\nArchitecture: all\nMaintainer: N <n@a.invalid>\n%s\n" \
        "$1" "$2" "Description: b" > /tmp/p/DEBIAN/control
    head -c "${mb}M" /dev/urandom > /tmp/p/usr/share/b
    dpkg-deb -Znone --root-owner-group -b /tmp/p "/smallupd@te/vyra-b$1_1.0-2668-s$1_all.deb" \
        > /dev/null
}
timed() {
    start=$(date +%s%N) && "$service" pending 2> /dev/null || :
    echo $(($(date +%s%N) - start))
}
median() {
    sort -n | sed -n 3p | awk -v what="$1" "{ printf \"%-36s %.3f s\n\", what, \$1 / 1e9 }"
}
i=1
while [ "$i" -le "$count" ]; do fix "$i" 1.0 && i=$((i + 1)); done
# The record of a clean attempt at these candidates: a tool that does nothing.
printf "#!/bin/sh\n" > /usr/sbin/small_update && chmod 755 /usr/sbin/small_update
for _ in 1 2 3 4 5; do rm -f /var/lib/small-update/digests && timed; done |
    median "every digest taken (no cache):"
"$service" run 2> /dev/null || :
sleep 2
for _ in 1 2 3 4 5; do timed; done | median "nothing changed:"
for k in 1 2 3 4 5; do fix 1 "1.$k" && sleep 2 && timed; done | median "one of them rewritten:"
' sh "${1:-20}" "${2:-5}"
