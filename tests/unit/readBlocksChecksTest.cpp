// The order in which the read command checks what it is asked for, and what it leaves undone when
// it gives up.
#include <string>

#include "support/backupRun.h"

namespace
{

using test::BackupRun;
using test::inMap;
using test::Lines;
using test::MappedBuffer;
using test::ModuleRun;
using test::takeLog;

class ReadBlocksChecks : public test::ModuleTest
{
};

// That the command is refused with this message, though its address is none of a mapping.
void expectRefused(BackupRun &backup, unsigned first, unsigned count, const std::string &message)
{
    takeLog();
    EXPECT_EQ(ioctlReadBlocks(backup.b(), first, count, nullptr), 2);
    EXPECT_EQ(takeLog(), Lines{"<3>ioctlReadBlocks: " + message + "\n"});
}

TEST_F(ReadBlocksChecks, TheFirstFaultIsTheOneThatIsTold)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        constexpr unsigned last = 0xffffffff;
        expectRefused(backup, last, 2, "state (0) not valid");
        ASSERT_TRUE(backup.begin());
        unsigned blocks = backup.disk.blocks();
        ASSERT_EQ(backup.load(), 0);
        expectRefused(backup, last, 2, "invalid block read range (4294967295-1)");
        // Then the loaded map, and only then the cache's.
        expectRefused(backup, blocks, 1, "end block number out of block map range");
        releaseBackupMap(backup.b(), &backup.b()->cacheMap);
        expectRefused(backup, blocks, 1, "end block number out of block map range");
        expectRefused(backup, 0, 1, "cache map is null");
        releaseBackupMap(backup.b(), &backup.b()->blockMap);
        expectRefused(backup, last, 2, "invalid block read range (4294967295-1)");
        expectRefused(backup, 0, 1, "block map is null");
    });
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.mebibytes = 2});
        ASSERT_TRUE(backup.begin());
        unsigned blocks = backup.disk.blocks();
        expectRefused(backup, blocks, 1,
                      "block num (" + std::to_string(blocks + 1) + ") out of range (" +
                          std::to_string(blocks) + ")");
        // More than any mapping holds.
        expectRefused(backup, 0, 257, "invalid data pointer");
    });
}

// There may be a map of changes already; it says nothing about what can be read.
TEST_F(ReadBlocksChecks, BeforeTheLoadAMapOfChangesIsNoBound)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        ASSERT_EQ(backup.start(), 0);
        ASSERT_EQ(backup.snap(key), 0);
        ASSERT_NE(backup.b()->blockMap.map, nullptr);
        MappedBuffer buffer(backup.record, 1);
        backup.b()->blockMap.size = 5;
        EXPECT_EQ(backup.read(10, 1, buffer), 0);
        backup.b()->blockMap.size = backup.disk.blocks();
    });
}

// What the disk may still give is not delivered, and so is still wanted.
TEST_F(ReadBlocksChecks, AReadGivenUpDeliversNothing)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load(), 0);
        MappedBuffer buffer(backup.record, 4);
        std::vector<char> saved(backup.disk.blockSize(), 'x');
        // Saved and not yet marked, so that it is left to the disk; marked and nowhere.
        ASSERT_EQ(saveBlock(backup.b(), saved.data(), 10), 0);
        setBlock(&backup.b()->cacheMap, 11);
        EXPECT_EQ(backup.read(10, 4, buffer), 2);
        EXPECT_EQ(atomic_read(&backup.b()->totalReadCBs), 0);
        EXPECT_EQ(atomic_read(&backup.b()->curCBs), 1);
        for (unsigned block = 10; block < 14; block++)
            EXPECT_TRUE(inMap(backup.b()->blockMap, block)) << block;
        EXPECT_EQ(atomic_read(&backup.b()->curAllocBRs), 0);
    });
}

} // namespace
