// The command that delivers blocks as they were at the snapshot.
#include <string>

#include <host/faults.h>
#include <host/log.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"

namespace
{

using test::AsyncBio;
using test::BackupRun;
using test::eventually;
using test::fallsAsleep;
using test::inMap;
using test::Lines;
using test::MappedBuffer;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;

const std::string outOfMap = "<3>ioctlReadBlocks: end block number out of block map range\n";
const std::string unreadable = "<4>ioctlReadBlocks: Received an IO error while reading sectors for "
                               "backup.  Some sectors could not be read\n";

class ReadBlocksCommand : public test::ModuleTest
{
};

using Image = std::vector<unsigned char>;

Image blocksOf(const BackupRun &backup, unsigned first, unsigned count)
{
    Image image;
    for (unsigned i = 0; i < count; i++) {
        auto block = backup.block(first + i);
        image.insert(image.end(), block.begin(), block.end());
    }
    return image;
}

bool isDrained(const BackupRun &backup)
{
    return atomic_read(&backup.b()->mrInQueue) == 0;
}

/* Delivery. */

TEST_F(ReadBlocksCommand, DeliversFromTheDisk)
{
    for (unsigned blockSize : {512u, 1024u, 2048u, 4096u}) {
        withModule([&](ModuleRun &run) {
            BackupRun backup(run, {.mebibytes = 2, .blockSizes = {blockSize}});
            ASSERT_TRUE(backup.begin());
            MappedBuffer buffer(backup.record, 5);
            buffer.fill('.');
            unsigned count = 4 * 4096 / blockSize + 1;
            Image expected = blocksOf(backup, 33, count);
            takeLog();
            EXPECT_EQ(backup.read(33, count, buffer), 0);
            EXPECT_EQ(buffer.bytes(0, expected.size()), expected);
            EXPECT_EQ(takeLog(), Lines());
            EXPECT_EQ(atomic_read(&backup.b()->totalReadBlocks), static_cast<int>(count));
            EXPECT_EQ(atomic_read(&backup.b()->totalReadCBs), 0);
            EXPECT_EQ(atomic_read(&backup.b()->curAllocBRs), 0);
            for (unsigned i = 0; i < count; i++)
                EXPECT_EQ(isRequestSubmitted(backup.b(), static_cast<int>(i)), 0);
        });
    }
}

TEST_F(ReadBlocksCommand, DeliversWhatWasThereAtTheSnapshot)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 16);
        Image before = blocksOf(backup, 10, 16);
        EXPECT_EQ(backup.write(12, 3, 0x77), 0);
        EXPECT_EQ(backup.write(20, 1, 0x78), 0);
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        // As often as asked, before the map is loaded; once after that.
        EXPECT_EQ(backup.read(10, 16, buffer), 0);
        EXPECT_EQ(buffer.bytes(0, before.size()), before);
        ASSERT_EQ(backup.load(), 0);
        buffer.fill('.');
        EXPECT_EQ(backup.read(10, 16, buffer), 0);
        EXPECT_EQ(buffer.bytes(0, before.size()), before);
        EXPECT_EQ(atomic_read(&backup.b()->totalReadCBs), 8);
        EXPECT_EQ(atomic_read(&backup.b()->totalReadBlocks), 24);
        EXPECT_EQ(atomic_read(&backup.b()->curCBs), 0);
        for (unsigned block = 10; block < 26; block++) {
            EXPECT_FALSE(inMap(backup.b()->blockMap, block)) << block;
            EXPECT_FALSE(inMap(backup.b()->cacheMap, block)) << block;
        }
        EXPECT_TRUE(inMap(backup.b()->blockMap, 26));
    });
}

TEST_F(ReadBlocksCommand, NoBlocksAreDeliveredAtOnce)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 1);
        takeLog();
        EXPECT_EQ(backup.read(0, 0, buffer), 0);
        EXPECT_EQ(backup.read(backup.disk.blocks(), 0, buffer), 0);
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocBRs), 0);
    });
}

TEST_F(ReadBlocksCommand, BothMappingsCanBeReadInto)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer first(backup.record, 2);
        MappedBuffer second(backup.record, 2, 0x50000000);
        EXPECT_EQ(backup.read(4, 2, second), 0);
        EXPECT_EQ(backup.read(6, 2, first), 0);
        EXPECT_EQ(second.bytes(0, 8192), blocksOf(backup, 4, 2));
        EXPECT_EQ(first.bytes(0, 8192), blocksOf(backup, 6, 2));
    });
}

// The cache thread saves a block while the reader's own read of it is under way, and the read sees
// what was written.
TEST_F(ReadBlocksCommand, ABlockOverwrittenMeanwhileIsDeliveredAsItWas)
{
    for (bool loaded : {false, true}) {
        withModule([&](ModuleRun &run) {
            BackupRun backup(run);
            ASSERT_TRUE(backup.begin());
            if (loaded) {
                ASSERT_EQ(backup.load(), 0);
            }
            MappedBuffer buffer(backup.record, 4);
            Image before = blocksOf(backup, 10, 4);
            backup.holdModuleReads();
            int result = -1;
            host::Task reader = host::spawn("reader", [&] { result = backup.read(10, 4, buffer); });
            ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 4; }));
            AsyncBio write = backup.writeAsync(11, 2, 0x77);
            // The two reads of the cache thread go first.
            for (unsigned held : {5u, 5u}) {
                ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == held; }));
                ASSERT_TRUE(backup.disk.disk().releaseOne(4));
            }
            ASSERT_TRUE(eventually([&] { return write.ended(); }));
            EXPECT_EQ(backup.block(11), backup.pattern(0x77));
            backup.disk.disk().release();
            reader.join();
            EXPECT_EQ(result, 0);
            EXPECT_EQ(buffer.bytes(0, before.size()), before);
            EXPECT_EQ(atomic_read(&backup.b()->totalReadCBs), 2);
        });
    }
}

// The same, decided by the schedule.
TEST_F(ReadBlocksCommand, ReadsAndWritesAtAllMomentsGiveTheSnapshot)
{
    forSeeds(60, [](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        Image before = blocksOf(backup, 0, 24);
        MappedBuffer buffer(backup.record, 8);
        std::vector<host::Task> writers;
        for (unsigned char w = 0; w < 3; w++)
            writers.push_back(host::spawn("writer", [&backup, w] {
                for (unsigned char i = 0; i < 4; i++) {
                    unsigned first = static_cast<unsigned>(host::randomNumber() % 22);
                    EXPECT_EQ(backup.write(first, 1 + i % 3, 0x80 + w * 16 + i), 0);
                }
            }));
        if (host::randomNumber() % 2 == 0) {
            ASSERT_EQ(backup.load(), 0);
        }
        for (unsigned first = 0; first < 24; first += 8) {
            ASSERT_EQ(backup.read(first, 8, buffer), 0);
            EXPECT_EQ(buffer.bytes(0, 8 * 4096),
                      Image(before.begin() + first * 4096, before.begin() + first * 4096 + 32768));
        }
        for (host::Task &writer : writers)
            writer.join();
    });
}

// Also if the cache thread has saved it meanwhile, and marks it just when the reader takes it.
TEST_F(ReadBlocksCommand, ADeliveredBlockCanBeReadAgain)
{
    forSeeds(200, [](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load(), 0);
        MappedBuffer buffer(backup.record, 1);
        backup.holdModuleReads();
        AsyncBio write = backup.writeAsync(5, 1, 0x77);
        int result = -1;
        host::Task reader = host::spawn("reader", [&] { result = backup.read(5, 1, buffer); });
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 2; }));
        backup.disk.disk().release();
        reader.join();
        EXPECT_EQ(result, 0);
        ASSERT_TRUE(eventually([&] { return atomic_read(&backup.b()->mrInQueue) == 0; }));
        EXPECT_EQ(backup.read(5, 1, buffer), 0);
        EXPECT_TRUE(eventually([&] { return write.ended(); }));
    });
}

/* Refusals. */

TEST_F(ReadBlocksCommand, OtherStatesAreRefused)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        takeLog();
        EXPECT_EQ(ioctlReadBlocks(backup.b(), 0, 1, nullptr), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlReadBlocks: state (0) not valid\n"}));
        ASSERT_EQ(backup.start(), 0);
        MappedBuffer buffer(backup.record, 1);
        for (unsigned state : {1u, 2u, 5u, 7u, 8u, 9u, 10u, 12u, 13u}) {
            setBackupState(backup.b(), state);
            takeLog();
            EXPECT_EQ(backup.read(0, 1, buffer), 2);
            EXPECT_EQ(takeLog(), (Lines{"<3>ioctlReadBlocks: state (" + std::to_string(state) +
                                        ") not valid\n"}));
        }
        setBackupState(backup.b(), BACKUP_STARTED);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocBRs), 0);
        EXPECT_EQ(test::countOf(&backup.b()->bSem), 1);
    });
}

TEST_F(ReadBlocksCommand, ARangeThatWrapsIsRefused)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 1);
        takeLog();
        EXPECT_EQ(backup.read(4294967290u, 10, buffer), 2);
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>ioctlReadBlocks: invalid block read range (4294967290-4)\n"}));
        EXPECT_EQ(backup.read(4294967295u, 1, buffer), 2);
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>ioctlReadBlocks: invalid block read range (4294967295-0)\n"}));
        EXPECT_EQ(backup.read(4294967294u, 1, buffer), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlReadBlocks: block num (4294967295) out of range (" +
                                    std::to_string(backup.disk.blocks()) + ")\n"}));
    });
}

TEST_F(ReadBlocksCommand, TheLoadedMapBoundsTheRange)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        UserBlockMap shortMap{0, 100};
        ASSERT_EQ(ioctlLoadBlockMap(backup.b(), &shortMap), 0);
        MappedBuffer buffer(backup.record, 4);
        takeLog();
        EXPECT_EQ(backup.read(96, 4, buffer), 0);
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(backup.read(97, 4, buffer), 2);
        EXPECT_EQ(takeLog(), Lines{outOfMap});
        releaseBackupMap(backup.b(), &backup.b()->blockMap);
        EXPECT_EQ(backup.read(0, 1, buffer), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlReadBlocks: block map is null\n"}));
    });
}

TEST_F(ReadBlocksCommand, BeforeTheMapIsLoadedOnlyTheCacheMapBounds)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
        unsigned blocks = backup.disk.blocks();
        MappedBuffer buffer(backup.record, 4);
        takeLog();
        EXPECT_EQ(backup.read(blocks - 4, 4, buffer), 0);
        EXPECT_EQ(buffer.bytes(0, 4 * 4096), blocksOf(backup, blocks - 4, 4));
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(backup.read(blocks - 3, 4, buffer), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlReadBlocks: block num (" + std::to_string(blocks + 1) +
                                    ") out of range (" + std::to_string(blocks) + ")\n"}));
        releaseBackupMap(backup.b(), &backup.b()->cacheMap);
        EXPECT_EQ(backup.read(0, 1, buffer), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlReadBlocks: cache map is null\n"}));
    });
}

TEST_F(ReadBlocksCommand, TheAddressMustBeTheStartOfAMapping)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        takeLog();
        const Lines refused{"<3>ioctlReadBlocks: invalid data pointer\n"};
        EXPECT_EQ(ioctlReadBlocks(backup.b(), 0, 1, nullptr), 2);
        EXPECT_EQ(takeLog(), refused);
        MappedBuffer buffer(backup.record, 4);
        auto *start = static_cast<char *>(buffer.address());
        for (char *address : {start + 1, start + 4096, start - 4096}) {
            EXPECT_EQ(ioctlReadBlocks(backup.b(), 0, 1, address), 2);
            EXPECT_EQ(takeLog(), refused);
        }
        EXPECT_EQ(ioctlReadBlocks(backup.b(), 0, 1, start), 0);
        buffer.unmap();
        EXPECT_EQ(ioctlReadBlocks(backup.b(), 0, 1, start), 2);
        EXPECT_EQ(takeLog(), refused);
    });
}

TEST_F(ReadBlocksCommand, ARunMustFitTheMapping)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {1024}});
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 3);
        takeLog();
        EXPECT_EQ(backup.read(0, 12, buffer), 0);
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(backup.read(0, 13, buffer), 2);
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>ioctlReadBlocks: tried to read (13) number of blocks size (1024) and "
                         "mmap region can hold (12288) bytes\n"}));
    });
}

// 2^22 blocks of 1024 bytes are 0 bytes in 32 bits.
TEST_F(ReadBlocksCommand, TheSizeOfARunHas64Bits)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {1024}});
        ASSERT_EQ(test::startBackup(backup.record, backup.disk.device(), 0x800000, 10), 0);
        ASSERT_EQ(backup.snap(), 0);
        MappedBuffer buffer(backup.record, 1);
        takeLog();
        EXPECT_EQ(backup.read(0, 0x400001, buffer), 2);
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>ioctlReadBlocks: tried to read (4194305) number of blocks size (1024) "
                         "and mmap region can hold (4096) bytes\n"}));
    });
}

/* Errors. */

TEST_F(ReadBlocksCommand, UnreadableBlocksGive12AndTheOthersAreDelivered)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load(), 0);
        MappedBuffer buffer(backup.record, 6);
        buffer.fill('.');
        Image expected = blocksOf(backup, 10, 6);
        std::fill_n(expected.begin() + 2 * 4096, 4096, 0);
        EXPECT_EQ(backup.write(14, 1, 0x77), 0); // this one comes from the cache
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        backup.disk.disk().failSectors(backup.disk.start() + 96, 8, true, false);
        takeLog();
        EXPECT_EQ(backup.read(10, 6, buffer), 12);
        EXPECT_EQ(buffer.bytes(0, expected.size()), expected);
        Lines lines = takeLog();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[2], unreadable);
        EXPECT_EQ(backupState(backup.b()), unsigned{BACKUP_MAP_LOADED});
        // Delivered, even so.
        EXPECT_FALSE(inMap(backup.b()->blockMap, 12));
    });
}

// An unreadable block that was saved in time is delivered, though the command says 12.
TEST_F(ReadBlocksCommand, TheCacheIsConsultedAfterAnErrorToo)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 2);
        Image expected = blocksOf(backup, 10, 2);
        std::vector<char> saved(expected.begin() + 4096, expected.end());
        ASSERT_EQ(saveBlock(backup.b(), saved.data(), 11), 0);
        backup.disk.disk().failSectors(backup.disk.start() + 88, 8, true, false);
        EXPECT_EQ(backup.read(10, 2, buffer), 12);
        EXPECT_EQ(buffer.bytes(0, expected.size()), expected);
    });
}

TEST_F(ReadBlocksCommand, BlocksThatAreNowhereGive2)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 4);
        setBlock(&backup.b()->cacheMap, 11);
        setBlock(&backup.b()->cacheMap, 12);
        std::vector<char> data(4096, 'x');
        takeLog();
        EXPECT_EQ(backup.read(10, 4, buffer), 2);
        EXPECT_EQ(takeLog(),
                  (Lines{"<4>readFromCache: expected to read block number (11) from cache and "
                         "block not found in cache\n",
                         "<4>readFromCache: expected to read block number (12) from cache and "
                         "block not found in cache\n",
                         "<3>ioctlReadBlocks: read (2) blocks from disk and (0) blocks from cache "
                         "and expected to read (4) blocks\n"}));
        for (int i = 0; i < 4; i++)
            EXPECT_EQ(isRequestSubmitted(backup.b(), i), 0);
        EXPECT_EQ(atomic_read(&backup.b()->curAllocBRs), 0);
    });
}

// Nothing of a read that was given up is freed while the disk still has it.
TEST_F(ReadBlocksCommand, AReadGivenUpWaitsForItsBios)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 4);
        setBlock(&backup.b()->cacheMap, 11);
        backup.holdModuleReads();
        int result = -1;
        host::Task reader = host::spawn("reader", [&] { result = backup.read(10, 4, buffer); });
        ASSERT_TRUE(eventually([] { return host::countLog("expected to read (4) blocks") == 1; }));
        EXPECT_TRUE(fallsAsleep(reader));
        EXPECT_EQ(host::memoryUse().bios, 3u);
        backup.disk.disk().release();
        reader.join();
        EXPECT_EQ(result, 2);
        EXPECT_EQ(host::memoryUse().bios, 0u);
        EXPECT_EQ(host::memoryUse().bufferHeads, 0u);
    });
}

TEST_F(ReadBlocksCommand, AfterAnUnmountBlocksAreUnreadable)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 2);
        buffer.fill('.');
        backup.disk.unmount();
        takeLog();
        EXPECT_EQ(backup.read(10, 2, buffer), 12);
        EXPECT_EQ(buffer.bytes(0, 8192), Image(8192, 0));
        Lines lines = takeLog();
        EXPECT_EQ(lines.back(), unreadable);
        EXPECT_EQ(lines.front(), "<3>callRealMRF: Block read error: (bdev queue is null) MAJOR=8 "
                                 "MINOR=1\n");
        backup.disk.remount();
        EXPECT_EQ(backup.read(10, 2, buffer), 0);
        EXPECT_EQ(buffer.bytes(0, 8192), blocksOf(backup, 10, 2));
    });
}

// The pages that the disk fills are not given back before it has.
TEST_F(ReadBlocksCommand, AnUnmappingWaitsForTheReadIntoIt)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 4);
        backup.holdModuleReads();
        int result = -1;
        host::Task reader = host::spawn("reader", [&] { result = backup.read(10, 4, buffer); });
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 4; }));
        host::Task unmapper = host::spawn("unmapper", [&] { buffer.unmap(); });
        EXPECT_TRUE(fallsAsleep(unmapper));
        backup.disk.disk().release();
        reader.join();
        unmapper.join();
        EXPECT_EQ(result, 0);
        EXPECT_EQ(backup.b()->vmAreas[0].vma, nullptr);
    });
}

TEST_F(ReadBlocksCommand, CommandsOfOneRecordFollowEachOther)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 4);
        down(&backup.b()->bSem);
        int result = -1;
        host::Task reader = host::spawn("reader", [&] { result = backup.read(10, 4, buffer); });
        EXPECT_TRUE(fallsAsleep(reader));
        EXPECT_EQ(atomic_read(&backup.b()->totalReadBlocks), 0);
        up(&backup.b()->bSem);
        reader.join();
        EXPECT_EQ(result, 0);
    });
}

} // namespace
