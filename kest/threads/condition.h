#ifndef KEST_THREADS_CONDITION_H
#define KEST_THREADS_CONDITION_H

#include <kest/export.h>
#include <kest/interface/condition.h>
#include <kest/interface/mutex.h>

#include <pthread.h>

namespace Kest::System {

/// A condition variable: threads wait for what another thread announces. It is not bound to a mutex; each wait names its guard, and
/// threads that wait at the same time name the same one. A signal that finds nobody waiting is lost.
///
/// Any thread may call any operation. Both waits are cancellation points: a cancelled wait unwinds with the guard held, so the scope
/// that entered the guard leaves it. Objects are neither copied nor moved. Requires: nobody waits when the object is destroyed.
class KEST_EXPORT TCondition : public Interface::TCondition<Interface::TProtectionGuard> {
public:
    /// @throw EException  "initialization of condition failed: " + the system's description.
    TCondition();
    TCondition(const TCondition&) = delete;
    TCondition& operator=(const TCondition&) = delete;

    /// Waits until woken. Requires: the calling thread holds @p guard. It is released while waiting and held again whichever way the
    /// wait ends. It may end without a signal: test again what you wait for.
    /// @param guard  a TMutex; the entries of a recursive one are put aside for the wait and restored.
    /// @throw std::bad_cast  @p guard is not a TMutex; nothing was touched.
    /// @throw EException     "condition wait failed: " + the system's description.
    void Wait(Interface::TProtectionGuard& guard) override;

    /// Waits until woken, for at most @p timeout seconds. The rest is as above.
    /// @param timeout  seconds from now; EndlessTimeInterval (0.0) waits without limit, through the other Wait; negative and NaN time
    ///                 out at once; one past the end of time waits as long as the system can count. The deadline is one of the settable
    ///                 clock: setting the clock moves it.
    /// @return true when woken (also without a signal), false when the time ran out.
    /// @throw std::bad_cast  @p guard is not a TMutex; nothing was touched.
    /// @throw EException     "condition timed wait failure: " + the call that failed + ": " + the system's description.
    bool Wait(Interface::TProtectionGuard& guard, const double& timeout) override;

    /// Wakes at most one waiting thread. The caller may hold the guard or not. Never throws.
    void Signal() override;

    /// Wakes every waiting thread. The caller may hold the guard or not. Never throws.
    void Broadcast() override;

    ~TCondition() override;

private:
    pthread_cond_t Condition;
};

} // namespace Kest::System

#endif
