#!/usr/bin/env bash
# Compiles the program of README.md as it is printed and runs it.
# Usage: readme.sh SOURCE_DIR LIBRARY_DIR WORK_DIR; CXX and CXXFLAGS are those of the build.
set -euo pipefail
source_dir=$1 library_dir=$2 work_dir=$3
mkdir -p "$work_dir"
sed -n '/^```cpp$/,/^```$/{//!p}' "$source_dir/README.md" >"$work_dir/readme.cpp"
grep -q 'int main' "$work_dir/readme.cpp" || { echo "README.md has no program"; exit 1; }

# shellcheck disable=SC2086 # the flags are words
"$CXX" ${CXXFLAGS:-} -std=c++17 -Wall -Wextra -Werror -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 "-I$source_dir" \
    "$work_dir/readme.cpp" "-L$library_dir" "-Wl,-rpath,$library_dir" -lkest -o "$work_dir/readme"

port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
# Twice, as people do: the first run must leave its address free. The system keeps the address of the side that ends a connection for a
# while.
for _ in first second; do
    answer=$(${KEST_EMULATOR:+"$KEST_EMULATOR"} "$work_dir/readme" "127.0.0.1:$port")
    echo "$answer"
    [[ $answer =~ ^127\.0\.0\.1:[0-9]+\ said:\ Hello,\ Kest$ ]] || { echo "not the answer that was expected"; exit 1; }
done
