// Internal header: used by everything that releases a resource or must not be cut off halfway.
#ifndef KEST_FOUNDATION_CANCELLATION_H
#define KEST_FOUNDATION_CANCELLATION_H

#include <pthread.h>

/// Marks a function that catches abi::__forced_unwind. A cancellation is no object of C++, so the language runtime binds the reference
/// of such a handler to null; nothing reads it, but UndefinedBehaviorSanitizer would report it. Its test of alignment goes too: it is the
/// same test to GCC, and would come back whole where the function is inlined into one that is not marked.
#define KEST_CATCHES_CANCELLATION __attribute__((no_sanitize("null"), no_sanitize("alignment")))

/// Marks a function whose frame a cancellation may leave without anything to clean up. AddressSanitizer does not notice that: guard bytes
/// of such a frame would stay behind and be taken for those of the frames that come after it.
#define KEST_LEFT_BY_CANCELLATION __attribute__((no_sanitize("address")))

namespace Kest::System {

/// Holds the calling thread's cancellation off while the object lives. A request that arrives meanwhile stays pending and is acted
/// on at the next cancellation point after it. Objects may nest.
class _TCancellationOff {
public:
    _TCancellationOff() noexcept { (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &Previous); }
    _TCancellationOff(const _TCancellationOff&) = delete;
    _TCancellationOff& operator=(const _TCancellationOff&) = delete;
    ~_TCancellationOff() { (void)::pthread_setcancelstate(Previous, nullptr); }

private:
    int Previous = PTHREAD_CANCEL_ENABLE;
};

} // namespace Kest::System

#endif
