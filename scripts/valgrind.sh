#!/bin/bash
# Runs the tests of the library under valgrind: memcheck, then helgrind, or the one that is named. Takes half an hour on two cores. Prints a line
# a program; fails on any report that tests/valgrind.supp does not explain.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

known=(memcheck helgrind)
tools=("$@")
(($# > 0)) || tools=("${known[@]}")
for tool in "${tools[@]}"; do
    [[ " ${known[*]} " == *" $tool "* ]] || { echo "usage: valgrind.sh [${known[*]}]..." >&2; exit 2; }
done

"$root/scripts/setup.sh" valgrind
logs=$root/build/logs
mkdir -p "$logs"
if ! { cmake --preset debug && cmake --build --preset debug -j2; } >"$logs/valgrind.log" 2>&1; then
    tail -n 100 "$logs/valgrind.log"
    exit 1
fi

# A thread that is cancelled in a system call of valgrind's own wrappers, and a child that dies on purpose, are no subject of its reports.
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
        # A program's own operators new stay its own: some of them fail when they are told. The options are words: shellcheck disable=SC2086
        valgrind -q --tool="$tool" ${options[$tool]} --error-exitcode=99 --child-silent-after-fork=yes --fair-sched=yes \
            --soname-synonyms=somalloc=nouserintercepts \
            --suppressions=tests/valgrind.supp "$program" --gtest_brief=1 --gtest_filter="*-${without[$tool]}" >"$log" 2>&1 || result=$?
        reports=$(grep -cE '^==[0-9]+== +at 0x' "$log" || true)
        printf '%-10s %-26s %4d s  %s\n' "$tool" "$name" $((SECONDS - begin)) "$([[ $result == 0 ]] && echo clean || echo "FAILED ($result), $reports reports")"
        ((result == 0)) || { failures=$((failures + 1)); tail -n 60 "$log"; }
    done
done
((failures == 0))
