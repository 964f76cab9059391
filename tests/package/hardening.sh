#!/usr/bin/env bash
# Checks in the library's file that the library is hardened.
# Usage: hardening.sh LIBRARY
set -euo pipefail
library=$1
failures=0
complain() { echo "$*"; failures=$((failures + 1)); }

imported=$(nm -D --undefined-only "$library" | sed -E 's/.* U ([A-Za-z_0-9]+).*/\1/')
segments=$(readelf -lW "$library")
dynamic=$(readelf -dW "$library")

grep -q '^__stack_chk_fail' <<<"$imported" || complain "no function guards its part of the stack"
# The library calls the checked variants of some calls that write into buffers of known size.
grep -q '^__[a-z]*_chk$' <<<"$imported" || complain "no call is checked (_FORTIFY_SOURCE)"
grep -q 'GNU_RELRO' <<<"$segments" || complain "what is bound at load stays writable"
grep -qE '\((BIND_NOW|FLAGS)\).*NOW|FLAGS_1.*NOW' <<<"$dynamic" || complain "functions are bound late"
grep -E 'GNU_STACK' <<<"$segments" | grep -qE ' RW +0x' || complain "the stack is executable"
grep -q 'RWE' <<<"$segments" && complain "a segment is writable and executable"
grep -q 'TEXTREL' <<<"$dynamic" && complain "code is changed while it is loaded"
exit $((failures > 0))
