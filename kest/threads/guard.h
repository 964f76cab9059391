// Internal header: used by everything that holds a lock for a scope.
#ifndef KEST_THREADS_GUARD_H
#define KEST_THREADS_GUARD_H

#include <kest/interface/mutex.h>

namespace Kest::System {

/// Holds a lock while the object lives. The lock is released whichever way the scope ends, by an exception or a cancellation too.
class _TScopedEntry {
public:
    explicit _TScopedEntry(Interface::TProtectionGuard& guard) : Guard(guard) { Guard.Enter(); }
    _TScopedEntry(const _TScopedEntry&) = delete;
    _TScopedEntry& operator=(const _TScopedEntry&) = delete;
    ~_TScopedEntry() { Guard.Leave(); }

private:
    Interface::TProtectionGuard& Guard;
};

} // namespace Kest::System

#endif
