#!/bin/bash
# Builds Kest for other processors and runs the tests of their presets under qemu's emulation of a process: cross.sh [ARCHITECTURE...], by
# Debian's names; without an argument for all. Prints what was built, how many tests passed, and each skipped test with its reason. Fails
# when a build warns, a test fails, or the exported symbols are not those in abi/.
# "cross.sh compilers" builds the library with every compiler of the distribution, and its headers in every standard that the compiler
# knows. Then it links the examples with -static and runs one, and tells which of the library's imports musl lacks.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

mapfile -t architectures < <(printf '%s\n' "${!cross_machines[@]}" | sort)
failures=0

# The newest version of LIBRARY's symbols that FILE imports: the oldest LIBRARY that can load FILE.
newest() { # FILE LIBRARY
    objdump -T "$1" | grep -oE "\b$2_[0-9.]+" | sort -uV | tail -n 1
}

needs() { # FILE
    echo "needs $(newest "$1" GLIBC), $(newest "$1" GLIBCXX)"
}

test_architecture() { # ARCHITECTURE
    local preset=release-$1 result
    install_cross "$1"
    result=$logs/$preset.xml
    rm -f "$result"
    if ! logged "$preset-build" build_preset "$preset"; then
        echo "$1: does not build"
        failures=$((failures + 1))
        return
    fi
    logged "$preset" ctest --preset "$preset" -j2 --output-junit "$result" || failures=$((failures + 1))
    echo "$1: built without a warning, $(needs "build/$preset/kest/libkest.so"); $(python3 scripts/test_report.py "$result")"
    "$root/scripts/abi.sh" check "$1" || failures=$((failures + 1))
}

# Each compiler, with its names for the standards that it knows beside C++17.
declare -A compilers=(
    [g++-11]="c++20 c++2b" [g++-12]="c++20 c++2b"
    [clang++-13]="c++20 c++2b" [clang++-14]="c++20 c++2b" [clang++-15]="c++20 c++2b" [clang++-16]="c++20 c++2b"
    [clang++-19]="c++20 c++23 c++2c"
)

build_with() { # COMPILER
    local build=build/compiler-$1 standard
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_COMPILER=$1" -DKEST_WERROR=ON \
        -DKEST_BUILD_TESTS=OFF -DKEST_BUILD_EXAMPLES=OFF &&
        cmake --build "$build" -j2 || return
    for standard in c++17 ${compilers[$1]}; do
        echo '#include <kest/kest.h>' | "$1" "-std=$standard" -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror \
            -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -I. -x c++ - || return
    done
}

test_compilers() {
    local compiler names
    mapfile -t names < <(printf '%s\n' "${!compilers[@]}" | sort -V)
    install_missing "${names[@]/clang++/clang}"
    for compiler in "${names[@]}"; do
        if logged "compiler-$compiler" build_with "$compiler"; then
            echo "$compiler: builds without a warning, headers as c++17 ${compilers[$compiler]};" \
                "$(needs "build/compiler-$compiler/kest/libkest.so")"
        else
            echo "$compiler: FAILED"
            failures=$((failures + 1))
        fi
    done
}

build_static() {
    cmake --preset release -B build/static -DBUILD_SHARED_LIBS=OFF -DKEST_BUILD_TESTS=OFF -DCMAKE_EXE_LINKER_FLAGS=-static &&
        cmake --build build/static -j2 --target line_server line_client work_queue
}

# A static program works too. glibc loads the parts that look names up when the program first needs them.
test_static() {
    local answer
    if ! logged static build_static; then
        echo "-static: FAILED"
        failures=$((failures + 1))
        return
    fi
    answer=$(printf 'one\ntwo\n' >build/static/text && build/static/examples/work_queue build/static/text 2)
    echo "-static: links; work_queue says: $answer"
}

# Links one program that calls every function that the library imports from the C library.
test_musl() {
    local imported
    install_missing musl-tools
    imported=$(objdump -T build/compiler-g++-12/kest/libkest.so | awk '/\*UND\*.*GLIBC_/ { print $NF }' | sort -u)
    {
        awk '{ print "char " $1 "();" } END { print "int main(void) { return 0" }' <<<"$imported"
        awk '{ print "+ " $1 "()" } END { print "; }" }' <<<"$imported"
    } | musl-gcc -w -fno-builtin -x c - -o build/musl 2>&1 |
        sed -nE 's/.*undefined reference to .([A-Za-z0-9_]+).$/\1/p' | sort -u >build/missing || true # the program lacks what musl lacks
    echo "musl: of what the library imports it lacks: $(paste -sd ' ' build/missing)"
}

tasks=("$@")
(($# > 0)) || tasks=("${architectures[@]}")
known=("${architectures[@]}" compilers)
are_known known "${tasks[@]}" || { echo "usage: cross.sh [${known[*]}]..." >&2; exit 2; }
"$root/scripts/setup.sh"
for task in "${tasks[@]}"; do
    if [[ $task == compilers ]]; then
        test_compilers
        test_static
        test_musl
    else
        test_architecture "$task"
    fi
done
((failures == 0))
