#!/bin/bash
# Runs the library for long: soak.sh [SECONDS [CLIENTS [SEED]]]. Runs the soak program (benchmarks/soak.cpp) for SECONDS, by default 10.
# Then runs moves of files that meet other moves, for about as long; those need root, since they mount file systems of their own. The
# environment variable PRESET names another preset than release, asan or tsan for instance. Fails when anything was lost or left.
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
# There are nine races, which share the time.
KEST_RACE_SECONDS=$((${seconds%.*} / 9 + 1)) "$build/tests/kest_filesystem_tests" --gtest_filter='*.MovesThatMeetLoseNothing'
