#!/bin/bash
# Builds the soak program and runs it: soak.sh [SECONDS [CLIENTS [SEED]]], see benchmarks/soak.cpp. PRESET names another preset than release,
# asan or tsan for instance. Fails when anything was lost or left.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"

preset=${PRESET:-release}
build=$root/build/soak-$preset
log=$root/build/logs/soak-$preset.log
mkdir -p "$(dirname "$log")"
if ! { cmake --preset "$preset" -B "$build" -DKEST_BUILD_BENCHMARKS=ON -DKEST_BUILD_TESTS=OFF -DKEST_BUILD_EXAMPLES=OFF &&
    cmake --build "$build" -j2 --target soak; } >"$log" 2>&1; then
    tail -n 100 "$log"
    exit 1
fi
export TSAN_OPTIONS="halt_on_error=1:suppressions='$root/tests/tsan.supp'" UBSAN_OPTIONS=print_stacktrace=1
"$build/benchmarks/soak" "$@"
