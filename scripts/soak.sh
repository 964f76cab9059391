#!/bin/bash
# Runs the library long: soak.sh [SECONDS [CLIENTS [SEED]]]. First the soak program, for SECONDS, see benchmarks/soak.cpp; then moves of files
# that meet others, for as long (as root, since they need file systems of their own). PRESET names another preset than release, asan or tsan
# for instance. Fails when anything was lost or left.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
"$root/scripts/setup.sh"

preset=${PRESET:-release}
build=$root/build/soak-$preset
build_soak() {
    cmake --preset "$preset" -B "$build" -DKEST_BUILD_BENCHMARKS=ON -DKEST_BUILD_EXAMPLES=OFF &&
        cmake --build "$build" -j2 --target soak kest_filesystem_tests
}
logged "soak-$preset" build_soak
export ASAN_OPTIONS=detect_stack_use_after_return=1
export TSAN_OPTIONS="halt_on_error=1:suppressions='$root/tests/tsan.supp'" UBSAN_OPTIONS=print_stacktrace=1
"$build/benchmarks/soak" "$@"
seconds=${1:-10}
# There are nine races.
KEST_RACE_SECONDS=$((${seconds%.*} / 9 + 1)) "$build/tests/kest_filesystem_tests" --gtest_filter='*.MovesThatMeetLoseNothing'
