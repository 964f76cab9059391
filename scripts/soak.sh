#!/bin/bash
# Builds the soak program and runs it: soak.sh [SECONDS [CLIENTS [SEED]]], see benchmarks/soak.cpp. PRESET names another preset than release,
# asan or tsan for instance. Fails when anything was lost or left.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
"$root/scripts/setup.sh"

preset=${PRESET:-release}
build=$root/build/soak-$preset
build_soak() {
    cmake --preset "$preset" -B "$build" -DKEST_BUILD_BENCHMARKS=ON -DKEST_BUILD_TESTS=OFF -DKEST_BUILD_EXAMPLES=OFF &&
        cmake --build "$build" -j2 --target soak
}
logged "soak-$preset" build_soak
export ASAN_OPTIONS=detect_stack_use_after_return=1
export TSAN_OPTIONS="halt_on_error=1:suppressions='$root/tests/tsan.supp'" UBSAN_OPTIONS=print_stacktrace=1
"$build/benchmarks/soak" "$@"
