#ifndef KEST_FOUNDATION_TIME_H
#define KEST_FOUNDATION_TIME_H

#include <kest/export.h>

#include <chrono>

/// @file
/// Points in time and intervals, both in seconds as a double. A point in time counts from 1970-01-01 00:00:00 UTC and is negative
/// before it; read from the clock it has microseconds.
///
/// All operations may be called from any thread; none waits.

namespace Kest::System {

/// 0.0. Wherever the library takes an interval, one that equals this (0.0 or -0.0) means that there is no limit, and never an immediate
/// return. A wait without limit lasts until its event, or until a signal or a cancellation where the waiting operation says that these end
/// it. Only a cancellation ends a sleep without limit. The library sets the value before any code of a program runs.
extern KEST_EXPORT const double EndlessTimeInterval;

/// Turns a duration of the standard library into seconds for the operations of this library that take a limit or an interval. The result
/// is never EndlessTimeInterval: remaining time that was computed cannot become a wait without limit.
///
///     socket.SetReceiveTimeout(TimeLimit(deadline - std::chrono::steady_clock::now()));
///
/// A duration of less than a nanosecond becomes a nanosecond, the shortest limit that any operation can tell from another. Zero, a
/// negative duration and NaN become a nanosecond too. A wait for input or for a condition with that limit looks once and ends;
/// sending and connecting that would block may take up to a second more, as with every limit. Every longer duration keeps its value,
/// rounded as a double is.
/// @return seconds; at least 1e-9.
template <class TRepresentation, class TPeriod>
constexpr double TimeLimit(const std::chrono::duration<TRepresentation, TPeriod>& duration) {
    constexpr double shortest = 1e-9;
    const double seconds = std::chrono::duration<double>(duration).count();
    return seconds >= shortest ? seconds : shortest; // false for NaN
}

/// The current time by the system's settable clock, to the microsecond. Of two calls, one after the other, the second never gives less than
/// the first, unless the clock was set back between them.
/// @throw EException  the system's description alone, when the clock cannot be read.
KEST_EXPORT double GetCurrentTime();

/// UTC minus local time in seconds at the instant @p time (whole seconds, UTC), daylight saving time included: -3600 for a zone one
/// hour east of Greenwich. 0 where the system cannot break the instant down. Never throws.
///
/// The zone is the process's: TZ as the C library last read it. Call tzset after you change TZ: a conversion may not read TZ again.
KEST_EXPORT long _UTCLocalTimeDifference(long time);

/// @p time plus the difference (UTC minus local time) at the instant @p time, truncated toward zero; the fraction is kept. In a zone
/// one hour east of Greenwich this is @p time - 3600.
/// The instant is cut to the range of long where it does not fit (on 32 bits: before 1901 and from 2038 on); for NaN it is 0 and the
/// result NaN. Never throws.
KEST_EXPORT double UTCToLocal(const double& time);

/// @p time minus the difference (UTC minus local time) at the instant @p time: @p time is taken for a UTC instant when the difference is
/// looked up, although it is a local one. LocalToUTC and UTCToLocal undo each other wherever the difference is the same at both instants.
/// The instant is cut to the range of long, and NaN stays NaN, as in UTCToLocal. Never throws.
KEST_EXPORT double LocalToUTC(const double& time);

} // namespace Kest::System

#endif
