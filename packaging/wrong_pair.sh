#!/usr/bin/env bash
# packaging/wrong_pair.sh PROGRAM SCRATCH
#
# Builds the library in the folder SCRATCH with service headers that differ in a single line, under
# flags that forbid open symbols. The reference host must refuse to load it.
set -euo pipefail
root=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")

program=$1
scratch=$2
rm -rf "$scratch"
mkdir -p "$scratch"
cp -r "$root/host/include" "$scratch/include"
echo "// differs" >>"$scratch/include/common/infra/Timer.h"
cmake -S "$root" -B "$scratch/build" -DANALYTICS_INFRA_DIR="$scratch/include" \
    -DCMAKE_SHARED_LINKER_FLAGS=-Wl,--no-undefined
cmake --build "$scratch/build" --parallel 2

"$program" --help >"$scratch/help"
if LD_LIBRARY_PATH=$scratch/build/common "$program" --help 2>"$scratch/error"; then
    echo "a library built with other service headers was loaded" >&2
    exit 1
fi
cat "$scratch/error"
grep -q 'undefined symbol: analytics_service_headers_' "$scratch/error"
