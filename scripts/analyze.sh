#!/bin/sh
# The house format and static analysis: every C and C++ file as clang-format
# (.clang-format) formats it, no line of any file over 100 columns but the
# output a test expects, written out in a raw string or a here-document, the
# shell scripts through shellcheck, and the product code through clang-tidy
# (.clang-tidy) and cppcheck. Any finding fails the command. On a fresh
# Debian 12 machine, run as root: it installs what it needs.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh --check
echo "== format"
git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format --dry-run -Werror
# Output written out in a raw string, from the line after one that ends in
# R"( to the line that starts with )", or in a shell here-document that ends
# in EXPECTED, stays as wide as it was printed.
long=$(git ls-files | grep -v '^fuzz/corpus/' | xargs awk '
    FNR == 1 { raw = 0 }
    raw && /^(\)"|EXPECTED$)/ { raw = 0 }
    !raw && length > 100 { print FILENAME ":" FNR }
    /(R"\(|<< .EXPECTED.)$/ { raw = 1 }')
[ -z "$long" ] || { echo "lines over 100 columns:" "$long" >&2; exit 1; }

echo "== shellcheck"
# At warnings, as their single-quoted programs for another shell are meant.
git ls-files | xargs file | sed -n 's/: *POSIX shell script.*//p' | xargs shellcheck -S warning

cmake -S . -B build-analyze -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DBUILD_TESTING=OFF > /dev/null
files=$(git ls-files 'lib/*.cpp' 'cpp/*.cpp' 'tool/*.cpp' 'service/*.cpp')

echo "== clang-tidy"
# shellcheck disable=SC2086
clang-tidy -p build-analyze --quiet $files

echo "== cppcheck"
# Suppressions, each with its reason, sit next to the code as
# "cppcheck-suppress" comments.
cppcheck --enable=warning,style,performance,portability --std=c++17 --inline-suppr \
    --suppress=missingIncludeSystem --error-exitcode=1 --quiet \
    -I include -I lib/internal -I cpp/include -I service lib cpp tool service
echo "no findings"
