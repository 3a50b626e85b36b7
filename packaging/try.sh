#!/usr/bin/env bash
# packaging/try.sh EXAMPLE SCRATCH [PREFIX]
#
# Builds a copy of an example in the folder SCRATCH against the installation below PREFIX, or that of
# the system, and runs its tests, REQUIRED_TEST among them. CXX, CXXFLAGS and LDFLAGS count.
set -euo pipefail

scratch=$2
prefix=${3:-}
rm -rf "$scratch"
mkdir -p "$scratch"
cp -r "$1" "$scratch/source"
cd "$scratch"
if [[ -e source/Makefile ]]; then
    if [[ -n $prefix ]]; then
        libraries=$(dirname "$(find "$prefix" -name libanalytics.so)")
        export PKG_CONFIG_PATH=$libraries/pkgconfig LD_LIBRARY_PATH=$libraries
    fi
    exec make -C source check
fi
cmake -S source -B build ${prefix:+-DCMAKE_PREFIX_PATH="$prefix"}
cmake --build build --parallel 2
cd build
if [[ -n ${REQUIRED_TEST:-} ]] && ! ctest -N | grep ": $REQUIRED_TEST\$" >/dev/null; then
    echo "the test $REQUIRED_TEST is missing" >&2
    exit 1
fi
exec ctest --output-on-failure --no-tests=error
