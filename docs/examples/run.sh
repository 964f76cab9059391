#!/usr/bin/env bash
# Runs an example of the manual in a folder of its own and compares what it prints with what the manual says it prints.
# Usage: run.sh EXPECTED COMMAND...
set -euo pipefail
expected=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
unset SHELL # by which a program takes itself for one started by hand
"$@" >"$work.output"
trap 'rm -rf "$work" "$work.output"' EXIT
diff -u "$expected" "$work.output"
[[ -z $(ls -A "$work") ]] || { echo "left behind: $(ls "$work")"; exit 1; }
