#!/bin/bash
# Tests the Debian packages in a clean system: package_test.sh [amd64] [i386], by default both. Builds the packages, installs them into the
# clean system, and builds and runs every example there as a user would: with find_package, pkg-config and add_subdirectory, with the shared
# and the static library. Needs root, since it enters the clean system with chroot, and the package mirror of this system. The clean system
# is made once and kept in build/clean-root; the environment variable KEST_CLEAN_ROOT names another place.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
architectures=("$@")
(($# > 0)) || architectures=(amd64 i386)
((EUID == 0)) || { echo "package_test: only root can enter a clean system" >&2; exit 1; }
"$root/scripts/setup.sh" debootstrap
"$root/scripts/package.sh" "${architectures[@]}"
for example in "$root"/examples/*.cpp; do examples+=" $(basename "$example" .cpp)"; done

# The clean system has what a user of C++ has, but nothing of Kest and none of its dependencies.
base=${KEST_CLEAN_ROOT:-$root/build/clean-root}
in_root() { # COMMAND...
    chroot "$system" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
if [[ ! -e $base/complete ]]; then
    rm -rf "$base"
    mkdir -p "$base"
    # The mirror that this system uses itself.
    mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Origin: Debian' | head -n 1)
    suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    system=$base/system
    make_base() {
        debootstrap --variant=minbase "$suite" "$system" "$mirror" &&
            in_root dpkg --add-architecture i386 &&
            in_root apt-get update -qq &&
            in_root apt-get install -y -qq --no-install-recommends g++ g++-multilib cmake make pkg-config qemu-user binutils
    }
    logged package_test make_base
    touch "$base/complete"
fi
system=$(mktemp -d "${TMPDIR:-/tmp}/kest-root.XXXXXX")
finish() {
    local status=$?
    trap - EXIT
    ! mountpoint -q "$system/proc" || umount "$system/proc"
    rm -rf --one-file-system "$system"
    exit "$status"
}
trap finish EXIT
cp -a --reflink=auto "$base/system/." "$system"
cp /etc/resolv.conf "$system/etc/"
mount -t proc proc "$system/proc"

mkdir -p "$system/packages" "$system/source"
cp build/packages/*.deb "$system/packages"
# add_subdirectory adds the sources of the checkout, without what is built in it.
git ls-files -z --cached --others --exclude-standard kest cmake examples CMakeLists.txt | xargs -0 cp --parents -t "$system/source"
cp "$root/scripts/package_test_inside.sh" "$system/"
in_root bash /package_test_inside.sh "$examples" "${architectures[@]}"
