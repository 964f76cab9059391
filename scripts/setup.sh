#!/bin/bash
# Installs what the build, the tests and the lint need on a Debian system, and the packages named as arguments besides; does nothing when all
# of it is there.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

packages=(
    cmake ninja-build g++ clang libclang-rt-dev libc++-dev libc++abi-dev # the builds
    clang-format clang-tidy                     # the lint; clang-tidy brings run-clang-tidy
    googletest                                  # its sources are built with each preset's flags
    libbenchmark-dev                            # the lint looks at the benchmarks too
    netbase                                     # /etc/protocols, which sockets are made with
    pkg-config binutils                         # the tests of the package
    netcat-openbsd socat                        # programs that are not ours to talk to
    python3 git
)

if ! command -v dpkg-query >/dev/null; then
    echo "setup: not a Debian system; these packages, or what they are called here, must be there: ${packages[*]}, and a g++ -m32" >&2
    exit 0
fi

install_missing "${packages[@]}" "$@"
install_multilib
# Where the kernel does not run 32-bit programs, their tests are emulated (cmake/emulator.cmake).
is_installed qemu-user || runs_32_bits || install_missing qemu-user
