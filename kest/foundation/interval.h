// Internal header: used by sleeps, readiness waits and timed waits on conditions.
#ifndef KEST_FOUNDATION_INTERVAL_H
#define KEST_FOUNDATION_INTERVAL_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include <sys/time.h>
#include <time.h>

/// Seconds as a double, turned into what the system's calls take. Converting a double beyond an integer's range is undefined, so
/// every conversion of the library goes through here. The callers test for EndlessTimeInterval before they convert.
namespace Kest::System::_Interval {

constexpr double NanosecondsPerSecond = 1000000000.0;
constexpr double MicrosecondsPerSecond = 1000000.0;

/// Past these ends a double does not fit a 64-bit integer. The lower end, -2^63, fits; the upper one, 2^63, does not.
constexpr double Lowest64 = -9223372036854775808.0;
constexpr double PastHighest64 = 9223372036854775808.0;

/// @p value truncated toward zero, cut to the range of 64 bits; NaN gives @p nan.
inline std::int64_t Truncate(double value, std::int64_t nan) noexcept {
    if (std::isnan(value))
        return nan;
    if (value < Lowest64)
        return std::numeric_limits<std::int64_t>::min();
    if (value >= PastHighest64)
        return std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(value);
}

/// True when the interval's whole seconds fit 64 bits, so that they can be split from its fraction.
inline bool IsCountable(double seconds) noexcept {
    return seconds >= Lowest64 && seconds < PastHighest64;
}

/// For nanosleep. NaN counts as negative, and the system refuses a negative result. An interval that is too large becomes the largest
/// number of whole seconds.
inline timespec ToTimeSpec(double seconds) noexcept {
    timespec result{};
    result.tv_sec = Truncate(seconds, -1);
    if (IsCountable(seconds)) {
        const double fraction = seconds - static_cast<double>(result.tv_sec);
        // The product of a fraction just below one may be rounded up to a whole second, which the system refuses.
        result.tv_nsec = std::min(static_cast<long>(fraction * NanosecondsPerSecond), 999999999L);
    }
    return result;
}

/// For select. NaN counts as negative, and the system refuses a negative result. A negative limit of less than a microsecond becomes 0. An
/// interval that is too large becomes the largest number of whole seconds.
inline timeval ToTimeVal(double seconds) noexcept {
    timeval result{};
    result.tv_sec = Truncate(seconds, -1);
    if (IsCountable(seconds)) {
        const double fraction = seconds - static_cast<double>(result.tv_sec);
        result.tv_usec = std::min<suseconds_t>(static_cast<suseconds_t>(fraction * MicrosecondsPerSecond), 999999);
    }
    return result;
}

/// For a wait with a deadline: @p now plus @p seconds. Negative and NaN give a deadline long past. A deadline past the last second that the
/// system can count becomes that second.
inline timespec ToDeadline(const timeval& now, double seconds) noexcept {
    timespec result{};
    if (!(seconds >= 0.0))
        return result;
    const std::int64_t whole = Truncate(seconds, 0);
    const double fraction = seconds < PastHighest64 ? seconds - static_cast<double>(whole) : 0.0;
    const auto nanoseconds = static_cast<std::int64_t>((fraction * MicrosecondsPerSecond + static_cast<double>(now.tv_usec)) * 1000.0);
    constexpr std::int64_t carry = 1000000000;
    const std::int64_t base = static_cast<std::int64_t>(now.tv_sec) + nanoseconds / carry;
    if (whole > std::numeric_limits<std::int64_t>::max() - base) {
        result.tv_sec = std::numeric_limits<std::int64_t>::max();
        return result;
    }
    result.tv_sec = base + whole;
    result.tv_nsec = static_cast<long>(nanoseconds % carry);
    return result;
}

} // namespace Kest::System::_Interval

#endif
