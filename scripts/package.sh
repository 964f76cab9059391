#!/bin/bash
# Builds the Debian packages libkest1 and libkest-dev for amd64 and i386, and libkest-doc, into build/packages, and lets lintian look at them:
# package.sh [ARCHITECTURE...]. With arguments only those of these architectures: amd64, which brings libkest-doc, i386, and those of
# cross.sh, arm64 for instance. Fails when lintian has anything to say that is not explained in packaging/*.lintian-overrides.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
architectures=("${@:-amd64}")
(($# > 0)) || architectures=(amd64 i386)
for architecture in "${architectures[@]}"; do
    [[ " amd64 i386 ${!cross_machines[*]} " == *" $architecture "* ]] ||
        { echo "usage: package.sh [amd64 i386 ${!cross_machines[*]}]..." >&2; exit 2; }
done

# Not what developers need besides: whoever only wants the packages need not wait for compilers and tools of another kind.
needed=(cmake ninja-build g++ pkg-config dpkg-dev lintian doxygen doxygen-awesome-css python3 file)
install_missing "${needed[@]}"
[[ " ${architectures[*]} " != *" i386 "* ]] || install_multilib
for architecture in "${architectures[@]}"; do
    [[ ! ${cross_machines[$architecture]:-} ]] || install_cross "$architecture"
done
packages=$root/build/packages
mkdir -p "$packages"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The same sources give the same packages: the times in them are that of the last commit, or, where there is no history, of the list of
# changes. Packages of both architectures share files, and can only be installed together when those are the same.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || stat -c %Y CHANGELOG.md)}
export SOURCE_DATE_EPOCH
date=$(LC_ALL=C date -u -R -d "@$SOURCE_DATE_EPOCH")

# A warning is for who changes the library; who packages it with a compiler of another year gets packages all the same.
configure() { # PRESET BUILD_DIR MULTIARCH_NAME OPTION...
    cmake --preset "$1" -B "$2" -DCMAKE_INSTALL_PREFIX=/usr "-DCMAKE_INSTALL_LIBDIR=lib/$3" -DKEST_BUILD_TESTS=OFF \
        -DKEST_BUILD_EXAMPLES=OFF -DKEST_BUILD_STATIC_TOO=ON -DKEST_WERROR=OFF "-DKEST_PACKAGE_DATE=$date" "${@:4}"
}

# The packages of the libraries that LIBRARY needs, with versions. What a 64-bit system has of 32 bits lies in packages of other names, and so
# do the libraries of cross compilers, which know of no older version of theirs that would do.
dependencies_of() { # LIBRARY
    local host=$architecture folders=()
    mkdir -p "$work/debian"
    printf 'Source: kest\n\nPackage: libkest1\nArchitecture: any\n' >"$work/debian/control"
    if [[ ${cross_machines[$architecture]:-} ]]; then
        folders=("-l/usr/${cross_machines[$architecture]}/lib")
    else
        host=$(dpkg --print-architecture)
    fi
    (cd "$work" && DEB_HOST_ARCH=$host dpkg-shlibdeps "${folders[@]}" -O "$1") | sed -n 's/^shlibs:Depends=//p' |
        sed -E "s/\blib32(stdc\+\+6|gcc-s1)\b/lib\1/g; s/\blibc6-i386\b/libc6/g; s/(:|-)$host(-cross)?\b//g"
}

# Adds what CPack has no words for: the field Multi-Arch, a first line of the description for each package, and the trigger that makes the
# system look at its libraries again in place of scripts that do so.
complete() { # PACKAGE_FILE
    local folder=$work/package name field=same kind
    rm -rf "$folder"
    dpkg-deb --raw-extract "$1" "$folder"
    name=$(dpkg-deb --field "$1" Package)
    case $name in
    libkest-dev) kind=development ;;
    libkest-doc) kind=manual field=foreign ;;
    *) kind=runtime ;;
    esac
    sed -i "s/^Description: .*/& - $kind/" "$folder/DEBIAN/control"
    sed -i "/^Architecture:/a Multi-Arch: $field" "$folder/DEBIAN/control"
    rm -f "$folder/DEBIAN/postinst" "$folder/DEBIAN/postrm"
    [[ $kind != runtime ]] || echo "activate-noawait ldconfig" >"$folder/DEBIAN/triggers"
    find "$folder" -newermt "@$SOURCE_DATE_EPOCH" -print0 | xargs -0r touch --no-dereference -d "@$SOURCE_DATE_EPOCH"
    dpkg-deb --root-owner-group -Zxz --build "$folder" "$1" >/dev/null
}

make_packages() {
    configure "$preset" "$build" "$multiarch" -DKEST_BUILD_DOCS=$docs &&
        cmake --build "$build" -j2 &&
        dependencies=$(dependencies_of "$build/kest/libkest.so") &&
        configure "$preset" "$build" "$multiarch" -DKEST_BUILD_DOCS=$docs "-DKEST_PACKAGE_ARCHITECTURE=$architecture" \
            "-DKEST_PACKAGE_DEPENDS=$dependencies" &&
        rm -f "$build"/*.deb &&
        (cd "$build" && cpack)
}

for architecture in "${architectures[@]}"; do
    case $architecture in
    amd64) preset=release multiarch=x86_64-linux-gnu docs=ON ;;
    i386) preset=release-32 multiarch=i386-linux-gnu docs=OFF ;;
    *) preset=release-$architecture multiarch=${cross_machines[$architecture]} docs=OFF ;;
    esac
    build=$root/build/package-$architecture
    rm -rf "$build/docs/html" # pages of what is gone would stay
    logged "package-$architecture" make_packages
    rm -f "$packages"/*_"$architecture".deb # those of an earlier version would be taken for this one's
    [[ $docs == OFF ]] || rm -f "$packages"/*_all.deb
    for package in "$build"/*.deb; do
        complete "$package"
        mv "$package" "$packages"
    done
done

cd "$packages"
status=0
# Run as root, which a container's user is, lintian would complain about that.
lintian --allow-root --fail-on error,warning --display-level '>=warning' --tag-display-limit 0 ./*.deb || status=$?
for package in ./*.deb; do
    printf '%-36s %8d bytes  depends: %s\n' "${package#./}" "$(stat -c %s "$package")" "$(dpkg-deb --field "$package" Depends)"
done
exit "$status"
