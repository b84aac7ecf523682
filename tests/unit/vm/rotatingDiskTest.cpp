#include "vm/bench/rotatingDisk.h"

#include <cerrno>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "vm/host/disk.h"

namespace vm
{
namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t diskBytes = 400000000;
constexpr std::size_t block = 4096;
constexpr Milliseconds now{0};
constexpr double turn = DiskHead::turn.count();

double platterTime(std::size_t bytes)
{
    return static_cast<double>(bytes) / DiskHead::platterRate;
}

double interfaceTime(std::size_t bytes)
{
    return static_cast<double>(bytes) / DiskHead::interfaceRate;
}

TEST(DiskHead, seeksLongerTheFartherItIs)
{
    DiskHead head(diskBytes);
    EXPECT_NEAR(head.read(diskBytes / 4, block, now).count(), 8 + turn / 2 + platterTime(block),
                1e-3);
    EXPECT_NEAR(head.write(diskBytes / 2 + block, block, now).count(),
                8 + turn / 2 + platterTime(block), 1e-3);
    EXPECT_NEAR(head.read(0, block, now).count(), 1 + 14 * 0.7071 + turn / 2 + platterTime(block),
                1e-2);
    DiskHead far(diskBytes);
    EXPECT_NEAR(far.read(diskBytes, 0, now).count(), 15 + turn / 2, 1e-6);
}

TEST(DiskHead, largeTransfersTakeLonger)
{
    constexpr std::size_t large = 1000000;
    DiskHead one(diskBytes);
    DiskHead other(diskBytes);
    double difference =
        (one.write(diskBytes / 2, large, now) - other.write(diskBytes / 2, block, now)).count();
    EXPECT_NEAR(difference, 10 - platterTime(block), 1e-6);
}

TEST(DiskHead, blockThatWasJustReadComesByAfterOneTurnWheneverItIsAskedFor)
{
    for (double idle : {0.0, 1.0, 6.0}) {
        DiskHead head(diskBytes);
        head.read(diskBytes / 2, block, now);
        EXPECT_NEAR(head.write(diskBytes / 2, block, Milliseconds(idle)).count(), turn - idle,
                    1e-6);
    }
    DiskHead late(diskBytes);
    late.read(diskBytes / 2, block, now);
    EXPECT_NEAR(late.write(diskBytes / 2, block, Milliseconds(turn + 1)).count(), turn - 1, 1e-6);
}

TEST(DiskHead, placeFartherOnInTheTrackComesBySoon)
{
    DiskHead head(diskBytes);
    head.read(diskBytes / 2, block, now);
    auto quarter = static_cast<std::uint64_t>(DiskHead::trackBytes / 4);
    EXPECT_NEAR(head.write(diskBytes / 2 + block + quarter, block, Milliseconds(0.5)).count(),
                turn / 4 - 0.5 + platterTime(block), 1e-4);
}

TEST(DiskHead, writesOneAfterTheOtherWaitForTheNextTurn)
{
    DiskHead head(diskBytes);
    head.write(0, block, now);
    EXPECT_NEAR(head.write(block, block, Milliseconds(1)).count(), turn - 1 + platterTime(block),
                1e-6);
}

TEST(DiskHead, readsOnWhileNothingElseIsAskedFor)
{
    DiskHead head(diskBytes);
    head.read(0, block, now);
    EXPECT_NEAR(head.read(block, block, now).count(), platterTime(block), 1e-6);
    constexpr double idle = 1;
    Milliseconds one = head.read(2 * block, block, Milliseconds(idle));
    EXPECT_NEAR(one.count(), interfaceTime(block), 1e-6);
    Milliseconds some = head.read(3 * block, 20 * block, now);
    EXPECT_NEAR(some.count(), interfaceTime(20 * block), 1e-6);
    // More than it has read on in the meantime: the platter is what takes time.
    Milliseconds many = head.read(23 * block, 100 * block, now);
    EXPECT_NEAR(idle + (one + some + many).count(), platterTime(121 * block), 1e-6);
}

TEST(DiskHead, doesNotReadOnWithoutEnd)
{
    DiskHead head(diskBytes);
    head.read(0, block, now);
    EXPECT_NEAR(head.read(block, 20000000, Milliseconds(1000)).count(),
                platterTime(20000000) - platterTime(8000000), 1e-6);
}

TEST(DiskHead, forgetsWhatItHasReadOnWhenItMoves)
{
    DiskHead head(diskBytes);
    head.read(0, block, now);
    head.read(block, block, Milliseconds(100));
    head.read(diskBytes / 2, block, now);
    EXPECT_NEAR(head.read(diskBytes / 2 + block, block, now).count(), platterTime(block), 1e-6);
    head.write(diskBytes - block, block, now);
    EXPECT_GT(head.read(diskBytes / 2 + 2 * block, block, Milliseconds(100)).count(), 8);
}

class RotatingDiskTest : public testing::Test
{
protected:
    Disk storage_{Disk::Bytes(4 * sectorBytes, 'x')};
    RotatingDisk disk_{storage_};
    unsigned char sector_[sectorBytes] = {};
};

TEST_F(RotatingDiskTest, readsAndWritesWhatLiesBelow)
{
    sector_[0] = 'w';
    EXPECT_EQ(disk_.size(), 4 * sectorBytes);
    EXPECT_EQ(disk_.write(sectorBytes, sector_, sectorBytes), 0);
    sector_[0] = 0;
    EXPECT_EQ(disk_.read(sectorBytes, sector_, sectorBytes), 0);
    EXPECT_EQ(sector_[0], 'w');
    EXPECT_EQ(disk_.read(0, sector_, sectorBytes), 0);
    EXPECT_EQ(sector_[0], 'x');
}

TEST_F(RotatingDiskTest, passesFailuresOn)
{
    storage_.failReads(0, sectorBytes);
    EXPECT_EQ(disk_.read(0, sector_, sectorBytes), EIO);
    EXPECT_EQ(disk_.write(4 * sectorBytes, sector_, sectorBytes), EINVAL);
}

TEST_F(RotatingDiskTest, severalAtATimeAreServedOneAfterTheOther)
{
    constexpr unsigned threads = 4;
    constexpr unsigned accesses = 3;
    disk_.write(0, sector_, sectorBytes);
    Clock::time_point begin = Clock::now();
    std::vector<std::thread> running;
    for (unsigned i = 0; i < threads; i++)
        running.emplace_back([this] {
            unsigned char sector[sectorBytes] = {};
            for (unsigned access = 0; access < accesses; access++)
                disk_.write(0, sector, sizeof(sector));
        });
    for (std::thread &thread : running)
        thread.join();
    // Each writes the same sector, which comes by once in a turn; the first may come at any time.
    EXPECT_GE(Clock::now() - begin, (threads * accesses - 1) * DiskHead::turn * 0.99);
    Samples delays = disk_.delays();
    ASSERT_EQ(delays.size(), threads * accesses + 1);
    EXPECT_GE(quantile(delays, 0), -1e-5);
}

} // namespace
} // namespace vm
