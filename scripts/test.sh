#!/bin/bash
# Builds and tests Kest in stages: a stage is the name of a preset, or lint, attack (the examples under attack), fuzz (the fuzz targets on
# their seeds), abi (the binary interface), docs (the manual) or package (packages in a clean system). With arguments runs those stages,
# without any those of the lists below. Ends with a line "N passed, N failed" that counts test cases over all presets; a stage without test
# cases counts as one when it fails. Fails when anything failed.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

stages=(lint release asan tsan release-clang release-libcxx release-32 release-arm64 attack fuzz abi docs)
# Without an argument too, unless this system has to emulate 32-bit programs: that is slow, and does not bear AddressSanitizer.
stages_32_bits=(release-32-clang asan-32)
# Only when they are named. The first three find little that no other stage finds, and the last takes as long as all others together.
stages_on_demand=(debug asan-clang tsan-clang package)

known=("${stages[@]}" "${stages_32_bits[@]}" "${stages_on_demand[@]}")
if ! are_known known "$@"; then
    echo "usage: test.sh [${known[*]}]..." >&2
    exit 2
fi

"$root/scripts/setup.sh"

if (($# > 0)); then
    stages=("$@")
elif runs_32_bits; then
    stages+=("${stages_32_bits[@]}")
else
    echo "this system emulates 32-bit programs: ${stages_32_bits[*]} are left out"
fi

passed=0 failed=0 skipped=0

# Two of what waits on the clock for limits and threads run side by side; more would make them slow on two cores.
test_preset() { # PRESET
    build_preset "$1" && ctest --preset "$1" -j2 --output-junit "$logs/$1.xml"
}

run_stage() {
    rm -f "$logs/$1.xml"
    case $1 in
    lint) "$root/scripts/lint.sh" ;;
    attack) "$root/scripts/attack.sh" ;;
    fuzz) "$root/scripts/fuzz.sh" corpus ;;
    abi) "$root/scripts/abi.sh" ;;
    docs) "$root/scripts/docs.sh" check ;;
    package) "$root/scripts/package_test.sh" ;;
    release-arm64) install_cross arm64 && test_preset "$1" ;;
    *) test_preset "$1" ;;
    esac
}

for stage in "${stages[@]}"; do
    begin=$SECONDS
    good=1
    logged "$stage" run_stage "$stage" >"$logs/end" || good=0
    report=ok
    result=$logs/$stage.xml
    if [[ -f $result ]]; then
        report=$(python3 "$root/scripts/test_report.py" "$result")
        read -r tests _ failures _ notRun _ <<<"$report"
        passed=$((passed + tests))
        failed=$((failed + failures))
        skipped=$((skipped + notRun))
        ((good == 1 || failures > 0)) || failed=$((failed + 1))
        ((good == 1)) && report="ok: $report" || report="FAILED: $report"
    elif ((good == 0)); then
        report=FAILED
        failed=$((failed + 1))
    fi
    cat "$logs/end"
    printf '%-18s %4d s  %s\n' "$stage" $((SECONDS - begin)) "$report"
done

((skipped == 0)) || echo "$skipped skipped"
echo "$passed passed, $failed failed"
((failed == 0))
