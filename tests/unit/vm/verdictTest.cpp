#include "vm/bench/verdict.h"

#include <gtest/gtest.h>

namespace vm
{
namespace
{

std::string judge(const Samples &rates, double least)
{
    return verdict(Goal{"", rates, {}, least});
}

TEST(GoalVerdict, isSureWhereTheQuartilesAreOnTheMediansSide)
{
    EXPECT_EQ(judge({0.98, 0.99, 1.00}, 0.97), "met");
    EXPECT_EQ(judge({0.94, 0.95, 0.96}, 0.97), "MISSED");
    EXPECT_EQ(judge({0.97, 0.97, 0.97}, 0.97), "met");
}

TEST(GoalVerdict, isWithinTheNoiseWhereTheQuartilesDiffer)
{
    EXPECT_EQ(judge({0.90, 0.98, 1.00}, 0.97), "met, within the noise");
    EXPECT_EQ(judge({0.90, 0.96, 1.10}, 0.97), "MISSED, within the noise");
}

TEST(GoalVerdict, isNotMovedByOneRoundOfMany)
{
    EXPECT_EQ(judge({0.10, 0.98, 0.98, 0.99, 1.00, 1.00, 1.00}, 0.97), "met");
}

TEST(FreezeVerdict, allowsForATickOfTheClock)
{
    EXPECT_STREQ(verdict(FreezeTimes{{10, 10, 10}, {14, 14, 14}, 4}), "met");
    EXPECT_STREQ(verdict(FreezeTimes{{10, 10, 10}, {15, 15, 15}, 4}), "MISSED");
    EXPECT_STREQ(verdict(FreezeTimes{{10, 10, 30}, {8, 16, 16}, 4}), "MISSED, within the noise");
}

TEST(Samples, quantilesLieBetweenTheSamplesNextToThem)
{
    EXPECT_DOUBLE_EQ(median({3, 1, 2}), 2);
    EXPECT_DOUBLE_EQ(median({4, 1, 2, 3}), 2.5);
    EXPECT_DOUBLE_EQ(quantile({5, 1, 3}, 0.25), 2);
    EXPECT_DOUBLE_EQ(quantile({5, 1, 3}, 1), 5);
    EXPECT_THROW(median({}), std::logic_error);
}

TEST(Samples, ratiosAndMeansAreThoseOfEachRound)
{
    EXPECT_EQ(ratios({2, 9}, {1, 3}), (Samples{2, 3}));
    EXPECT_EQ(means({2, 9}, {4, 3}), (Samples{3, 6}));
    EXPECT_EQ(withSpread({1, 2, 3}, 1), "2.0 (1.5 to 2.5)");
}

} // namespace
} // namespace vm
