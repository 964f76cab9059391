#!/usr/bin/env bash
# Installs the build afresh and compares the installed headers with those of the tree.
# Usage: install.sh SOURCE_DIR BUILD_DIR CONFIG PREFIX
set -euo pipefail
source_dir=$1 build_dir=$2 config=$3 prefix=$4
rm -rf "$prefix"
cmake --install "$build_dir" --config "$config" --prefix "$prefix" >/dev/null

cd "$source_dir"
# An internal header says so in its first line; all others are installed.
find kest -name '*.h' -print0 | LC_ALL=C sort -z | while IFS= read -r -d '' header; do
    head -n 1 "$header" | grep -q '^// Internal header' || echo "$header"
done >"$prefix/public.txt"
(cd "$prefix/include" && find kest -name '*.h' | LC_ALL=C sort) >"$prefix/installed.txt"
diff -u "$prefix/public.txt" "$prefix/installed.txt" ||
    { echo "internal_headers in cmake/install.cmake and the first lines of the headers disagree"; exit 1; }
