#!/usr/bin/env bash
# packaging/use_packages.sh
#
# Part of bare.sh, inside a bare system: installs the packages of /tmp/packages, runs the program,
# builds and runs every example, and removes the packages. Fails if a file is left behind or gone.
set -euo pipefail

apt() {
    apt-get -q -y "$@" >/tmp/apt.log 2>&1 || { cat /tmp/apt.log; exit 1; }
}

# Every file but those that package managers, compilers and the dynamic linker keep for themselves.
files() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path /run -o -path /var/cache \
        -o -path /var/lib/apt -o -path /var/lib/dpkg -o -path /var/log -o -path /etc/ld.so.cache \) -prune \
        -o -print | sort
}

apt update
apt install --no-install-recommends g++ cmake make pkgconf
files >/tmp/before
apt install --no-install-recommends /tmp/packages/*.deb
analytics-host --path /tmp --interval 1 --reports 1
for example in count_own_io own_report own_services own_services/smaller_way plain_pkg_config \
    own_kafka_reports; do
    printf -- '-- %s\n' "$example"
    /tmp/try/try.sh "/tmp/try/examples/$example" "/tmp/built/$example" >/tmp/built.log 2>&1 ||
        { cat /tmp/built.log; exit 1; }
    tail -n 3 /tmp/built.log
done
apt purge $(dpkg-query -W -f '${Package}\n' '*analytics*')
apt autoremove --purge
files >/tmp/after
diff /tmp/before /tmp/after
