#ifndef KEST_THREADS_CONDITION_H
#define KEST_THREADS_CONDITION_H

/// @file
/// TCondition: a thread waits until another thread tells that something has changed.

#include <kest/export.h>
#include <kest/interface/condition.h>
#include <kest/interface/mutex.h>

#include <pthread.h>

namespace Kest::System {

/// A condition variable: threads wait until another thread wakes them. A condition is not bound to a mutex. Each wait names its guard, and
/// threads that wait at one time name one guard. A Signal() or Broadcast() that finds no thread waiting is lost. Objects are neither copied
/// nor moved.
///
/// Threads: any thread may call any operation.
class KEST_EXPORT TCondition : public Interface::TCondition<Interface::TProtectionGuard> {
public:
    /// Makes a condition on which no thread waits.
    /// @throw EException  "initialization of condition failed: " + the system's description.
    TCondition();
    TCondition(const TCondition&) = delete;
    TCondition& operator=(const TCondition&) = delete;

    /// Waits until woken. The guard is released meanwhile, and held again whichever way the wait ends, by an exception too. A wait may end
    /// although nobody called Signal() or Broadcast(): test again what you wait for.
    /// @param guard  a TMutex. All entries of a recursive one are given up for the wait and restored after it.
    /// @throw std::bad_cast  @p guard is not a TMutex; nothing was touched.
    /// @throw EException     "condition wait failed: " + the system's description.
    /// Requires: the calling thread holds @p guard.
    /// Waits: without a limit. A signal runs its handler and does not end the wait, though the system may end it then as if woken.
    /// Cancellation point: a cancelled wait unwinds with the guard held, so that the scope that entered the guard leaves it.
    void Wait(Interface::TProtectionGuard& guard) override;

    /// Waits until woken, for at most @p timeout seconds. The guard is released meanwhile, and held again whichever way the wait ends, by
    /// an exception too. A wait may end although nobody called Signal() or Broadcast(): test again what you wait for.
    /// @param guard    a TMutex. All entries of a recursive one are given up for the wait and restored after it.
    /// @param timeout  seconds from now. EndlessTimeInterval (0.0) waits without a limit, as the other Wait does. A negative limit and NaN
    ///                 time out at once. A limit that is too large for the system's clock is cut to the end of that clock. The deadline
    ///                 stands on the settable clock: setting the clock moves it.
    /// @return true when woken, also without a signal. False when the time ran out.
    /// @throw std::bad_cast  @p guard is not a TMutex; nothing was touched.
    /// @throw EException     "condition timed wait failure: " + the call that failed + ": " + the system's description.
    /// Requires: the calling thread holds @p guard.
    /// Waits: within the limit, and then for the guard. A signal runs its handler and does not end the wait, though the system may end it
    /// then as if woken. Cancellation point: a cancelled wait unwinds with the guard held, so that the scope that entered the guard leaves
    /// it.
    bool Wait(Interface::TProtectionGuard& guard, const double& timeout) override;

    /// Wakes at most one waiting thread. The caller may hold the guard or not. Never throws.
    /// A C library before 2.41 may, rarely, lose the wake-up when many threads signal and wait at once (glibc bug 25847). Broadcast() is
    /// free of that.
    KEST_EXPORT void Signal() override { (void)::pthread_cond_signal(&Condition); }

    /// Wakes every waiting thread. The caller may hold the guard or not. Never throws.
    KEST_EXPORT void Broadcast() override { (void)::pthread_cond_broadcast(&Condition); }

    /// Destroys the condition. A thread that has called Broadcast() may do so at once: the destructor waits a moment for threads that were
    /// woken and have not left their wait yet. A signal does not end this wait. Not a cancellation point.
    /// Requires: no thread waits that was not woken, and no thread begins to wait.
    ~TCondition() override;

private:
    pthread_cond_t Condition;
};

} // namespace Kest::System

#endif
