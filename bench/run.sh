#!/bin/sh
# The benchmark of small_update's own cost (see bench/bench.cpp):
#   bench/run.sh            whole runs at 0, 100, 1,000 and 10,000 candidates with
#                           a do-nothing dpkg: the tool, the floor program and a
#                           shell script, medians of 5 runs each
#   bench/run.sh --real     20 tiny real packages with the real dpkg: the tool
#                           against dpkg -i of each package in turn
# Further options: --runs N, --largest PACKAGES. Everything runs in a sandbox,
# so it needs root; on a fresh Debian 12 machine it installs what it needs.
# The 10,000-package tier takes several minutes.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh --target
log=$(mktemp)
trap 'rm -f "$log"' EXIT
{
    cmake --preset host && cmake --build --preset host --target bench_runner &&
        cmake --preset powerpc && cmake --build --preset powerpc --target small_update
} > "$log" 2>&1 || { cat "$log" >&2; exit 1; }
sandbox/vyra-sandbox -- build/bench/bench_runner "$@"
