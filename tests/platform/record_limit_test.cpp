#include "platform/host/log/record_limit.h"

#include "support/eventually.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace std::chrono_literals;
using HostPlatform::RecordLimit;

TEST(ALimitOfRecords, PassesOneInEachIntervalAndCountsTheOthers)
{
    RecordLimit limit(1s);
    ASSERT_TRUE(limit.MayWrite());
    EXPECT_EQ(limit.Suppressed(), 0U);
    for (int round = 0; round < 2; ++round) {
        const auto begin = std::chrono::steady_clock::now();
        unsigned leftOut = 0;
        ASSERT_TRUE(Eventually(20s, [&] {
            leftOut += 1;
            return limit.MayWrite();
        }));
        leftOut -= 1; // the last one was written
        EXPECT_GT(leftOut, 0U);
        EXPECT_EQ(limit.Suppressed(), leftOut);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, 900ms) << "the interval began a little before";
    }
}

TEST(ALimitOfRecords, PassesTheFirstOneAtOnce)
{
    RecordLimit limit(24h);
    EXPECT_TRUE(limit.MayWrite());
    EXPECT_FALSE(limit.MayWrite());
}
