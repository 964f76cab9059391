#include <kest/foundation/time.h>

#include <kest/foundation/failure.h>
#include <kest/foundation/interval.h>

#include <limits>

#include <sys/time.h>
#include <time.h>

namespace Kest::System {

namespace {

/// The instant at which a conversion looks the difference up: @p time truncated toward zero and cut to the range of long.
long InstantOf(double time) noexcept {
    const std::int64_t instant = _Interval::Truncate(time, 0);
    if (instant < std::numeric_limits<long>::min())
        return std::numeric_limits<long>::min();
    if (instant > std::numeric_limits<long>::max())
        return std::numeric_limits<long>::max();
    return static_cast<long>(instant);
}

} // namespace

const double EndlessTimeInterval = 0.0;

double GetCurrentTime() {
    timeval now{};
    if (::gettimeofday(&now, nullptr) != 0)
        _ThrowLastError();
    // On 32 bits a result travels in a register that has more digits than a double, and those of two calls would compare by them: stored,
    // it has the digits of a double wherever its caller keeps it.
    const volatile double rounded = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / _Interval::MicrosecondsPerSecond;
    return rounded;
}

long _UTCLocalTimeDifference(long time) {
    const time_t instant = time;
    struct tm local {};
    if (::localtime_r(&instant, &local) == nullptr)
        return 0;
    return -local.tm_gmtoff;
}

double UTCToLocal(const double& time) {
    return time + static_cast<double>(_UTCLocalTimeDifference(InstantOf(time)));
}

double LocalToUTC(const double& time) {
    return time - static_cast<double>(_UTCLocalTimeDifference(InstantOf(time)));
}

} // namespace Kest::System
