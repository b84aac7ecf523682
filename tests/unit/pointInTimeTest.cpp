// The instant that a snapshot fixes, and what other tasks do around it.
#include <cstring>

#include <host/block.h>
#include <host/log.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"
#include "users.h"

namespace
{

using test::BackupRun;
using test::eventually;
using test::fallsAsleep;
using test::functionOf;
using test::inMap;
using test::ModuleRun;
using test::ownFunctionOf;
using test::stateOf;
using test::takeLog;

class PointInTime : public test::ModuleTest
{
};

TEST_F(PointInTime, TheFileSystemIsFlushedAndFrozenMeanwhile)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        std::uint64_t generation = backup.disk.fs().write(5, 1);
        bool frozen = false;
        unsigned state = 0;
        make_request_fn *function = nullptr;
        backup.disk.mount().onFrozen([&] {
            frozen = backup.disk.mount().gate().frozen();
            state = stateOf(backup);
            function = functionOf(backup.disk.disk().queue());
        });
        ASSERT_EQ(backup.snap(), 0);
        backup.disk.mount().onFrozen({});
        EXPECT_TRUE(frozen);
        EXPECT_EQ(state, unsigned{BACKUP_STARTED});
        EXPECT_EQ(function, zelMRF);
        EXPECT_FALSE(backup.disk.mount().gate().frozen());
        std::vector<unsigned char> expected(4096);
        host::SyntheticFs::render(5, generation, 4096, expected.data());
        EXPECT_EQ(backup.block(5), expected);
        // What the freeze flushed belongs to the time before.
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 0);
        EXPECT_FALSE(inMap(backup.session()->map, 5));
    });
}

TEST_F(PointInTime, WhatTheFreezeFlushesIsInTheMapHandedOver)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.start(), 0);
        backup.disk.fs().write(5, 1);
        ASSERT_EQ(backup.snap(key), 0);
        EXPECT_TRUE(inMap(backup.b()->blockMap, 5));
        EXPECT_FALSE(inMap(backup.session()->map, 5));
    });
}

TEST_F(PointInTime, TheStateChangesWhenNoHookIsBetweenTestAndQueue)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        down_read(&backup.b()->writers);
        int result = -1;
        host::Task snapper = host::spawn("snapper", [&] { result = backup.snap(); });
        EXPECT_TRUE(eventually([] { return host::countLog("Going to freez") == 1; }));
        EXPECT_TRUE(fallsAsleep(snapper));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_TRUE(backup.disk.mount().gate().frozen());
        up_read(&backup.b()->writers);
        snapper.join();
        EXPECT_EQ(result, 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(PointInTime, TheFrozenTimeGoesOnAfterTheFreeze)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        Backup *b = backup.b();
        down_read(&b->writers);
        host::Task snapper = host::spawn("snapper", [&] { EXPECT_EQ(backup.snap(), 0); });
        EXPECT_TRUE(eventually([] { return host::countLog("Going to freez") == 1; }));
        EXPECT_TRUE(fallsAsleep(snapper));
        EXPECT_TRUE(eventually([&] { return backup.disk.mount().gate().frozen(); }));
        host::sleepNanoseconds(60'000'000);
        up_read(&b->writers);
        snapper.join();
        struct kernel_timespec rest = calcTimeDiff(&b->eTimeToFreeze, &b->eTimeFrozen);
        EXPECT_TRUE(rest.tv_sec > 0 || rest.tv_nsec >= 40'000'000) << rest.tv_nsec;
    });
}

// The key and the maps change when nobody else looks at the session.
TEST_F(PointInTime, OthersUsingTheSessionAreWaitedFor)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.start(), 0);
        AutoMapSession *ams = getAMS(8, 1);
        ASSERT_NE(ams, nullptr);
        int result = -1;
        host::Task snapper = host::spawn("snapper", [&] { result = backup.snap(key); });
        for (int i = 0; i < 100; i++)
            host::sleepNanoseconds(10'000);
        EXPECT_FALSE(snapper.ended());
        EXPECT_TRUE(ams->sessionKey == key);
        leaveUsers(&ams->users);
        snapper.join();
        EXPECT_EQ(result, 0);
        EXPECT_FALSE(backup.session()->sessionKey == key);
    });
}

// An empty map would tell the agent that nothing has changed.
TEST_F(PointInTime, ASessionThatFallsOutOfSyncMeanwhileHandsOverNothing)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.write(3, 1, 0x33), 0);
        ASSERT_EQ(backup.start(), 0);
        int pages = atomic_read(&backup.b()->curAllocPages);
        backup.disk.mount().onFrozen([&] { setAMSState(backup.session(), AMS_NOT_IN_SYNC); });
        EXPECT_EQ(backup.snap(key), 0);
        backup.disk.mount().onFrozen({});
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_IN_SYNC});
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
        EXPECT_EQ(atomic_read(&backup.b()->curAllocPages), pages);
    });
}

// The shut-down command closes sessions at any time.
TEST_F(PointInTime, ASessionClosedMeanwhileIsNotUsedAfterItsEnd)
{
    forSeeds(40, [](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.start(), 0);
        host::Task closer;
        backup.disk.mount().onFrozen([&] {
            closer = host::spawn("closer", [] { closeAllAMS(); });
            // Until it has taken the session out of the table.
            ASSERT_TRUE(eventually([&] { return backup.session() == nullptr; }));
        });
        auto before = backup.block(3);
        EXPECT_EQ(backup.snap(key), 0);
        backup.disk.mount().onFrozen({});
        // It saw nothing of what was written last.
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
        closer.join();
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
        // The snapshot is kept all the same.
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelMRF);
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        std::vector<char> kept(4096);
        ASSERT_EQ(cacheRead(backup.b(), kept.data(), 3), 4096u);
        EXPECT_EQ(std::memcmp(kept.data(), before.data(), 4096), 0);
    });
}

TEST_F(PointInTime, ClosingSessionsDoesNotEndARunningBackup)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096}});
        backup.track(2);
        ASSERT_TRUE(backup.begin());
        EXPECT_EQ(zelShutdown(), 0);
        EXPECT_EQ(backup.session(1), nullptr);
        EXPECT_EQ(backup.session(2), nullptr);
        struct request_queue *q = backup.disk.disk().queue();
        EXPECT_EQ(functionOf(q), zelMRF);
        EXPECT_EQ(isInQueueList(q, backup.disk.device(1)), 1);
        EXPECT_EQ(isInQueueList(q, backup.disk.device(2)), 0);
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 1);
        backup.record.close();
        EXPECT_EQ(functionOf(q), ownFunctionOf(q));
    });
}

// A failure found by another task is final.
TEST_F(PointInTime, ARecordRejectedMeanwhileStaysRejected)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        backup.disk.mount().onFrozen(
            [&] { EXPECT_EQ(ioctlStartBackup(backup.b(), backup.disk.device(), 10, 10), 9); });
        EXPECT_EQ(backup.snap(), 0);
        backup.disk.mount().onFrozen({});
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_REJECTED});
    });
}

} // namespace
