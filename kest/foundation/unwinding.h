// Internal header: used by everything that a cancellation unwinds through.
#ifndef KEST_FOUNDATION_UNWINDING_H
#define KEST_FOUNDATION_UNWINDING_H

#include <kest/foundation/cancellation.h>

/// Marks a function that catches abi::__forced_unwind. A cancellation is no object of C++, so the language runtime binds the reference
/// of such a handler to null; nothing reads it, but UndefinedBehaviorSanitizer would report it. Its test of alignment goes too: it is the
/// same test to GCC, and would come back whole where the function is inlined into one that is not marked.
#define KEST_CATCHES_CANCELLATION __attribute__((no_sanitize("null"), no_sanitize("alignment")))

/// Marks a function whose frame a cancellation may leave without anything to clean up. AddressSanitizer does not notice that: guard bytes
/// of such a frame would stay behind and be taken for those of the frames that come after it.
#define KEST_LEFT_BY_CANCELLATION __attribute__((no_sanitize("address")))

namespace Kest::System {

using _TCancellationOff = TCancellationOff;

} // namespace Kest::System

#endif
