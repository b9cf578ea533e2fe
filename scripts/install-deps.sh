#!/bin/sh
# Installs the Debian packages that building and testing need, if missing.
set -eu
packages="cmake g++ make libgtest-dev dpkg-dev"
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
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
# shellcheck disable=SC2086
apt-get install -y -q --no-install-recommends $missing
