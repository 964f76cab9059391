#!/usr/bin/env bash
# Compares the version that the running library tells with every other place that states the version.
# Usage: version.sh SOURCE_DIR PREFIX VERSION WORK_DIR; VERSION is that of the CMake project. CXX and CXXFLAGS are those of the build.
set -euo pipefail
source_dir=$1 prefix=$2 version=$3 work_dir=$4
failures=0
check() { # WHAT VERSION
    [[ $2 == "$version" ]] || { echo "$1 states version '$2', the project '$version'"; failures=$((failures + 1)); }
}

mkdir -p "$work_dir"
cat >"$work_dir/version.cpp" <<'PROGRAM'
#include <kest/version.h>
#include <cstdio>
static_assert(KEST_VERSION == KEST_VERSION_MAJOR * 10000 + KEST_VERSION_MINOR * 100 + KEST_VERSION_PATCH);
int main() {
    std::printf("%s %s %d.%d.%d\n", Kest::GetVersion(), KEST_VERSION_TEXT, KEST_VERSION_MAJOR, KEST_VERSION_MINOR, KEST_VERSION_PATCH);
}
PROGRAM
library=$(find "$prefix" -name 'libkest.so.?*.*')
folder=$(dirname "$library")
# shellcheck disable=SC2086 # the flags are words
"$CXX" ${CXXFLAGS:-} -std=c++17 "-I$prefix/include" "$work_dir/version.cpp" "-L$folder" "-Wl,-rpath,$folder" -lkest -o "$work_dir/version"
read -r running text numbers <<<"$(${KEST_EMULATOR:+"$KEST_EMULATOR"} "$work_dir/version")"
check "the running library" "$running"
check "the header's text" "$text"
check "the header's numbers" "$numbers"
check "the library's file" "${library##*/libkest.so.}"
check "kest.pc" "$(PKG_CONFIG_PATH=$folder/pkgconfig pkg-config --modversion kest)"
check "the CMake package" "$(sed -nE 's/^set\(PACKAGE_VERSION "(.*)"\)$/\1/p' "$folder/cmake/kest/kestConfigVersion.cmake")"
for interface in "$source_dir"/abi/*.abi; do
    soname=$(sed -nE "s/^<abi-corpus .*\bsoname='libkest\.so\.([^']*)'.*/\1/p" "$interface")
    [[ $soname == "${version%%.*}" ]] || { echo "$interface is of major version '$soname'"; failures=$((failures + 1)); }
done
read -r _ packaged _ <"$source_dir/debian/changelog"
check "debian/changelog" "$(tr -d '()' <<<"${packaged%-*}")"
check "the newest entry of CHANGELOG.md" "$(sed -n 's/^## //p' "$source_dir/CHANGELOG.md" | head -n 1)"
exit $((failures > 0))
