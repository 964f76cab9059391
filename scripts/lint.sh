#!/bin/bash
# Checks the style of the sources: clang-format, clang-tidy, shellcheck, and rules of our own that no tool knows. Fails on any finding.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
"$root/scripts/setup.sh" shellcheck

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
    find kest tests models examples benchmarks docs fuzz \( -name '*.h' -o -name '*.cpp' \) -print0 | xargs -0 clang-format --dry-run --Werror
}

# clang-tidy is told how each source is compiled by a build of its own compiler that has everything in it. The .clang-tidy of a source's
# folder says what it is held to. A header is checked through the sources that include it, and one of the tests through tests alone: what
# else includes it is held to more. Which headers those are stands here and in no .clang-tidy, since only the whole path tells the folder
# of the library from a checkout of the same name.
tidy() {
    # A precompiled header would have to be built first.
    cmake --preset release-clang -B build/lint -DKEST_PRECOMPILE_TESTS=OFF -DKEST_BUILD_BENCHMARKS=ON -DKEST_BUILD_FUZZERS=ON \
        >/dev/null || return 1
    # A source that several programs are made of is checked once.
    python3 -c 'import json, sys
place = sys.argv[1]
commands = {each["file"]: each for each in json.load(open(place))}
json.dump(list(commands.values()), open(place, "w"))' build/lint/compile_commands.json || return 1
    local folders log=$logs/clang-tidy.log result=0 place
    # The path as a regular expression.
    place=$(sed 's/[][\\.*+?^${}()|]/\\&/g' <<<"$root")
    : >"$log"
    for folders in 'kest|docs|examples|benchmarks|models|fuzz' tests; do
        run-clang-tidy -quiet -j2 -p build/lint "-header-filter=^$place/($folders)/" "^$place/($folders)/" >>"$log" 2>&1 || result=1
    done
    ((result == 0)) ||
        grep -vE '^clang-tidy|^[0-9]+ warnings?( and [0-9]+ errors?)? generated|^Suppressed|^Use -' "$log" || true
    return "$result"
}

step "formatting" format
step "scripts" shellcheck --external-sources --source-path=scripts --severity=warning scripts/*.sh tests/package/*.sh docs/examples/run.sh .ci/run
step "sources" python3 "$root/scripts/check_sources.py" kest
step "cancellation" python3 "$root/scripts/check_cancellation.py" kest
step "clang-tidy" tidy
((failures == 0))
