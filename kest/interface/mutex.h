#ifndef KEST_INTERFACE_MUTEX_H
#define KEST_INTERFACE_MUTEX_H

/// @file
/// Interface::TMutex, the abstract class of System::TMutex, and the guard that protects a block.

#include <kest/export.h>

namespace Kest::System::Interface {

/// A lock: at most one thread is inside at a time. Any thread may call any operation.
///
/// The three operations in small letters are those that the standard library's scopes call, so std::lock_guard, std::unique_lock and
/// std::scoped_lock take every lock of this library, by its own class or by this one. Such a scope leaves the lock whichever way it ends,
/// a cancellation included.
class KEST_EXPORT TProtectionGuard {
public:
    virtual ~TProtectionGuard() = default;

    /// Waits until the calling thread is inside.
    virtual void Enter() = 0;

    /// Enters if that is possible without waiting; true when the calling thread is inside now.
    virtual bool TryEnter() = 0;

    /// Gives up one entry.
    /// Requires: the calling thread is inside.
    virtual void Leave() = 0;

    void lock() { Enter(); }               ///< calls Enter()
    void unlock() { Leave(); }             ///< calls Leave()
    bool try_lock() { return TryEnter(); } ///< calls TryEnter()

protected:
    TProtectionGuard() = default;
    TProtectionGuard(const TProtectionGuard&) = default;
    TProtectionGuard& operator=(const TProtectionGuard&) = default;
};

/// A mutex, written against the lock interface @p TGuard and adding nothing to it.
template <class TGuard>
class KEST_EXPORT TMutex : public TGuard {};

} // namespace Kest::System::Interface

#endif
