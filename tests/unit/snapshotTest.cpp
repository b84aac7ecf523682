// The snapshot and sync commands.
#include <algorithm>
#include <cstring>
#include <string>

#include <host/faults.h>
#include <host/log.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"
#include "users.h"

namespace
{

using host::Fault;
using test::BackupRun;
using test::eventually;
using test::functionOf;
using test::inMap;
using test::Lines;
using test::ModuleRun;
using test::ownFunctionOf;
using test::startBackup;
using test::stateOf;
using test::takeLog;

const std::string goingToFreeze = "<3>ioctlSnapShot: Going to freez: 8.1\n";
const std::string couldNotFreeze = "<3>ioctlSnapShot: freeze_bdev could not freeze the device.\n";
const std::string mismatch = "<3>ioctlSnapShot: session key mismatch\n";

class Snapshots : public test::ModuleTest
{
};

/* Time. */

TEST_F(Snapshots, TimesAreSubtractedWithOneCarry)
{
    auto diff = [](kernel_timespec start, kernel_timespec end) {
        kernel_timespec result = calcTimeDiff(&start, &end);
        return std::to_string(result.tv_sec) + "." + std::to_string(result.tv_nsec);
    };
    EXPECT_EQ(diff({5, 100}, {7, 300}), "2.200");
    EXPECT_EQ(diff({5, 300}, {7, 100}), "1.999999800");
    EXPECT_EQ(diff({5, 300}, {5, 300}), "0.0");
    EXPECT_EQ(diff({5, 0}, {6, 500000000}), "1.500000000");
    EXPECT_EQ(diff({5, 500}, {5, 100}), "-1.999999600");
}

TEST_F(Snapshots, TheTimesOfTheFreezeAreKept)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        // The flush of the freeze takes a second, and the thaw comes after another.
        backup.disk.fs().write(0, 1);
        backup.disk.disk().hold(
            [](struct bio *bio) { return bio_rw(bio) == WRITE && !bio->ofModule; });
        backup.disk.mount().onFrozen([] { host::sleepNanoseconds(30'000'000); });
        host::Task releaser = host::spawn("releaser", [&] {
            ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
            host::sleepNanoseconds(50'000'000);
            backup.disk.disk().release();
        });
        ASSERT_EQ(backup.snap(), 0);
        releaser.join();
        Backup *b = backup.b();
        EXPECT_LT(b->eTimeToFreeze.tv_sec, 1000);
        EXPECT_TRUE(b->eTimeToFreeze.tv_sec > 0 || b->eTimeToFreeze.tv_nsec >= 40'000'000);
        EXPECT_GE(b->eTimeFrozen.tv_sec, b->eTimeToFreeze.tv_sec);
        EXPECT_TRUE(b->eTimeFrozen.tv_sec > b->eTimeToFreeze.tv_sec ||
                    b->eTimeFrozen.tv_nsec >= b->eTimeToFreeze.tv_nsec);
        backup.disk.mount().onFrozen({});
    });
}

/* Without a session. */

TEST_F(Snapshots, AFirstSnapshotBeginsToTrack)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        EXPECT_EQ(backup.session(), nullptr);
        takeLog();
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(takeLog(), Lines{goingToFreeze});
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        AutoMapSession *ams = backup.session();
        ASSERT_NE(ams, nullptr);
        EXPECT_EQ(amsState(ams), unsigned{AMS_IN_SYNC});
        EXPECT_EQ(ams->map.size, backup.disk.blocks());
        EXPECT_EQ(atomic_read(&ams->users), 1);
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelMRF);
        const auto &key = ams->sessionKey.key;
        EXPECT_LT(std::count(std::begin(key), std::end(key), 0xff), 20);
        EXPECT_LT(std::count(std::begin(key), std::end(key), 0), 20);
    });
}

TEST_F(Snapshots, ASwitchKeepsTheFirstSnapshotFromTracking)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        ASSERT_EQ(ioctlNoStartAutoMap(backup.b()), 0);
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(backup.session(), nullptr);
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelMRF);
        // Copy-on-write works all the same.
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 1);
    });
}

/* With a session. */

TEST_F(Snapshots, TheRightKeyHandsOverWhatChanged)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.write(3, 2, 0x33), 0);
        AutoMapSession *ams = backup.session();
        ASSERT_EQ(backup.start(), 0);
        int total = atomic_read(&backup.b()->totalAllocPages);
        int current = atomic_read(&backup.b()->curAllocPages);
        takeLog();
        EXPECT_EQ(backup.snap(key), 0);
        EXPECT_EQ(takeLog(), Lines{goingToFreeze});
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(backup.session(), ams);
        EXPECT_EQ(amsState(ams), unsigned{AMS_IN_SYNC});
        EXPECT_EQ(atomic_read(&ams->users), 1);
        Backup *b = backup.b();
        ASSERT_NE(b->blockMap.map, nullptr);
        EXPECT_EQ(b->blockMap.size, backup.disk.blocks());
        for (unsigned block = 0; block < backup.disk.blocks(); block++) {
            ASSERT_EQ(inMap(b->blockMap, block), block == 3 || block == 4) << block;
            ASSERT_FALSE(inMap(ams->map, block)) << block;
        }
        EXPECT_EQ(atomic_read(&b->totalAllocPages), total + 1);
        EXPECT_EQ(atomic_read(&b->curAllocPages), current + 1);
        EXPECT_FALSE(backup.session()->sessionKey == key);
        // The session goes on with the empty map.
        ASSERT_EQ(backup.write(9, 1, 0x99), 0);
        EXPECT_TRUE(inMap(ams->map, 9));
        EXPECT_FALSE(inMap(b->blockMap, 9));
    });
}

TEST_F(Snapshots, AWrongKeyChangesNothing)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.write(3, 1, 0x33), 0);
        ASSERT_EQ(backup.start(), 0);
        takeLog();
        host::MemoryUse before = host::memoryUse();
        AMSessionKey wrong = key;
        wrong.key[55] ^= 1;
        EXPECT_EQ(backup.snap(wrong), 0);
        EXPECT_EQ(takeLog(), Lines{mismatch});
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelAMRF);
        EXPECT_TRUE(backup.session()->sessionKey == key);
        EXPECT_TRUE(inMap(backup.session()->map, 3));
        EXPECT_EQ(atomic_read(&backup.session()->users), 1);
        EXPECT_EQ(host::memoryUse(), before);
        // The right one still works.
        EXPECT_EQ(backup.snap(key), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(Snapshots, AShortKeyEndsInZeros)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        std::memset(&backup.session()->sessionKey.key[40], 0, 16);
        std::memset(&key.key[40], 0xee, 16);
        ASSERT_EQ(backup.start(), 0);
        EXPECT_EQ(backup.snap(key, 41), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(backup.snap(key, 40), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(Snapshots, NoMoreThanAKeyIsRead)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.start(), 0);
        std::uint32_t address = run.process().allocateBeforeHole(sizeof(key));
        *run.process().pointer<AMSessionKey>(address) = key;
        EXPECT_EQ(ioctlSnapShot(backup.b(), run.user<AMSessionKey>(address), 100'000), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(Snapshots, TheSwitchEndsTracking)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        backup.track(1);
        takeLog();
        ASSERT_EQ(backup.start(), 0);
        ASSERT_EQ(ioctlNoStartAutoMap(backup.b()), 0);
        // Not even the key matters.
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(backup.session(), nullptr);
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelMRF);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    });
}

TEST_F(Snapshots, TheOtherSwitchBeginsANewSession)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.write(3, 1, 0x33), 0);
        ASSERT_EQ(backup.start(), 0);
        ASSERT_EQ(ioctlNoLoadFromAutoMap(backup.b()), 0);
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_IN_SYNC});
        EXPECT_FALSE(inMap(backup.session()->map, 3));
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
        EXPECT_FALSE(backup.session()->sessionKey == key);
    });
}

TEST_F(Snapshots, ASessionOutOfSyncIsReplaced)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.write(3, 1, 0x33), 0);
        setAMSState(backup.session(), AMS_NOT_IN_SYNC);
        ASSERT_EQ(backup.start(), 0);
        takeLog();
        EXPECT_EQ(backup.snap(key), 0);
        EXPECT_EQ(takeLog(), Lines{goingToFreeze});
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_IN_SYNC});
        EXPECT_FALSE(inMap(backup.session()->map, 3));
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
    });
}

TEST_F(Snapshots, AResizedDeviceGetsANewSession)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        unsigned grown = backup.disk.blocks() + 17;
        ASSERT_EQ(startBackup(backup.record, backup.disk.device(), grown, 10), 0);
        takeLog();
        EXPECT_EQ(backup.snap(key), 0);
        // The two numbers are the halves of the device's block count.
        EXPECT_EQ(takeLog(), (Lines{"<4>ioctlSnapShot: device resize detected, device has (" +
                                        std::to_string(grown) +
                                        ") blocks and automap has (0), resetting automap\n",
                                    goingToFreeze}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(backup.session()->map.size, grown);
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_IN_SYNC});
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
    });
}

/* Refusals and failures. */

TEST_F(Snapshots, OnlyAStartedBackupTakesASnapshot)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        takeLog();
        EXPECT_EQ(backup.snap(), 2);
        EXPECT_EQ(ioctlSnapShot(backup.b(), run.user<AMSessionKey>(host::Process::badAddress), 56),
                  2);
        EXPECT_EQ(takeLog(), Lines());
        ASSERT_TRUE(backup.begin());
        takeLog();
        EXPECT_EQ(backup.snap(), 2);
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(Snapshots, AKeyThatCannotBeReadGives6)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        takeLog();
        auto *bad = run.user<AMSessionKey>(host::Process::badAddress);
        EXPECT_EQ(ioctlSnapShot(backup.b(), bad, 56), 6);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: copy from user space failed\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(backup.session(), nullptr);
        // Nothing to read, nothing that can fail.
        EXPECT_EQ(ioctlSnapShot(backup.b(), bad, 0), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(Snapshots, WithoutMemoryForTheBackupsMap)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.start(), 0);
        host::MemoryUse before = host::memoryUse();
        takeLog();
        host::clearFaults();
        host::failNth(Fault::page, 1);
        EXPECT_EQ(backup.snap(key), 5);
        host::clearFaults();
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>newBlockMap: failed allocating page number (0) for block map\n",
                         "<3>newBlockMap: Out of Memory Error.\n",
                         "<3>ioctlSnapShot: failed to create new device map\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(atomic_read(&backup.session()->users), 1);
        EXPECT_TRUE(backup.session()->sessionKey == key);
        EXPECT_EQ(host::memoryUse(), before);
        EXPECT_EQ(backup.snap(key), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(Snapshots, WithoutMemoryForTheSession)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        takeLog();
        host::clearFaults();
        host::failNth(Fault::kmalloc, 1);
        EXPECT_EQ(backup.snap(), 5);
        host::clearFaults();
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: new automap failed\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(backup.session(), nullptr);
        struct request_queue *q = backup.disk.disk().queue();
        EXPECT_EQ(functionOf(q), ownFunctionOf(q));
    });
}

TEST_F(Snapshots, ADeviceNumberTooLargeToTrackGives2)
{
    withModule([](ModuleRun &run) {
        test::TestDiskOptions options;
        options.disk.firstMinor = 256;
        BackupRun backup(run, options);
        ASSERT_EQ(backup.start(), 0);
        takeLog();
        EXPECT_EQ(backup.snap(), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: new automap failed\n"}));
        ASSERT_EQ(ioctlNoStartAutoMap(backup.b()), 0);
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(Snapshots, ADeviceWithoutAQueueIsNotValid)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.start(), 0);
        struct gendisk *disk = backup.disk.bdev()->bd_disk.exchange(nullptr);
        takeLog();
        EXPECT_EQ(backup.snap(key), 2);
        backup.disk.bdev()->bd_disk = disk;
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: device major=8 minor=1 not valid\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        // Its key was renewed before.
        EXPECT_FALSE(backup.session()->sessionKey == key);
        EXPECT_EQ(atomic_read(&backup.session()->users), 1);
    });
}

TEST_F(Snapshots, AnUnmountedDeviceIsNotFrozen)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        struct block_device *bdev = host::openDevice(backup.disk.device());
        backup.disk.unmount();
        takeLog();
        EXPECT_EQ(backup.snap(), 2);
        EXPECT_EQ(takeLog(), (Lines{goingToFreeze, couldNotFreeze}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        // The hook and the session stay.
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelMRF);
        ASSERT_NE(backup.session(), nullptr);
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_NOT_IN_SYNC});
        EXPECT_EQ(atomic_read(&backup.session()->users), 1);
        EXPECT_EQ(backup.b()->eTimeFrozen.tv_nsec, 0);
        // Sent again when it can work, it works.
        backup.disk.remount();
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        host::closeDevice(bdev);
    });
}

// Nothing was held still: there is no point in time.
TEST_F(Snapshots, AFreezeThatGivesAnErrorIsNoSnapshot)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        backup.disk.mount().failNextFreeze(-KERNEL_EIO);
        takeLog();
        EXPECT_EQ(backup.snap(), 2);
        EXPECT_EQ(takeLog(), (Lines{goingToFreeze, couldNotFreeze}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

// What a failed snapshot has left in the record is neither lost nor handed out.
TEST_F(Snapshots, AMapOfAFailedSnapshotIsReleased)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        takeLog();
        ASSERT_EQ(backup.start(), 0);
        host::MemoryUse before = host::memoryUse();
        int pages = atomic_read(&backup.b()->curAllocPages);
        struct gendisk *disk = backup.disk.bdev()->bd_disk.exchange(nullptr);
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(backup.snap(i == 0 ? key : backup.session()->sessionKey), 2);
            EXPECT_NE(backup.b()->blockMap.map, nullptr);
            EXPECT_EQ(atomic_read(&backup.b()->curAllocPages), pages + 1);
        }
        backup.disk.bdev()->bd_disk = disk;
        EXPECT_EQ(host::memoryUse().pages, before.pages + 1);
        // A new session: there is no map of changes, not an empty one.
        ASSERT_EQ(ioctlNoLoadFromAutoMap(backup.b()), 0);
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
        EXPECT_EQ(atomic_read(&backup.b()->curAllocPages), pages);
    });
}

/* Sync. */

TEST_F(Snapshots, SyncWritesOutWhatIsDirty)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        auto before = backup.block(5);
        std::uint64_t generation = backup.disk.fs().write(5, 1);
        EXPECT_EQ(backup.block(5), before);
        // Without a device there is nothing to write.
        EXPECT_EQ(ioctlSync(backup.b()), 0);
        EXPECT_EQ(backup.block(5), before);
        ASSERT_EQ(backup.start(), 0);
        takeLog();
        EXPECT_EQ(ioctlSync(backup.b()), 0);
        std::vector<unsigned char> expected(4096);
        host::SyntheticFs::render(5, generation, 4096, expected.data());
        EXPECT_EQ(backup.block(5), expected);
        EXPECT_EQ(takeLog(), Lines());
    });
}

} // namespace
