#!/usr/bin/env bash
# packaging/matrix.sh PREFIX SCRATCH
#
# Compiles one small program that includes every header installed below PREFIX, with each compiler
# that is there, as a strict user would, and runs it. The headers for tests are compiled alone.
set -euo pipefail
root=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")

prefix=$1
scratch=$2
mkdir -p "$scratch"
libraries=$(dirname "$(find "$prefix" -name libanalytics.so)")
export PKG_CONFIG_PATH=$libraries/pkgconfig LD_LIBRARY_PATH=$libraries
read -ra cflags < <(pkg-config --cflags analytics-forwarding analytics-io)
read -ra libs < <(pkg-config --libs analytics-forwarding analytics-io)
warnings=(-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Werror)

# The fakes and the contract kit are for tests, which have exceptions and a test library.
includes() {
    (cd "$prefix/include/analytics" && find common host -name '*.h' "$@" | LC_ALL=C sort |
        sed 's/.*/#include "&"/')
}
includes ! -path 'host/testing/*' >"$scratch/main.cpp"
includes -path 'host/testing/*' >"$scratch/testing.cpp"
cat "$root/packaging/subproject/main.cpp" >>"$scratch/main.cpp"

try() {
    printf '%s\n' "$*"
    "$@" "${warnings[@]}" "${cflags[@]}" "$scratch/main.cpp" -o "$scratch/main" "${libs[@]}"
    "$scratch/main" 2>"$scratch/log" || { cat "$scratch/log"; exit 1; }
}

tried=0
for compiler in g++-11 g++-12 g++-13 g++-14 clang++; do
    command -v "$compiler" >/dev/null || continue
    try "$compiler" -std=c++17 -O2
    try "$compiler" -std=c++20 -fvisibility=hidden
    try "$compiler" -std=c++17 -fvisibility=hidden -fno-exceptions -rdynamic
    "$compiler" -std=c++17 -fsyntax-only "${warnings[@]}" "${cflags[@]}" "$scratch/testing.cpp"
    tried=$((tried + 1))
done
((tried >= 2)) || { echo "only $tried compilers are there" >&2; exit 1; }
