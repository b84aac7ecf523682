// The cache at its limits: of its size, of the states in which it is used, and without a disk.
#include <string>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"

namespace
{

using test::BackupRun;
using test::inMap;
using test::Lines;
using test::ModuleRun;
using test::takeLog;

class CacheLimits : public test::ModuleTest
{
};

// A block of this byte, saved as before a write.
int save(BackupRun &backup, unsigned block)
{
    std::vector<char> data(backup.disk.blockSize(), 'x');
    return saveBlock(backup.b(), data.data(), block);
}

unsigned read(BackupRun &backup, unsigned block)
{
    std::vector<char> data(backup.disk.blockSize());
    return cacheRead(backup.b(), data.data(), block);
}

// It is met exactly or not at all.
TEST_F(CacheLimits, ALimitBelowWhatIsHeldIsNone)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin(1, 100));
        takeLog();
        ASSERT_EQ(save(backup, 1), 0);
        ASSERT_EQ(save(backup, 2), 0);
        backup.b()->maxCacheBlocks = 1;
        EXPECT_EQ(save(backup, 3), 0);
        EXPECT_EQ(backupState(backup.b()), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(takeLog(), Lines());
        backup.b()->maxCacheBlocks = 3;
        EXPECT_EQ(save(backup, 4), 1);
        EXPECT_EQ(backupState(backup.b()), unsigned{BACKUP_ERR_CACHE});
    });
}

TEST_F(CacheLimits, WhileTheMapIsBeingLoadedABlockCanBeReadAgain)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(save(backup, 5), 0);
        setBlock(&backup.b()->cacheMap, 5);
        setBackupState(backup.b(), BACKUP_LOADING_MAP);
        for (int i = 0; i < 2; i++)
            EXPECT_EQ(read(backup, 5), backup.disk.blockSize());
        EXPECT_TRUE(inMap(backup.b()->cacheMap, 5));
        EXPECT_EQ(atomic_read(&backup.b()->curCBs), 1);
        EXPECT_EQ(atomic_read(&backup.b()->totalReadCBs), 2);
    });
}

// The command does not ask in these states; the cache itself goes by the last good one.
TEST_F(CacheLimits, ADirtyBlockIsKnownInEveryGoodState)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(save(backup, 5), 0);
        for (unsigned state : {BACKUP_SNAPPED, BACKUP_LOADING_MAP}) {
            setBackupState(backup.b(), state);
            EXPECT_EQ(anyDirtyBlock(backup.b()), 5u) << state;
        }
        // The count is believed without a look.
        atomic_dec(&backup.b()->curCBs);
        EXPECT_EQ(anyDirtyBlock(backup.b()), 0xffffffffu);
        atomic_inc(&backup.b()->curCBs);
    });
}

// What is wanted counts in the state of a loaded map only.
TEST_F(CacheLimits, AfterAnErrorTheLoadedMapIsNotAsked)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load({3}), 0);
        EXPECT_EQ(doWeCacheBlock(backup.b(), 5), 0);
        setBackupState(backup.b(), BACKUP_ERR_READ);
        EXPECT_EQ(doWeCacheBlock(backup.b(), 5), 1);
        setBlock(&backup.b()->cacheMap, 5);
        EXPECT_EQ(doWeCacheBlock(backup.b(), 5), 0);
    });
}

TEST_F(CacheLimits, AfterAnUnmountAFailedSaveSaysAllThatIsMissing)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        struct gendisk *disk = backup.disk.bdev()->bd_disk.exchange(nullptr);
        takeLog();
        cacheBlock(backup.b(), nullptr, 3);
        backup.disk.bdev()->bd_disk = disk;
        Lines lines = takeLog();
        ASSERT_EQ(lines.size(), 5u);
        EXPECT_EQ(lines[0], "<3>callRealMRF: Block read error: (bdev queue is null) MAJOR=8 "
                            "MINOR=1\n");
        EXPECT_EQ(lines[1].find("<4>zelBHEndIO: buffer_head I/O error bh="), 0u);
        EXPECT_EQ(lines[2], "<3>cacheBlock: Block read error blockNum=3 MAJOR=8 MINOR=1\n");
        EXPECT_EQ(lines[3], "<3>countQueueAMS: Could not count ams sessions for request queue "
                            "because queue was null.\n");
        EXPECT_EQ(lines[4], "<3>unsetQueueMRFAMS: Could not unset MRFS for request queue because "
                            "queue was null.\n");
        EXPECT_EQ(backupState(backup.b()), unsigned{BACKUP_ERR_READ});
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_NOT_IN_SYNC});
    });
}

} // namespace
