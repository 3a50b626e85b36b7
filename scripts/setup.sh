#!/usr/bin/env bash
# scripts/setup.sh PURPOSE...
#
# Installs what the purposes need and this machine lacks, and says so on standard error; silent when
# nothing is missing. The one list of the packages (Debian 12 and 13) that the repository depends on.
set -euo pipefail

# The oldest g++ that this release of Debian has beside its own.
older_compiler() {
    case $(cut -d. -f1 /etc/debian_version 2>/dev/null) in
        12) echo g++-11 ;;
        *) echo g++-13 ;;
    esac
}

declare -A packages=(
    [build]="g++ cmake ninja-build pkgconf"
    [program]="liburing-dev libspdlog-dev libfmt-dev libtomlplusplus-dev libcli11-dev nlohmann-json3-dev librdkafka-dev libnats-dev prometheus-cpp-dev libsqlite3-dev libsimdjson-dev zlib1g-dev libzstd-dev libjs-chart.js"
    [tests]="make libgtest-dev libgmock-dev nats-server prometheus python3 python3-jsonschema zstd chromium"
    [checks]="clang clang-format clang-tidy $(older_compiler)"
    [documents]="doxygen"
    [packages]="dpkg-dev file"
    [benchmarks]="libbenchmark-dev libboost-dev prometheus-cpp-dev fio"
)
declare -A reasons=(
    [build]="compiler and build tools"
    [program]="asynchronous I/O, logging, tunables file, command line, JSON, engines, spool and charts of the programs"
    [tests]="what the examples build with, test framework, the engines to forward to, and a browser for the page of reports"
    [checks]="other compilers, formatting check and static analysis"
    [documents]="the headers' reference as pages"
    [packages]="what Debian packages are made with"
    [benchmarks]="benchmark framework, and the peers to compare with"
)

say() {
    printf 'setup: %s\n' "$*" >&2
}

fail() {
    say "$@"
    exit 1
}

# Prints those of the given packages that are not installed.
missing_of() {
    local installed package
    installed=$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null || true)
    for package in "$@"; do
        grep -qxF "$package installed" <<<"$installed" || printf '%s ' "$package"
    done
}

missing=()
plan=()
for purpose in "$@"; do
    [[ -v packages[$purpose] ]] || fail "unknown purpose '$purpose', expected one of: ${!packages[*]}"
    command -v dpkg-query >/dev/null || fail "this is no Debian; needed are: ${packages[$purpose]}"
    read -ra wanted <<<"${packages[$purpose]}"
    read -ra lacking <<<"$(missing_of "${wanted[@]}")"
    if ((${#lacking[@]} > 0)); then
        plan+=("installing ${lacking[*]} (${reasons[$purpose]})")
        missing+=("${lacking[@]}")
    fi
done
((${#missing[@]} > 0)) || exit 0

as_root=()
if ((EUID != 0)); then
    command -v sudo >/dev/null || fail "neither root nor sudo; as root: apt-get install ${missing[*]}"
    as_root=(sudo)
fi
printf 'setup: %s\n' "${plan[@]}" >&2

# apt-get speaks only if it fails. It waits for a package manager that is at work already.
apt() {
    local output
    if ! output=$("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -y -o DPkg::Lock::Timeout=300 "$@" 2>&1 </dev/null); then
        printf '%s\n' "$output" >&2
        fail "apt-get $1 failed, see above"
    fi
}

apt update
apt install --no-install-recommends "${missing[@]}"
