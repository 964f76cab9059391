#!/usr/bin/env bash
# Checks what the shared library exports and needs.
# Usage: symbols.sh LIBRARY
set -euo pipefail
library=$1
failures=0
complain() { echo "$*"; failures=$((failures + 1)); }

# The names as C++ writes them, without address and kind.
exported=$(nm -DC --defined-only "$library" | sed -E 's/^[0-9a-f]* +[A-Za-z] //')

kinds='(typeinfo( name)? for |vtable for |VTT for |guard variable for |(non-virtual|virtual|covariant return) thunk to )?'
# Clang exports the tables that a base has while a class of the library is being constructed.
kinds+='|construction vtable for .*-in-'
foreign=$(grep -vE "^(${kinds})Kest::" <<<"$exported" || true)
[[ -z $foreign ]] || complain "exported, though not of Kest:"$'\n'"$foreign"

# Each singleton of the library is one object in the process, so the library exports the object and its guard.
for class in 'Kest::System::TSocket::TMutex' 'Kest::System::_TSystemLocaleDetector'; do
    object="Kest::_Gadgets::TSingleton<$class>::GetObject()::Object"
    for name in "$object" "guard variable for $object"; do
        grep -qxF "$name" <<<"$exported" || complain "not exported: $name"
    done
done

grep -qxF "Kest::System::EndlessTimeInterval" <<<"$exported" || complain "not exported: EndlessTimeInterval"

# A unique symbol keeps a library in the process for ever.
unique=$(nm -DC --defined-only "$library" | grep -E '^[0-9a-f]* +u ' || true)
[[ -z $unique ]] || complain "unique symbols:"$'\n'"$unique"

dynamic=$(readelf -dW "$library")
grep -q 'SONAME.*\[libkest\.so\.1\]' <<<"$dynamic" || complain "the SONAME is not libkest.so.1"
grep -q 'NEEDED.*\[libgcc_s\.so\.1\]' <<<"$dynamic" || complain "libgcc_s.so.1 is not linked"
exit $((failures > 0))
