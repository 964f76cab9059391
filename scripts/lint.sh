#!/bin/bash
# Checks the form of the sources: clang-format, clang-tidy, and a rule of our own that no tool knows. Fails on any finding.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"

failures=0
step() { # NAME COMMAND...
    local begin=$SECONDS name=$1
    shift
    if "$@"; then
        echo "lint: $name: clean, $((SECONDS - begin)) s"
    else
        echo "lint: $name: FAILED, $((SECONDS - begin)) s"
        failures=$((failures + 1))
    fi
}

format() {
    find kest tests examples \( -name '*.h' -o -name '*.cpp' \) -print0 | xargs -0 clang-format --dry-run --Werror
}

# clang-tidy is told how each source is compiled by a preset of its own compiler, and looks at headers through the sources
# that include them. Tests have a configuration of their own, tests/.clang-tidy.
tidy() {
    cmake --preset release-clang >/dev/null
    local log=$root/build/clang-tidy.log
    run-clang-tidy -quiet -j2 -p build/release-clang '/(kest|examples|tests)/' >"$log" 2>&1 && return 0
    grep -vE '^clang-tidy|^[0-9]+ warnings?( and [0-9]+ errors?)? generated|^Suppressed|^Use -' "$log" || true
    return 1
}

step "formatting" format
step "cancellation" python3 "$root/scripts/check_cancellation.py" kest
step "clang-tidy" tidy
((failures == 0))
