#ifndef KEST_THREADS_CONDITION_H
#define KEST_THREADS_CONDITION_H

/// @file
/// TCondition: waiting until another thread says that something has changed.

#include <kest/export.h>
#include <kest/interface/condition.h>
#include <kest/interface/mutex.h>

#include <pthread.h>

namespace Kest::System {

/// A condition variable: threads wait for what another thread announces. It is not bound to a mutex; each wait names its guard, and
/// threads that wait at the same time name the same one. A signal that finds nobody waiting is lost.
///
/// Threads: any thread may call any operation. Objects are neither copied nor moved.
class KEST_EXPORT TCondition : public Interface::TCondition<Interface::TProtectionGuard> {
public:
    /// @throw EException  "initialization of condition failed: " + the system's description.
    TCondition();
    TCondition(const TCondition&) = delete;
    TCondition& operator=(const TCondition&) = delete;

    /// Waits until woken. The guard is released meanwhile, and held again whichever way the wait ends. A wait may end although nobody
    /// called Signal() or Broadcast(): test again what you wait for.
    /// @param guard  a TMutex; the entries of a recursive one are put aside for the wait and restored.
    /// @throw std::bad_cast  @p guard is not a TMutex; nothing was touched.
    /// @throw EException     "condition wait failed: " + the system's description.
    /// Requires: the calling thread holds @p guard.
    /// Waits: without a limit. A signal runs its handler and does not end the wait, though the system may end it then as if woken.
    /// Cancellation point: a cancelled wait unwinds with the guard held, so that the scope that entered the guard leaves it.
    void Wait(Interface::TProtectionGuard& guard) override;

    /// Waits until woken, for at most @p timeout seconds. The guard is released meanwhile, and held again whichever way the wait ends. A
    /// wait may end although nobody called Signal() or Broadcast(): test again what you wait for.
    /// @param guard    a TMutex; the entries of a recursive one are put aside for the wait and restored.
    /// @param timeout  seconds from now; EndlessTimeInterval (0.0) waits without limit, through the other Wait; negative and NaN time
    ///                 out at once; one past the end of time waits as long as the system can count. The deadline is one of the settable
    ///                 clock: setting the clock moves it.
    /// @return true when woken, by whatever, false when the time ran out.
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
    void Signal() override;

    /// Wakes every waiting thread. The caller may hold the guard or not. Never throws.
    void Broadcast() override;

    /// Waits a moment for threads that were woken and have not left their wait yet, so that who called Broadcast() with the guard held may
    /// destroy the condition next. Not a cancellation point.
    /// Requires: no other thread waits, or begins to.
    ~TCondition() override;

private:
    pthread_cond_t Condition;
};

} // namespace Kest::System

#endif
