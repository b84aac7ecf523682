// The end of a backup: what is drained, unhooked, logged and given back.
#include <string>

#include <host/faults.h>
#include <host/log.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"
#include "support/hookGate.h"

namespace
{

using host::Fault;
using test::AsyncBio;
using test::BackupRun;
using test::eventually;
using test::fallsAsleep;
using test::functionOf;
using test::Lines;
using test::MappedBuffer;
using test::ModuleRun;
using test::OpenRecord;
using test::ownFunctionOf;
using test::startBackup;
using test::takeLog;

const std::string threadExiting = "<6>backup_cache: backupd thread exiting\n";
const std::string finished = "<6>closeBackup: backup finished device major=8 minor=1\n";
constexpr std::size_t statsLines = 26;

class BackupClose : public test::ModuleTest
{
};

TEST_F(BackupClose, AFinishedBackupLogsItsStatistics)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        takeLog();
        backup.record.close();
        Lines lines = takeLog();
        ASSERT_EQ(lines.size(), statsLines + 2);
        EXPECT_EQ(lines[0], threadExiting);
        EXPECT_EQ(lines[1], "<6>printStats: device: major(8) minor(1)\n");
        EXPECT_EQ(lines[2], "<6>printStats: state: 7\n");
        EXPECT_EQ(lines.back(), finished);
        EXPECT_EQ(busy, 0);
        EXPECT_EQ(loadActiveSession(), nullptr);
        EXPECT_EQ(loadCachePID(), 0);
        EXPECT_EQ(atomic_read(&backup_cacheThreadContinue), 0);
    });
}

TEST_F(BackupClose, AnIdleRecordEndsWithoutAWord)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        takeLog();
        record.close();
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(BackupClose, WithoutMemoryForStatisticsOnlyTheEndIsLogged)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        takeLog();
        host::clearFaults();
        host::failNth(Fault::kmalloc, 1);
        backup.record.close();
        EXPECT_EQ(host::faultsInjected(Fault::kmalloc), 1u);
        host::clearFaults();
        EXPECT_EQ(takeLog(), (Lines{threadExiting, finished}));
    });
}

TEST_F(BackupClose, ARejectedRecordLogsAnEndOfNoDevice)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        OpenRecord second;
        ASSERT_EQ(startBackup(second, backup.disk.device(), 10, 10), 9);
        takeLog();
        second.close();
        Lines lines = takeLog();
        ASSERT_EQ(lines.size(), statsLines + 3);
        EXPECT_EQ(lines[0], "<3>countQueueAMS: Could not count ams sessions for request queue "
                            "because queue was null.\n");
        EXPECT_EQ(lines[1], "<3>unsetQueueMRFAMS: Could not unset MRFS for request queue because "
                            "queue was null.\n");
        EXPECT_EQ(lines[2], "<6>printStats: device: major(0) minor(0)\n");
        EXPECT_EQ(lines[3], "<6>printStats: state: 12\n");
        EXPECT_EQ(lines.back(), "<6>closeBackup: backup finished device major=0 minor=0\n");
    });
}

TEST_F(BackupClose, AnErrorStateIsKeptToTheEnd)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin(1, 0));
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        EXPECT_TRUE(
            eventually([&] { return backupState(backup.b()) == unsigned{BACKUP_ERR_CACHE}; }));
        takeLog();
        backup.record.close();
        Lines lines = takeLog();
        EXPECT_EQ(lines[2], "<6>printStats: state: 10\n");
        EXPECT_EQ(lines.back(), finished);
        EXPECT_EQ(busy, 0);
    });
}

TEST_F(BackupClose, EverythingIsGivenBack)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {1024}});
        OpenRecord record;
        backup.record.close();
        ASSERT_EQ(ioctlNoStartAutoMap(record.get()), 0);
        host::MemoryUse before = host::memoryUse();
        ASSERT_EQ(startBackup(record, backup.disk.device(), backup.disk.blocks(), 1000), 0);
        AMSessionKey key{};
        ASSERT_EQ(
            ioctlSnapShot(record.get(), run.user<AMSessionKey>(run.put(&key, sizeof(key))), 56), 0);
        EXPECT_EQ(backup.write(3, 20, 0x33), 0);
        UserBlockMap all{0, backup.disk.blocks()};
        ASSERT_EQ(ioctlLoadBlockMap(record.get(), &all), 0);
        MappedBuffer first(record, 64);
        MappedBuffer second(record, 3, 0x50000000);
        EXPECT_EQ(ioctlReadBlocks(record.get(), 0, 10, second.address()), 0);
        first.unmap();
        second.unmap();
        takeLog();
        record.close();
        // All but the record itself, which is one of those counted before.
        before.kmallocs--;
        before.kmallocBytes -= sizeof(Backup);
        EXPECT_EQ(host::memoryUse(), before);
        EXPECT_EQ(host::countLog("current pages allocated: 0\n"), 1u);
        EXPECT_EQ(host::countLog("current cached blocks: 0\n"), 1u);
        EXPECT_EQ(host::countLog("current Block Requests allocated: 0\n"), 1u);
    });
}

/* Held writes. */

TEST_F(BackupClose, HeldWritesArePassedOnFirst)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        std::vector<AsyncBio> writes;
        for (unsigned char i = 0; i < 8; i++)
            writes.push_back(backup.writeAsync(i, 1, i + 1));
        // What the thread has not begun with when the close begins is passed on unsaved.
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        host::Task closer = backup.closeInTask();
        EXPECT_TRUE(eventually([&] { return backupState(loadActiveSession()) == 7; }));
        for (int i = 0; i < 100; i++)
            host::sleepNanoseconds(10'000);
        EXPECT_FALSE(closer.ended());
        EXPECT_GT(loadCachePID(), 0);
        backup.disk.disk().release();
        closer.join();
        EXPECT_TRUE(eventually([&] {
            for (const AsyncBio &write : writes)
                if (!write.ended())
                    return false;
            return true;
        }));
        for (unsigned char i = 0; i < 8; i++)
            EXPECT_EQ(backup.block(i), backup.pattern(i + 1));
    });
}

TEST_F(BackupClose, NewWritesWaitUntilTheTearDownIsOver)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        AsyncBio held = backup.writeAsync(3, 1, 0x33);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        test::HookGate gate(backup.disk.disk().queue());
        std::atomic<bool> written{false};
        host::Task writer = host::spawn("writer", [&] {
            backup.write(5, 1, 0x55);
            written = true;
        });
        ASSERT_TRUE(fallsAsleep(writer));
        gate.remove();
        host::Task closer = backup.closeInTask();
        ASSERT_TRUE(eventually([&] { return backupState(loadActiveSession()) == 7; }));
        gate.open();
        ASSERT_TRUE(
            eventually([&] { return atomic_read(&loadActiveSession()->hooksInside) == 1; }));
        ASSERT_TRUE(fallsAsleep(writer));
        EXPECT_FALSE(written);
        backup.disk.disk().release();
        closer.join();
        writer.join();
        EXPECT_TRUE(written);
    });
}

TEST_F(BackupClose, AThreadThatIsGoneEndsTheWait)
{
    restart(test::seeded(1)); // so that the waiter runs while this sleeps
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        Backup *b = backup.b();
        takeLog();
        // As with a thread that dies while a bio is queued.
        atomic_inc(&b->mrInQueue);
        storeCachePID(4711);
        host::Task waiter = host::spawn("waiter", [&] { waitForMRs(b); });
        for (int i = 0; i < 50; i++)
            host::sleepNanoseconds(10'000);
        EXPECT_FALSE(waiter.ended());
        EXPECT_EQ(takeLog(), Lines());
        storeCachePID(0);
        waiter.join();
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>waitForMRs: backup_cache thread died during waitForMRs\n"}));
        // Without a thread from the start there is nothing to wait for.
        waitForMRs(b);
        EXPECT_EQ(takeLog(), Lines());
        atomic_dec(&b->mrInQueue);
    });
}

/* The queue. */

TEST_F(BackupClose, ATrackedDeviceKeepsTheTrackingHook)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        struct request_queue *q = backup.disk.disk().queue();
        EXPECT_EQ(functionOf(q), zelMRF);
        backup.record.close();
        EXPECT_EQ(functionOf(q), zelAMRF);
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_IN_SYNC});
        EXPECT_EQ(atomic_read(&backup.session()->users), 1);
        EXPECT_EQ(atomic_read(&amListUsers), 1);
    });
}

TEST_F(BackupClose, AnUntrackedDeviceKeepsNoHook)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(ioctlNoStartAutoMap(backup.b()), 0);
        ASSERT_TRUE(backup.begin());
        struct request_queue *q = backup.disk.disk().queue();
        EXPECT_EQ(functionOf(q), zelMRF);
        backup.record.close();
        EXPECT_EQ(functionOf(q), ownFunctionOf(q));
        EXPECT_EQ(isInQueueList(q, backup.disk.device()), 0);
    });
}

TEST_F(BackupClose, TwoOtherTrackedDevicesKeepTheirHook)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096, 4096}});
        backup.track(2);
        backup.track(3);
        ASSERT_EQ(ioctlNoStartAutoMap(backup.b()), 0);
        ASSERT_TRUE(backup.begin());
        backup.record.close();
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelAMRF);
        EXPECT_EQ(amsState(backup.session(2)), unsigned{AMS_IN_SYNC});
        EXPECT_EQ(amsState(backup.session(3)), unsigned{AMS_IN_SYNC});
    });
}

TEST_F(BackupClose, OneOtherTrackedDeviceLosesItsHookAndKnowsIt)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096}});
        backup.track(2);
        ASSERT_EQ(ioctlNoStartAutoMap(backup.b()), 0);
        ASSERT_TRUE(backup.begin());
        struct request_queue *q = backup.disk.disk().queue();
        backup.record.close();
        EXPECT_EQ(functionOf(q), ownFunctionOf(q));
        EXPECT_EQ(amsState(backup.session(2)), unsigned{AMS_NOT_IN_SYNC});
    });
}

TEST_F(BackupClose, ASessionOutOfSyncCountsAsAny)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096}});
        backup.track(2);
        ASSERT_TRUE(backup.begin());
        setAMSState(backup.session(1), AMS_NOT_IN_SYNC);
        backup.record.close();
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelAMRF);
        EXPECT_EQ(amsState(backup.session(1)), unsigned{AMS_NOT_IN_SYNC});
        EXPECT_EQ(amsState(backup.session(2)), unsigned{AMS_IN_SYNC});
    });
}

TEST_F(BackupClose, AfterAnUnmountTheSessionsOfTheQueueAreOutOfSync)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096}});
        backup.track(2);
        ASSERT_TRUE(backup.begin());
        backup.disk.unmount(1);
        takeLog();
        backup.record.close();
        Lines lines = takeLog();
        ASSERT_EQ(lines.size(), statsLines + 4);
        EXPECT_EQ(lines[0], "<3>countQueueAMS: Could not count ams sessions for request queue "
                            "because queue was null.\n");
        EXPECT_EQ(lines[1], "<3>unsetQueueMRFAMS: Could not unset MRFS for request queue because "
                            "queue was null.\n");
        EXPECT_EQ(amsState(backup.session(1)), unsigned{AMS_NOT_IN_SYNC});
        EXPECT_EQ(amsState(backup.session(2)), unsigned{AMS_NOT_IN_SYNC});
        // The hook stays, with nobody to hold anything for, until the module goes.
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelMRF);
        EXPECT_EQ(backup.write(3, 1, 0x33, 2), 0);
    });
}

/* The record's other belongings. */

TEST_F(BackupClose, AKeptSuperBlockIsLetGo)
{
    // No backup keeps one, so that its place in the order of locks is made up here.
    host::Options unchecked;
    unchecked.checks = false;
    restart(unchecked);
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        struct super_block *sb = get_super(backup.disk.bdev());
        ASSERT_NE(sb, nullptr);
        backup.b()->diskInfo.superBlock = sb;
        backup.record.close();
        // The unmount would wait for it.
        backup.disk.unmount();
    });
}

TEST_F(BackupClose, AContendedBucketIsWaitedFor)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        HashTable *bucket = backup.b()->blockTable[7];
        down(&bucket->sem);
        takeLog();
        host::Task closer = backup.closeInTask();
        EXPECT_TRUE(
            eventually([] { return host::countLog("<3>closeCache: ht->sem contended\n") == 1; }));
        EXPECT_TRUE(fallsAsleep(closer));
        up(&bucket->sem);
        closer.join();
        EXPECT_EQ(host::countLog("ht->sem contended"), 1u);
        EXPECT_EQ(takeLog().back(), finished);
    });
}

// A lock that is freed while held is a violation, which fails the test.
TEST_F(BackupClose, ARecordWithoutACacheIsFreedUnlocked)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        closeCache(backup.b());
        EXPECT_EQ(backup.b()->cpCache, nullptr);
        backup.record.close();
    });
}

// Cached blocks go before the map that says so, and all of them.
TEST_F(BackupClose, CachedBlocksAreFreed)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        EXPECT_EQ(backup.write(0, 50, 0x11), 0);
        ASSERT_TRUE(eventually([&] { return atomic_read(&backup.b()->curCBs) == 50; }));
        takeLog();
        backup.record.close();
        EXPECT_EQ(host::countLog("<6>printStats: total cached blocks: 50\n"), 1u);
        EXPECT_EQ(host::countLog("<6>printStats: current cached blocks: 0\n"), 1u);
        EXPECT_EQ(host::memoryUse().cacheObjects, 0u);
        EXPECT_EQ(host::memoryUse().caches, 0u);
    });
}

} // namespace
