#include "simulation/simulation.h"

#include <gtest/gtest.h>

namespace
{

constexpr std::uint64_t seedsPerTest = 250 / SEED_DIVISOR; // the build says

// Split so that the tests of one run share the processors.
class Simulation : public testing::TestWithParam<int>
{
};

TEST_P(Simulation, EveryImageIsItsFreezeAndNoWriteIsLost)
{
    simulation::Result total;
    std::uint64_t first = static_cast<std::uint64_t>(GetParam()) * seedsPerTest + 1;
    for (std::uint64_t seed = first; seed < first + seedsPerTest; seed++) {
        simulation::Result result = simulation::simulate(seed);
        ASSERT_EQ(result.failure, "")
            << "to see it again: build/i386/simulate --seed " << seed << " --trace";
        total.points += result.points;
        total.incrementals += result.incrementals;
        total.spoilt += result.spoilt;
        total.faults += result.faults;
    }
    // The runs did what they are for.
    EXPECT_GT(total.points, seedsPerTest / 2);
    EXPECT_GT(total.incrementals, 0u);
    EXPECT_GT(total.spoilt, 0u);
    EXPECT_GT(total.faults, 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Simulation, testing::Range(0, 8));

TEST(Replay, ASeedDoesTheSameTwice)
{
    for (std::uint64_t seed = 1; seed <= 20 / SEED_DIVISOR; seed++) {
        simulation::Result once = simulation::simulate(seed);
        simulation::Result again = simulation::simulate(seed);
        EXPECT_EQ(once.points, again.points);
        EXPECT_EQ(once.incrementals, again.incrementals);
        EXPECT_EQ(once.spoilt, again.spoilt);
        EXPECT_EQ(once.faults, again.faults);
    }
}

} // namespace
