// Internal header: used by the sources that ask the system's resolver and its databases.
#ifndef KEST_NET_LOOKUP_H
#define KEST_NET_LOOKUP_H

#include <kest/foundation/unwinding.h>

namespace Kest::System {

/// Makes one look-up that no cancellation cuts off, and returns its result. A look-up that is cut off keeps a lock of the C library, for
/// which the next look-up would wait for ever. So the thread acts on a cancellation right after the answer.
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
