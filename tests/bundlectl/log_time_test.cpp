#include "model/log_time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using namespace std::chrono_literals;
using Model::Microseconds;
using Model::ParseLogTime;
using Model::ParsePointInTime;
using Model::ParseSpan;
using Model::Time;

namespace {

Time At(long long seconds, int microseconds = 0)
{
    return Time(std::chrono::seconds(seconds) + Microseconds(microseconds));
}

} // namespace

TEST(ALogTime, IsReadToTheMicrosecond)
{
    EXPECT_EQ(ParseLogTime("2026-11-21T04:14:09.123456Z INFO"), At(1795234449, 123456));
    EXPECT_EQ(ParseLogTime("1970-01-01T00:00:00.000000Z"), At(0));
    EXPECT_EQ(ParseLogTime("2024-02-29T23:59:59.999999Z"), At(1709251199, 999999));
}

TEST(ALogTime, IsNothingElse)
{
    EXPECT_FALSE(ParseLogTime(""));
    EXPECT_FALSE(ParseLogTime("2026-11-21T04:14:09Z"));
    EXPECT_FALSE(ParseLogTime("2026-11-21 04:14:09.123456Z"));
    EXPECT_FALSE(ParseLogTime("x026-11-21T04:14:09.123456Z"));
}

TEST(ASpan, HasAUnit)
{
    EXPECT_EQ(ParseSpan("90s"), Microseconds(90s));
    EXPECT_EQ(ParseSpan("10m"), Microseconds(10min));
    EXPECT_EQ(ParseSpan("2h"), Microseconds(2h));
    EXPECT_EQ(ParseSpan("3d"), Microseconds(72h));
    EXPECT_EQ(ParseSpan("250ms"), Microseconds(250ms));
    EXPECT_EQ(ParseSpan("7"), Microseconds(7s));
}

TEST(ASpan, IsRefusedWithoutANumberOrWithAnotherUnit)
{
    for (const char* text : {"", "s", "-1s", "1x", "1 s", "99999999999999999999s"}) {
        EXPECT_FALSE(ParseSpan(text)) << text;
    }
}

TEST(APointInTime, IsASpanAgoATimeOfTheDayOrADate)
{
    ::setenv("TZ", "UTC-2", 1); // two hours east
    ::tzset();
    const Time now = At(1795234449);
    EXPECT_EQ(ParsePointInTime("10m", now), now - 10min);
    EXPECT_EQ(ParsePointInTime("2026-11-21T04:00:00Z", now), At(1795233600));
    EXPECT_EQ(ParsePointInTime("06:00", now), At(1795233600));
    EXPECT_EQ(ParsePointInTime("06:00:07", now), At(1795233607));
    EXPECT_EQ(ParsePointInTime("2026-11-21 06:00", now), At(1795233600));
    EXPECT_EQ(ParsePointInTime("2026-11-21T04:14:09.123456Z", now), At(1795234449, 123456));
    EXPECT_FALSE(ParsePointInTime("yesterday", now));
}
