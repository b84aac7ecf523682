/* The set of blocks that have been seen, against the plainest set there is. */
#include "blockSet.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

using zel::BlockSet;

namespace
{

constexpr uint64_t region = 1U << 15; // what the set keeps its bits by

} // namespace

TEST(ZelBlockSet, refusesABlockThatIsInIt)
{
    BlockSet set(100);
    EXPECT_TRUE(set.insert(10, 5));
    EXPECT_FALSE(set.insert(14, 1));
    EXPECT_TRUE(BlockSet(100).insert(0, 100));
}

TEST(ZelBlockSet, tellsNeighboursApartAcrossWordsAndRegions)
{
    for (uint64_t edge : {uint64_t{64}, region, 2 * region, 2 * region + 64}) {
        BlockSet set(4 * region);
        EXPECT_TRUE(set.insert(edge, 1)) << edge;
        EXPECT_TRUE(set.insert(edge - 1, 1)) << edge;
        EXPECT_TRUE(set.insert(edge + 1, 3 * 64)) << edge;
        EXPECT_FALSE(set.insert(edge - 2, 3)) << edge;
    }
}

TEST(ZelBlockSet, knowsAFullRegionHoweverItBecameFull)
{
    BlockSet atOnce(3 * region);
    EXPECT_TRUE(atOnce.insert(0, 3 * region));
    EXPECT_FALSE(atOnce.insert(region + 5, 1));
    BlockSet inPieces(3 * region);
    for (uint64_t first = 0; first < region; first += 256)
        EXPECT_TRUE(inPieces.insert(region + first, 256));
    EXPECT_FALSE(inPieces.insert(region + 5, 1));
    EXPECT_TRUE(inPieces.insert(region - 1, 1));
    EXPECT_FALSE(inPieces.insert(0, region));
}

TEST(ZelBlockSet, agreesWithAPlainSet)
{
    std::mt19937 random(5);
    for (int round = 0; round < 200; round++) {
        uint64_t size = 2 * region + random() % 1000;
        BlockSet set(size);
        std::vector<bool> plain(size);
        for (;;) {
            uint64_t first = random() % size;
            uint64_t count = 1 + random() % std::min<uint64_t>(size - first, 3000);
            bool isNew = true;
            for (uint64_t block = first; block < first + count; block++)
                isNew = isNew && !plain[block];
            ASSERT_EQ(set.insert(first, count), isNew) << round << " " << first << " " << count;
            if (!isNew)
                break;
            std::fill_n(plain.begin() + static_cast<ptrdiff_t>(first), count, true);
        }
    }
}
