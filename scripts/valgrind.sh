#!/bin/bash
# Runs the test programs of the preset debug under valgrind: valgrind.sh [memcheck] [helgrind], both without an argument. Tests that are
# scripts are left out. Both take about half an hour on two cores. Prints a line for each program. Fails on a failing test and on any report
# that tests/valgrind.supp does not explain.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

known=(memcheck helgrind)
tools=("$@")
(($# > 0)) || tools=("${known[@]}")
are_known known "${tools[@]}" || { echo "usage: valgrind.sh [${known[*]}]..." >&2; exit 2; }

"$root/scripts/setup.sh" valgrind
logged valgrind-build build_preset debug

# Only memory that nothing points to any more is a leak. helgrind's approximate history tells the place of the
# older access only roughly; the full history needs much more time and memory.
declare -A options=(
    [memcheck]="--leak-check=full --errors-for-leak-kinds=definite"
    [helgrind]="--history-level=approx"
)
# Tests that a tool cannot follow, each for the reason beside it.
declare -A without=(
    [memcheck]=""
    # The gate of the first is opened by a thread that did not lock it, which helgrind takes for a mistake, and then it misses every order
    # that the gate makes. In the second an atomic counter tells that a thread is in its body, and helgrind knows no order by atomics.
    [helgrind]="Thread.ExitValueIsThatOfTheBodyAndIsGivenOnce:Thread.StartedOneOutlivesItsObject"
)

failures=0
for tool in "${tools[@]}"; do
    for program in build/debug/tests/kest_*_tests; do
        name=$(basename "$program")
        log=$logs/$tool.$name.log
        begin=$SECONDS result=0
        # A child that dies on purpose reports nothing. Operators new that a test program brings stay in place: some of them fail when
        # they are told to.
        # shellcheck disable=SC2086 # the options are words
        valgrind -q --tool="$tool" ${options[$tool]} --error-exitcode=99 --child-silent-after-fork=yes --fair-sched=yes \
            --soname-synonyms=somalloc=nouserintercepts \
            --suppressions=tests/valgrind.supp "$program" --gtest_brief=1 --gtest_filter="*-${without[$tool]}" >"$log" 2>&1 || result=$?
        reports=$(grep -cE '^==[0-9]+== +at 0x' "$log" || true)
        printf '%-10s %-26s %4d s  %s\n' "$tool" "$name" $((SECONDS - begin)) \
            "$([[ $result == 0 ]] && echo clean || echo "FAILED ($result), $reports reports")"
        ((result == 0)) || { failures=$((failures + 1)); show_end "$log"; }
    done
done
((failures == 0))
