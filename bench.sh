#!/usr/bin/env bash
# ./bench.sh [OPTION...]
#
# Installs what is missing, builds the benchmarks and becomes them, with the options given (--help
# lists them). Prints one table of what the hot operations cost and what they are compared with; its
# progress goes to standard error. Takes some minutes, and wants the machine for itself.
set -euo pipefail
root=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")

"$root/scripts/setup.sh" build program benchmarks
"$root/scripts/build.sh" release analytics-host
cmake -DANALYTICS_BENCHMARKS=ON "$root/build/release" >/dev/null
"$root/scripts/build.sh" release analytics-bench
exec "$root/build/release/benchmarks/analytics-bench" "$@"
