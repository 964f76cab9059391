#!/bin/bash
# Builds and tests Kest. Without an argument: the lint, all presets but debug and the sanitizers with Clang, the fuzz targets on their seeds,
# the binary interface and the manual; where 32-bit programs have to be emulated, which is slow and does not bear AddressSanitizer, of the
# 32-bit presets release-32 alone. With arguments: only those stages, each the name of a preset or one of lint, fuzz, abi, docs and package;
# the last, packages in a clean system, takes as long as all others. Ends with a line "N passed, N failed" that counts test cases over all
# presets; a stage without test cases counts as one when it fails. Fails when anything failed.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

known=(lint release asan tsan release-clang release-32 fuzz abi docs release-32-clang asan-32 debug asan-clang tsan-clang package)
stages=("$@")
for stage in "${stages[@]}"; do
    if [[ " ${known[*]} " != *" $stage "* ]]; then
        echo "usage: test.sh [${known[*]}]..." >&2
        exit 2
    fi
done

"$root/scripts/setup.sh"

runs_32_bits() {
    local folder result=0
    folder=$(mktemp -d)
    echo 'int main() { return 0; }' | g++ -m32 -x c++ - -o "$folder/program"
    "$folder/program" 2>/dev/null || result=1
    rm -r "$folder"
    return "$result"
}

if (($# == 0)); then
    stages=("${known[@]:0:11}")
    runs_32_bits || {
        stages=("${known[@]:0:9}")
        echo "this system emulates 32-bit programs: release-32-clang and asan-32 are left out"
    }
fi

logs=$root/build/logs
mkdir -p "$logs"
passed=0 failed=0 skipped=0

# Two of what waits on the clock for limits and threads run side by side; more would make them slow on two cores.
run_stage() {
    rm -f "$logs/$1.xml"
    case $1 in
    lint) "$root/scripts/lint.sh" ;;
    fuzz) "$root/scripts/fuzz.sh" corpus ;;
    abi) "$root/scripts/abi.sh" ;;
    docs) "$root/scripts/docs.sh" check ;;
    package) "$root/scripts/package_test.sh" ;;
    *) cmake --preset "$1" && cmake --build --preset "$1" -j2 && ctest --preset "$1" -j2 --output-junit "$logs/$1.xml" ;;
    esac
}

attribute() { # NAME FILE: a number of the test run's root element
    grep -m 1 -oE "\b$1=\"[0-9]+\"" "$2" | grep -oE '[0-9]+'
}

for stage in "${stages[@]}"; do
    begin=$SECONDS
    good=1
    run_stage "$stage" >"$logs/$stage.log" 2>&1 </dev/null || good=0
    report=ok
    result=$logs/$stage.xml
    if [[ -f $result ]]; then
        tests=$(attribute tests "$result")
        failures=$(attribute failures "$result")
        notRun=$(($(attribute skipped "$result") + $(attribute disabled "$result")))
        report="ok: $((tests - failures - notRun)) passed, $failures failed, $notRun skipped"
        passed=$((passed + tests - failures - notRun))
        failed=$((failed + failures))
        skipped=$((skipped + notRun))
        ((good == 1 || failures > 0)) || failed=$((failed + 1))
        ((good == 1)) || report=${report/ok/FAILED}
    elif ((good == 0)); then
        report=FAILED
        failed=$((failed + 1))
    fi
    ((good == 1)) || tail -n 200 "$logs/$stage.log"
    printf '%-18s %4d s  %s\n' "$stage" $((SECONDS - begin)) "$report"
done

((skipped == 0)) || echo "$skipped skipped"
echo "$passed passed, $failed failed"
((failed == 0))
