#include <kest/foundation/interval.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace Interval = Kest::System::_Interval;

namespace {

constexpr std::int64_t Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t Max = std::numeric_limits<std::int64_t>::max();
constexpr double Infinity = std::numeric_limits<double>::infinity();
const double NaN = std::nan("");
const double Below1 = std::nextafter(1.0, 0.0);
const double LargestWhole = std::nextafter(9223372036854775808.0, 0.0);

TEST(Interval, SplitsIntoWholeSecondsAndAFractionTowardZero) {
    const struct {
        double Seconds;
        std::int64_t Whole;
        long Nanoseconds;
    } cases[] = {{0.5, 0, 500000000},
                 {Below1, 0, 999999999},
                 {-0.25, 0, -250000000},
                 {-1.5, -1, -500000000},
                 {NaN, -1, 0},
                 {Infinity, Max, 0},
                 {-Infinity, Min, 0},
                 {LargestWhole, Max - 1023, 0},
                 {9223372036854775808.0, Max, 0},
                 {-9223372036854775808.0, Min, 0}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Seconds);
        const timespec spec = Interval::ToTimeSpec(each.Seconds);
        EXPECT_EQ(spec.tv_sec, each.Whole);
        EXPECT_EQ(spec.tv_nsec, each.Nanoseconds);
        const timeval val = Interval::ToTimeVal(each.Seconds);
        EXPECT_EQ(val.tv_sec, each.Whole);
        EXPECT_EQ(val.tv_usec, each.Nanoseconds / 1000);
    }
}

TEST(Interval, DeadlineCarriesAndEndsWithTime) {
    const struct {
        std::int64_t Now;
        int Microseconds;
        double Seconds;
        std::int64_t Expected;
        long Nanoseconds;
    } cases[] = {{100, 500000, 0.75, 101, 250000000},
                 {100, 500000, 0.5, 101, 0},
                 {100, 250000, 0.5, 100, 750000000},
                 {100, 999999, 0.75, 101, 749999000},
                 {100, 0, 3e9, 3000000100, 0},
                 {100, 7, 1e-12, 100, 7000}, // no longer than it takes to ask
                 {100, 0, -0.25, 0, 0},
                 {100, 0, NaN, 0, 0},
                 {100, 0, Infinity, Max, 0},
                 {2000, 0, LargestWhole, Max, 0}, // one second later than can be counted
                 {1000, 0, LargestWhole, Max - 23, 0}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Seconds);
        timeval now{};
        now.tv_sec = each.Now;
        now.tv_usec = each.Microseconds;
        const timespec deadline = Interval::ToDeadline(now, each.Seconds);
        EXPECT_EQ(deadline.tv_sec, each.Expected);
        EXPECT_EQ(deadline.tv_nsec, each.Nanoseconds);
    }
}

} // namespace
