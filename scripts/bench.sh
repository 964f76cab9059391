#!/bin/bash
# Builds the benchmarks, runs them and compares: bench.sh [--quick] [TOPIC...]. A topic is a file of benchmarks/, mutex for instance. Prints
# a table for each topic: the times of the library and of its peers, as ratios to the bare calls that do the same work. A run of all topics
# also writes docs/performance.md and its plots; it takes about half an hour, during which the machine must do nothing else. --quick leaves
# out the largest sizes and measures for a short time: enough to see that everything runs, and no figure to quote.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

quick=
if [[ ${1:-} == --quick ]]; then
    quick=--quick
    shift
fi
all=()
for file in benchmarks/*.cpp; do
    topic=$(basename "$file" .cpp)
    case $topic in
    main | soak | text_codecs | text_count) ;; # no topics: the others' main, a program of its own, a part of text, one for an emulator
    *) all+=("$topic") ;;
    esac
done
topics=("$@")
(($# > 0)) || topics=("${all[@]}")
if ! are_known all "${topics[@]}"; then
    echo "usage: bench.sh [--quick] [${all[*]}]..." >&2
    exit 2
fi

"$root/scripts/setup.sh" libbenchmark-dev libpoco-dev libapr1-dev libboost-dev libboost-chrono-dev libboost-filesystem-dev \
    libboost-thread-dev libicu-dev libglib2.0-dev libboost-locale-dev python3-matplotlib

work=$(mktemp -d /var/tmp/kest-bench.XXXXXX) # on a disk, unlike /tmp on many systems
memory=$(mktemp -d /dev/shm/kest-bench.XXXXXX)
trap 'rm -rf "$work" "$memory"' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
export KEST_BENCHMARK_DISK=$work KEST_BENCHMARK_MEMORY=$memory
[[ -n $quick ]] || export KEST_BENCHMARK_WHOLE=1

build() { # PRESET [OPTION...]: builds the topics
    cmake --preset "$1" "${@:2}" && cmake --build --preset "$1" -j2 --target "${topics[@]/#/bench_}"
}

# The repetitions run in random order, so that other work of the machine disturbs all that are compared alike.
run() { # PRESET REPETITIONS
    local results=$root/build/$1/results topic
    local -a effort=(--benchmark_repetitions="$2" --benchmark_min_time=0.02)
    [[ -z $quick ]] || effort=(--benchmark_repetitions=5 --benchmark_min_time=0.002)
    mkdir -p "$results"
    for topic in "${topics[@]}"; do
        echo "bench: $1: $topic" >&2
        logged "$1-$topic" "$root/build/$1/benchmarks/bench_$topic" "${effort[@]}" --benchmark_enable_random_interleaving=true \
            --benchmark_out="$results/$topic.json" --benchmark_out_format=json >&2
    done
}

# Google Benchmark for 32 bits is unpacked beside the build, from the packages of i386: installing them would need the architecture added to
# the system. The package lists of i386 are kept apart too.
i386=$root/build/i386
build_32() {
    if [[ ! -e $i386/complete ]]; then
        mkdir -p "$i386/lists/partial" "$i386/packages"
        (
            cd "$i386/packages"
            apt=(apt-get -qq -o "APT::Architectures::=$(dpkg --print-architecture)" -o APT::Architectures::=i386
                -o "Dir::State::Lists=$i386/lists" -o "Dir::Cache=$i386/cache" -o Debug::NoLocking=1)
            "${apt[@]}" update # the list of another archive may fail
            "${apt[@]}" download libbenchmark-dev:i386 libbenchmark1debian:i386
        ) || return
        local package
        for package in "$i386"/packages/*.deb; do
            dpkg-deb --extract "$package" "$i386" || return
        done
        touch "$i386/complete"
    fi
    build bench-32 "-Dbenchmark_DIR=$i386/usr/lib/i386-linux-gnu/cmake/benchmark"
}

begin=$SECONDS
runs_32=yes
runs_32_bits || runs_32= # asked first: when there is no answer, nothing was measured in vain
logged bench build bench >&2
run bench 15

# Figures of an emulated processor say nothing about a real one.
results_32=()
if [[ -z $runs_32 ]]; then
    about_32="none: this machine runs no 32-bit programs itself, and figures from an emulation would say nothing"
elif ! logged bench-32 build_32 >/dev/null; then
    about_32="none: no Google Benchmark for 32 bits was to be had"
else
    run bench-32 9
    about_32="below those of 64 bits, beside the standard library's"
    results_32=(--results-32 "$root/build/bench-32/results")
fi

cache() { # NAME: its value in the build's cache
    sed -n "s/^$1:[A-Z]*=//p" "$root/build/bench/CMakeCache.txt"
}
compiler=$(cache CMAKE_CXX_COMPILER)
cat >"$root/build/bench/results/run.txt" <<END
Date=$(date -u '+%Y-%m-%d %H:%M UTC')
Processor=$(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1), $(nproc) in use
System=$(uname -s) $(uname -r) $(uname -m), $(getconf GNU_LIBC_VERSION)
Compiler=$("$compiler" --version | head -n 1)
Flags=$(cache CMAKE_CXX_FLAGS_RELEASE), shared library
Disk=$(df --output=fstype "$work" | tail -n 1)
Memory file system=$(df --output=fstype "$memory" | tail -n 1)
32-bit figures=$about_32
END
page=()
((${#topics[@]} != ${#all[@]})) || page=(--page "$root/docs/performance.md")
# The system's own python3, which has the system's packages: another one may come first in PATH.
/usr/bin/python3 "$root/scripts/bench_report.py" ${quick:+"$quick"} --results "$root/build/bench/results" "${results_32[@]}" "${page[@]}" \
    --goals "$root/scripts/bench_goals.csv" "${topics[@]}"
echo "bench: measured and reported in $((SECONDS - begin)) s"
((${#page[@]} > 0)) ||
    echo "bench: not all topics, so docs/performance.md is left as it was"
