#!/bin/bash
# Builds the Debian packages into build/packages: package.sh [ARCHITECTURE...], by default amd64 and i386; the architectures of cross.sh can
# be named too. Builds the source package, and from the source package libkest1, its debug symbols and libkest-dev for each architecture,
# and libkest-doc with the packages of this machine's own architecture. Then runs lintian. Fails when lintian finds anything that
# debian/*.lintian-overrides does not explain. debian/ says what is packaged; this script chooses the sources and the compiler.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
architectures=("$@")
(($# > 0)) || architectures=(amd64 i386)
known=(amd64 i386 "${!cross_machines[@]}")
are_known known "${architectures[@]}" || { echo "usage: package.sh [${known[*]}]..." >&2; exit 2; }

# Only what the packages need, and not all tools of developers, so that a user waits less.
needed=(cmake ninja-build g++ build-essential debhelper dpkg-dev lintian doxygen doxygen-awesome-css python3 file xz-utils)
install_missing "${needed[@]}"
[[ " ${architectures[*]} " != *" i386 "* ]] || { install_multilib; install_missing binutils-i686-linux-gnu; }
for architecture in "${architectures[@]}"; do
    [[ ! ${cross_machines[$architecture]:-} ]] || install_cross "$architecture"
done
packages=$root/build/packages
work=$root/build/package # always the same path, so that ccache knows the files again
rm -rf "$work"
mkdir -p "$packages" "$work"

# The same sources give the same packages: all times in them are the time of the newest entry of debian/changelog. Packages of several
# architectures share files, and can be installed together only when these files are the same.
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -S Timestamp)
export SOURCE_DATE_EPOCH
revision=$(dpkg-parsechangelog -S Version)
version=${revision%-*}
sources=$work/kest-$version

# The sources are the files that git does not ignore. Without git, as in the source package, they are all files that no build makes.
list_sources() {
    if [[ -e .git ]]; then
        git ls-files -z --cached --others --exclude-standard
    else
        find . -mindepth 1 \( -path ./build -o -path ./.pc \) -prune -o -type f -print0
    fi
}

make_source_package() {
    mkdir "$sources" &&
        list_sources | while IFS= read -rd '' file; do
            [[ ! -e $file ]] || cp --parents --preserve=mode "$file" "$sources" || return 1 # git still lists a deleted file
        done &&
        tar -C "$work" --sort=name --mtime="@$SOURCE_DATE_EPOCH" --owner=0 --group=0 --numeric-owner --exclude="kest-$version/debian" \
            -cJf "$work/kest_$version.orig.tar.xz" "kest-$version" &&
        (cd "$work" && dpkg-source --build "$sources") &&
        rm -f "$packages"/kest_* &&
        cp "$work"/kest_*.{dsc,tar.xz} "$packages"
}

# Builds from the source package and not from the checkout, so that a file that the source package lacks is missed.
make_packages() { # ARCHITECTURE
    local native options=(-B -d) # -d: cross compilers are not the packages that debian/control asks for
    native=$(dpkg --print-architecture)
    case $1 in
    "$native") options=(-b) ;;
    i386) export CXX=g++ DEB_CXXFLAGS_APPEND="-m32" ;;
    *) export CXX=${cross_machines[$1]}-g++-12 ;;
    esac
    rm -rf "$sources" &&
        dpkg-source --extract "$work"/kest_*.dsc "$sources" &&
        (cd "$sources" && dpkg-buildpackage -us -uc "${options[@]}" "--host-arch=$1") &&
        rm -f "$packages"/*_"$1".deb && # else packages of an earlier version would stay
        { [[ $1 != "$native" ]] || rm -f "$packages"/*_all.deb; } &&
        mv "$work"/*.deb "$packages"
}

step() { # WHAT LOG COMMAND...
    local begin=$SECONDS
    echo "package: $1 (build/logs/$2.log)"
    logged "${@:2}"
    echo "package: done in $((SECONDS - begin)) s"
}

step "the source package" package-source make_source_package
for architecture in "${architectures[@]}"; do
    step "the packages for $architecture: compiling takes most of the time" "package-$architecture" make_packages "$architecture"
done
rm -rf "$work"

cd "$packages"
echo "package: lintian"
status=0
# --allow-root: in a container the user is root, and lintian would complain.
lintian --allow-root --fail-on error,warning --display-level '>=warning' --tag-display-limit 0 ./*.dsc ./*.deb || status=$?
for package in ./*.dsc ./*.deb; do
    depends=
    [[ $package == *.dsc ]] || depends=$(dpkg-deb --field "$package" Depends)
    printf '%-60s %8d bytes  %s\n' "build/packages/${package#./}" "$(stat -c %s "$package")" "${depends:+depends: $depends}"
done
exit "$status"
