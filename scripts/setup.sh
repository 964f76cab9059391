#!/bin/bash
# Installs what the build, the tests and the lint need on a Debian system, and the packages named as arguments besides; does nothing when all
# of it is there.
set -euo pipefail

packages=(
    cmake ninja-build g++ g++-multilib clang libclang-rt-dev # the builds; multilib brings 32 bits for both compilers
    clang-format clang-tidy                                  # the lint; clang-tidy brings run-clang-tidy
    googletest                                               # its sources are built with each preset's flags
    libbenchmark-dev                                         # the lint looks at the benchmarks too
    netbase                                                  # /etc/protocols, which sockets are made with
    pkg-config binutils                                      # the tests of the package
    netcat-openbsd socat                                     # programs that are not ours to talk to
    python3 git
)

if ! command -v dpkg-query >/dev/null; then
    echo "setup: not a Debian system; these packages, or what they are called here, must be there: ${packages[*]}" >&2
    exit 0
fi

is_installed() {
    local status
    status=$(dpkg-query -W -f='${db:Status-Status} ' "$1" 2>/dev/null || true)
    [[ " $status" == *" installed "* ]]
}

install_missing() { # PACKAGE...
    local missing=() as_root=() package
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0

    if ((EUID != 0)); then
        if ! command -v sudo >/dev/null; then
            echo "setup: not root, and no sudo. Please install: apt-get install --no-install-recommends ${missing[*]}" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    echo "setup: installing ${missing[*]}"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install -y -qq --no-install-recommends "${missing[@]}"
}

runs_32_bits() {
    local folder result=0
    folder=$(mktemp -d)
    echo 'int main() { return 0; }' | g++ -m32 -x c++ - -o "$folder/program"
    "$folder/program" 2>/dev/null || result=$?
    rm -r "$folder"
    return "$result"
}

install_missing "${packages[@]}" "$@"
# Where the kernel does not run 32-bit programs, their tests are emulated (cmake/emulator.cmake).
is_installed qemu-user || runs_32_bits || install_missing qemu-user
