#!/bin/bash
# Checks the form of the sources: clang-format, clang-tidy, and rules of our own that no tool knows. Fails on any finding.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
[[ ${1-} == --no-setup ]] || "$root/scripts/setup.sh"

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

# clang-tidy reads how each source is compiled from the release preset's database. Headers are looked at through the
# sources that include them. Tests have a configuration of their own (tests/.clang-tidy).
tidy() {
    cmake --preset release >/dev/null
    run-clang-tidy -quiet -j2 -p build/release "^$root/(kest|examples|tests)/" 2>build/tidy.err >build/tidy.log && return 0
    grep -vE '^(clang-tidy|$)|warnings generated' build/tidy.log || true
    grep -vE 'warnings? generated|Suppressed|Use -' build/tidy.err || true
    return 1
}

step "formatting" format
step "rules of our own" python3 "$root/scripts/check_rules.py" kest
step "clang-tidy" tidy
((failures == 0))
