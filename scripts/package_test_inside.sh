#!/bin/bash
# package_test.sh runs this inside the clean system: package_test_inside.sh "EXAMPLE..." ARCHITECTURE.... The packages are in /packages, the
# library's tree is in /source. The examples are those that the packages bring. They are copied to /examples, where they find only the
# packages.
set -euo pipefail
read -ra examples <<<"$1"
shift
fail() { echo "package_test: $*" >&2; exit 1; }
work=$(mktemp -d)
[[ ! -e /usr/include/kest ]] || fail "the system is not clean"

run() { # PROGRAM ARGUMENT...
    $emulator "$@"
}

# Runs each example in FOLDER on a task of which the result is known.
run_examples() { # FOLDER
    local folder=$1 server address answers result
    : >"$work/ready" # until the server begins, the file would hold the address of the last server
    $emulator "$folder/line_server" inet 127.0.0.1:0 10 >"$work/ready" & # without run(), so that $! is the server itself
    server=$!
    for ((round = 0; round < 500; round++)); do
        grep -q '^listening on ' "$work/ready" && break
        sleep 0.02
    done
    address=$(sed -n 's/^listening on //p' "$work/ready")
    answers=$(printf 'a line\nanother\n' | run "$folder/line_client" inet "$address" 10)
    [[ $answers == $'6 a line\n7 another' ]] || fail "line_client printed: $answers"
    kill "$server"
    # Under qemu's emulation of i386 a server that a signal ended cannot join its threads.
    [[ -n $emulator ]] || wait "$server" || fail "line_server ended with $?"
    [[ -z $emulator ]] || { kill -KILL "$server" 2>/dev/null || true; wait "$server" || true; }

    result=$(run "$folder/find_files" /examples 'move_file.c*')
    [[ $result == file*"$(stat -c %s /examples/move_file.cpp)"*/examples/move_file.cpp ]] || fail "find_files printed: $result"
    echo content >"$work/from"
    result=$(run "$folder/move_file" "$work/from" "$work/to")
    [[ $result == "moved: '$work/to' is a file of 8 bytes" && ! -e $work/from ]] || fail "move_file printed: $result"
    result=$(run "$folder/plugin_host" "$folder/plugin" Square 12)
    [[ $result == "Square(12) = 144" ]] || fail "plugin_host printed: $result"
    printf 'ä line\n€\n' >"$work/text"
    result=$(run "$folder/work_queue" "$work/text" 2)
    [[ $result == "2 lines, 7 characters, 0 changed, 2 workers" ]] || fail "work_queue printed: $result"
}

# A program with the shared library needs that library. A program with the static library needs what the static library needs.
check_linkage() { # FOLDER KIND
    local program needed
    for program in "${programs[@]}"; do
        needed=$(readelf -d "$1/$program" | grep NEEDED)
        case $2 in
        shared) grep -q '\[libkest\.so\.1\]' <<<"$needed" || fail "$1/$program is not linked with the shared library" ;;
        static)
            ! grep -q libkest <<<"$needed" || fail "$1/$program is linked with the shared library"
            grep -q '\[libgcc_s\.so\.1\]' <<<"$needed" || fail "$1/$program is not linked with libgcc_s"
            ;;
        esac
    done
}

build_find_package() { # FOLDER KIND
    local library=kest::kest
    [[ $2 == shared ]] || library=kest::kest_static
    cmake -S /examples -B "$1" "${cmake_options[@]}" -DKEST_EXAMPLES_LIBRARY=$library
    cmake --build "$1" -j2
    grep -q "^kest_DIR:PATH=$library_folder/cmake/kest$" "$1/CMakeCache.txt" || fail "find_package found another package"
}

build_pkg_config() { # FOLDER KIND
    local flags libraries program
    mkdir -p "$1"
    flags=$(pkg-config --cflags kest)
    libraries=$(pkg-config --libs kest)
    # The linker takes the shared library of two that have one name, unless it is told the file.
    [[ $2 == shared ]] || libraries=$(pkg-config --libs --static kest | sed 's/-lkest\b/-l:libkest.a/')
    for program in "${programs[@]}"; do
        # shellcheck disable=SC2086 # the flags are words
        g++ $bits -std=c++17 "/examples/$program.cpp" $flags $libraries -o "$1/$program"
    done
    # shellcheck disable=SC2086
    g++ $bits -std=c++17 -fPIC -shared /examples/plugin.cpp -o "$1/plugin.so"
}

build_add_subdirectory() { # FOLDER KIND
    local shared=ON
    [[ $2 == shared ]] || shared=OFF
    mkdir -p "$1/project"
    cat >"$1/project/CMakeLists.txt" <<'PROJECT'
cmake_minimum_required(VERSION 3.22)
project(of_a_user LANGUAGES CXX)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}")
add_subdirectory(/source kest)
add_subdirectory(/examples examples)
PROJECT
    cmake -S "$1/project" -B "$1" "${cmake_options[@]}" -DBUILD_SHARED_LIBS=$shared -DCMAKE_DISABLE_FIND_PACKAGE_kest=ON
    cmake --build "$1" -j2
}

programs=()
for example in "${examples[@]}"; do [[ $example == plugin ]] || programs+=("$example"); done
apt-get update -qq

for architecture in "$@"; do
    begin=$SECONDS
    case $architecture in
    amd64) bits=-m64 multiarch=x86_64-linux-gnu ;;
    i386) bits=-m32 multiarch=i386-linux-gnu ;;
    esac
    # Only libkest1 and libkest-dev: the package manager must bring everything else that they need.
    apt-get install -y -qq --no-install-recommends /packages/libkest1_*_"$architecture".deb /packages/libkest-dev_*_"$architecture".deb \
        >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "the packages of $architecture cannot be installed"; }
    [[ -e /etc/protocols ]] || fail "netbase was not installed"
    [[ -z $(dpkg --verify "libkest1:$architecture" "libkest-dev:$architecture") ]] || fail "the installed files are not those of the packages"
    ldconfig -p | grep -q "libkest\.so\.1 .*/lib/$multiarch/" || fail "the system does not know the library of $architecture"

    [[ -e /examples ]] || cp -r /usr/share/doc/libkest-dev/examples /examples
    symbols=/usr/lib/debug/.build-id/$(readelf -n "/usr/lib/$multiarch/libkest.so.1" | sed -nE 's|.*Build ID: (..)(.*)|\1/\2.debug|p')
    grep -q "$symbols" <<<"$(dpkg-deb --contents /packages/libkest1-dbgsym_*_"$architecture".deb)" || fail "no debug symbols of the library"

    library_folder=/usr/lib/$multiarch
    export PKG_CONFIG_LIBDIR=$library_folder/pkgconfig:/usr/share/pkgconfig
    cmake_options=("-DCMAKE_CXX_FLAGS=$bits" -DCMAKE_BUILD_TYPE=Release "-DCMAKE_LIBRARY_ARCHITECTURE=$multiarch")
    emulator=
    echo 'int main() { return 0; }' >"$work/runs.cpp"
    g++ $bits "$work/runs.cpp" -o "$work/runs"
    "$work/runs" 2>/dev/null || emulator=qemu-i386
    for way in find_package pkg_config add_subdirectory; do
        for kind in shared static; do
            folder=/built/$architecture/$way/$kind
            mkdir -p "$folder"
            "build_$way" "$folder" "$kind" >"$work/build.log" 2>&1 || { tail -n 60 "$work/build.log"; fail "$way $kind $architecture"; }
            check_linkage "$folder" "$kind"
            run_examples "$folder"
            echo "$architecture, $way, $kind: ${#programs[@]} examples built and run"
        done
    done
    echo "$architecture: $((SECONDS - begin)) s"
done

if compgen -G '/packages/libkest-doc_*' >/dev/null; then
    apt-get install -y -qq --no-install-recommends /packages/libkest-doc_*.deb >"$work/apt.log" 2>&1 || fail "the manual cannot be installed"
    [[ -s /usr/share/doc/libkest-doc/html/index.html ]] || fail "the manual has no first page"
    for page in TSocket TFile TDirectory TThread TMutex TCondition TDLL EException ETimeout; do
        zgrep -q "^$page .*- ." "/usr/share/man/man3/$page.3kest.gz" || fail "no page for man on $page"
    done
fi
mapfile -t installed < <(dpkg-query -W -f '${binary:Package}\n' 'libkest*')
apt-get purge -y -qq "${installed[@]}" >"$work/apt.log" 2>&1 || fail "the packages cannot be removed"
left=$(find /usr /etc -name '*kest*' | head)
[[ -z $left ]] || fail "removing the packages left: $left"
