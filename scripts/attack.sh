#!/bin/bash
# Builds the examples with PRESET (release if not given) and attacks them with hostile peers and with want of memory, threads and
# descriptors: for about a minute, on this machine alone. Prints a line for each attack. With names of attacks, makes those only. Fails when
# a program did not hold out.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
preset=${1:-release}
logged attack-build build_preset "$preset" line_server line_client work_queue kest_failing_malloc

# What the tests of the presets run with, for those that are built with a sanitizer.
export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS="halt_on_error=1:suppressions='$root/tests/tsan.supp'"
python3 scripts/attack.py "build/$preset/examples" "$root/build/$preset/tests/examples/kest_failing_malloc.so" "${@:2}"
