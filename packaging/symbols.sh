#!/usr/bin/env bash
# packaging/symbols.sh [--update] LIBRARY LIST
#
# Compares the SONAME of a shared library and the mangled names that it exports with those of a
# committed list, and shows what differs. With --update it writes the list.
set -euo pipefail

# Without the weak functions of our classes: compilers differ in which of them they emit. A weak
# function of somebody else's class shows. The name of the service headers changes with any of them.
exported() {
    readelf -d "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/SONAME \1/p'
    nm -D --defined-only "$1" | awk '!($2 == "W" && $3 ~ /^_ZNK?[0-9]+[A-Z]/) { print $3 }' |
        sed 's/^\(analytics_service_headers_\)[0-9a-f]*$/\1*/' | LC_ALL=C sort -u
}

if [[ $1 == --update ]]; then
    exported "$2" >"$3"
else
    diff --label "expected, $2" "$2" --label "exported by $1" <(exported "$1") --unified=0
fi
