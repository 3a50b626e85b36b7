#!/usr/bin/env bash
# scripts/build.sh PRESET [TARGET]
#
# Configures and builds a preset in build/PRESET: everything, or just a target, for which no test
# library needs to be installed. Announces a build on standard error, and shows what the tools say
# only if they fail.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."

preset=$1
build=(cmake --build --preset "$preset" ${2:+--target "$2"})
# The engines to forward to, which scripts/setup.sh has installed.
engines=(-DANALYTICS_KAFKA=ON -DANALYTICS_NATS=ON -DANALYTICS_PROMETHEUS=ON)

quietly() {
    local output
    if ! output=$("$@" 2>&1 </dev/null); then
        printf '%s\n%s failed, see above\n' "$output" "$*" >&2
        exit 1
    fi
}

if [[ $# -eq 1 ]]; then
    quietly cmake --preset "$preset" -DBUILD_TESTING=ON "${engines[@]}"
elif [[ ! -e build/$preset/build.ninja ]]; then
    quietly cmake --preset "$preset" -DBUILD_TESTING=OFF "${engines[@]}"
elif [[ $(grep -cE '^ANALYTICS_(KAFKA|NATS|PROMETHEUS):BOOL=ON' "build/$preset/CMakeCache.txt") -lt 3 ]]; then
    quietly cmake --preset "$preset" "${engines[@]}" # the tree lacks one
fi
if [[ $("${build[@]}" -- -n 2>&1) != *"no work to do"* ]]; then
    printf 'building %s ...\n' "$preset" >&2
    quietly "${build[@]}"
fi
