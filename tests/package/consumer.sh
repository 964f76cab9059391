#!/bin/bash
# Builds and runs the program in consumer/ the way a user of the library does.
# Usage: consumer.sh find_package|pkg-config|add_subdirectory SOURCE_DIR PREFIX WORK_DIR; CXX and CXXFLAGS are those of
# the build.
set -euo pipefail
way=$1 source_dir=$2 prefix=$3 work_dir=$4
consumer=$source_dir/tests/package/consumer
rm -rf "$work_dir"
mkdir -p "$work_dir"

case $way in
find_package)
    cmake -G Ninja -S "$consumer" -B "$work_dir" "-DCMAKE_PREFIX_PATH=$prefix"
    cmake --build "$work_dir"
    # Another major version is another library.
    if cmake -G Ninja -S "$consumer" -B "$work_dir/wrong" "-DCMAKE_PREFIX_PATH=$prefix" -DVERSION=2.0 >/dev/null 2>&1; then
        echo "version 2.0 was asked for and found"
        exit 1
    fi
    ;;
pkg-config)
    pc=$(find "$prefix" -name kest.pc)
    PKG_CONFIG_PATH=$(dirname "$pc")
    export PKG_CONFIG_PATH
    flags=$(pkg-config --cflags --libs kest)
    echo "$flags"
    library_dir=$(dirname "$(dirname "$pc")")
    # Evaluated, since pkg-config quotes what the shell would split.
    eval "\"\$CXX\" ${CXXFLAGS:-} -std=c++17 \"\$consumer/main.cpp\" $flags \"-Wl,-rpath,\$library_dir\" \
        -o \"\$work_dir/consumer\""
    ;;
add_subdirectory)
    # Static, which covers what a static library hands on to its users.
    cmake -G Ninja -S "$consumer" -B "$work_dir" "-DKEST_TREE=$source_dir" -DBUILD_SHARED_LIBS=OFF -DCMAKE_BUILD_TYPE=Debug
    cmake --build "$work_dir" -j2
    readelf -d "$work_dir/consumer" | grep -q 'NEEDED.*libgcc_s\.so\.1' || { echo "libgcc_s is not linked"; exit 1; }
    ;;
esac

answer=$("$work_dir/consumer")
echo "$answer"
[[ $answer == "Kest: from the library" ]] || { echo "not the answer that was expected"; exit 1; }
