#!/bin/bash
# Installs what the build, the tests and the lint need on a Debian system, and the packages that are named as arguments. Does nothing when
# all packages are there.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

packages=(
    cmake ninja-build g++ clang libclang-rt-dev libc++-dev libc++abi-dev # the builds
    clang-format clang-tidy                     # the lint; clang-tidy brings run-clang-tidy
    googletest                                  # its sources are built with each preset's flags
    libbenchmark-dev                            # the lint looks at the benchmarks too
    netbase                                     # /etc/protocols, where sockets look up their protocol
    pkg-config binutils                         # the tests of the package
    netcat-openbsd socat                        # programs of others that the tests talk to
    python3 git
)

if ! command -v dpkg-query >/dev/null; then
    echo "setup: not a Debian system; install what these packages have, and a g++ that knows -m32: ${packages[*]}" >&2
    exit 0
fi

install_missing "${packages[@]}" "$@"
install_multilib
# Where the kernel does not run 32-bit programs, their tests are emulated (cmake/emulator.cmake).
is_installed qemu-user || runs_32_bits || install_missing qemu-user
