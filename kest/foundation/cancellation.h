#ifndef KEST_FOUNDATION_CANCELLATION_H
#define KEST_FOUNDATION_CANCELLATION_H

#include <pthread.h>

/// @file
/// Holding the cancellation of a thread off for a scope.

namespace Kest::System {

/// Holds the calling thread's cancellation off while the object lives. Everything that waits then waits to its end, and a destructor can
/// wait without being unwound. A request that arrives meanwhile stays pending: the thread acts on it at its next cancellation point after
/// the object is gone. The object is no cancellation point itself.
///
/// Objects nest: each puts back what it found.
/// Requires: the thread that made an object destroys it, in the reverse order of making.
///
/// ~~~{.cpp}
/// {
///     const Kest::System::TCancellationOff off;
///     std::clog << "a line that is written whole" << std::endl;
/// }
/// ~~~
class [[nodiscard]] TCancellationOff {
public:
    TCancellationOff() noexcept { (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &Previous); }
    TCancellationOff(const TCancellationOff&) = delete;
    TCancellationOff& operator=(const TCancellationOff&) = delete;
    ~TCancellationOff() { (void)::pthread_setcancelstate(Previous, nullptr); }

private:
    int Previous = PTHREAD_CANCEL_ENABLE;
};

} // namespace Kest::System

#endif
