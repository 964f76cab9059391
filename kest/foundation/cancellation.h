// Internal header: used by everything that releases a resource or must not be cut off halfway.
#ifndef KEST_FOUNDATION_CANCELLATION_H
#define KEST_FOUNDATION_CANCELLATION_H

#include <pthread.h>

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
