// The functions that stand in for a queue's make_request_fn.
#include <atomic>
#include <chrono>
#include <thread>

#include <host/faults.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"
#include "support/hookGate.h"

namespace
{

using test::AsyncBio;
using test::BackupRun;
using test::countOf;
using test::eventually;
using test::fallsAsleep;
using test::FreeBio;
using test::functionOf;
using test::inMap;
using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::ownFunctionOf;
using test::takeLog;

constexpr unsigned long writeAhead = 3;

bool isRetiring()
{
    down_read(&activeSessionUsers);
    bool retiring = activeSessionRetiring == 1;
    up_read(&activeSessionUsers);
    return retiring;
}

class Hooks : public test::ModuleTest
{
};

// What a function in the place of a disk's own was called with.
struct Seen {
    std::vector<struct bio *> bios;
    int answer = 0;
} seen;

int seeingFunction(struct request_queue *, struct bio *bio)
{
    seen.bios.push_back(bio);
    return seen.answer;
}

// Puts seeingFunction below whatever hooks the queue from here on.
class SeeingQueue
{
public:
    explicit SeeingQueue(struct request_queue *q, int answer = 0) : q_(q), own_(functionOf(q))
    {
        seen = {{}, answer};
        set(seeingFunction);
    }
    ~SeeingQueue() { set(own_); }
    SeeingQueue(const SeeingQueue &) = delete;

private:
    void set(make_request_fn *fn)
    {
        unsigned long flags = 0;
        zelLockRequestQueue(q_, &flags);
        queue_set_make_request_fn(q_, fn);
        zelUnlockRequestQueue(q_, &flags);
    }
    struct request_queue *q_;
    make_request_fn *own_;
};

// The kernel reads partitions, and flushes at the last close, with the mutex held.
TEST_F(Hooks, ATaskThatHoldsTheMutexItselfGetsOn)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        backup.track(1);
        backup.disk.unmount();
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelAMRF);
        EXPECT_TRUE(backup.disk.disk().rereadPartitions());

        std::vector<unsigned char> sector(512, 0x5a);
        struct block_device *whole = host::openDevice(backup.disk.disk().device(0));
        host::writeBuffered(whole, 2, sector.data(), sector.size());
        host::closeDevice(whole);
        std::vector<unsigned char> written(512);
        backup.disk.disk().peek(2, written.data(), written.size());
        EXPECT_EQ(written, sector);
        backup.disk.remount();
    });
}

/* The full hook. */

TEST_F(Hooks, TheHookMakesItsTaskRunnable)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        SeeingQueue queue(backup.disk.disk().queue());
        ASSERT_TRUE(backup.begin());
        struct block_device *whole = backup.disk.bdev()->bd_contains;
        FreeBio bio(whole, 0, 512, READ);
        host::setCurrentState(host::TaskState::uninterruptible);
        zelMRF(backup.disk.disk().queue(), bio);
        EXPECT_EQ(host::currentState(), host::TaskState::running);
        host::setCurrentState(host::TaskState::running);
        EXPECT_EQ(seen.bios, std::vector<struct bio *>{bio});
        backup.record.close();
        closeAllAMS();
    });
}

TEST_F(Hooks, BeforeTheSnapshotNothingIsHeld)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        ASSERT_EQ(setMRF(backup.b(), zelMRF), 0);
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 0);
        EXPECT_FALSE(inMap(backup.b()->cacheMap, 3));
        EXPECT_EQ(backup.block(3), backup.pattern(0x33));
    });
}

TEST_F(Hooks, AWriteIsHeldUntilItsBlockIsSaved)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        auto before = backup.block(3);
        backup.holdModuleReads();
        AsyncBio write = backup.writeAsync(3, 1, 0x33);
        EXPECT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 1);
        EXPECT_FALSE(write.ended());
        EXPECT_EQ(backup.block(3), before);
        backup.disk.disk().release();
        EXPECT_TRUE(eventually([&] { return write.ended(); }));
        EXPECT_EQ(write.error(), 0);
        EXPECT_EQ(backup.block(3), backup.pattern(0x33));
        EXPECT_TRUE(eventually([&] { return inMap(backup.b()->cacheMap, 3); }));
    });
}

TEST_F(Hooks, WhatNeedsNothingIsPassedOnAtOnce)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096}});
        backup.track(2);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.write(5, 1, 0x55), 0);
        ASSERT_TRUE(eventually([&] { return atomic_read(&backup.b()->mrInQueue) == 0; }));
        backup.holdModuleReads();
        AsyncBio heldWrite = backup.writeAsync(9, 1, 0x99);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        int held = atomic_read(&backup.b()->mrInQueue);

        // Saved already; of another partition; read ahead.
        EXPECT_EQ(backup.write(5, 1, 0x56), 0);
        EXPECT_EQ(backup.write(7, 1, 0x77, 2), 0);
        EXPECT_EQ(host::submitAndWait({backup.disk.bdev(), 80, 4096, READA}), 0);
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), held);
        // The other partition's session has recorded its write.
        EXPECT_TRUE(inMap(backup.session(2)->map, 7));
        EXPECT_FALSE(inMap(backup.session(1)->map, 7));
        EXPECT_FALSE(heldWrite.ended());
        backup.disk.disk().release();
    });
}

TEST_F(Hooks, InTheLastStateOnlyWantedBlocksAreHeld)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load({4}), 0);
        backup.holdModuleReads();
        EXPECT_EQ(backup.write(5, 1, 0x55), 0);
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 0);
        AsyncBio write = backup.writeAsync(4, 1, 0x44);
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 1);
        backup.disk.disk().release();
        EXPECT_TRUE(eventually([&] { return write.ended(); }));
    });
}

TEST_F(Hooks, AHeldRequestKnowsTheWholeRangeOfItsBio)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load({12}), 0);
        backup.holdModuleReads();
        AsyncBio first = backup.writeAsync(12, 1, 1);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        AsyncBio second = backup.writeAsync(10, 5, 2);
        AsyncBio third = backup.readAsync(12, 1);
        MakeRequest *mr = backup.b()->mrHead;
        ASSERT_NE(mr, nullptr);
        EXPECT_EQ(mr->q, backup.disk.disk().queue());
        EXPECT_EQ(mr->startBN, 10u);
        EXPECT_EQ(mr->endBN, 14u);
        ASSERT_NE(mr->next, nullptr);
        EXPECT_EQ(bio_rw(mr->next->bio), unsigned{READ});
        EXPECT_EQ(mr->next->startBN, 12u);
        EXPECT_EQ(mr->next->endBN, 12u);
        EXPECT_EQ(mr->next->next, nullptr);
        EXPECT_EQ(backup.b()->mrTail, mr->next);
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 3);
        backup.disk.disk().release();
        EXPECT_TRUE(eventually([&] { return first.ended() && second.ended() && third.ended(); }));
        EXPECT_EQ(backup.block(12), backup.pattern(2));
    });
}

TEST_F(Hooks, AnEmptyBioIsHeldByTheBlockOfItsSectorOnly)
{
    withModule([](ModuleRun &run) {
        // On a whole disk, where a bio of no sectors has the right device too.
        BackupRun backup(run, {.partitioned = false});
        ASSERT_TRUE(backup.begin(0));
        backup.holdModuleReads();
        AsyncBio hold = backup.writeAsync(1, 1, 1, 0);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        struct block_device *bdev = backup.disk.bdev(0);
        AsyncBio atBlock({bdev, 16, 0, WRITE});
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 1);
        AsyncBio inside({bdev, 17, 0, WRITE});
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 2);
        AsyncBio atStart({bdev, 0, 0, WRITE});
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 3);
        backup.disk.disk().release();
        EXPECT_TRUE(eventually(
            [&] { return atBlock.ended() && inside.ended() && atStart.ended() && hold.ended(); }));
    });
}

TEST_F(Hooks, APlainReadOfAnUnsavedBlockIsHeldAndNotRecorded)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        AsyncBio write = backup.writeAsync(3, 1, 0x33);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        AsyncBio read = backup.readAsync(8, 1);
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 2);
        EXPECT_FALSE(read.ended());
        backup.disk.disk().release();
        EXPECT_TRUE(eventually([&] { return read.ended() && write.ended(); }));
        EXPECT_TRUE(eventually([&] { return atomic_read(&backup.b()->mrInQueue) == 0; }));
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 1);
        EXPECT_FALSE(inMap(backup.b()->cacheMap, 8));
        EXPECT_TRUE(inMap(backup.session()->map, 3));
        EXPECT_FALSE(inMap(backup.session()->map, 8));
    });
}

TEST_F(Hooks, AWriteAheadIsNeitherRecordedNorSaved)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        AsyncBio hold = backup.writeAsync(3, 1, 0x33);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        auto bytes = backup.pattern(0x77);
        AsyncBio ahead({backup.disk.bdev(), 56, 4096, writeAhead, bytes.data()});
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 2);
        backup.disk.disk().release();
        EXPECT_TRUE(eventually([&] { return ahead.ended() && hold.ended(); }));
        EXPECT_EQ(backup.block(7), bytes);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 1);
        EXPECT_FALSE(inMap(backup.session()->map, 7));
    });
}

TEST_F(Hooks, EveryExactWriteIsRecordedHeldOrNot)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        EXPECT_EQ(backup.write(3, 2, 0x33), 0); // held
        EXPECT_TRUE(inMap(backup.session()->map, 3));
        EXPECT_TRUE(inMap(backup.session()->map, 4));
        ASSERT_EQ(backup.load({3}), 0);
        EXPECT_EQ(backup.write(9, 1, 0x99), 0); // not wanted: passed on
        EXPECT_TRUE(inMap(backup.session()->map, 9));
        EXPECT_FALSE(inMap(backup.session()->map, 10));
    });
}

// Once it is queued the cache thread may complete it before the hook has looked at it again. Here
// the hook is kept from looking at the sessions for as long as that takes.
TEST_F(Hooks, AHeldBioIsRecordedBeforeItIsQueued)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        std::atomic<bool> go{false};
        std::atomic<bool> ended{false};
        host::Task writer = host::spawn("writer", [&] {
            while (!go)
                host::yield();
            EXPECT_EQ(backup.write(20, 3, 0x44), 0);
            ended = true;
        });
        unsigned long flags = spin_lock_irqsave(&amListUsersLock);
        go = true;
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
        while (atomic_read(&backup.b()->totalAllocCPs) < 3 &&
               std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        until = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
        while (!ended && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        spin_unlock_irqrestore(&amListUsersLock, flags);
        writer.join();
        EXPECT_TRUE(ended);
        for (unsigned block = 19; block <= 23; block++)
            EXPECT_EQ(inMap(backup.session()->map, block), block >= 20 && block <= 22) << block;
    });
}

TEST_F(Hooks, WithoutMemoryForARequestTheWriteGoesOnUnsaved)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_IN_SYNC});
        takeLog();
        host::clearFaults();
        host::failNth(host::Fault::kmalloc, 1);
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        host::clearFaults();
        EXPECT_EQ(backupState(backup.b()), unsigned{BACKUP_ERR_QUEUE});
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_NOT_IN_SYNC});
        EXPECT_EQ(backup.block(3), backup.pattern(0x33));
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 0);
        EXPECT_EQ(takeLog(), Lines());
        struct request_queue *q = backup.disk.disk().queue();
        EXPECT_EQ(functionOf(q), ownFunctionOf(q));
    });
}

TEST_F(Hooks, WithoutMemoryOtherTrackedDevicesKeepTheirHook)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096}});
        backup.track(2);
        ASSERT_TRUE(backup.begin());
        host::clearFaults();
        host::failNth(host::Fault::kmalloc, 1);
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        host::clearFaults();
        EXPECT_EQ(functionOf(backup.disk.disk().queue()), zelAMRF);
        EXPECT_EQ(amsState(backup.session(1)), unsigned{AMS_NOT_IN_SYNC});
        EXPECT_EQ(amsState(backup.session(2)), unsigned{AMS_IN_SYNC});
        EXPECT_EQ(backup.write(6, 1, 0x66, 2), 0);
        EXPECT_TRUE(inMap(backup.session(2)->map, 6));
    });
}

TEST_F(Hooks, TheRealFunctionsAnswerIsTheHooksAnswer)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        struct request_queue *q = backup.disk.disk().queue();
        SeeingQueue queue(q, 1);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.load(std::set<unsigned>{}), 0);
        struct block_device *whole = backup.disk.bdev()->bd_contains;
        FreeBio bio(whole, backup.disk.start(), 4096);
        EXPECT_EQ(zelMRF(q, bio), 1);
        EXPECT_EQ(zelAMRF(q, bio), 1);
        seen.answer = 0;
        EXPECT_EQ(zelMRF(q, bio), 0);
        EXPECT_EQ(zelAMRF(q, bio), 0);
        EXPECT_EQ(seen.bios, (std::vector<struct bio *>(4, bio)));
        EXPECT_TRUE(inMap(backup.session()->map, 0));
        backup.record.close();
        closeAllAMS();
    });
}

TEST_F(Hooks, ABioOfAnUnknownQueueStopsTheKernel)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(withModule([](ModuleRun &run) {
                     BackupRun backup(run);
                     struct block_device *whole = backup.disk.bdev()->bd_contains;
                     zelMRF(nullptr, FreeBio(whole, 63, 512));
                 }),
                 "kernel BUG in .*<2>zelMRF: request intercepted for unknown device major=8 "
                 "minor=1\n");
    EXPECT_DEATH(withModule([](ModuleRun &run) {
                     BackupRun backup(run);
                     struct block_device *whole = backup.disk.bdev()->bd_contains;
                     zelAMRF(nullptr, FreeBio(whole, 63, 512));
                 }),
                 "kernel BUG in .*<2>zelAMRF: request intercepted for unknown device major=8 "
                 "realMRF=\\(null\\)\n");
}

/* The tracking hook. */

TEST_F(Hooks, TheTrackingHookOnlyRecords)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        backup.track(1);
        ASSERT_EQ(functionOf(backup.disk.disk().queue()), zelAMRF);
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        EXPECT_EQ(host::submitAndWait({backup.disk.bdev(), 80, 4096, READ}), 0);
        auto bytes = backup.pattern(0x77);
        EXPECT_EQ(host::submitAndWait({backup.disk.bdev(), 56, 4096, writeAhead, bytes.data()}), 0);
        EXPECT_TRUE(inMap(backup.session()->map, 3));
        EXPECT_FALSE(inMap(backup.session()->map, 10));
        EXPECT_FALSE(inMap(backup.session()->map, 7));
        EXPECT_EQ(backup.block(3), backup.pattern(0x33));
        EXPECT_EQ(backup.block(7), bytes);
    });
}

/* The way past the hook. */

TEST_F(Hooks, TheModulesOwnBiosDoNotMeetItsHook)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        struct block_device *whole = backup.disk.bdev()->bd_contains;
        seen = {{}, 0};
        backup.b()->diskInfo.realMRF = seeingFunction;
        FreeBio bio(whole, backup.disk.start(), 4096);
        EXPECT_EQ(callRealMRF(backup.b(), bio), 0);
        EXPECT_EQ(seen.bios, std::vector<struct bio *>{bio});
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 0);
    });
}

struct block_device *remapTo;

int remappingFunction(struct request_queue *, struct bio *bio)
{
    bio_set_bdev(bio, remapTo);
    bio_set_sector(bio, 5);
    return 1;
}

TEST_F(Hooks, ARemappedBioIsSubmittedAgain)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        host::DiskOptions options;
        options.major = 9;
        auto other = host::Disk::attach(100, options);
        remapTo = host::openDevice(other->device(0));
        ASSERT_TRUE(backup.begin());
        backup.b()->diskInfo.realMRF = remappingFunction;
        std::vector<std::uint64_t> sectors;
        other->observe([&](struct bio *, std::uint64_t sector, std::uint32_t, bool write) {
            EXPECT_TRUE(write);
            sectors.push_back(sector);
        });
        // Held, then sent elsewhere by what it is passed on to.
        auto bytes = backup.pattern(0x44);
        AsyncBio write({backup.disk.bdev(), 80, 512, writeAhead, bytes.data()});
        EXPECT_TRUE(eventually([&] { return write.ended(); }));
        EXPECT_EQ(sectors, std::vector<std::uint64_t>{5});
        other->observe({});
        host::closeDevice(remapTo);
    });
}

TEST_F(Hooks, WithoutAQueueABioIsDropped)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096}});
        ASSERT_TRUE(backup.begin());
        takeLog();
        seen = {{}, 0};
        backup.b()->diskInfo.realMRF = seeingFunction;
        struct block_device *closed = bdget(backup.disk.device(2));
        backup.disk.unmount(2);
        FreeBio bio(closed, 0, 512);
        EXPECT_EQ(callRealMRF(backup.b(), bio), 0);
        EXPECT_TRUE(seen.bios.empty());
        EXPECT_EQ(takeLog(), (Lines{"<3>callRealMRF: Block read error: (bdev queue is null) "
                                    "MAJOR=8 MINOR=1\n"}));
    });
}

/* Hooks and the end of a backup. */

// The hook that waits at the gate of a backup that is being closed still uses its record.
TEST_F(Hooks, ARecordIsNotFreedUnderAHookThatTookIt)
{
    forSeeds(60, [](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        AsyncBio held = backup.writeAsync(3, 1, 0x33);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        // It enters the hook before the close takes the hook off, and goes on after that.
        test::HookGate gate(backup.disk.disk().queue());
        host::Task writer = host::spawn("writer", [&] { backup.write(5, 1, 0x55); });
        ASSERT_TRUE(fallsAsleep(writer));
        gate.remove();
        host::Task closer = backup.closeInTask();
        ASSERT_TRUE(eventually([&] { return backupState(loadActiveSession()) == 7; }));
        gate.open();
        ASSERT_TRUE(
            eventually([&] { return atomic_read(&loadActiveSession()->hooksInside) == 1; }));
        ASSERT_TRUE(fallsAsleep(writer));
        backup.disk.disk().release();
        closer.join();
        writer.join();
        EXPECT_TRUE(eventually([&] { return held.ended(); }));
        EXPECT_EQ(backup.block(5), backup.pattern(0x55));
    });
}

// The wake-ups of held bios are spent while there is no active session.
TEST_F(Hooks, ClosingAnotherRecordLetsHeldWritesGoOnFirst)
{
    forSeeds(30, [](ModuleRun &run) {
        BackupRun backup(run);
        OpenRecord idle;
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        AsyncBio first = backup.writeAsync(3, 1, 0x33);
        AsyncBio second = backup.writeAsync(4, 1, 0x44);
        AsyncBio third = backup.readAsync(5, 1);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        host::Task closer = host::spawn("closer", [&] { idle.close(); });
        ASSERT_TRUE(eventually(isRetiring));
        EXPECT_EQ(loadActiveSession(), backup.b());
        // From here on the hooks take it no more: this one is passed on, though not saved.
        EXPECT_EQ(backup.write(6, 1, 0x66), 0);
        EXPECT_FALSE(first.ended() || second.ended() || third.ended());
        backup.disk.disk().release();
        closer.join();
        EXPECT_TRUE(eventually([&] { return first.ended() && second.ended() && third.ended(); }));
        EXPECT_EQ(loadActiveSession(), nullptr);
        EXPECT_FALSE(isRetiring());
        EXPECT_EQ(backup.block(4), backup.pattern(0x44));
        // The owner's close does not wait for anything that cannot come any more.
        backup.record.close();
    });
}

} // namespace
