#include <kest/threads/condition.h>

#include <kest/foundation/failure.h>
#include <kest/foundation/interval.h>
#include <kest/foundation/time.h>
#include <kest/threads/mutex.h>

#include <cerrno>

namespace Kest::System {

TCondition::TCondition() : Condition() {
    const int code = ::pthread_cond_init(&Condition, nullptr);
    if (code != 0)
        _ThrowError(code, "initialization of condition failed: ");
}

TCondition::~TCondition() {
    (void)::pthread_cond_destroy(&Condition);
}

void TCondition::Wait(Interface::TProtectionGuard& guard) {
    auto& mutex = dynamic_cast<TMutex&>(guard);
    const TMutex::_TBookkeepingAside aside(mutex);
    const int code = ::pthread_cond_wait(&Condition, &mutex.Mutex);
    if (code != 0)
        _ThrowError(code, "condition wait failed: ");
}

bool TCondition::Wait(Interface::TProtectionGuard& guard, const double& timeout) {
    if (timeout == EndlessTimeInterval) {
        Wait(guard);
        return true;
    }
    timeval now{};
    if (::gettimeofday(&now, nullptr) != 0)
        _ThrowLastError("condition timed wait failure: gettimeofday: ");
    const timespec deadline = _Interval::ToDeadline(now, timeout);
    auto& mutex = dynamic_cast<TMutex&>(guard);
    const TMutex::_TBookkeepingAside aside(mutex);
    const int code = ::pthread_cond_timedwait(&Condition, &mutex.Mutex, &deadline);
    if (code != 0 && code != ETIMEDOUT)
        _ThrowError(code, "condition timed wait failure: pthread_cond_timedwait: ");
    return code == 0;
}

} // namespace Kest::System
