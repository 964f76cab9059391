#!/bin/bash
# Shows where the time goes in five cases that have taken more than their goals allow: profile.sh [CASE...], without one all of rename,
# signal, copy, echo and list. Measures the library and the bare calls by turns on one processor, then samples both with perf by the clock,
# which virtual machines have too. Prints a table by system call and function, as shares of the bare calls' time, and the instructions of
# the library at which most samples are. Takes some minutes. A run of all cases also writes docs/performance/profiles.md.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# The program of benchmarks/, and which measurement of it; WHO stands for who is measured.
declare -A measured=(
    [rename]="copy rename/memory/WHO"
    [signal]="condition signal/nobody_waits/WHO"
    [copy]="copy copy/disk/WHO/268435456"
    [echo]="echo there_and_back/fs/WHO/64"
    [list]="directory list/memory/WHO/1000"
)
declare -A sampled=([list]="limit shared kest") # of the other cases limit and kest
all=(rename signal copy echo list)
cases=("$@")
(($# > 0)) || cases=("${all[@]}")
are_known all "${cases[@]}" || { echo "usage: profile.sh [${all[*]}]..." >&2; exit 2; }

"$root/scripts/setup.sh" libbenchmark-dev linux-perf
logged profile-build build_preset bench bench_copy bench_condition bench_directory bench_echo

work=$(mktemp -d /var/tmp/kest-profile.XXXXXX) # on a disk, unlike /tmp on many systems
memory=$(mktemp -d /dev/shm/kest-profile.XXXXXX)
trap 'rm -rf "$work" "$memory"' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT # perf takes the signal for the end of its recording, and ends well
trap 'exit 143' TERM
export KEST_BENCHMARK_DISK=$work KEST_BENCHMARK_MEMORY=$memory KEST_BENCHMARK_WHOLE=1
processor=$(($(nproc) - 1))

# A program's measurements are named with what they are measured by at the end.
run() { # WHO OUTPUT [OPTION...]
    local topic name
    read -r topic name <<<"$measured_now"
    name=${name//_/ }
    taskset -c "$processor" "$root/build/bench/benchmarks/bench_$topic" --benchmark_filter="^${name/WHO/$1}(/[a-z_]+(:[0-9]+)?)*\$" \
        --benchmark_out="$2" --benchmark_out_format=json "${@:3}" >&2
}

export -f run
export measured_now root processor
for case in "${cases[@]}"; do
    echo "profile: $case" >&2
    measured_now=${measured[$case]}
    for turn in 1 2 3; do # in random order, so that whatever else the machine does meanwhile meets both alike
        logged "profile-$case" run '(limit|shared|kest|std)' "$work/$case.$turn.json" --benchmark_repetitions=100 \
            --benchmark_min_time=0.002 --benchmark_enable_random_interleaving=true
    done
    for turn in 1 2 3; do
        for who in ${sampled[$case]:-limit kest}; do
            data=$work/$case.$who.$turn
            logged "profile-$case" perf record -q -g -e cpu-clock -F 4999 -o "$data.data" -- \
                bash -c "run $who /dev/null --benchmark_min_time=0.4"
            # The functions that others were put into take addr2line minutes.
            perf script --no-inline -i "$data.data" -F comm,ip,sym,symoff,dso >"$data.samples" 2>/dev/null
        done
    done
    [[ $case == copy ]] || continue
    # The calls, with the time that they wait for the disk, of which the samples know nothing.
    for who in limit kest; do
        logged "profile-$case" perf trace -s -o "$work/$case.$who.calls" -- bash -c "run $who /dev/null"
    done
done

page=()
((${#cases[@]} != ${#all[@]})) || page=(--page "$root/docs/performance/profiles.md")
/usr/bin/python3 "$root/scripts/profile_report.py" --results "$work" --library "$root/build/bench/kest/libkest.so" "${page[@]}" \
    "${cases[@]}"
