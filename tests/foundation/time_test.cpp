#include <kest/foundation/time.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

#include <time.h>

using namespace Kest::System;

namespace {

constexpr double Infinity = std::numeric_limits<double>::infinity();

void EnterZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
}

long long MicrosecondsNow() {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1);
}

TEST(Time, CurrentTimeIsThatOfTheSystemToTheMicrosecond) {
    EXPECT_EQ(EndlessTimeInterval, 0.0);
    for (int i = 0; i != 1000; ++i) {
        const long long before = MicrosecondsNow();
        const long long now = std::llround(GetCurrentTime() * 1e6); // a double tells the microseconds of this century apart
        ASSERT_LE(before, now);
        ASSERT_LE(now, MicrosecondsNow());
    }
}

TEST(Time, CurrentTimeNeverGoesBack) {
    int differences = 0;
    for (int i = 0; i != 100000; ++i) {
        const double before = GetCurrentTime();
        differences += GetCurrentTime() - before < 0.0 ? 1 : 0; // the second time may stay in a register, as in the code of callers
    }
    EXPECT_EQ(differences, 0);
}

TEST(Time, ConversionsAddAndSubtractTheDifferenceAtTheInstant) {
    // Half a year of summer time that begins at instant 0: the lookup of -0.5 is one at 0 and not at -1.
    const char* const summerFromInstant0 = "XXX0YYY,0/0,J182/0";
    const struct {
        const char* Zone;
        double Time, Difference;
    } cases[] = {{"UTC0", 1.75, 0},
                 {"XXX-1", 1000000.5, -3600},
                 {"XXX5", -12.9, 18000},
                 {"XXX-1", -5e9, -3600},
                 {"XXX-1", 5e9, -3600}, // past both ends of a 32-bit long
                 {"XXX-1", 1e11, -3600},
                 {"XXX5", 2147483648.25, 18000},
                 {summerFromInstant0, -1.0, 0},
                 {summerFromInstant0, -0.5, -3600},
                 {summerFromInstant0, 0.0, -3600},
                 {summerFromInstant0, 1800.5, -3600},
                 {"XXX-1", Infinity, 0},
                 {"XXX-1", -Infinity, 0}};
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.Zone) + " " + std::to_string(each.Time));
        EnterZone(each.Zone);
        // Not EXPECT_EQ: on 32 bits either side may be compared with more digits than a double has.
        EXPECT_DOUBLE_EQ(UTCToLocal(each.Time), each.Time + each.Difference);
        EXPECT_DOUBLE_EQ(LocalToUTC(each.Time), each.Time - each.Difference);
    }
}

TEST(Time, DifferenceIsUTCLessLocalTimeAndZeroWhereThereIsNone) {
    EnterZone("XXX-1");
    EXPECT_EQ(_UTCLocalTimeDifference(0), -3600);
    EXPECT_EQ(_UTCLocalTimeDifference(std::numeric_limits<long>::max()), sizeof(long) == 4 ? -3600 : 0); // the year does not fit an int
    EXPECT_TRUE(std::isnan(UTCToLocal(std::nan(""))));
    EXPECT_TRUE(std::isnan(LocalToUTC(std::nan(""))));
}

TEST(Time, LimitMadeFromADurationIsNeverEndless) {
    using namespace std::chrono;
    using TTiny = duration<long double>;
    static_assert(TimeLimit(milliseconds(250)) == 0.25 && TimeLimit(hours(-1)) > 0.0);
    for (const double limit : {TimeLimit(nanoseconds(0)), TimeLimit(hours::min()), TimeLimit(duration<double>(-0.0)),
                               TimeLimit(duration<double>(std::nan(""))), TimeLimit(duration<double>(-Infinity)),
                               TimeLimit(duration<double>::min()), TimeLimit(TTiny(std::numeric_limits<long double>::denorm_min()))}) {
        EXPECT_TRUE(std::isnormal(limit));
        EXPECT_DOUBLE_EQ(limit, 1e-9);
    }
    EXPECT_DOUBLE_EQ(TimeLimit(nanoseconds(1500)), 1.5e-6);
    EXPECT_DOUBLE_EQ(TimeLimit(hours::max()), static_cast<double>(hours::max().count()) * 3600);
    EXPECT_EQ(TimeLimit(duration<float>(Infinity)), Infinity);
}

} // namespace
