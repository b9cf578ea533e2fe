#!/bin/sh
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz/ and runs each one, starting from
# the seed corpora in fuzz/corpus/, for a fixed number of executions or a
# time limit, whichever comes first. Any crash fails the command; its input is
# left in build-fuzz/ as crash-*.
#
#   scripts/fuzz.sh [executions [seconds]]    default: 1000000 executions, 600 s
#
# The name parser reads /etc.defaults/VERSION, so its fuzzer runs inside the
# sandbox (needs root). On a fresh Debian 12 machine, run as root: it installs
# what it needs.
set -eu
cd "$(dirname "$0")/.."
runs=${1:-1000000}
seconds=${2:-600}

scripts/install-deps.sh --fuzz
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_COMPILE_WARNING_AS_ERROR=ON -DVYRA_FUZZ=ON -DVYRA_SANITIZE=ON -DBUILD_TESTING=OFF \
    > /dev/null
cmake --build build-fuzz --parallel "$(nproc)" > /dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for target in key_value small_fix state tok_index trim_space; do
    # New inputs go to a scratch directory; the seeds stay as committed.
    mkdir "$work/$target"
    set -- "$PWD/build-fuzz/fuzz/fuzz_$target" -runs="$runs" -max_total_time="$seconds" \
        -print_final_stats=1 -artifact_prefix="$PWD/build-fuzz/" "$work/$target" \
        "fuzz/corpus/$target"
    if [ "$target" = small_fix ]; then
        set -- sandbox/vyra-sandbox -- /bin/sh -c 'mkdir -p /etc.defaults &&
            echo "buildnumber=\"2668\"" > /etc.defaults/VERSION && exec "$@"' sh "$@"
    fi
    echo "== fuzz_$target"
    status=0
    "$@" > "$work/$target.log" 2>&1 || status=$?
    grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)|ERROR|SUMMARY|Test unit' \
        "$work/$target.log" || true
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$work/$target.log" >&2
        echo "fuzz_$target failed (status $status)" >&2
        exit 1
    fi
done
