// Measuring devices, and the command that tells an agent about them.
#include <cstring>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"

namespace
{

using test::BackupRun;
using test::BareFs;
using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;
using test::TestDisk;

class Geometry : public test::ModuleTest
{
};

struct Measures {
    unsigned blockSize;
    unsigned blocksPerPage;
    int sectorsPerBlock;
    int shift;
};

TEST_F(Geometry, ADeviceIsMeasuredInBlocksOfItsFileSystem)
{
    withModule([](ModuleRun &) {
        for (const Measures &m : {Measures{4096, 1, 8, 3}, Measures{2048, 2, 4, 2},
                                  Measures{1024, 4, 2, 1}, Measures{512, 8, 1, 0}}) {
            TestDisk disk({.blockSizes = {m.blockSize, m.blockSize}});
            DiskInfo di;
            std::memset(&di, 0xa5, sizeof(di));
            di.numBlocks = 77;
            di.realMRF = zelAMRF;
            EXPECT_EQ(getDiskInfo(&di, disk.device(2)), 0);
            EXPECT_EQ(di.kdev, 8u << 20 | 2);
            EXPECT_EQ(di.partitionStart, disk.start(2));
            EXPECT_EQ(di.blockSize, static_cast<int>(m.blockSize));
            EXPECT_EQ(di.blocksPerPage, m.blocksPerPage);
            EXPECT_EQ(di.superBlock, nullptr);
            EXPECT_EQ(di.partitionSizeKB, disk.sectors(2) / 2);
            EXPECT_EQ(di.numBlocks, 77u);
            EXPECT_EQ(di.realMRF, zelAMRF);
            EXPECT_EQ(di.bdev, disk.bdev(2));
            EXPECT_EQ(di.partitionLen, disk.sectors(2));
            EXPECT_EQ(di.sectorsPerBlock, m.sectorsPerBlock);
            EXPECT_EQ(di.sectorsPerBlockShift, m.shift);
            EXPECT_EQ(getRequestQueue(&di), disk.disk().queue());
        }
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(Geometry, TheShiftIsTheLowestBitOfTheSectorsOfABlock)
{
    withModule([](ModuleRun &) {
        auto disk = host::Disk::attach(4096);
        ASSERT_TRUE(disk->partition({{1, 63, 1000}}));
        host::Mount mount(disk->device(1), std::make_shared<BareFs>(3072));
        DiskInfo di{};
        EXPECT_EQ(getDiskInfo(&di, disk->device(1)), 0);
        EXPECT_EQ(di.blocksPerPage, 1u);
        EXPECT_EQ(di.sectorsPerBlock, 6);
        EXPECT_EQ(di.sectorsPerBlockShift, 1);
    });
}

TEST_F(Geometry, AWholeDiskStartsAtItsFirstSector)
{
    withModule([](ModuleRun &) {
        TestDisk disk({.partitioned = false});
        DiskInfo di{};
        EXPECT_EQ(getDiskInfo(&di, disk.device(0)), 0);
        EXPECT_EQ(di.partitionStart, 0u);
        EXPECT_EQ(di.partitionLen, disk.disk().sectors());
    });
}

TEST_F(Geometry, APartitionOfAGibibyteIsThatManyKilobytes)
{
    withModule([](ModuleRun &run) {
        auto disk = host::Disk::attach(2'097'152 + 64);
        ASSERT_TRUE(disk->partition({{1, 63, 2'097'152}}));
        host::Mount mount(disk->device(1), std::make_shared<BareFs>(4096));
        ASSERT_TRUE(mount.mounted());
        std::uint32_t answer = run.process().allocate(sizeof(BlockSize));
        EXPECT_EQ(ioctlGetBlockSize(nullptr, disk->device(1), run.user<BlockSize>(answer), 16), 0);
        EXPECT_EQ(run.process().pointer<BlockSize>(answer)->partitionSizeKB, 1'048'576u);
    });
}

TEST_F(Geometry, HalfAKilobyteIsNotCounted)
{
    withModule([](ModuleRun &) {
        auto disk = host::Disk::attach(4096);
        ASSERT_TRUE(disk->partition({{1, 63, 1001}}));
        host::Mount mount(disk->device(1), std::make_shared<BareFs>(4096));
        DiskInfo di{};
        EXPECT_EQ(getDiskInfo(&di, disk->device(1)), 0);
        EXPECT_EQ(di.partitionLen, 1001u);
        EXPECT_EQ(di.partitionSizeKB, 500u);
    });
}

TEST_F(Geometry, ADeviceWithoutAMountedFileSystemIsRefused)
{
    withModule([](ModuleRun &) {
        TestDisk disk({.mounted = false});
        DiskInfo di{};
        EXPECT_EQ(getDiskInfo(&di, disk.device(1)), 8);
        EXPECT_EQ(di.kdev, disk.device(1));
        EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=8 minor=1 not found, getting "
                                    "super block failed\n"}));
        // One that does not exist is told no differently.
        EXPECT_EQ(getDiskInfo(&di, 77u << 20 | 300), 8);
        EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=77 minor=300 not found, getting "
                                    "super block failed\n"}));
    });
}

TEST_F(Geometry, BlocksSmallerThanASectorAreRefused)
{
    withModule([](ModuleRun &) {
        auto disk = host::Disk::attach(4096);
        ASSERT_TRUE(disk->partition({{1, 63, 1000}}));
        host::Mount mount(disk->device(1), std::make_shared<BareFs>(256));
        DiskInfo di{};
        EXPECT_EQ(getDiskInfo(&di, disk->device(1)), 3);
        EXPECT_EQ(di.blockSize, 256);
        EXPECT_EQ(takeLog(), (Lines{"<4>getDiskInfo: device 800001 has bad block size 256\n"}));
        // The super block was let go of: the unmount at the end does not wait for it.
    });
}

TEST_F(Geometry, WithoutAPartitionTheDiskSaysTheSize)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        struct block_device *bdev = disk.bdev();
        struct hd_struct *part = bdev->bd_part.exchange(nullptr);
        DiskInfo di{};
        EXPECT_EQ(getDiskInfo(&di, disk.device()), 0);
        EXPECT_EQ(di.partitionLen, disk.disk().sectors());
        EXPECT_EQ(takeLog(), Lines());

        struct gendisk *whole = bdev->bd_disk.exchange(nullptr);
        di.partitionLen = 4444;
        EXPECT_EQ(getDiskInfo(&di, disk.device()), 0);
        EXPECT_EQ(di.partitionLen, 4444u);
        EXPECT_EQ(di.partitionSizeKB, 2222u);
        EXPECT_EQ(takeLog(), (Lines{"<4>getDiskInfo: can't detect device 800001 size.\n"}));
        bdev->bd_part = part;
        bdev->bd_disk = whole;
    });
}

TEST_F(Geometry, ADeviceThatIsNotOpenHasNoQueue)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        DiskInfo di{};
        EXPECT_EQ(getRequestQueue(&di), nullptr);
        EXPECT_EQ(getRequestQueue(nullptr), nullptr);
        ASSERT_EQ(getDiskInfo(&di, disk.device()), 0);
        disk.unmount();
        EXPECT_EQ(getRequestQueue(&di), nullptr);
    });
}

TEST_F(Geometry, TheWholeDisksMinorIsFoundByItsPartitions)
{
    withModule([](ModuleRun &) {
        test::TestDiskOptions options{.blockSizes = {4096, 4096}};
        options.disk.firstMinor = 32;
        TestDisk disk(options);
        EXPECT_EQ(getDiskMinor(disk.device(1)), 32);
        EXPECT_EQ(getDiskMinor(disk.device(2)), 32);
        EXPECT_EQ(takeLog(), Lines());
        disk.unmount(2);
        EXPECT_EQ(getDiskMinor(disk.device(2)), -1);
        EXPECT_EQ(takeLog(), (Lines{"<3>getDiskMinor: Parent block device not valid for MAJOR=8, "
                                    "MINOR=34\n"}));
    });
}

class BlockSizeQuery : public Geometry
{
};

constexpr std::uint32_t untouched = 0xa5a5a5a5;

// The answer's words, as the process finds them after a query.
struct Answer {
    explicit Answer(ModuleRun &moduleRun)
        : run(moduleRun), address(run.process().allocate(sizeof(BlockSize)))
    {
    }
    int query(kernel_dev_t device, unsigned len)
    {
        std::memset(run.process().pointer<void>(address), 0xa5, sizeof(BlockSize));
        return ioctlGetBlockSize(nullptr, device, ModuleRun::user<BlockSize>(address), len);
    }
    std::vector<std::uint32_t> words() const
    {
        auto *first = run.process().pointer<std::uint32_t>(address);
        return {first, first + 4};
    }

    ModuleRun &run;
    std::uint32_t address;
};

using Words = std::vector<std::uint32_t>;

TEST_F(BlockSizeQuery, TellsDeviceBlockSizeAndSize)
{
    withModule([](ModuleRun &run) {
        TestDisk disk({.blockSizes = {1024, 4096}});
        Answer answer(run);
        EXPECT_EQ(answer.query(disk.device(1), 16), 0);
        EXPECT_EQ(answer.words(),
                  (Words{8, 1, 1024, static_cast<std::uint32_t>(disk.sectors(1) / 2)}));
        EXPECT_EQ(answer.query(disk.device(2), 1000), 0);
        EXPECT_EQ(answer.words(),
                  (Words{8, 2, 4096, static_cast<std::uint32_t>(disk.sectors(2) / 2)}));
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(BlockSizeQuery, AShortAnswerIsAPrefix)
{
    withModule([](ModuleRun &run) {
        TestDisk disk;
        Answer answer(run);
        EXPECT_EQ(answer.query(disk.device(), 8), 0);
        EXPECT_EQ(answer.words(), (Words{8, 1, untouched, untouched}));
        EXPECT_EQ(answer.query(disk.device(), 0), 0);
        EXPECT_EQ(answer.words(), (Words{untouched, untouched, untouched, untouched}));
    });
}

TEST_F(BlockSizeQuery, AFailedQueryWritesNothing)
{
    withModule([](ModuleRun &run) {
        TestDisk disk({.mounted = false});
        Answer answer(run);
        EXPECT_EQ(answer.query(disk.device(), 16), 8);
        EXPECT_EQ(answer.words(), (Words{untouched, untouched, untouched, untouched}));
        host::Mount mount(disk.device(), std::make_shared<BareFs>(256));
        EXPECT_EQ(answer.query(disk.device(), 16), 3);
        EXPECT_EQ(answer.words(), (Words{untouched, untouched, untouched, untouched}));
    });
}

TEST_F(BlockSizeQuery, AnAnswerThatCannotBeWrittenGives7)
{
    withModule([](ModuleRun &run) {
        TestDisk disk;
        EXPECT_EQ(ioctlGetBlockSize(nullptr, disk.device(),
                                    run.user<BlockSize>(host::Process::badAddress), 16),
                  7);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetBlockSize: copy to user space failed\n"}));
        std::uint32_t cut = run.process().allocateBeforeHole(15);
        EXPECT_EQ(ioctlGetBlockSize(nullptr, disk.device(), run.user<BlockSize>(cut), 16), 7);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetBlockSize: copy to user space failed\n"}));
        EXPECT_EQ(ioctlGetBlockSize(nullptr, disk.device(), run.user<BlockSize>(cut), 15), 0);
    });
}

TEST_F(BlockSizeQuery, WorksInAnyStateAndOnOtherDevices)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 1024}});
        Answer answer(run);
        ASSERT_TRUE(backup.begin());
        EXPECT_EQ(answer.query(backup.disk.device(2), 16), 0);
        EXPECT_EQ(answer.words()[2], 1024u);
        ASSERT_EQ(backup.load(), 0);
        EXPECT_EQ(answer.query(backup.disk.device(1), 16), 0);
        EXPECT_EQ(answer.words()[2], 4096u);
        EXPECT_EQ(backupState(backup.b()), unsigned{BACKUP_MAP_LOADED});
    });
}

} // namespace
