#!/usr/bin/env bash
# ./test.sh [OPTION OF CTEST...]
#
# Installs what is missing, builds everything and runs the tests.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")"

# The preset that ships is the one to be shown working; the sanitizer runs of .ci/run add the debug
# build's checks.
scripts/setup.sh build program tests
scripts/build.sh release
exec ctest --preset release "$@"
