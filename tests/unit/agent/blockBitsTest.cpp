#include "agent/blockBits.h"

#include <gtest/gtest.h>
#include <vector>

using zelsend::BlockBits;

TEST(BlockBits, LieAsTheModuleHasThem)
{
    BlockBits bits;
    ASSERT_TRUE(bits.create(20));
    EXPECT_EQ(bits.size(), 3U);
    bits.set(0);
    bits.set(9);
    bits.set(19);
    EXPECT_EQ(bits.data()[0], 0x01);
    EXPECT_EQ(bits.data()[1], 0x02);
    EXPECT_EQ(bits.data()[2], 0x08);
    EXPECT_TRUE(bits.test(9));
    bits.clear(9);
    EXPECT_FALSE(bits.test(9));
    EXPECT_EQ(bits.count(), 2U);
}

TEST(BlockBits, LieWhereA32BitPointerReaches)
{
    BlockBits bits;
    ASSERT_TRUE(bits.create(1000000));
    EXPECT_LT(reinterpret_cast<std::uintptr_t>(bits.data()) + bits.size(), 1ULL << 32);
}

TEST(BlockBits, HaveNoneBeyondTheLastBlock)
{
    for (std::uint32_t blocks : {1U, 7U, 8U, 9U, 63U, 64U, 65U}) {
        BlockBits bits;
        ASSERT_TRUE(bits.create(blocks));
        bits.setAll();
        EXPECT_EQ(bits.count(), blocks);
        bits.data()[bits.size() - 1] = 0xff;
        bits.clearTail();
        EXPECT_EQ(bits.count(), blocks);
    }
}

TEST(BlockBits, FindTheNextOneFromAnywhere)
{
    for (std::uint32_t blocks : {1U, 8U, 13U, 40U}) {
        for (std::uint32_t set = 0; set < blocks; set++) {
            BlockBits bits;
            ASSERT_TRUE(bits.create(blocks));
            bits.set(set);
            for (std::uint32_t from = 0; from <= blocks; from++) {
                EXPECT_EQ(bits.findSet(from), from <= set ? set : blocks)
                    << blocks << " blocks, " << set << " set, from " << from;
            }
        }
    }
}

TEST(BlockBits, MergeToTheUnion)
{
    BlockBits a;
    BlockBits b;
    ASSERT_TRUE(a.create(100) && b.create(100));
    a.set(3);
    a.set(50);
    b.set(50);
    b.set(99);
    a.merge(b);
    EXPECT_EQ(a.count(), 3U);
    EXPECT_TRUE(a.test(3) && a.test(50) && a.test(99));
    EXPECT_EQ(b.count(), 2U);
}
