// Which bios the full hook holds, and when it records those that it passes on.
#include "support/backupRun.h"

namespace
{

using test::AsyncBio;
using test::BackupRun;
using test::eventually;
using test::fallsAsleep;
using test::inMap;
using test::ModuleRun;
using test::OpenRecord;
using test::TestDisk;

class HoldDecision : public test::ModuleTest
{
};

TEST_F(HoldDecision, AnotherDisksPartitionOfTheSameMinorIsAnotherDevice)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        test::TestDiskOptions options;
        options.disk.major = 9;
        TestDisk other(options);
        ASSERT_EQ(other.minor(), backup.disk.minor());
        OpenRecord record;
        ASSERT_EQ(getDiskInfo(&record->diskInfo, other.device()), 0);
        ASSERT_EQ(setMRF(record.get(), zelMRF), 0);
        auto bytes = backup.pattern(0x77);
        EXPECT_EQ(host::writeDevice(other.bdev(), 24, bytes.data(), bytes.size()), 0);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocBRs), 0);
        EXPECT_FALSE(inMap(backup.b()->cacheMap, 3));
        EXPECT_FALSE(inMap(backup.session()->map, 3));
        unSetMRFDEV(&record->diskInfo);
        record->diskInfo = {};
    });
}

TEST_F(HoldDecision, WhileTheMapIsBeingLoadedWritesAreHeld)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        setBackupState(backup.b(), BACKUP_LOADING_MAP);
        backup.holdModuleReads();
        AsyncBio write = backup.writeAsync(3, 1, 0x33);
        EXPECT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 1);
        EXPECT_FALSE(write.ended());
        backup.disk.disk().release();
        EXPECT_TRUE(eventually([&] { return write.ended(); }));
        EXPECT_TRUE(eventually([&] { return inMap(backup.b()->cacheMap, 3); }));
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 1);
    });
}

// Not even behind those that are held already.
TEST_F(HoldDecision, ASpoiltBackupHoldsNothing)
{
    for (unsigned state : {BACKUP_CLOSING, BACKUP_ERR_READ, BACKUP_ERR_MAP, BACKUP_ERR_CACHE,
                           BACKUP_REJECTED, BACKUP_ERR_QUEUE}) {
        withModule([&](ModuleRun &run) {
            BackupRun backup(run);
            ASSERT_TRUE(backup.begin());
            backup.holdModuleReads();
            AsyncBio held = backup.writeAsync(3, 1, 0x33);
            ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
            setBackupState(backup.b(), state);
            EXPECT_EQ(backup.write(5, 1, 0x55), 0) << state;
            EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 1) << state;
            EXPECT_FALSE(held.ended());
            backup.disk.disk().release();
            EXPECT_TRUE(eventually([&] { return held.ended(); }));
        });
    }
}

// A block is to be saved if the backup wants it and it is not taken care of; before the backup has
// said what it wants, it wants every block.
TEST_F(HoldDecision, ARangeIsHeldForAnyOfItsBlocks)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        Backup *b = backup.b();
        const unsigned size = b->cacheMap.size;
        ASSERT_GT(size, 150u);
        ASSERT_EQ(backup.load({3, 40, 41, 64, 127, size - 1}), 0);
        for (unsigned taken : {3u, 41u, 50u, 64u, 65u})
            setBlock(&b->cacheMap, taken);
        for (unsigned state : {BACKUP_SNAPPED, BACKUP_MAP_LOADED}) {
            setBackupState(b, state);
            auto toSave = [&](unsigned bn) {
                bool wanted = state == BACKUP_SNAPPED || blockInMap(&b->blockMap, bn) != 0;
                return wanted && blockInMap(&b->cacheMap, bn) == 0;
            };
            for (unsigned from : {0u, 30u, 60u, 120u, size - 40})
                for (unsigned start = from; start < from + 12; start++) {
                    bool any = false;
                    EXPECT_FALSE(doWeCacheAnyBlock(b, {start + 1, start})) << start;
                    for (unsigned end = start; end < from + 75; end++) {
                        EXPECT_EQ(doWeCacheBlock(b, end), toSave(end) ? 1 : 0) << end;
                        any = any || toSave(end);
                        ASSERT_EQ(doWeCacheAnyBlock(b, {start, end}), any) << start << " " << end;
                    }
                }
        }
        for (unsigned taken : {3u, 41u, 50u, 64u, 65u})
            unSetBlock(&b->cacheMap, taken);
    });
}

TEST_F(HoldDecision, AWriteAheadThatIsPassedOnIsNotRecorded)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load({4}), 0);
        constexpr unsigned long writeAhead = 3;
        auto bytes = backup.pattern(0x77);
        EXPECT_EQ(host::submitAndWait({backup.disk.bdev(), 56, 4096, writeAhead, bytes.data()}), 0);
        EXPECT_EQ(backup.block(7), bytes);
        EXPECT_FALSE(inMap(backup.session()->map, 7));
    });
}

// Earlier it would be recorded in the map that a snapshot is just taking away.
TEST_F(HoldDecision, AWriteIsRecordedOnceItIsThroughTheGate)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load({4}), 0);
        down_write(&backup.b()->writers);
        host::Task writer = host::spawn("writer", [&] { EXPECT_EQ(backup.write(9, 1, 0x99), 0); });
        EXPECT_TRUE(fallsAsleep(writer));
        EXPECT_FALSE(inMap(backup.session()->map, 9));
        up_write(&backup.b()->writers);
        writer.join();
        EXPECT_TRUE(inMap(backup.session()->map, 9));
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 0);
    });
}

} // namespace
