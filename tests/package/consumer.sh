#!/usr/bin/env bash
# Builds and runs the program in consumer/ the way a user of the library does.
# Usage: consumer.sh find_package|pkg-config|add_subdirectory shared|static SOURCE_DIR PREFIX WORK_DIR
# PREFIX is where the library of that kind is installed. CXX and CXXFLAGS are those of the build, KEST_EMULATOR may name the
# emulator of its programs.
set -euo pipefail
way=$1 kind=$2 source_dir=$3 prefix=$4 work_dir=$5
consumer=$source_dir/tests/package/consumer
fail() { echo "$*"; exit 1; }
rm -rf "$work_dir"
mkdir -p "$work_dir"

case $way in
find_package)
    cmake -G Ninja -S "$consumer" -B "$work_dir" "-DCMAKE_PREFIX_PATH=$prefix"
    cmake --build "$work_dir"
    # Another major version is another library.
    if cmake -G Ninja -S "$consumer" -B "$work_dir/wrong" "-DCMAKE_PREFIX_PATH=$prefix" -DVERSION=2.0 >"$work_dir/wrong.log" 2>&1; then
        fail "version 2.0 was asked for and found"
    fi
    tr -s '[:space:]' ' ' <"$work_dir/wrong.log" | grep -q 'compatible with requested version "2.0"' ||
        fail "version 2.0 is refused for another reason"
    ;;
pkg-config)
    pc=$(find "$prefix" -name kest.pc)
    PKG_CONFIG_PATH=$(dirname "$pc")
    export PKG_CONFIG_PATH
    options=(--cflags --libs)
    [[ $kind == shared ]] || options+=(--static)
    flags=$(pkg-config "${options[@]}" kest)
    echo "$flags"
    # eval, since pkg-config quotes what the shell would split.
    eval "\"\$CXX\" ${CXXFLAGS:-} -std=c++17 \"\$consumer/main.cpp\" $flags -o \"\$work_dir/consumer\""
    eval "export LD_LIBRARY_PATH=$(pkg-config --variable=libdir kest)"
    ;;
add_subdirectory)
    shared=$([[ $kind == shared ]] && echo ON || echo OFF)
    # KEST_INSTALL: the outer project then installs the library too.
    cmake -G Ninja -S "$consumer" -B "$work_dir" "-DKEST_TREE=$source_dir" "-DBUILD_SHARED_LIBS=$shared" -DKEST_INSTALL=ON \
        -DCMAKE_BUILD_TYPE=Debug
    cmake --build "$work_dir" --parallel 2
    ;;
esac

needed=$(readelf -d "$work_dir/consumer" | grep NEEDED)
case $kind in
shared) grep -q '\[libkest\.so\.1\]' <<<"$needed" || fail "the shared library is not linked: $needed" ;;
static)
    ! grep -q libkest <<<"$needed" || fail "the shared library is linked: $needed"
    # A program with the static library needs what the shared library needs.
    grep -q '\[libgcc_s\.so\.1\]' <<<"$needed" || fail "libgcc_s is not linked: $needed"
    ;;
esac

answer=$(${KEST_EMULATOR:+"$KEST_EMULATOR"} "$work_dir/consumer")
echo "$answer"
[[ $answer == "Kest: from the library" ]] || fail "not the answer that was expected"
