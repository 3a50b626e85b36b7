#!/usr/bin/env bash
# packaging/bare.sh RELEASE [FOLDER]
#
# Shows on a bare Debian RELEASE, such as bookworm or trixie, that the repository builds, runs and
# passes its tests, that its packages install, serve every example and leave nothing behind. Works as
# root in FOLDER, a new one unless given, where it keeps the bare system for a further run. Takes the
# packages from the mirror of this machine's own apt.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."

release=$1
folder=${2:-$(mktemp -d)}
mkdir -p "$folder"
bare=$folder/$release
builder=$folder/$release.builder
user=$folder/$release.user

stage() {
    printf '== %s %02d:%02d %s\n' "$release" $((SECONDS / 60)) $((SECONDS % 60)) "$*"
}

# Runs a command in a root, a mount as every root is, and a process tree of its own.
inside() {
    local root=$1
    shift
    unshare --mount --pid --fork bash -c '
        mount --bind "$0" "$0" && mount -t proc proc "$0/proc" && mount --rbind /dev "$0/dev" &&
            exec chroot "$0" "$@"' \
        "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive "$@" </dev/null
}

copy_of_bare() {
    rm -rf --one-file-system "$1"
    cp -a "$bare" "$1"
}

if [[ ! -e $bare/.complete ]]; then
    stage bare system
    command -v debootstrap >/dev/null || { echo "debootstrap is not installed" >&2; exit 1; }
    mirror=$(apt-get indextargets --format '$(LABEL) $(REPO_URI)' 'Created-By: Packages' |
        awk '$1 == "Debian" { print $2; exit }')
    rm -rf --one-file-system "$bare"
    debootstrap --variant=minbase "$release" "$bare" "$mirror" >"$folder/debootstrap.log"
    touch "$bare/.complete"
fi

copy_of_bare "$builder"
mkdir "$builder/analytics"
git ls-files -z | tar --null -T - -c | tar -x -C "$builder/analytics"
stage ./run.sh
inside "$builder" /analytics/run.sh --interval 1 --reports 2
stage ./test.sh
inside "$builder" /analytics/test.sh
stage packages
inside "$builder" /analytics/scripts/setup.sh packages
inside "$builder" sh -c 'cd /analytics/build/release && cpack -G DEB -B /packages >/dev/null'

stage installation
copy_of_bare "$user"
mkdir "$user/tmp/try" "$user/tmp/packages"
cp -r packaging/try.sh packaging/use_packages.sh examples "$user/tmp/try"
cp "$builder"/packages/*.deb "$user/tmp/packages"
inside "$user" /tmp/try/use_packages.sh
stage nothing is left behind
rm -rf --one-file-system "$builder" "$user"
