// The cache of blocks as they were at the snapshot.
#include <cstring>
#include <string>

#include <host/faults.h>
#include <host/log.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"

namespace
{

using host::Fault;
using test::AsyncBio;
using test::BackupRun;
using test::eventually;
using test::fallsAsleep;
using test::functionOf;
using test::inMap;
using test::Lines;
using test::MappedBuffer;
using test::ModuleRun;
using test::OpenRecord;
using test::ownFunctionOf;
using test::takeLog;

constexpr unsigned noBlock = 0xffffffff;

class BlockCache : public test::ModuleTest
{
};

// A snapped backup whose blocks the test saves by hand.
class CacheRun : public BackupRun
{
public:
    explicit CacheRun(ModuleRun &run, unsigned blockSize = 1024, unsigned maxCacheBlocks = 1000)
        : BackupRun(run, {.mebibytes = 5, .blockSizes = {blockSize}}) // several blocks a bucket
    {
        EXPECT_TRUE(begin(1, maxCacheBlocks));
        takeLog();
    }
    // Saves a block of this byte, as before a write, and marks it, as after it.
    int save(unsigned block, char fill)
    {
        std::vector<char> data(disk.blockSize(), fill);
        int result = saveBlock(b(), data.data(), block);
        setBlock(&b()->cacheMap, block);
        return result;
    }
    // What the cache gives for a block: its bytes, or nothing.
    std::string read(unsigned block)
    {
        std::string data(disk.blockSize(), '?');
        unsigned size = cacheRead(b(), data.data(), block);
        EXPECT_TRUE(size == 0 || size == disk.blockSize());
        return data.substr(0, size);
    }
    std::string filled(char fill) const { return std::string(disk.blockSize(), fill); }
    // The blocks of one bucket in their order.
    std::vector<unsigned> bucket(unsigned index) const
    {
        std::vector<unsigned> blocks;
        for (CachePage *cp = b()->blockTable[index]->busy; cp != nullptr; cp = cp->next)
            blocks.push_back(cp->blockNum);
        return blocks;
    }
};

using Blocks = std::vector<unsigned>;

/* What has to be saved. */

TEST_F(BlockCache, EveryBlockNotTakenCareOfIsWantedUntilAMapSaysMore)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        Backup *b = cache.b();
        EXPECT_EQ(doWeCacheBlock(b, 3), 1);
        setBlock(&b->cacheMap, 3);
        EXPECT_EQ(doWeCacheBlock(b, 3), 0);
        setBackupState(b, BACKUP_LOADING_MAP);
        EXPECT_EQ(doWeCacheBlock(b, 3), 0);
        EXPECT_EQ(doWeCacheBlock(b, 4), 1);
        setBackupState(b, BACKUP_SNAPPED);
        ASSERT_EQ(cache.load({3, 4}), 0);
        EXPECT_EQ(doWeCacheBlock(b, 3), 0);
        EXPECT_EQ(doWeCacheBlock(b, 4), 1);
        EXPECT_EQ(doWeCacheBlock(b, 5), 0);
    });
}

/* Saving. */

TEST_F(BlockCache, ASavedBlockGoesToTheHeadOfItsBucket)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        EXPECT_EQ(cache.save(5, 'a'), 0);
        EXPECT_EQ(cache.save(4096 + 5, 'b'), 0);
        EXPECT_EQ(cache.save(6, 'c'), 0);
        EXPECT_EQ(cache.bucket(5), (Blocks{4101, 5}));
        EXPECT_EQ(cache.bucket(6), (Blocks{6}));
        EXPECT_EQ(cache.bucket(4), Blocks());
        EXPECT_EQ(cache.read(5), cache.filled('a'));
        EXPECT_EQ(cache.read(4101), cache.filled('b'));
        EXPECT_EQ(cache.read(6), cache.filled('c'));
        EXPECT_EQ(cache.read(7), "");
        Backup *b = cache.b();
        EXPECT_EQ(atomic_read(&b->curAllocCPs), 3);
        EXPECT_EQ(atomic_read(&b->totalAllocCPs), 3);
        EXPECT_EQ(atomic_read(&b->peakAllocCPs), 3);
        EXPECT_EQ(atomic_read(&b->curCBs), 3);
        EXPECT_EQ(atomic_read(&b->totalCBs), 3);
        EXPECT_EQ(atomic_read(&b->totalReadCBs), 3);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(BlockCache, SavingDoesNotMarkTheBlock)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        std::vector<char> data(1024, 'x');
        EXPECT_EQ(saveBlock(cache.b(), data.data(), 9), 0);
        EXPECT_FALSE(inMap(cache.b()->cacheMap, 9));
        EXPECT_EQ(cache.bucket(9), Blocks{9});
    });
}

TEST_F(BlockCache, WhatIsTakenCareOfOrNotWantedIsNotSaved)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        EXPECT_EQ(cache.save(5, 'a'), 0);
        EXPECT_EQ(cache.save(5, 'b'), 0);
        EXPECT_EQ(cache.bucket(5), Blocks{5});
        EXPECT_EQ(cache.read(5), cache.filled('a'));
        ASSERT_EQ(cache.load({5, 7}), 0);
        EXPECT_EQ(cache.save(6, 'c'), 0);
        EXPECT_EQ(cache.bucket(6), Blocks());
        EXPECT_EQ(atomic_read(&cache.b()->totalAllocCPs), 1);
    });
}

TEST_F(BlockCache, ThePeakIsTheMostEverHeld)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        for (unsigned block = 0; block < 4; block++)
            EXPECT_EQ(cache.save(block, 'x'), 0);
        ASSERT_EQ(cache.load({0, 1, 2, 3, 9}), 0);
        EXPECT_EQ(cache.read(0), cache.filled('x'));
        EXPECT_EQ(cache.read(1), cache.filled('x'));
        EXPECT_EQ(cache.save(9, 'y'), 0);
        EXPECT_EQ(atomic_read(&cache.b()->curAllocCPs), 3);
        EXPECT_EQ(atomic_read(&cache.b()->peakAllocCPs), 4);
        EXPECT_EQ(atomic_read(&cache.b()->totalAllocCPs), 5);
    });
}

TEST_F(BlockCache, TheLimitIsReachedExactly)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run, 1024, 2);
        EXPECT_EQ(cache.save(1, 'x'), 0);
        EXPECT_EQ(cache.save(2, 'x'), 0);
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(cache.save(3, 'x'), 1);
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_ERR_CACHE});
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>getCacheBlock: configured max cache memory reached (2 blocks) failed "
                         "to allocate cache object\n"}));
        EXPECT_EQ(cache.bucket(3), Blocks());
        EXPECT_EQ(test::countOf(&cache.b()->blockTable[3]->sem), 1);
    });
}

TEST_F(BlockCache, WithoutMemoryForTheRecord)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        host::clearFaults();
        host::failNth(Fault::cacheAlloc, 1);
        EXPECT_EQ(cache.save(3, 'x'), 1);
        host::clearFaults();
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_ERR_CACHE});
        EXPECT_EQ(takeLog(), (Lines{"<3>getCacheBlock: system out of memory, failed to allocate "
                                    "cache object.\n"}));
        EXPECT_EQ(atomic_read(&cache.b()->curAllocCPs), 0);
    });
}

TEST_F(BlockCache, WithoutMemoryForTheData)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        unsigned before = host::memoryUse().cacheObjects;
        host::clearFaults();
        host::failNth(Fault::cacheAlloc, 2);
        EXPECT_EQ(cache.save(3, 'x'), 1);
        host::clearFaults();
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_ERR_CACHE});
        EXPECT_EQ(takeLog(), (Lines{"<3>getCacheBlock: system out of memory failed to allocate "
                                    "block for write cache\n"}));
        EXPECT_EQ(atomic_read(&cache.b()->curAllocCPs), 0);
        EXPECT_EQ(host::memoryUse().cacheObjects, before);
        EXPECT_EQ(cache.bucket(3), Blocks());
    });
}

TEST_F(BlockCache, ASaveIntoADestroyedCacheStopsTheKernel)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(withModule([](ModuleRun &run) {
                     CacheRun cache(run);
                     cache.b()->cpCache = nullptr;
                     cache.save(3, 'x');
                 }),
                 "kernel BUG in .*<2>getCacheBlock: b->cpCache was destroyed before "
                 "kmem_cache_alloc!\n");
    EXPECT_DEATH(withModule([](ModuleRun &run) {
                     CacheRun cache(run);
                     cache.b()->dataCache = nullptr;
                     cache.save(3, 'x');
                 }),
                 "kernel BUG in .*<2>getCacheBlock: b->dataCache was destroyed before "
                 "kmem_cache_alloc!\n");
}

TEST_F(BlockCache, SavesStartNoIO)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        host::IoPathScope onIoPath;
        EXPECT_EQ(cache.save(3, 'x'), 0);
        cacheBlock(cache.b(), nullptr, 4);
        EXPECT_EQ(cache.bucket(4), Blocks{4});
    });
}

/* Looking up. */

TEST_F(BlockCache, TheListSearchTellsTheEntryBefore)
{
    withModule([](ModuleRun &) {
        CachePage third{nullptr, nullptr, 30};
        CachePage second{&third, nullptr, 20};
        CachePage first{&second, nullptr, 10};
        CachePage untouched{};
        CachePage *prev = &untouched;
        EXPECT_EQ(locateBlockInList(&first, 10, &prev), &first);
        EXPECT_EQ(prev, &untouched);
        EXPECT_EQ(locateBlockInList(&first, 40, &prev), nullptr);
        EXPECT_EQ(prev, &untouched);
        EXPECT_EQ(locateBlockInList(nullptr, 10, &prev), nullptr);
        EXPECT_EQ(prev, &untouched);
        EXPECT_EQ(locateBlockInList(&first, 30, &prev), &third);
        EXPECT_EQ(prev, &second);
        EXPECT_EQ(locateBlockInList(&first, 20, &prev), &second);
        EXPECT_EQ(prev, &first);
    });
}

TEST_F(BlockCache, BeforeTheMapIsLoadedABlockCanBeReadAgain)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        ASSERT_EQ(cache.save(5, 'a'), 0);
        for (int i = 0; i < 2; i++)
            EXPECT_EQ(cache.read(5), cache.filled('a'));
        EXPECT_TRUE(inMap(cache.b()->cacheMap, 5));
        EXPECT_EQ(atomic_read(&cache.b()->totalReadCBs), 2);
    });
}

TEST_F(BlockCache, OnceTheMapIsLoadedABlockIsGivenOnce)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        // First, middle and last of one bucket.
        for (unsigned block : {5u, 4101u})
            ASSERT_EQ(cache.save(block, 'a'), 0);
        ASSERT_EQ(cache.save(6, 'b'), 0);
        ASSERT_EQ(cache.load(), 0);
        EXPECT_EQ(cache.read(5), cache.filled('a'));
        EXPECT_EQ(cache.bucket(5), Blocks{4101});
        EXPECT_EQ(cache.read(5), "");
        EXPECT_FALSE(inMap(cache.b()->cacheMap, 5));
        EXPECT_FALSE(inMap(cache.b()->blockMap, 5));
        EXPECT_TRUE(inMap(cache.b()->cacheMap, 4101));
        EXPECT_TRUE(inMap(cache.b()->blockMap, 4101));
        // A later write to it is not held any more.
        EXPECT_EQ(doWeCacheBlock(cache.b(), 5), 0);
        EXPECT_EQ(cache.read(4101), cache.filled('a'));
        EXPECT_EQ(cache.bucket(5), Blocks());
        EXPECT_EQ(cache.bucket(6), Blocks{6});
        EXPECT_EQ(atomic_read(&cache.b()->curCBs), 1);
        EXPECT_EQ(atomic_read(&cache.b()->curAllocCPs), 1);
    });
}

TEST_F(BlockCache, AHeadIsUnlinkedWithoutItsFollowers)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        for (unsigned block : {5u, 4101u})
            ASSERT_EQ(cache.save(block, 'a'), 0);
        ASSERT_EQ(cache.load(), 0);
        EXPECT_EQ(cache.read(4101), cache.filled('a'));
        EXPECT_EQ(cache.bucket(5), Blocks{5});
    });
}

TEST_F(BlockCache, AfterAnErrorTheCacheGivesAndTakesNothing)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        ASSERT_EQ(cache.save(5, 'a'), 0);
        ASSERT_EQ(cache.load(), 0);
        setBackupState(cache.b(), BACKUP_ERR_READ);
        EXPECT_EQ(cache.read(5), "");
        EXPECT_EQ(anyDirtyBlock(cache.b()), noBlock);
        EXPECT_EQ(cleanUpCache(cache.b()), 0);
        int pages = atomic_read(&cache.b()->totalAllocPages);
        cacheBlock(cache.b(), nullptr, 8);
        EXPECT_EQ(atomic_read(&cache.b()->totalAllocPages), pages);
        EXPECT_EQ(cache.bucket(8), Blocks());
        EXPECT_EQ(cache.bucket(5), Blocks{5});
        EXPECT_EQ(test::countOf(&cache.b()->blockTable[5]->sem), 1);
    });
}

/* Freeing. */

TEST_F(BlockCache, AFreedBlockIsNoLongerTakenCareOf)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        unsigned before = host::memoryUse().cacheObjects;
        for (unsigned block : {5u, 4101u})
            ASSERT_EQ(cache.save(block, 'a'), 0);
        closeList(cache.b(), cache.b()->blockTable[5]->busy);
        cache.b()->blockTable[5]->busy = nullptr;
        EXPECT_FALSE(inMap(cache.b()->cacheMap, 5));
        EXPECT_FALSE(inMap(cache.b()->cacheMap, 4101));
        EXPECT_EQ(atomic_read(&cache.b()->curAllocCPs), 0);
        EXPECT_EQ(atomic_read(&cache.b()->curCBs), 0);
        EXPECT_EQ(atomic_read(&cache.b()->totalCBs), 2);
        EXPECT_EQ(host::memoryUse().cacheObjects, before);
        closeList(cache.b(), nullptr);
    });
}

TEST_F(BlockCache, ALoadedMapDropsWhatItDoesNotWant)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        for (unsigned block : {5u, 4101u, 6u, 7u, 0u})
            ASSERT_EQ(cache.save(block, 'a'), 0);
        ASSERT_EQ(cache.load({5, 7}), 0);
        EXPECT_EQ(cache.bucket(5), Blocks{5});
        EXPECT_EQ(cache.bucket(6), Blocks());
        EXPECT_EQ(cache.bucket(7), Blocks{7});
        EXPECT_EQ(cache.bucket(0), Blocks());
        EXPECT_EQ(atomic_read(&cache.b()->totalCleanedCBs), 3);
        EXPECT_EQ(atomic_read(&cache.b()->curCBs), 2);
        EXPECT_FALSE(inMap(cache.b()->cacheMap, 6));
        EXPECT_TRUE(inMap(cache.b()->cacheMap, 5));
    });
}

TEST_F(BlockCache, RunsOfUnwantedEntriesInOneBucketAllGo)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.mebibytes = 18, .blockSizes = {1024}});
        ASSERT_TRUE(backup.begin());
        std::vector<char> data(1024, 'x');
        for (unsigned block : {1u, 4097u, 8193u, 12289u, 16385u})
            ASSERT_EQ(saveBlock(backup.b(), data.data(), block), 0);
        ASSERT_EQ(backup.load({4097}), 0);
        CachePage *left = backup.b()->blockTable[1]->busy;
        ASSERT_NE(left, nullptr);
        EXPECT_EQ(left->blockNum, 4097u);
        EXPECT_EQ(left->next, nullptr);
        EXPECT_EQ(atomic_read(&backup.b()->totalCleanedCBs), 4);
    });
}

TEST_F(BlockCache, CleaningNeedsTheStateOfALoadedMap)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        ASSERT_EQ(cache.save(5, 'a'), 0);
        EXPECT_EQ(cleanUpCache(cache.b()), 3);
        setBackupState(cache.b(), BACKUP_LOADING_MAP);
        EXPECT_EQ(cleanUpCache(cache.b()), 3);
        setBackupState(cache.b(), BACKUP_ERR_CACHE);
        EXPECT_EQ(cleanUpCache(cache.b()), 0);
        EXPECT_EQ(cache.bucket(5), Blocks{5});
        setBackupState(cache.b(), BACKUP_SNAPPED);
    });
}

// The cache thread finds it while the map's loading waits for the hooks.
TEST_F(BlockCache, AFailureWhileTheMapIsLoadedIsNotForgotten)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        ASSERT_EQ(cache.save(5, 'a'), 0);
        down_read(&cache.b()->writers);
        int result = -1;
        host::Task loader = host::spawn("loader", [&] { result = cache.load(); });
        ASSERT_TRUE(fallsAsleep(loader));
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_LOADING_MAP});
        setBackupState(cache.b(), BACKUP_ERR_READ);
        up_read(&cache.b()->writers);
        loader.join();
        EXPECT_EQ(result, 0);
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_ERR_READ});
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(BlockCache, TheDirtyBlockIsTheNewestOfTheFirstBucket)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        EXPECT_EQ(anyDirtyBlock(cache.b()), noBlock);
        for (unsigned block : {9u, 7u, 4103u, 8u})
            ASSERT_EQ(cache.save(block, 'a'), 0);
        EXPECT_EQ(anyDirtyBlock(cache.b()), 4103u);
        ASSERT_EQ(cache.load(), 0);
        EXPECT_EQ(cache.read(4103), cache.filled('a'));
        EXPECT_EQ(anyDirtyBlock(cache.b()), 7u);
        EXPECT_EQ(cache.read(7), cache.filled('a'));
        EXPECT_EQ(anyDirtyBlock(cache.b()), 8u);
        EXPECT_EQ(cache.read(8), cache.filled('a'));
        EXPECT_EQ(cache.read(9), cache.filled('a'));
        EXPECT_EQ(anyDirtyBlock(cache.b()), noBlock);
        // Counted, but nowhere to be found.
        atomic_inc(&cache.b()->curCBs);
        EXPECT_EQ(anyDirtyBlock(cache.b()), noBlock);
        atomic_dec(&cache.b()->curCBs);
    });
}

/* Reading what a write is about to overwrite. */

TEST_F(BlockCache, ABlockIsReadFromItsPlaceOnTheDisk)
{
    for (unsigned blockSize : {1024u, 2048u, 4096u}) {
        withModule([&](ModuleRun &run) {
            CacheRun cache(run, blockSize);
            auto onDisk = cache.block(77);
            int pages = atomic_read(&cache.b()->totalAllocPages);
            int held = atomic_read(&cache.b()->curAllocPages);
            host::MemoryUse before = host::memoryUse();
            cacheBlock(cache.b(), nullptr, 77);
            EXPECT_EQ(cache.read(77), std::string(onDisk.begin(), onDisk.end()));
            EXPECT_EQ(atomic_read(&cache.b()->totalAllocPages), pages + 1);
            EXPECT_EQ(atomic_read(&cache.b()->curAllocPages), held);
            EXPECT_EQ(atomic_read(&cache.b()->totalAllocBRs), 1);
            EXPECT_EQ(atomic_read(&cache.b()->curAllocBRs), 0);
            before.cacheObjects += 2;
            EXPECT_EQ(host::memoryUse(), before);
            EXPECT_EQ(takeLog(), Lines());
        });
    }
}

TEST_F(BlockCache, WithoutAPageTheBackupIsSpoiledWithoutAWord)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        host::clearFaults();
        host::failNth(Fault::page, 1);
        EXPECT_EQ(cache.write(3, 1, 0x33), 0);
        EXPECT_EQ(host::faultsInjected(Fault::page), 1u);
        host::clearFaults();
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_ERR_CACHE});
        EXPECT_EQ(amsState(cache.session()), unsigned{AMS_NOT_IN_SYNC});
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(cache.block(3), cache.pattern(0x33));
    });
}

TEST_F(BlockCache, BufferHeadsAndBiosAreTriedForUntilTheyCome)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run);
        host::clearFaults();
        host::failNth(Fault::bufferHead, 1, 5);
        host::failNth(Fault::bio, 1, 3);
        EXPECT_EQ(cache.write(3, 1, 0x33), 0);
        EXPECT_EQ(host::faultsInjected(Fault::bufferHead), 5u);
        EXPECT_EQ(host::faultsInjected(Fault::bio), 3u);
        host::clearFaults();
        EXPECT_EQ(cache.bucket(3), Blocks{3});
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(BlockCache, AnUnreadableBlockSpoilsTheBackupAndNotTheWrite)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run, 4096);
        cache.disk.disk().failSectors(cache.disk.start() + 24, 8, true, false);
        struct request_queue *q = cache.disk.disk().queue();
        EXPECT_EQ(cache.write(3, 1, 0x33), 0);
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_ERR_READ});
        Lines lines = takeLog();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[0].find("<4>zelBIOEndIO: IO error, bio="), 0u);
        EXPECT_EQ(lines[1].find("<4>zelBHEndIO: buffer_head I/O error bh="), 0u);
        EXPECT_EQ(lines[2], "<3>cacheBlock: Block read error blockNum=3 MAJOR=8 MINOR=1\n");
        EXPECT_EQ(cache.block(3), cache.pattern(0x33));
        EXPECT_EQ(amsState(cache.session()), unsigned{AMS_NOT_IN_SYNC});
        EXPECT_TRUE(eventually([&] { return functionOf(q) == ownFunctionOf(q); }));
        EXPECT_EQ(atomic_read(&cache.b()->curAllocBRs), 0);
        EXPECT_EQ(cache.bucket(3), Blocks());
    });
}

TEST_F(BlockCache, ABlockThatCannotBeKeptSpoilsTheBackupAndNotTheWrite)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run, 4096, 0);
        EXPECT_EQ(cache.write(3, 1, 0x33), 0);
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_ERR_CACHE});
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>getCacheBlock: configured max cache memory reached (0 blocks) failed "
                         "to allocate cache object\n",
                         "<3>cacheBlock: Error caching blockNum=3 MAJOR=8 MINOR=1\n"}));
        EXPECT_EQ(amsState(cache.session()), unsigned{AMS_NOT_IN_SYNC});
        EXPECT_EQ(cache.block(3), cache.pattern(0x33));
    });
    for (unsigned nth : {1u, 2u}) {
        withModule([&](ModuleRun &run) {
            CacheRun cache(run, 4096);
            host::clearFaults();
            host::failNth(Fault::cacheAlloc, nth);
            EXPECT_EQ(cache.write(3, 1, 0x33), 0);
            host::clearFaults();
            Lines lines = takeLog();
            ASSERT_EQ(lines.size(), 2u);
            EXPECT_EQ(lines[1], "<3>cacheBlock: Error caching blockNum=3 MAJOR=8 MINOR=1\n");
            EXPECT_EQ(amsState(cache.session()), unsigned{AMS_NOT_IN_SYNC});
        });
    }
}

// Every reference on the buffer head is owed to somebody: it is back at zero when it is freed, and
// only after the completion has let go of it. The host kernel reports any other end of it.
TEST_F(BlockCache, BufferHeadsAreFreedWithoutReferences)
{
    forSeeds(30, [](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        EXPECT_EQ(backup.write(3, 4, 0x33), 0);
        EXPECT_TRUE(eventually([&] { return atomic_read(&backup.b()->mrInQueue) == 0; }));
        EXPECT_EQ(host::memoryUse().bufferHeads, 0u);
        EXPECT_EQ(host::memoryUse().bios, 0u);
    });
}

TEST_F(BlockCache, AReadWithoutAQueueFailsInsteadOfHanging)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run, 4096);
        struct gendisk *disk = cache.disk.bdev()->bd_disk.exchange(nullptr);
        cacheBlock(cache.b(), nullptr, 3);
        cache.disk.bdev()->bd_disk = disk;
        EXPECT_EQ(backupState(cache.b()), unsigned{BACKUP_ERR_READ});
        Lines lines = takeLog();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(lines[0], "<3>callRealMRF: Block read error: (bdev queue is null) MAJOR=8 "
                            "MINOR=1\n");
        EXPECT_EQ(lines[2], "<3>cacheBlock: Block read error blockNum=3 MAJOR=8 MINOR=1\n");
        EXPECT_EQ(host::memoryUse().bios, 0u);
        EXPECT_EQ(host::memoryUse().bufferHeads, 0u);
    });
}

/* The two passes of a read. */

TEST_F(BlockCache, SlotsNotLeftToTheDiskAreFilled)
{
    withModule([](ModuleRun &run) {
        CacheRun cache(run, 1024);
        MappedBuffer buffer(cache.record, 2);
        buffer.fill('.');
        for (unsigned block : {10u, 12u, 13u})
            ASSERT_EQ(cache.save(block, static_cast<char>('a' + block - 10)), 0);
        BIORequest request{};
        cache.b()->mmBIORequests[3] = &request; // block 13 is left to the disk
        takeLog();
        EXPECT_EQ(readFromCache(cache.b(), 10, 4, buffer.slot()), 2u);
        EXPECT_EQ(takeLog(), (Lines{"<4>readFromCache: expected to read block number (11) from "
                                    "cache and block not found in cache\n"}));
        EXPECT_EQ(buffer.bytes(0, 1024), cache.pattern('a'));
        EXPECT_EQ(buffer.bytes(1024, 1024), cache.pattern('.'));
        EXPECT_EQ(buffer.bytes(2048, 1024), cache.pattern('c'));
        EXPECT_EQ(buffer.bytes(3072, 1024), cache.pattern('.'));

        readCheckCache(cache.b(), 10, 4, buffer.slot());
        EXPECT_EQ(buffer.bytes(3072, 1024), cache.pattern('d'));
        EXPECT_EQ(buffer.bytes(1024, 1024), cache.pattern('.'));
        EXPECT_EQ(takeLog(), Lines());
        cache.b()->mmBIORequests[3] = nullptr;
    });
}

/* Tear-down. */

TEST_F(BlockCache, TheTearDownWaitsForUsersOfTheCache)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        Backup *b = backup.b();
        down_read(&b->cacheUsers);
        host::Task closer = backup.closeInTask();
        EXPECT_TRUE(eventually([&] { return loadCachePID() == 0; }));
        EXPECT_TRUE(fallsAsleep(closer));
        EXPECT_NE(b->cpCache, nullptr);
        up_read(&b->cacheUsers);
        closer.join();
    });
}

} // namespace
