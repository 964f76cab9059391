// Internal header: used by the sources that ask the system's resolver and its databases.
#ifndef KEST_NET_LOOKUP_H
#define KEST_NET_LOOKUP_H

#include <kest/foundation/unwinding.h>

namespace Kest::System {

/// Makes one look-up undivided and returns its result. The C library's look-ups keep a lock of their own when a cancellation cuts them
/// off, and the next one would wait for it for ever; so a cancellation waits for the answer and is acted on right after it.
template <class TCall>
KEST_LEFT_BY_CANCELLATION auto _LookUp(const TCall& call) {
    auto result = [&] {
        const TCancellationOff off;
        return call();
    }();
    ::pthread_testcancel();
    return result;
}

} // namespace Kest::System

#endif
