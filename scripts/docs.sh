#!/bin/bash
# Builds the manual into build/docs/docs/html. A warning of Doxygen is an error. "docs.sh check" then opens every page in a headless
# browser, wide and narrow, light and dark, and fails on what a reader would find broken (check_manual.py).
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
if (($# > 1)) || [[ ${1:-check} != check ]]; then
    echo "usage: docs.sh [check]" >&2
    exit 2
fi
browser=()
(($# == 0)) || browser=(chromium chromium-driver python3-selenium)
"$root/scripts/setup.sh" doxygen doxygen-awesome-css python3 "${browser[@]}"

build() {
    cmake --preset release -B build/docs -DKEST_BUILD_DOCS=ON -DKEST_BUILD_TESTS=OFF -DKEST_BUILD_EXAMPLES=OFF &&
        cmake --build build/docs --target docs
}
rm -rf build/docs/docs/html # else the pages of what was removed would stay
logged docs-build build
echo "the manual begins at build/docs/docs/html/index.html"
# Debian's own interpreter, which finds the package python3-selenium.
(($# == 0)) || /usr/bin/python3 scripts/check_manual.py build/docs/docs/html kest
