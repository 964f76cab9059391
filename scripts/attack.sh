#!/bin/bash
# Attacks the examples with hostile peers and with lack of memory, threads and descriptors: attack.sh [PRESET [ATTACK...]]. Builds them with
# PRESET, by default release. Makes the attacks that are named, by default all, in about a minute, on this machine alone. Prints a line for
# each attack. Fails when a program did not hold out.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
preset=${1:-release}
logged attack-build build_preset "$preset" line_server line_client work_queue kest_failing_malloc

# The options that the tests of the presets with sanitizers run with.
export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS="halt_on_error=1:suppressions='$root/tests/tsan.supp'"
python3 scripts/attack.py "build/$preset/examples" "$root/build/$preset/tests/examples/kest_failing_malloc.so" "${@:2}"
