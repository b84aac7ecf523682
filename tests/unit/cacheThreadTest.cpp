// "kbackupd": what it does with a held bio, and when.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <utility>

#include <host/faults.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"

namespace
{

using test::AsyncBio;
using test::BackupRun;
using test::countOf;
using test::eventually;
using test::fallsAsleep;
using test::inMap;
using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;

// In the place of a queue's real function: counts.
std::atomic<int> passed{0};
struct bio *seamBio;

int passedOn(struct request_queue *, struct bio *bio)
{
    EXPECT_EQ(bio, seamBio);
    passed++;
    return 0;
}

host::DiskOptions otherDisk()
{
    host::DiskOptions options;
    options.major = 9;
    return options;
}

class CacheThread : public test::ModuleTest
{
};

// What the disk was given, in order: reads of the module and everybody's writes, by block.
class Trace
{
public:
    explicit Trace(BackupRun &backup) : backup_(backup)
    {
        backup.disk.disk().observe(
            [this](struct bio *bio, std::uint64_t sector, std::uint32_t bytes, bool write) {
                if (!write && !bio->ofModule)
                    return;
                auto block = (sector - backup_.disk.start()) / 8;
                std::lock_guard guard(guard_);
                entries_.push_back((write ? "w" : "r") + std::to_string(block) + "+" +
                                   std::to_string(bytes / 4096));
                if (write && onWrite)
                    onWrite();
            });
    }
    ~Trace() { backup_.disk.disk().observe({}); }
    Trace(const Trace &) = delete;
    Lines take()
    {
        std::lock_guard guard(guard_);
        return std::exchange(entries_, {});
    }

    std::function<void()> onWrite; // when a write reaches the disk

private:
    BackupRun &backup_;
    std::mutex guard_;
    Lines entries_;
};

bool isDrained(const BackupRun &backup)
{
    return atomic_read(&backup.b()->mrInQueue) == 0;
}

bool isCached(const BackupRun &backup, unsigned block)
{
    CachePage *before = nullptr;
    return locateBlockInList(backup.b()->blockTable[block & 0xfff]->busy, block, &before) !=
           nullptr;
}

TEST_F(CacheThread, AllBlocksOfABioAreSavedBeforeItGoesOnAndMarkedAfterwards)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        ASSERT_EQ(backup.write(11, 1, 0x11), 0);
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        Trace trace(backup);
        std::vector<bool> markedAtWrite;
        std::vector<bool> cachedAtWrite;
        trace.onWrite = [&] {
            for (unsigned block : {10u, 12u, 13u}) {
                markedAtWrite.push_back(inMap(backup.b()->cacheMap, block));
                cachedAtWrite.push_back(isCached(backup, block));
            }
        };
        EXPECT_EQ(backup.write(10, 4, 0x22), 0);
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        EXPECT_EQ(trace.take(), (Lines{"r10+1", "r12+1", "r13+1", "w10+4"}));
        EXPECT_EQ(markedAtWrite, (std::vector<bool>{false, false, false}));
        EXPECT_EQ(cachedAtWrite, (std::vector<bool>{true, true, true}));
        for (unsigned block : {10u, 11u, 12u, 13u})
            EXPECT_TRUE(inMap(backup.b()->cacheMap, block));
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 4);
    });
}

TEST_F(CacheThread, ABlockIsSavedOnce)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        auto before = backup.block(5);
        EXPECT_EQ(backup.write(5, 1, 0x51), 0);
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        Trace trace(backup);
        EXPECT_EQ(backup.write(5, 1, 0x52), 0);
        EXPECT_EQ(trace.take(), Lines{"w5+1"});
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 1);
        std::vector<char> kept(4096);
        EXPECT_EQ(cacheRead(backup.b(), kept.data(), 5), 4096u);
        EXPECT_TRUE(std::equal(before.begin(), before.end(),
                               reinterpret_cast<unsigned char *>(kept.data())));
    });
}

TEST_F(CacheThread, BiosGoOnInTheOrderOfTheirArrival)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        std::vector<AsyncBio> bios;
        bios.push_back(backup.writeAsync(3, 1, 1));
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        bios.push_back(backup.writeAsync(9, 1, 2));
        bios.push_back(backup.writeAsync(3, 1, 3));
        bios.push_back(backup.readAsync(4, 1));
        bios.push_back(backup.writeAsync(4, 1, 4));
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 5);
        Trace trace(backup);
        backup.disk.disk().release();
        EXPECT_TRUE(eventually([&] {
            return std::all_of(bios.begin(), bios.end(),
                               [](const AsyncBio &bio) { return bio.ended(); });
        }));
        EXPECT_EQ(trace.take(), (Lines{"w3+1", "r9+1", "w9+1", "w3+1", "r4+1", "w4+1"}));
        EXPECT_EQ(backup.block(3), backup.pattern(3));
    });
}

TEST_F(CacheThread, AHeldReadIsPassedOnWithoutASave)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        AsyncBio read = backup.readAsync(4, 2);
        EXPECT_TRUE(eventually([&] { return read.ended(); }));
        EXPECT_EQ(read.error(), 0);
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocBRs), 0);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 0);
        EXPECT_FALSE(inMap(backup.b()->cacheMap, 4));
    });
}

TEST_F(CacheThread, WhatIsWantedIsJudgedWhenTheBioIsProcessed)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        AsyncBio first = backup.writeAsync(3, 1, 1);
        ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        AsyncBio outside = backup.writeAsync(6, 1, 2);
        AsyncBio partly = backup.writeAsync(7, 3, 3);
        ASSERT_EQ(backup.load({3, 8}), 0);
        Trace trace(backup);
        backup.disk.disk().release();
        EXPECT_TRUE(eventually([&] { return first.ended() && outside.ended() && partly.ended(); }));
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        EXPECT_EQ(trace.take(), (Lines{"w3+1", "w6+1", "r8+1", "w7+3"}));
        for (unsigned block : {6u, 7u, 9u})
            EXPECT_FALSE(inMap(backup.b()->cacheMap, block)) << block;
        EXPECT_TRUE(inMap(backup.b()->cacheMap, 3));
        EXPECT_TRUE(inMap(backup.b()->cacheMap, 8));
    });
}

TEST_F(CacheThread, AboveTheLastGoodStateBiosArePassedOnUnsaved)
{
    for (unsigned state : {BACKUP_ERR_READ, BACKUP_ERR_CACHE, BACKUP_REJECTED, BACKUP_ERR_QUEUE}) {
        withModule([&](ModuleRun &run) {
            BackupRun backup(run);
            ASSERT_TRUE(backup.begin());
            backup.holdModuleReads();
            AsyncBio first = backup.writeAsync(3, 1, 1);
            ASSERT_TRUE(eventually([&] { return backup.disk.disk().heldCount() == 1; }));
            AsyncBio second = backup.writeAsync(6, 1, 2);
            setBackupState(backup.b(), state);
            Trace trace(backup);
            backup.disk.disk().release();
            EXPECT_TRUE(eventually([&] { return first.ended() && second.ended(); }));
            EXPECT_EQ(trace.take(), (Lines{"w3+1", "w6+1"}));
            EXPECT_EQ(backup.block(6), backup.pattern(2));
        });
    }
}

TEST_F(CacheThread, AWriteAheadIsPassedOnWithoutASaveOrAMark)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        auto bytes = backup.pattern(0x77);
        Trace trace(backup);
        EXPECT_EQ(host::submitAndWait({backup.disk.bdev(), 56, 4096, 3, bytes.data()}), 0);
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        EXPECT_EQ(trace.take(), Lines{"w7+1"});
        EXPECT_FALSE(inMap(backup.b()->cacheMap, 7));
    });
}

TEST_F(CacheThread, AProcessedRequestIsFreed)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        host::MemoryUse before = host::memoryUse();
        EXPECT_EQ(backup.write(3, 2, 0x33), 0);
        ASSERT_TRUE(eventually([&] { return isDrained(backup); }));
        ASSERT_TRUE(eventually([&] { return host::memoryUse().kmallocs == before.kmallocs; }));
        before.cacheObjects += 4;
        EXPECT_EQ(host::memoryUse(), before);
    });
}

/* The loop. */

TEST_F(CacheThread, WithoutBiosItSleeps)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        host::Task thread = host::findTask(loadCachePID());
        EXPECT_TRUE(fallsAsleep(thread));
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        EXPECT_TRUE(fallsAsleep(thread));
        EXPECT_EQ(countOf(&signalThread), 0);
    });
}

TEST_F(CacheThread, BeforeTheSnapshotAWakeUpIsSpent)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        host::Task thread = host::findTask(loadCachePID());
        // A bio as a hook would have queued it, had it been let in.
        seamBio = bio_alloc(GFP_NOIO, 1);
        struct block_device *whole = backup.disk.bdev()->bd_contains;
        bio_set_bdev(seamBio, whole);
        bio_set_sector(seamBio, backup.disk.start());
        bio_set_rw(seamBio, WRITE);
        backup.b()->diskInfo.realMRF = passedOn;
        passed = 0;
        addMRToQueue(backup.b(), newMR(backup.disk.disk().queue(), seamBio, {1, 0}));
        EXPECT_TRUE(fallsAsleep(thread));
        EXPECT_EQ(countOf(&signalThread), 0);
        EXPECT_EQ(passed, 0);
        EXPECT_EQ(atomic_read(&backup.b()->mrInQueue), 1);
        // A later wake-up takes it, one bio for each.
        addMRToQueue(backup.b(), newMR(backup.disk.disk().queue(), seamBio, {1, 0}));
        EXPECT_TRUE(fallsAsleep(thread));
        setBackupState(backup.b(), BACKUP_SNAPPED);
        up(&signalThread);
        EXPECT_TRUE(eventually([] { return passed == 1; }));
        EXPECT_TRUE(fallsAsleep(thread));
        EXPECT_EQ(passed, 1);
        up(&signalThread);
        EXPECT_TRUE(eventually([] { return passed == 2; }));
        EXPECT_TRUE(eventually([&] { return isDrained(backup); }));
        bio_put(seamBio);
    });
}

TEST_F(CacheThread, AKillSignalDoesNotStopIt)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        host::findTask(loadCachePID()).signal(9);
        for (unsigned char i = 1; i <= 10; i++)
            EXPECT_EQ(backup.write(i, 1, i), 0);
        EXPECT_TRUE(eventually([&] { return isDrained(backup); }));
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 10);
        EXPECT_TRUE(host::findTask(loadCachePID()));
        takeLog();
        backup.record.close();
        EXPECT_EQ(takeLog()[0], "<6>backup_cache: backupd thread exiting\n");
        // Wake-ups that its spinning did not use up do no harm.
        BackupRun next(run, {.disk = otherDisk()});
        ASSERT_TRUE(next.begin());
        EXPECT_EQ(next.write(3, 1, 3), 0);
        EXPECT_EQ(atomic_read(&next.b()->totalAllocCPs), 1);
    });
}

} // namespace
