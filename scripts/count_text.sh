#!/bin/bash
# Counts the instructions of the text conversions on arm64: count_text.sh [page]. There was no arm64 machine to measure times on, so an
# emulator reports each instruction that runs while texts of 4 KiB are converted. Prints a table: instructions per byte of UTF-8 by each
# codec, and the ratio of the codecs, for a whole call, which counts and allocates too, and for the conversion alone. With "page" it also
# writes docs/performance/arm64.md.
set -euo pipefail
shopt -s inherit_errexit # a program that dies in the emulator ends the script, not the count
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

page=${1-}
if (($# > 1)) || [[ ${1-page} != page ]]; then
    echo "usage: count_text.sh [page]" >&2
    exit 2
fi
install_missing g++-12-aarch64-linux-gnu qemu-user

work=$(mktemp -d)
trap 'rm -rf "$work" docs/performance/arm64.md.new' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
size=4096
logged count_text aarch64-linux-gnu-g++-12 -std=c++23 -O3 -DNDEBUG -static -I. -o "$work/text_count" \
    benchmarks/text_count.cpp kest/text/utf8.cpp kest/text/utf8_*.cpp

executed() { # CODEC TASK SCRIPT ROUNDS: the number of all instructions of the program
    qemu-aarch64 -singlestep -d nochain,exec -D "$work/log" "$work/text_count" "$@"
    wc -l <"$work/log"
}

# The instructions of one round more: the third round finds its memory allocated.
of_one_round() { # CODEC TASK SCRIPT
    local three two
    two=$(executed "$@" 2)
    three=$(executed "$@" 3)
    ((three > two)) || { echo "count_text: no count of $*" >&2; exit 1; }
    echo "$((three - two))"
}

table() {
    echo "| 4 KiB | whole call: neon | portable | neon / portable | conversion alone: neon | portable | neon / portable |"
    echo "|---|---|---|---|---|---|---|"
    local direction script task neon portable
    for direction in decode encode; do
        for script in ascii latin cyrillic cjk; do
            printf '| %s, %s |' "$direction" "$script"
            for task in "$direction" "$direction-alone"; do
                neon=$(of_one_round neon "$task" "$script")
                portable=$(of_one_round portable "$task" "$script")
                awk -v neon="$neon" -v portable="$portable" -v size="$size" \
                    'BEGIN { printf " %.2f | %.2f | %.3f |", neon / size, portable / size, neon / portable }'
            done
            echo
        done
    done
}

table >"$work/table"
cat "$work/table"
[[ $page ]] || exit 0
emulator=$(qemu-aarch64 --version | head -n 1)
compiler=$(aarch64-linux-gnu-g++-12 --version | head -n 1)
cat - "$work/table" >"$work/page" <<END
# Text on arm64: instructions, not times

Written by \`scripts/count_text.sh page\`. There was no such machine to measure on. An emulator ($emulator)
reported each instruction that ran while a text of 4 KiB was converted, compiled by
$compiler with -O3. The figures are instructions per byte of UTF-8. They say nothing of what a
processor does at once or waits for.

A whole call counts the elements of the result, allocates the result and converts. The conversion alone writes into a buffer that is
allocated already. The goal is a third of the portable codec's instructions for a whole call.

The portable codec is compiled for the same processor, and the compiler uses vectors in its loops over ASCII and in its counting. To count
the bytes of a wide text, the portable codec first looks for a zero with the C library's \`wmemchr\`, which is a loop without vectors here.
The neon codec looks for the zero while it counts.

END
cp "$work/page" docs/performance/arm64.md.new
mv docs/performance/arm64.md.new docs/performance/arm64.md
