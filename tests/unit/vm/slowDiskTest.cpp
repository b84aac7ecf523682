#include "vm/bench/slowDisk.h"

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

constexpr SlowDisk::Time serviceTime{5};

class SlowDiskTest : public testing::Test
{
protected:
    Disk storage_{Disk::Bytes(4 * sectorBytes, 'x')};
    SlowDisk disk_{storage_, serviceTime};
    unsigned char sector_[sectorBytes] = {};
};

TEST_F(SlowDiskTest, readsAndWritesWhatLiesBelow)
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

TEST_F(SlowDiskTest, passesFailuresOn)
{
    storage_.failReads(0, sectorBytes);
    EXPECT_EQ(disk_.read(0, sector_, sectorBytes), EIO);
    EXPECT_EQ(disk_.write(4 * sectorBytes, sector_, sectorBytes), EINVAL);
}

TEST_F(SlowDiskTest, eachAccessTakesItsTimeWhateverItsSize)
{
    unsigned char all[4 * sectorBytes] = {};
    Clock::time_point begin = Clock::now();
    disk_.read(0, sector_, sectorBytes);
    disk_.read(0, all, sizeof(all));
    disk_.write(0, sector_, sectorBytes);
    EXPECT_GE(Clock::now() - begin, 3 * serviceTime);
    Samples served = disk_.served();
    ASSERT_EQ(served.size(), 3u);
    EXPECT_GE(quantile(served, 0), serviceTime.count());
}

TEST_F(SlowDiskTest, severalAtATimeAreServedOneAfterTheOther)
{
    constexpr unsigned threads = 4;
    constexpr unsigned accesses = 5;
    Clock::time_point begin = Clock::now();
    std::vector<std::thread> running;
    for (unsigned i = 0; i < threads; i++)
        running.emplace_back([this] {
            unsigned char sector[sectorBytes];
            for (unsigned access = 0; access < accesses; access++)
                disk_.read(0, sector, sizeof(sector));
        });
    for (std::thread &thread : running)
        thread.join();
    EXPECT_GE(Clock::now() - begin, threads * accesses * serviceTime);
    EXPECT_EQ(disk_.served().size(), threads * accesses);
}

} // namespace
} // namespace vm
