#!/usr/bin/env bash
# ./run.sh [OPTION...]
#
# Installs what is missing, builds the program and becomes it, with the options given (--help lists
# them). Standard output carries the program's data only.
set -euo pipefail
root=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")

"$root/scripts/setup.sh" build program
"$root/scripts/build.sh" release analytics-host
exec "$root/build/release/host/program/analytics-host" "$@"
