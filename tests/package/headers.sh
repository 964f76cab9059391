#!/usr/bin/env bash
# Compiles each installed header alone, without warnings.
# Usage: headers.sh STANDARD PREFIX; CXX and CXXFLAGS are those of the build.
set -euo pipefail
standard=$1 prefix=$2
export standard prefix

compile() {
    # shellcheck disable=SC2086 # the flags are words
    echo "#include <$1>" | "$CXX" ${CXXFLAGS:-} "-std=$standard" -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow \
        -Wconversion -Wnon-virtual-dtor -Werror -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 "-I$prefix/include" -x c++ - ||
        { echo "<$1> does not compile alone as $standard"; return 1; }
}
export -f compile

cd "$prefix/include"
[[ -f kest/kest.h ]] || { echo "no headers in $prefix/include"; exit 1; }
find kest -name '*.h' -print0 | xargs -0 -n 1 -P 2 bash -c 'compile "$1"' compile
