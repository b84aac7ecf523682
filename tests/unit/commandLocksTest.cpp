// Which commands of one record follow each other, and which wait for nothing.
#include <functional>

#include "support/backupRun.h"

namespace
{

using test::BackupRun;
using test::fallsAsleep;
using test::ModuleRun;
using test::stateOf;

class CommandLocks : public test::ModuleTest
{
};

// That the command waits for as long as another one of its record is at work, and then gives this.
void expectFollows(BackupRun &backup, const char *name, int expected,
                   const std::function<int()> &command)
{
    SCOPED_TRACE(name);
    int result = -1;
    down(&backup.b()->bSem);
    host::Task task = host::spawn(name, [&] { result = command(); });
    EXPECT_TRUE(fallsAsleep(task));
    EXPECT_EQ(result, -1);
    up(&backup.b()->bSem);
    task.join();
    EXPECT_EQ(result, expected);
}

TEST_F(CommandLocks, QueriesAndSwitchesFollowEachOther)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        std::uint32_t memory = run.process().allocate(sizeof(Stats));
        expectFollows(backup, "GetState", 0, [&] {
            return ioctlGetState(backup.b(), run.user<State>(memory), sizeof(State));
        });
        expectFollows(backup, "GetStats", 0, [&] {
            return ioctlGetStats(backup.b(), run.user<Stats>(memory), sizeof(Stats));
        });
        expectFollows(backup, "GetAutoMapState", 0, [&] {
            return ioctlGetAutoMapState(backup.b(), run.user<AutoMapState>(memory),
                                        sizeof(AutoMapState));
        });
        expectFollows(backup, "NoLoadFromAutoMap", 0,
                      [&] { return ioctlNoLoadFromAutoMap(backup.b()); });
        expectFollows(backup, "NoStartAutoMap", 0, [&] { return ioctlNoStartAutoMap(backup.b()); });
    });
}

TEST_F(CommandLocks, TheStepsOfABackupFollowEachOther)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        expectFollows(backup, "StartBackup", 0, [&] { return backup.start(); });
        expectFollows(backup, "SnapShot", 0, [&] { return backup.snap(key); });
        std::uint32_t bits = run.process().allocate((backup.disk.blocks() + 7) / 8);
        UserBlockMap changes{bits, backup.disk.blocks()};
        expectFollows(backup, "GetAutoMap", 0,
                      [&] { return ioctlGetAutoMap(backup.b(), &changes); });
        expectFollows(backup, "LoadBlockMap", 0, [&] { return backup.load(); });
        std::uint32_t dirty = run.process().allocate(sizeof(u32));
        expectFollows(backup, "GetDirtyBlock", 0,
                      [&] { return ioctlGetDirtyBlock(backup.b(), run.user<u32>(dirty)); });

        struct vm_area_struct vma;
        vma.start = 0x40000000;
        vma.end = 0x40001000;
        vma.flags = VM_READ;
        vma.file = backup.record.file();
        expectFollows(backup, "mmap", 0, [&] { return zelMMAP(backup.record.file(), &vma); });
        expectFollows(backup, "ReadBlocks", 0, [&] {
            return ioctlReadBlocks(backup.b(), 0, 1, reinterpret_cast<void *>(vma.start));
        });
        zelVMclose(&vma);
    });
}

// It waits for nothing, and what it has decided stays.
TEST_F(CommandLocks, ARejectionInTheMiddleOfAStartIsFinal)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        int result = -1;
        down(&cacheThreadOwner);
        host::Task starter = host::spawn("starter", [&] { result = backup.start(); });
        EXPECT_TRUE(fallsAsleep(starter));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTING});
        EXPECT_EQ(ioctlStartBackup(backup.b(), backup.disk.device(), 10, 10), 9);
        up(&cacheThreadOwner);
        starter.join();
        EXPECT_EQ(result, 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_REJECTED});
    });
}

// Each of these would wait for ever here.
TEST_F(CommandLocks, WhatLeavesTheRecordAloneWaitsForNothing)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        std::uint32_t memory = run.process().allocate(sizeof(BlockSize));
        down(&backup.b()->bSem);
        EXPECT_EQ(ioctlGetBlockSize(backup.b(), backup.disk.device(), run.user<BlockSize>(memory),
                                    sizeof(BlockSize)),
                  0);
        EXPECT_EQ(ioctlSync(backup.b()), 0);
        // There is no map yet to look for a dirty block in.
        EXPECT_EQ(ioctlGetDirtyBlock(backup.b(), run.user<u32>(memory)), 2);
        EXPECT_EQ(backup.record.ioctl(ZEL_GET_VERSION_MAJOR, memory), 0);
        EXPECT_EQ(backup.record.ioctl(ZEL_RESERVED), 3);
        EXPECT_EQ(backup.record.ioctl(ZEL_SHUTDOWN), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        up(&backup.b()->bSem);
    });
}

} // namespace
