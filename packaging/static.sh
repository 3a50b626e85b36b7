#!/usr/bin/env bash
# packaging/static.sh PREFIX SCRATCH
#
# Builds programs with the static installation below PREFIX, by pkg-config and by find_package, and
# runs them. One has classes of its own under names that the archives use. CXX counts.
set -euo pipefail
packaging=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")

prefix=$1
scratch=$2
mkdir -p "$scratch"
readarray -t archives < <(find "$prefix" -name 'libanalytics*.a')
((${#archives[@]} == 5)) || { echo "not five archives: ${archives[*]}" >&2; exit 1; }
"$packaging/archive_symbols.sh" "${archives[@]}"

PKG_CONFIG_PATH=$(dirname "${archives[0]}")/pkgconfig
export PKG_CONFIG_PATH
by_pkg_config() {
    local flags
    read -ra flags < <(pkg-config --cflags --libs "$1")
    "$CXX" -std=c++17 -rdynamic "${@:2}" -o "$scratch/program" "${flags[@]}"
    (cd "$scratch" && ./program records 2>log) || { cat "$scratch/log"; exit 1; }
}
by_pkg_config analytics-host "$packaging/subproject/main.cpp"
by_pkg_config "analytics-forwarding analytics-io" "$packaging/own_names/archive.cpp" \
    "$packaging/own_names/ArchiveNames.cpp"

cmake -G Ninja -S "$packaging/components" -B "$scratch/components" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/components" --parallel 2
ctest --test-dir "$scratch/components" --output-on-failure
