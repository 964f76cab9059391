#!/bin/bash
# Runs the tests and tells which lines and branches of kest/ they ran: a table of lines and a table of branches, with a row for each file,
# then a summary. Each row names the lines that have something that never ran. Branches that only an exception takes are left out.
# build/coverage/report/index.html is the report for a browser.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
(($# == 0)) || { echo "usage: coverage.sh" >&2; exit 2; }

"$root/scripts/setup.sh" gcovr
build=$root/build/coverage
logged coverage-build build_preset coverage
find "$build" -name '*.gcda' -delete # counts of an earlier run
# The code that counts is a part of the library here, and makes calls that the tests of faults do not know.
logged coverage ctest --preset coverage -j2 -E '^faults\.page$'

mkdir -p "$build/report"
gcovr --root "$root" --filter 'kest/' --exclude-throw-branches --exclude-unreachable-branches \
    --html-details "$build/report/index.html" --json "$build/coverage.json" --txt "$build/lines.txt" \
    --print-summary "$build" >"$build/summary.txt"
cat "$build/lines.txt"
gcovr --root "$root" --add-tracefile "$build/coverage.json" --exclude-throw-branches --exclude-unreachable-branches --branches --txt -
cat "$build/summary.txt"
