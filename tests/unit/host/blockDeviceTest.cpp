#include <algorithm>

#include <host/block.h>
#include <host/task.h>
#include <kernel/fs.h>

#include "support/hostTest.h"
#include "unit/host/seamBio.h"

namespace
{

using host::Disk;
using host::DiskOptions;

class BlockDeviceTest : public test::SchedulerTest
{
};
INSTANTIATE_SCHEDULERS(BlockDeviceTest);

kernel_dev_t number(unsigned major, unsigned minor)
{
    return major << 20 | minor;
}

// Partition 1 at sector 63, partition 3 behind it.
std::unique_ptr<Disk> partitionedDisk(const DiskOptions &options = {})
{
    auto disk = Disk::attach(4096, options);
    EXPECT_TRUE(disk->partition({{1, 63, 1000}, {3, 2000, 1001}}));
    return disk;
}

// What the test's make_request_fn saw last, and the disk's own.
make_request_fn *ownFunction;
struct Seen {
    int calls = 0;
    struct block_device *bdev = nullptr;
    sector_t sector = 0;
    bool writes = false;
    bool holdsMutex = false;
};
Seen seen;

int spy(struct request_queue *queue, struct bio *bio)
{
    seen.calls++;
    seen.bdev = bio_bdev(bio);
    seen.sector = bio_sector(bio);
    seen.writes = bio_rw(bio) == WRITE;
    seen.holdsMutex = mutex_trylock(bdev_mutex(bio_bdev(bio))) == 0;
    if (!seen.holdsMutex)
        mutex_unlock(bdev_mutex(bio_bdev(bio)));
    return ownFunction(queue, bio);
}

void install(struct request_queue *queue, make_request_fn *function)
{
    unsigned long flags = spin_lock_irqsave(queue_lock(queue));
    queue_set_make_request_fn(queue, function);
    spin_unlock_irqrestore(queue_lock(queue), flags);
}

void startSpying(struct request_queue *queue)
{
    unsigned long flags = spin_lock_irqsave(queue_lock(queue));
    ownFunction = queue_make_request_fn(queue);
    spin_unlock_irqrestore(queue_lock(queue), flags);
    seen = {};
    install(queue, spy);
}

TEST_P(BlockDeviceTest, bdgetMakesDevicesThatKnowNoDiskUntilOpened)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *device = bdget(disk->device(1));
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(bdev_dev(device), disk->device(1));
        EXPECT_EQ(bdget(disk->device(1)), device);
        EXPECT_EQ(bdev_disk(device), nullptr);
        EXPECT_EQ(bdev_part(device), nullptr);
        EXPECT_EQ(bdev_contains(device), nullptr);
        EXPECT_NE(bdget(number(99, 7)), nullptr);

        ASSERT_EQ(host::openDevice(disk->device(1)), device);
        ASSERT_EQ(host::openDevice(disk->device(1)), device);
        EXPECT_EQ(disk_queue(bdev_disk(device)), disk->queue());
        EXPECT_EQ(part_start_sect(bdev_part(device)), 63u);
        EXPECT_EQ(part_nr_sects(bdev_part(device)), 1000u);
        EXPECT_EQ(bdev_dev(bdev_contains(device)), disk->device());

        host::closeDevice(device);
        EXPECT_NE(bdev_disk(device), nullptr);
        host::closeDevice(device);
        EXPECT_EQ(bdev_disk(device), nullptr);
        EXPECT_EQ(bdev_part(device), nullptr);
        EXPECT_EQ(bdev_contains(device), nullptr);
    });
}

TEST_P(BlockDeviceTest, aWholeDiskIsItsOwnPartitionZero)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *whole = host::openDevice(disk->device());
        EXPECT_EQ(bdev_contains(whole), whole);
        EXPECT_EQ(part_start_sect(bdev_part(whole)), 0u);
        EXPECT_EQ(part_nr_sects(bdev_part(whole)), 4096u);
        EXPECT_EQ(get_capacity(bdev_disk(whole)), 4096u);
        EXPECT_EQ(disk_first_minor(bdev_disk(whole)), 0);
        EXPECT_EQ(disk_minors(bdev_disk(whole)), 16);
        host::closeDevice(whole);
    });
}

TEST_P(BlockDeviceTest, unknownDevicesAndPartitionsCannotBeOpened)
{
    inKernel([] {
        DiskOptions options;
        options.firstMinor = 16;
        options.minors = 1;
        auto disk = Disk::attach(64, options);
        EXPECT_EQ(host::openDevice(number(9, 0)), nullptr);
        EXPECT_EQ(host::openDevice(number(8, 15)), nullptr);
        EXPECT_EQ(host::openDevice(number(8, 17)), nullptr);
        struct block_device *whole = host::openDevice(number(8, 16));
        ASSERT_NE(whole, nullptr);
        host::closeDevice(whole);
        options.firstMinor = 32;
        options.minors = 16;
        auto other = partitionedDisk(options);
        EXPECT_EQ(host::openDevice(number(8, 34)), nullptr);
        // A refused open leaves its disk closed.
        EXPECT_TRUE(other->partition({}));
    });
}

TEST_P(BlockDeviceTest, thePartitionTableListsPartitionsByNumber)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *whole = host::openDevice(disk->device());
        rcu_read_lock();
        struct gendisk *gendisk = bdev_disk(whole);
        EXPECT_EQ(disk_part_tbl_len(gendisk), 4);
        EXPECT_EQ(part_start_sect(disk_part(gendisk, 1)), 63u);
        EXPECT_EQ(disk_part(gendisk, 2), nullptr);
        EXPECT_EQ(part_nr_sects(disk_part(gendisk, 3)), 1001u);
        rcu_read_unlock();
        host::closeDevice(whole);

        auto list = disk->partitions();
        ASSERT_EQ(list.size(), 2u);
        EXPECT_EQ(list[1].number, 3u);
        EXPECT_EQ(list[1].start, 2000u);
    });
}

TEST_P(BlockDeviceTest, readingPastThePartitionTableIsReported)
{
    inKernel([] {
        std::unique_ptr<Disk> disk = partitionedDisk();
        struct block_device *whole = host::openDevice(disk->device());
        struct gendisk *gendisk = bdev_disk(whole);
        rcu_read_lock();
        EXPECT_EQ(disk_part(gendisk, disk_part_tbl_len(gendisk)), nullptr);
        rcu_read_unlock();
        host::closeDevice(whole);
    });
    expectViolation("partition table overrun");
}

TEST_P(BlockDeviceTest, readingThePartitionTableOutsideOfRcuIsReported)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *whole = host::openDevice(disk->device());
        disk_part(bdev_disk(whole), 1);
        host::closeDevice(whole);
    });
    expectViolation("partition table outside of rcu_read_lock");
}

TEST_P(BlockDeviceTest, partitionsSurviveTheirDiskInItsImage)
{
    inKernel([] {
        char sector[512];
        {
            auto disk = partitionedDisk();
            disk->peek(0, sector, sizeof(sector));
        }
        auto disk = Disk::attach(2500);
        EXPECT_TRUE(disk->partitions().empty());
        disk->poke(0, sector, sizeof(sector));
        EXPECT_TRUE(disk->rereadPartitions());
        auto list = disk->partitions();
        ASSERT_EQ(list.size(), 2u);
        EXPECT_EQ(list[1].sectors, 500u); // cut off at the end of the disk
        EXPECT_THROW(disk->partition({{5, 1, 1}}), std::invalid_argument);
    });
}

TEST_P(BlockDeviceTest, aTableInUseIsNotReadAgain)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *device = host::openDevice(disk->device(3));
        EXPECT_FALSE(disk->partition({{1, 63, 10}}));
        EXPECT_EQ(part_nr_sects(bdev_part(device)), 1001u);
        host::closeDevice(device);
        EXPECT_TRUE(disk->rereadPartitions());
        ASSERT_EQ(disk->partitions().size(), 1u);
        EXPECT_EQ(disk->partitions()[0].sectors, 10u);
    });
}

TEST_P(BlockDeviceTest, aPartitionKeptPastItsEndIsReported)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *device = host::openDevice(disk->device(1));
        struct hd_struct *part = bdev_part(device);
        host::closeDevice(device);
        EXPECT_EQ(part_nr_sects(part), 1000u);
        EXPECT_TRUE(disk->rereadPartitions());
        EXPECT_EQ(part_nr_sects(part), 0u);
    });
    expectViolation("use of a deleted partition");
}

TEST_P(BlockDeviceTest, biosToAPartitionAreRemappedToItsDisk)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *device = host::openDevice(disk->device(3));
        startSpying(disk->queue());
        unsigned char data[512] = {77};
        EXPECT_EQ(host::writeDevice(device, 5, data, sizeof(data)), 0);
        EXPECT_EQ(seen.sector, 2005u);
        EXPECT_EQ(seen.bdev, bdev_contains(device));
        unsigned char read = 0;
        disk->peek(2005, &read, 1);
        EXPECT_EQ(read, 77);

        // Empty ones stay as they are.
        EXPECT_EQ(host::submitAndWait({device, 5, 0, WRITE}), 0);
        EXPECT_EQ(seen.sector, 5u);
        EXPECT_EQ(seen.bdev, device);
        // Less than a sector does too, but still lands in its partition.
        data[0] = 78;
        EXPECT_EQ(host::submitAndWait({device, 5, 1, WRITE, data}), 0);
        EXPECT_EQ(seen.sector, 5u);
        disk->peek(2005, &read, 1);
        EXPECT_EQ(read, 78);
        install(disk->queue(), ownFunction);
        host::closeDevice(device);
    });
}

TEST_P(BlockDeviceTest, biosPastTheEndOfTheirDeviceFail)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *device = host::openDevice(disk->device(3));
        unsigned char data[2 * 512] = {};
        startSpying(disk->queue());
        EXPECT_EQ(host::writeDevice(device, 1000, data, sizeof(data)), -KERNEL_EIO);
        EXPECT_EQ(host::readDevice(device, ~0ull >> 1, data, sizeof(data)), -KERNEL_EIO);
        EXPECT_EQ(seen.calls, 0);
        EXPECT_EQ(host::writeDevice(device, 999, data, sizeof(data)), 0);
        EXPECT_EQ(seen.calls, 1);
        install(disk->queue(), ownFunction);
        host::closeDevice(device);
    });
}

TEST_P(BlockDeviceTest, aBioToAClosedDeviceIsReported)
{
    inKernel([] {
        auto disk = partitionedDisk();
        EXPECT_EQ(host::submitAndWait({bdget(disk->device(1)), 0, 512, READ}), -KERNEL_EIO);
    });
    expectViolation("bio to a device that is not open");
}

TEST_P(BlockDeviceTest, theLastCloseFlushesWithTheMutexHeld)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *whole = host::openDevice(disk->device());
        unsigned char data[1024];
        std::fill(std::begin(data), std::end(data), 0x5a);
        host::writeBuffered(whole, 10, data, sizeof(data));
        unsigned char read = 0;
        disk->peek(11, &read, 1);
        EXPECT_EQ(read, 0);
        startSpying(disk->queue());
        host::closeDevice(whole);
        EXPECT_EQ(seen.calls, 1);
        EXPECT_TRUE(seen.writes);
        EXPECT_TRUE(seen.holdsMutex);
        disk->peek(11, &read, 1);
        EXPECT_EQ(read, 0x5a);
        install(disk->queue(), ownFunction);
    });
}

TEST_P(BlockDeviceTest, readingPartitionsAgainReadsWithTheMutexHeld)
{
    inKernel([] {
        auto disk = partitionedDisk();
        startSpying(disk->queue());
        EXPECT_TRUE(disk->rereadPartitions());
        EXPECT_EQ(seen.calls, 1);
        EXPECT_FALSE(seen.writes);
        EXPECT_EQ(seen.sector, 0u);
        EXPECT_TRUE(seen.holdsMutex);
        disk->failSectors(0, 1, true, false);
        EXPECT_FALSE(disk->rereadPartitions());
        EXPECT_TRUE(disk->partitions().empty());
        install(disk->queue(), ownFunction);
    });
}

TEST_P(BlockDeviceTest, directReadsSeeWhatWasWrittenThroughTheBuffers)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *device = host::openDevice(disk->device(1));
        unsigned char data[512] = {9}, read[512] = {};
        host::writeBuffered(device, 3, data, sizeof(data));
        EXPECT_EQ(host::readDevice(device, 3, read, sizeof(read)), 0);
        EXPECT_EQ(read[0], 9);
        host::closeDevice(device);
    });
}

TEST_P(BlockDeviceTest, olderContentsOfASectorAreWrittenBeforeNewerOnes)
{
    inKernel([] {
        auto disk = partitionedDisk();
        struct block_device *device = host::openDevice(disk->device(1));
        disk->hold();
        std::vector<host::Task> tasks;
        for (unsigned char version : {1, 2}) {
            unsigned char data[512] = {version};
            host::writeBuffered(device, 4, data, sizeof(data));
            tasks.push_back(host::spawn("syncer", [&] { EXPECT_EQ(fsync_bdev(device), 0); }));
            while (disk->heldCount() == 0)
                host::yield();
        }
        for (unsigned i = 0; i < 50; i++)
            host::yield();
        EXPECT_EQ(disk->heldCount(), 1u); // never two writes of one sector at a time
        disk->release();
        for (host::Task &task : tasks)
            task.join();
        unsigned char read = 0;
        disk->peek(63 + 4, &read, 1);
        EXPECT_EQ(read, 2);
        host::closeDevice(device);
    });
}

TEST_P(BlockDeviceTest, opensAndClosesRaceSafely)
{
    inKernel([] {
        auto disk = partitionedDisk();
        std::vector<host::Task> tasks;
        for (unsigned t = 0; t < 4; t++) {
            tasks.push_back(host::spawn("opener", [&, t] {
                for (unsigned i = 0; i < 15; i++) {
                    struct block_device *device = host::openDevice(disk->device(t & 1 ? 3 : 0));
                    ASSERT_NE(device, nullptr);
                    unsigned char data[512] = {};
                    host::writeBuffered(device, 40 + t, data, sizeof(data));
                    EXPECT_EQ(host::readDevice(device, 0, data, sizeof(data)), 0);
                    host::closeDevice(device);
                }
            }));
        }
        for (host::Task &task : tasks)
            task.join();
        EXPECT_TRUE(disk->rereadPartitions());
    });
}

} // namespace
