// Starting a backup: what it builds, in which order it fails, and who may start one.
#include <algorithm>
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
using test::BareFs;
using test::countOf;
using test::eventually;
using test::fallsAsleep;
using test::functionOf;
using test::inMap;
using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::ownFunctionOf;
using test::startBackup;
using test::stateOf;
using test::takeLog;

const std::string started = "<6>ioctlStartBackup: backup started for device major=8 minor=1\n";
const std::string threadStarted = "<6>backup_cache: kbackupd thread started\n";
const std::string threadExiting = "<6>backup_cache: backupd thread exiting\n";
const std::string finished = "<6>closeBackup: backup finished device major=8 minor=1\n";
const std::string rejected = "<3>ioctlStartBackup: another backup operation is open can't start "
                             "backup on device major=8 minor=1\n";

class BackupStart : public test::ModuleTest
{
};

TEST_F(BackupStart, AStartedBackupIsPublished)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        EXPECT_EQ(loadActiveSession(), nullptr);
        EXPECT_EQ(busy, 0);
        EXPECT_EQ(backup.start(1, 123), 0);
        EXPECT_EQ(takeLog(), (Lines{threadStarted, started}));
        Backup *b = backup.b();
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(loadActiveSession(), b);
        EXPECT_EQ(busy, 1);
        EXPECT_EQ(b->maxCacheBlocks, 123u);
        EXPECT_EQ(b->diskInfo.numBlocks, backup.disk.blocks());
        EXPECT_EQ(b->diskInfo.kdev, backup.disk.device());
        EXPECT_EQ(b->diskInfo.realMRF, ownFunctionOf(backup.disk.disk().queue()));
        EXPECT_EQ(b->startedCacheThread, 1);
        EXPECT_GT(loadCachePID(), 0);
        EXPECT_EQ(atomic_read(&backup_cacheThreadContinue), 1);
        // The queue is hooked by the snapshot, not here.
        EXPECT_EQ(functionOf(backup.disk.disk().queue()),
                  ownFunctionOf(backup.disk.disk().queue()));
    });
}

TEST_F(BackupStart, TheCacheIsBuiltEmpty)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        Backup *b = backup.b();
        ASSERT_NE(b->blockTable, nullptr);
        for (unsigned i = 0; i < 4096; i++) {
            ASSERT_NE(b->blockTable[i], nullptr);
            ASSERT_EQ(b->blockTable[i]->busy, nullptr);
            ASSERT_EQ(countOf(&b->blockTable[i]->sem), 1);
        }
        EXPECT_EQ(b->cacheMap.size, backup.disk.blocks());
        EXPECT_EQ(b->blockMap.map, nullptr);
        for (unsigned block = 0; block < backup.disk.blocks(); block++)
            ASSERT_FALSE(inMap(b->cacheMap, block));
        unsigned pages = numPagesInBlockMap(backup.disk.blocks());
        EXPECT_EQ(atomic_read(&b->totalAllocPages), static_cast<int>(pages));
        EXPECT_EQ(atomic_read(&b->curAllocPages), static_cast<int>(pages));
        ASSERT_NE(b->mmBIORequests, nullptr);
        for (unsigned i = 0; i < 256; i++)
            EXPECT_EQ(b->mmBIORequests[i], nullptr);
        EXPECT_EQ(host::memoryUse().caches, 3u);
        EXPECT_EQ(host::memoryUse().cacheObjects, 4096u);
        EXPECT_EQ(host::memoryUse().vmallocs, 3u);
    });
}

struct MappingLimit {
    unsigned blockSize;
    int pages;
};

TEST_F(BackupStart, AMappingTakes256BlocksAndAtMost256Pages)
{
    withModule([](ModuleRun &run) {
        for (const MappingLimit &limit :
             {MappingLimit{512, 32}, {1024, 64}, {2048, 128}, {4096, 256}}) {
            BackupRun backup(run, {.blockSizes = {limit.blockSize}});
            ASSERT_EQ(backup.start(), 0);
            EXPECT_EQ(backup.b()->maxVMPages, limit.pages);
        }
    });
}

TEST_F(BackupStart, CachesAreNamedAfterTheDevice)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        EXPECT_STREQ(backup.b()->htCacheName, "zelHT0801");
        EXPECT_STREQ(backup.b()->cpCacheName, "zelCP0801");
        EXPECT_STREQ(backup.b()->dataCacheName, "zelDC0801");
    });
    withModule([](ModuleRun &) {
        host::DiskOptions options;
        options.major = 0xbcd;
        options.firstMinor = 0xa5e7f;
        auto disk = host::Disk::attach(4096, options);
        ASSERT_TRUE(disk->partition({{1, 63, 4000}}));
        host::Mount mount(disk->device(1), std::make_shared<BareFs>(4096));
        OpenRecord record;
        ASSERT_EQ(startBackup(record, disk->device(1), 500, 0), 0);
        EXPECT_STREQ(record->htCacheName, "zelHTbcda5e80");
        EXPECT_STREQ(record->cpCacheName, "zelCPbcda5e80");
        EXPECT_STREQ(record->dataCacheName, "zelDCbcda5e80");
    });
}

TEST_F(BackupStart, ACachedBlocksRecordGrowsWithTheBlocksOfAPage)
{
    withModule([](ModuleRun &run) {
        for (unsigned blockSize : {4096u, 2048u, 1024u}) {
            BackupRun backup(run, {.blockSizes = {blockSize}});
            ASSERT_EQ(backup.start(), 0);
            std::size_t record = std::max(8 + 4 * (4096 / blockSize), unsigned{sizeof(CachePage)});
            for (std::size_t size : {sizeof(HashTable), record, std::size_t{blockSize}}) {
                std::string text = "slab cache of objects of " + std::to_string(size) + " bytes";
                unsigned found = 0;
                for (const std::string &held : host::memoryHeld())
                    found += held.find(text) == 0;
                EXPECT_EQ(found, 1u) << text;
            }
        }
    });
}

/* Who may start. */

TEST_F(BackupStart, OnlyOneBackupCanBeStarted)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {4096, 4096}});
        ASSERT_EQ(backup.start(), 0);
        OpenRecord second;
        takeLog();
        EXPECT_EQ(startBackup(second, backup.disk.device(2), 100, 10), 9);
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>ioctlStartBackup: another backup operation is open can't start backup "
                         "on device major=8 minor=2\n"}));
        EXPECT_EQ(backupState(second.get()), unsigned{BACKUP_REJECTED});
        EXPECT_EQ(second->diskInfo.kdev, 0u);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        second.close();
        EXPECT_EQ(busy, 1);
        EXPECT_EQ(loadActiveSession(), nullptr);
        OpenRecord third;
        EXPECT_EQ(startBackup(third, backup.disk.device(2), 100, 10), 9);
    });
}

TEST_F(BackupStart, ASecondStartOnTheOwnersRecordRejectsIt)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        takeLog();
        EXPECT_EQ(backup.start(), 9);
        EXPECT_EQ(takeLog(), Lines{rejected});
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_REJECTED});
        EXPECT_EQ(loadActiveSession(), backup.b());
        // Nothing is held any more.
        EXPECT_EQ(backup.write(3, 1, 0x33), 0);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocCPs), 0);
        backup.record.close();
        EXPECT_EQ(busy, 1);
        EXPECT_EQ(loadActiveSession(), nullptr);
        // It takes the closing of another record to end that.
        OpenRecord next;
        EXPECT_EQ(startBackup(next, backup.disk.device(), backup.disk.blocks(), 10), 9);
        next.close();
        EXPECT_EQ(busy, 1);
        OpenRecord idle;
        idle.close();
        EXPECT_EQ(busy, 0);
        OpenRecord last;
        EXPECT_EQ(startBackup(last, backup.disk.device(), backup.disk.blocks(), 10), 0);
    });
}

TEST_F(BackupStart, ClosingAnIdleRecordLetsTheOwnerFindItselfBusy)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        OpenRecord idle;
        takeLog();
        idle.close();
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(busy, 0);
        EXPECT_EQ(loadActiveSession(), nullptr);
        EXPECT_EQ(backup.start(), 11);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlStartBackup: tried to start backup on device major=8 "
                                    "minor=1 that is already busy\n"}));
        EXPECT_EQ(busy, 1);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
    });
}

TEST_F(BackupStart, RejectionDoesNotWaitForTheRecordsCommands)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        down(&backup.b()->bSem);
        EXPECT_EQ(backup.start(), 9);
        up(&backup.b()->bSem);
    });
}

/* Failures. */

TEST_F(BackupStart, ADeviceThatCannotBeMeasuredKeepsTheModuleBusy)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.mounted = false});
        takeLog();
        EXPECT_EQ(backup.start(), 8);
        EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=8 minor=1 not found, getting "
                                    "super block failed\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_IDLE});
        EXPECT_EQ(busy, 1);
        EXPECT_EQ(backup.start(), 9);
        OpenRecord other;
        EXPECT_EQ(startBackup(other, backup.disk.device(), 10, 10), 9);
        other.close();
        EXPECT_EQ(busy, 1);
    });
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.mounted = false});
        EXPECT_EQ(backup.start(), 8);
        takeLog();
        backup.record.close();
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_EQ(busy, 0);
        EXPECT_EQ(loadActiveSession(), nullptr);
    });
}

struct FailedStart {
    const char *what;
    Fault fault;
    unsigned nth;
    int result;
    Lines messages;
    bool threadRan; // and was stopped by the close
};

const FailedStart failedStarts[] = {
    {"cache of buckets",
     Fault::cacheCreate,
     1,
     5,
     {"<3>newBlockTable: kmem_cache_create failed for HashTable structs during backup start "
      "major=8 minor=1\n"},
     false},
    {"table of buckets", Fault::vmalloc, 1, 5, {}, false},
    {"first bucket", Fault::cacheAlloc, 1, 5, {}, false},
    {"bucket in the middle", Fault::cacheAlloc, 2000, 5, {}, false},
    {"last bucket", Fault::cacheAlloc, 4096, 5, {}, false},
    {"cache of records",
     Fault::cacheCreate,
     2,
     5,
     {threadStarted,
      "<3>ioctlStartBackup: kmem_cache_create failed during backup start major=8 minor=1\n"},
     true},
    {"cache of blocks",
     Fault::cacheCreate,
     3,
     5,
     {threadStarted,
      "<3>ioctlStartBackup: kmem_cache_create failed during backup start major=8 minor=1\n"},
     true},
    {"cache map's pages",
     Fault::page,
     1,
     5,
     {threadStarted, "<3>newBlockMap: failed allocating page number (0) for block map\n",
      "<3>newBlockMap: Out of Memory Error.\n",
      "<3>newCacheMap: error creating cache map of size=2039\n"},
     true},
    {"cache map's array",
     Fault::vmalloc,
     2,
     5,
     {threadStarted,
      "<3>newBlockMap: failed allocating (" + std::to_string(sizeof(void *)) +
          ") bytes of memory for block map page array\n",
      "<3>newCacheMap: error creating cache map of size=2039\n"},
     true},
    {"table of requests", Fault::vmalloc, 3, 5, {threadStarted}, true},
};

TEST_F(BackupStart, AFailureKeepsWhatThereIsForTheClose)
{
    for (const FailedStart &c : failedStarts) {
        SCOPED_TRACE(c.what);
        withModule([&](ModuleRun &run) {
            BackupRun backup(run);
            backup.record.close();
            host::MemoryUse before = host::memoryUse();
            OpenRecord record;
            takeLog();
            host::clearFaults();
            host::failNth(c.fault, c.nth);
            EXPECT_EQ(startBackup(record, backup.disk.device(), 2039, 10), c.result);
            EXPECT_EQ(host::faultsInjected(c.fault), 1u);
            host::clearFaults();
            EXPECT_EQ(takeLog(), c.messages);
            EXPECT_EQ(backupState(record.get()), unsigned{BACKUP_STARTING});
            EXPECT_EQ(busy, 1);
            EXPECT_EQ(loadActiveSession(), nullptr);
            EXPECT_EQ(record->startedCacheThread, c.threadRan ? 1 : 0);

            record.close();
            Lines lines = takeLog();
            ASSERT_EQ(lines.size(), c.threadRan ? 28u : 27u);
            if (c.threadRan) {
                EXPECT_EQ(lines[0], threadExiting);
            }
            EXPECT_EQ(lines[c.threadRan ? 2 : 1], "<6>printStats: state: 7\n");
            EXPECT_EQ(lines.back(), finished);
            EXPECT_EQ(busy, 0);
            EXPECT_EQ(host::memoryUse(), before);
        });
    }
}

TEST_F(BackupStart, ACacheMapOfNoBlocksIsRefused)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        takeLog();
        EXPECT_EQ(startBackup(backup.record, backup.disk.device(), 0, 10), 2);
        EXPECT_EQ(takeLog(), (Lines{threadStarted, "<3>newBlockMap: block size size=0 invalid\n",
                                    "<3>newCacheMap: error creating cache map of size=0\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTING});
    });
}

TEST_F(BackupStart, AThreadThatCannotStartKeepsTheWakeUp)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        EXPECT_EQ(countOf(&signalThread), 1);
        takeLog();
        host::clearFaults();
        host::failNth(Fault::kernelThread, 1);
        int result = backup.start();
        EXPECT_LT(result, 0);
        host::clearFaults();
        EXPECT_EQ(takeLog(), (Lines{"<3>startWorkQueue: error starting cache thread\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTING});
        EXPECT_EQ(loadCachePID(), result);
        EXPECT_EQ(backup.b()->startedCacheThread, 0);
        EXPECT_EQ(countOf(&signalThread), 0);
        EXPECT_EQ(countOf(&cacheThreadOwner), 1);
        backup.record.close();
        EXPECT_EQ(takeLog().back(), finished);
        EXPECT_EQ(loadCachePID(), result);
        EXPECT_EQ(countOf(&signalThread), 0);
        EXPECT_EQ(busy, 0);
    });
}

TEST_F(BackupStart, AQueueWithoutARealFunctionIsRefused)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        struct gendisk *disk = backup.disk.bdev()->bd_disk;
        struct request_queue *q = std::exchange(disk->queue, nullptr);
        takeLog();
        EXPECT_EQ(backup.start(), 1);
        EXPECT_EQ(takeLog(),
                  (Lines{threadStarted, "<4>getRealMRF: Can't get MRF on NULL queue.\n",
                         "<3>ioctlStartBackup: error getting real MRF for major=8 minor=1\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTING});
        // The registry was left without having been entered.
        EXPECT_EQ(atomic_read(&queueListUsers), 0);
        disk->queue = q;
    });
}

// Every allocation of a start that fails, one after the other.
TEST_F(BackupStart, NoFailureLosesMemory)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        backup.record.close();
        host::MemoryUse before = host::memoryUse();
        for (Fault fault : {Fault::kmalloc, Fault::page, Fault::vmalloc, Fault::cacheCreate}) {
            for (unsigned nth = 1;; nth++) {
                OpenRecord record;
                host::clearFaults();
                host::failNth(fault, nth);
                int result = startBackup(record, backup.disk.device(), backup.disk.blocks(), 10);
                bool injected = host::faultsInjected(fault) != 0;
                host::clearFaults();
                EXPECT_EQ(result, injected ? 5 : 0) << host::faultName(fault) << " " << nth;
                record.close();
                EXPECT_EQ(host::memoryUse(), before) << host::faultName(fault) << " " << nth;
                EXPECT_EQ(busy, 0);
                if (!injected)
                    break;
            }
        }
    });
}

/* Starts and stops of the thread. */

// A third record may start while the old thread is still there: closing an idle one allows it.
TEST_F(BackupStart, AStartWaitsUntilTheOldThreadHasStopped)
{
    forSeeds(40, [](ModuleRun &run) {
        BackupRun backup(run);
        OpenRecord idle;
        OpenRecord third;
        ASSERT_EQ(backup.start(), 0);
        int oldThread = loadCachePID();
        idle.close();
        int result = -1;
        host::Task starter = host::spawn("starter", [&] {
            result = startBackup(third, backup.disk.device(), backup.disk.blocks(), 1u << 20);
        });
        ASSERT_TRUE(fallsAsleep(starter));
        EXPECT_EQ(loadCachePID(), oldThread);
        EXPECT_EQ(backupState(third.get()), unsigned{BACKUP_STARTING});
        host::Task closer = backup.closeInTask();
        starter.join();
        closer.join();
        EXPECT_EQ(result, 0);
        EXPECT_GT(loadCachePID(), 0);
        EXPECT_NE(loadCachePID(), oldThread);
        EXPECT_FALSE(host::findTask(oldThread));
        EXPECT_TRUE(host::findTask(loadCachePID()));
        EXPECT_TRUE(fallsAsleep(host::findTask(loadCachePID())));
        EXPECT_EQ(countOf(&signalThread), 0);
        third.close();
        EXPECT_EQ(loadCachePID(), 0);
        EXPECT_EQ(countOf(&signalThread), 1);
        EXPECT_EQ(countOf(&cacheThreadOwner), 1);
    });
}

TEST_F(BackupStart, ManyRecordsAfterOneAnotherAllWork)
{
    forSeeds(10, [](ModuleRun &run) {
        BackupRun backup(run);
        for (unsigned char i = 1; i <= 4; i++) {
            OpenRecord record;
            ASSERT_EQ(startBackup(record, backup.disk.device(), backup.disk.blocks(), 1u << 20), 0);
            ASSERT_EQ(ioctlNoLoadFromAutoMap(record.get()), 0);
            AMSessionKey key{};
            ASSERT_EQ(
                ioctlSnapShot(record.get(), run.user<AMSessionKey>(run.put(&key, sizeof(key))), 56),
                0);
            EXPECT_EQ(backup.write(i, 1, i), 0);
            EXPECT_EQ(atomic_read(&record->totalAllocCPs), 1);
            EXPECT_EQ(backup.block(i), backup.pattern(i));
        }
    });
}

} // namespace
