// Which device and which of its blocks a bio is for.
#include <atomic>

#include <host/block.h>

#include "kernel/host/blockInternal.h"
#include "kernel/host/internal.h"
#include "support/backupRun.h"

namespace
{

using test::fallsAsleep;
using test::FreeBio;
using test::ModuleRun;

class BioRange : public test::ModuleTest
{
};

/* Block ranges. */

struct RangeCase {
    const char *what;
    sector_t sector;
    unsigned size;
    unsigned startBN;
    unsigned endBN;
};

TEST_F(BioRange, ABioCoversTheBlocksThatItsSectorsTouch)
{
    // A partition of 100 sectors from sector 1000 on, with 4096-byte blocks.
    constexpr RangeCase cases[] = {
        {"one block", 1008, 4096, 1, 1},
        {"one byte more", 1008, 4097, 1, 2},
        {"two sectors across a border", 1007, 1024, 0, 1},
        {"the first sector", 1000, 512, 0, 0},
        {"less than a sector at the start", 1000, 100, 0, 0},
        {"a partial last sector counts", 1007, 513, 0, 1},
        {"begins before the partition", 990, 4096, 0, 0},
        {"begins before it, counted from its start", 992, 8192, 0, 1},
        {"ends with the partition", 1096, 2048, 12, 12},
        {"ends one sector behind: kept", 1093, 4096, 11, 12},
        {"ends two sectors behind: clamped", 1094, 4096, 11, 12},
        {"ends far behind: clamped", 1096, 65536, 12, 12},
        {"begins behind: nothing", 1120, 4096, 15, 12},
        {"empty at the start", 1000, 0, 0, 0},
        {"empty at a block's first sector: nothing", 1016, 0, 2, 1},
        {"empty inside a block", 1017, 0, 2, 2},
    };
    withModule([&](ModuleRun &) {
        DiskInfo di{};
        di.partitionStart = 1000;
        di.partitionLen = 100;
        di.sectorsPerBlockShift = 3;
        for (const RangeCase &c : cases) {
            FreeBio bio(nullptr, c.sector, c.size);
            BlockRange range = BIOToBlockNumbers(bio, &di);
            EXPECT_EQ(range.startBN, c.startBN) << c.what;
            EXPECT_EQ(range.endBN, c.endBN) << c.what;
        }
    });
}

TEST_F(BioRange, AnEndAtThePartitionsLengthIsNotClamped)
{
    withModule([](ModuleRun &) {
        DiskInfo di{};
        di.partitionLen = 96;
        di.sectorsPerBlockShift = 3;
        // Sectors 89 to 96, of 0 to 95.
        EXPECT_EQ(BIOToBlockNumbers(FreeBio(nullptr, 89, 4096), &di).endBN, 12u);
        EXPECT_EQ(BIOToBlockNumbers(FreeBio(nullptr, 90, 4096), &di).endBN, 11u);
        di.partitionLen = 0;
        EXPECT_EQ(BIOToBlockNumbers(FreeBio(nullptr, 8, 4096), &di).endBN, 0u);
    });
}

TEST_F(BioRange, BlockRangesAreComputedIn64Bits)
{
    withModule([](ModuleRun &) {
        DiskInfo di{};
        di.partitionStart = 0x3'0000'0000;
        di.partitionLen = 0x2'0000'0000;
        di.sectorsPerBlockShift = 3;
        BlockRange range = BIOToBlockNumbers(FreeBio(nullptr, 0x4'0000'0008, 8192), &di);
        EXPECT_EQ(range.startBN, 0x2000'0001u);
        EXPECT_EQ(range.endBN, 0x2000'0002u);
        di.sectorsPerBlockShift = 0;
        EXPECT_EQ(BIOToBlockNumbers(FreeBio(nullptr, 0x4'ffff'ffff, 512), &di).endBN, 0xffffffffu);
    });
}

/* Which device. */

TEST_F(BioRange, ABiosFirstSectorSaysItsDevice)
{
    withModule([](ModuleRun &) {
        host::DiskOptions options;
        options.firstMinor = 32;
        auto disk = host::Disk::attach(8192, options);
        ASSERT_TRUE(disk->partition({{1, 63, 1000}, {2, 1063, 500}, {4, 2000, 1000}}));
        struct block_device *whole = host::openDevice(disk->device(0));
        struct SectorMinor {
            sector_t sector;
            int minor;
        };
        for (const SectorMinor &c : {SectorMinor{0, 32},
                                     {62, 32},
                                     {63, 33},
                                     {1062, 33},
                                     {1063, 34},
                                     {1562, 34},
                                     {1563, 32},
                                     {1999, 32},
                                     {2000, 36},
                                     {2999, 36},
                                     {3000, 32},
                                     {8191, 32}})
            EXPECT_EQ(BIOToMinor(FreeBio(whole, c.sector, 65536)), c.minor) << c.sector;
        EXPECT_EQ(BIOToMinor(FreeBio(whole, 0x1'0000'0100, 512)), 32);
        host::closeDevice(whole);
    });
}

TEST_F(BioRange, OfPartitionsThatOverlapTheFirstOneCounts)
{
    withModule([](ModuleRun &) {
        auto disk = host::Disk::attach(8192);
        ASSERT_TRUE(disk->partition({{1, 63, 1000}, {2, 500, 1000}, {3, 600, 100}}));
        struct block_device *whole = host::openDevice(disk->device(0));
        EXPECT_EQ(BIOToMinor(FreeBio(whole, 499, 512)), 1);
        EXPECT_EQ(BIOToMinor(FreeBio(whole, 650, 512)), 1);
        EXPECT_EQ(BIOToMinor(FreeBio(whole, 1063, 512)), 2);
        host::closeDevice(whole);
    });
}

TEST_F(BioRange, PartitionsBeyondTheDisksMinorsAreNotLookedAt)
{
    withModule([](ModuleRun &) {
        host::DiskOptions options;
        options.minors = 3;
        auto disk = host::Disk::attach(8192, options);
        ASSERT_TRUE(disk->partition({{1, 63, 1000}, {2, 1063, 500}}));
        struct block_device *whole = host::openDevice(disk->device(0));
        EXPECT_EQ(BIOToMinor(FreeBio(whole, 1063, 512)), 2);
        // As if the disk had fewer minors than its table has slots.
        whole->bd_disk.load()->minors = 2;
        EXPECT_EQ(BIOToMinor(FreeBio(whole, 1063, 512)), 0);
        EXPECT_EQ(BIOToMinor(FreeBio(whole, 63, 512)), 1);
        whole->bd_disk.load()->minors = 3;
        host::closeDevice(whole);
    });
}

// Who holds it may wait for this bio. Also by a bio of a partition, as it comes when it is too
// short to be remapped.
TEST_F(BioRange, ThePartitionTablesMutexIsNotWaitedFor)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        struct block_device *whole = host::openDevice(disk.disk().device(0));
        host::mutex_lock(bdev_mutex(whole));
        for (struct block_device *bdev : {whole, disk.bdev()}) {
            EXPECT_EQ(BIOToMinor(FreeBio(bdev, 63, 0)), 1);
            int minor = -1;
            host::spawn("reader", [&] { minor = BIOToMinor(FreeBio(bdev, 63, 0)); }).join();
            EXPECT_EQ(minor, 1);
        }
        mutex_unlock(bdev_mutex(whole));
        host::closeDevice(whole);
    });
}

TEST_F(BioRange, ThePartitionTableMayBeReadAnewMeanwhile)
{
    forSeeds(100, [](ModuleRun &) {
        host::DiskOptions options;
        auto disk = host::Disk::attach(8192, options);
        ASSERT_TRUE(disk->partition({{1, 63, 1000}, {3, 1063, 500}}));
        struct block_device *whole = host::openDevice(disk->device(0));
        std::vector<host::Task> readers;
        for (sector_t sector : {63, 1063})
            readers.push_back(host::spawn("reader", [whole, sector] {
                int minor = sector == 63 ? 1 : 3;
                for (int i = 0; i < 10; i++) {
                    int found = BIOToMinor(FreeBio(whole, sector, 512));
                    EXPECT_TRUE(found == minor || found == 0) << found;
                }
            }));
        for (int i = 0; i < 3; i++)
            EXPECT_TRUE(disk->rereadPartitions());
        for (host::Task &reader : readers)
            reader.join();
        EXPECT_EQ(BIOToMinor(FreeBio(whole, 1063, 512)), 3);
        host::closeDevice(whole);
    });
}

} // namespace
