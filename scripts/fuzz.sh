#!/bin/bash
# Runs the fuzz targets: fuzz.sh SECONDS|corpus [TARGET]. Each target begins with its seeds in fuzz/corpus and runs for SECONDS; "corpus"
# means the seeds and three seconds. Prints a line for each target. New inputs stay out of the checkout. Fails on a finding, and copies its
# input to build/findings. The input of a fault that is mended belongs into fuzz/corpus.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# A longer input than these finds nothing that a shorter input does not find.
declare -A lengths=([address]=320 [fs_address]=640 [path]=512 [stream]=640 [utf8]=512)
mapfile -t targets < <(printf '%s\n' "${!lengths[@]}" | sort)

seconds=${1:-}
[[ $seconds != corpus ]] || seconds=3
target=${2:-}
if (($# > 2)) || [[ ! $seconds =~ ^[1-9][0-9]*$ || ($target && ! ${lengths[$target]:-}) ]]; then
    echo "usage: fuzz.sh SECONDS|corpus [${targets[*]}]" >&2
    exit 2
fi
[[ -z $target ]] || targets=("$target")

"$root/scripts/setup.sh"
findings=$root/build/findings
logged fuzz-build build_preset fuzz

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
running= # the target that runs, as a process
end() { # STATUS
    running=${running:-$(jobs -pr)} # the signal may come before its number is known
    [[ -z $running ]] || { kill "$running" && wait "$running"; } 2>/dev/null || true
    exit "$1"
}
trap 'end 129' HUP
trap 'end 130' INT
trap 'end 143' TERM
mkdir "$work/tmp"
export TMPDIR=$work/tmp # targets make their folders here, which a finding leaves behind
export ASAN_OPTIONS=detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1

statistic() { # NAME FILE
    sed -n "s/^stat::$1: *//p" "$2" | tail -n 1
}

failures=0
for name in "${targets[@]}"; do
    mkdir -p "$work/$name/corpus" "$work/$name/findings"
    cp "fuzz/corpus/$name/"* "$work/$name/corpus"
    output=$work/$name/output
    result=0
    "build/fuzz/fuzz/fuzz_$name" "$work/$name/corpus" -max_total_time="$seconds" -max_len="${lengths[$name]}" -timeout=10 \
        -artifact_prefix="$work/$name/findings/" -print_final_stats=1 >"$output" 2>&1 </dev/null &
    running=$!
    wait "$running" || result=$?
    running=
    crashes=$(find "$work/$name/findings" -type f | wc -l)
    # A target that fails without a finding, or that ran nothing, is a failure too.
    executions=$(statistic number_of_executed_units "$output")
    ((result == 0 && ${executions:-0} > 0)) || failures=$((failures + 1))
    printf '%-12s %10d executions  %6d new units  %d crashes\n' \
        "$name" "${executions:-0}" "$(statistic new_units_added "$output" | grep . || echo 0)" "$crashes"
    if ((result != 0)); then
        show_end "$output"
        mkdir -p "$findings/$name"
        ((crashes == 0)) || cp "$work/$name/findings/"* "$findings/$name"
        echo "fuzz: $name ended with status $result; its findings are in ${findings#"$root/"}/$name"
    fi
done
((failures == 0))
