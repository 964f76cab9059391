#!/bin/bash
# Compares the library's binary interface with abi/: abi.sh [check|update] [TARGET...]. A target is x86-64, i386 or an architecture of
# cross.sh; without a target x86-64, i386 and arm64 are compared.
# The exported symbols must be those of abi/TARGET.symbols, no more and no less. For x86-64 and i386 nothing in abi/TARGET.abi, which lists
# types and functions, may have changed or gone while the SONAME is the old one; under another SONAME everything passes there, but the test
# of the version fails until "abi.sh update" has run. The other targets are built from the same sources: their symbols alone are compared.
# "abi.sh update" writes both kinds of files, which makes additions part of the interface. It also refuses an incompatible change under the
# old SONAME.
# The environment variable KEST_ABI_SOURCE names another tree, for trying changes. Only "check" of x86-64 and i386 works with it.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
source_dir=$(cd "${KEST_ABI_SOURCE:-$root}" && pwd)
actions=(check)
known=(x86-64 i386)
defaults=("${known[@]}")
if [[ $source_dir == "$root" ]]; then
    actions+=(update)
    known+=("${!cross_machines[@]}")
    defaults+=(arm64)
fi
action=${1-check}
targets=("${@:2}")
(($# > 1)) || targets=("${defaults[@]}")
if ! are_known actions "$action" || ! are_known known "${targets[@]}"; then
    echo "usage: abi.sh [$(IFS='|'; echo "${actions[*]}")] [${known[*]}]..." >&2
    exit 2
fi
"$root/scripts/setup.sh" abigail-tools
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p abi

# Builds the library as it is shipped, but with debug information, from which the tools read the types.
build() { # BUILD_DIR FLAGS
    # Paths in the debug information begin at the root of the tree, so that no path of this machine gets into abi/.
    cmake -S "$source_dir" -B "$1" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=g++ \
        "-DCMAKE_CXX_FLAGS=$2 -g '-ffile-prefix-map=$source_dir=.' '-fdebug-prefix-map=$1=.'" -DKEST_BUILD_TESTS=OFF \
        -DKEST_BUILD_EXAMPLES=OFF &&
        cmake --build "$1" -j2 --target kest
}

soname_of() { sed -nE "s/^<abi-corpus .*\bsoname='([^']*)'.*/\1/p" "$1"; }

# Writes kind and mangled name of each symbol. Weak symbols are inline functions, virtual tables and type information, which callers may
# have too.
write_symbols() { # LIBRARY
    nm -D --defined-only --format=posix "$1" | awk '{ print $2, $1 }' | LC_ALL=C sort -k 2 >"$work/$target.symbols"
}

failures=0
compare_symbols() { # WHAT_ELSE
    if [[ $action == update ]]; then
        cp "$work/$target".* abi/
        echo "abi: $target: written, $(wc -l <"$work/$target.symbols") symbols"
    elif ! diff -u "abi/$target.symbols" "$work/$target.symbols" | c++filt; then
        echo "abi: $target: the exported symbols are not those of abi/$target.symbols; run abi.sh update if the change is intended"
        failures=$((failures + 1))
    else
        echo "abi: $target: unchanged, $(wc -l <"$work/$target.symbols") symbols$1"
    fi
}

for target in "${targets[@]}"; do
    if [[ ${cross_machines[$target]:-} ]]; then
        install_cross "$target"
        logged "abi-$target" build_preset "release-$target" kest
        write_symbols "$root/build/release-$target/kest/libkest.so"
        compare_symbols ""
        continue
    fi
    flags=-m64
    [[ $target == x86-64 ]] || flags="-m32 -idirafter /usr/include/x86_64-linux-gnu"
    folder=$root/build/abi-$target
    [[ $source_dir == "$root" ]] || folder=$work/build-$target
    logged "abi-$target" build "$folder" "$flags"
    library=$folder/kest/libkest.so

    write_symbols "$library"
    # Only what callers can see: types of the headers, no paths, no lines.
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --headers-dir "$source_dir/kest" --drop-private-types \
        "$library" >"$work/$target.abi"
    ! grep -nF "='$source_dir/" "$work/$target.abi" || { echo "abi: a path of this machine in the description of $target"; exit 1; }

    if [[ -e abi/$target.abi ]]; then
        old=$(soname_of "abi/$target.abi") new=$(soname_of "$work/$target.abi")
        # Bits of the result: 1 and 2 are errors, 4 is a change, 8 a change that is certainly incompatible. Additions do not count, so each
        # change breaks callers or may break them.
        result=0
        abidiff --no-added-syms "abi/$target.abi" "$work/$target.abi" >"$work/difference" 2>&1 || result=$?
        if ((result & 3)); then
            cat "$work/difference"
            exit 1
        elif ((result != 0)) && [[ $old == "$new" ]]; then
            cat "$work/difference"
            echo "abi: $target: INCOMPATIBLE, and the SONAME is still $new: raise KEST_VERSION_MAJOR in kest/version.h, or take the change back"
            failures=$((failures + 1))
            continue
        elif [[ $old != "$new" && $action == check ]]; then
            echo "abi: $target: the SONAME went from $old to $new, so anything may have changed; abi.sh update writes the new interface"
            continue
        fi
    elif [[ $action == check ]]; then
        echo "abi: $target: there is nothing to compare with; run abi.sh update"
        failures=$((failures + 1))
        continue
    fi

    compare_symbols ", $(soname_of "$work/$target.abi")"
done
exit $((failures > 0))
