// Change-tracking sessions: one a device, marking the blocks that are written.
#include <cstring>

#include <host/block.h>
#include <host/faults.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/agent.h"
#include "support/backupRun.h"
#include "support/moduleTest.h"
#include "support/testDisk.h"
#include "users.h"

namespace
{

using test::eventually;
using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;

// A record whose device looks started; the device itself need not exist.
void measure(OpenRecord &record, kernel_dev_t kdev, u64 blocks, int blockSize = 4096)
{
    record->diskInfo.kdev = kdev;
    record->diskInfo.numBlocks = blocks;
    record->diskInfo.blockSize = blockSize;
    record->diskInfo.sectorsPerBlock = blockSize >> 9;
    record->diskInfo.sectorsPerBlockShift = __builtin_ctz(blockSize >> 9);
    record->diskInfo.partitionStart = 63;
    record->diskInfo.partitionLen = blocks * (blockSize >> 9);
}

constexpr kernel_dev_t deviceA = 8u << 20 | 1;

std::vector<u32> blocksIn(BlockMap *map)
{
    std::vector<u32> blocks;
    for (u32 bn = 0; bn < map->size; bn++)
        if ((host::pageBytes(map->map[bn >> 15])[(bn & 0x7fff) >> 3] >> (bn & 7) & 1) != 0)
            blocks.push_back(bn);
    return blocks;
}

// A bio on the whole disk 8:0, as the hooks see it, that is never submitted.
class Bio
{
public:
    Bio(sector_t sector, unsigned bytes) : device_(8u << 20, true), bio_(bio_alloc(GFP_NOIO, 1))
    {
        bio_set_bdev(bio_, &device_);
        bio_set_sector(bio_, sector);
        bio_set_size(bio_, bytes);
    }
    ~Bio() { bio_put(bio_); }
    Bio(const Bio &) = delete;
    operator struct bio *() const { return bio_; }

private:
    struct block_device device_;
    struct bio *bio_;
};

// A device of 100 blocks of 4096 bytes from sector 63 on, with a session in sync.
class Tracked
{
public:
    explicit Tracked(u64 blocks = 100, int blockSize = 4096)
    {
        measure(record_, deviceA, blocks, blockSize);
        EXPECT_EQ(newAMS(record_.get(), &ams_), 0);
        setAMSState(ams_, AMS_IN_SYNC);
        takeLog();
    }
    ~Tracked() { closeAMS(record_.get()); }
    Tracked(const Tracked &) = delete;

    AutoMapSession *operator->() const { return ams_; }
    Backup *record() const { return record_.get(); }
    // The blocks that a write marks in an empty map.
    std::vector<u32> marks(sector_t sector, unsigned bytes)
    {
        for (u32 bn : blocksIn(&ams_->map))
            unSetBlock(&ams_->map, bn);
        updateAM(Bio(sector, bytes), 1);
        EXPECT_EQ(atomic_read(&ams_->users), 1);
        return blocksIn(&ams_->map);
    }

private:
    OpenRecord record_;
    AutoMapSession *ams_ = nullptr;
};

using Blocks = std::vector<u32>;

class AutoMapSessions : public test::ModuleTest
{
};
class AutoMapSessionUsers : public test::ModuleSchedulerTest
{
};
INSTANTIATE_SCHEDULERS(AutoMapSessionUsers);

TEST_F(AutoMapSessions, ANewSessionTracksNothingYet)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        measure(record, deviceA, 40000);
        AutoMapSession *ams = nullptr;
        ASSERT_EQ(newAMS(record.get(), &ams), 0);
        EXPECT_EQ(amList[8][1], ams);
        EXPECT_EQ(amsState(ams), 0u);
        EXPECT_EQ(ams->diskInfo.kdev, deviceA);
        EXPECT_EQ(ams->diskInfo.partitionStart, 63u);
        EXPECT_EQ(ams->map.size, 40000u);
        EXPECT_TRUE(blocksIn(&ams->map).empty());
        EXPECT_EQ(atomic_read(&ams->users), 1);
        AMSessionKey zero{};
        EXPECT_EQ(std::memcmp(&ams->sessionKey, &zero, sizeof(zero)), 0);
        EXPECT_EQ(ams->next, nullptr);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 2);
        EXPECT_EQ(takeLog(), Lines());

        updateAM(Bio(63, 4096), 1);
        EXPECT_TRUE(blocksIn(&ams->map).empty());
        EXPECT_EQ(closeAMS(record.get()), 0);
    });
}

TEST_F(AutoMapSessions, TheMapCoversTheLow32BitsOfTheBlockCount)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        measure(record, deviceA, (u64{3} << 32) + 77);
        AutoMapSession *ams = nullptr;
        ASSERT_EQ(newAMS(record.get(), &ams), 0);
        EXPECT_EQ(ams->map.size, 77u);
        EXPECT_EQ(closeAMS(record.get()), 0);
    });
}

TEST_F(AutoMapSessions, WithoutMemoryForTheRecordTheAnswerIs5InSilence)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        measure(record, deviceA, 100);
        AutoMapSession *ams = nullptr;
        host::failNth(host::Fault::kmalloc, 1);
        EXPECT_EQ(newAMS(record.get(), &ams), 5);
        EXPECT_EQ(ams, nullptr);
        EXPECT_EQ(amList[8][1], nullptr);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapSessions, AFailedMapLosesTheRecordAndLeavesTheTable)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        measure(record, deviceA, 100);
        AutoMapSession *ams = nullptr;
        unsigned before = host::memoryUse().kmallocs;
        host::failNth(host::Fault::page, 1);
        EXPECT_EQ(newAMS(record.get(), &ams), 5);
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>newBlockMap: failed allocating page number (0) for block map\n",
                         "<3>newBlockMap: Out of Memory Error.\n",
                         "<3>newAMS: failed to create new device map\n"}));
        record->diskInfo.numBlocks = 0;
        EXPECT_EQ(newAMS(record.get(), &ams), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: block size size=0 invalid\n",
                                    "<3>newAMS: failed to create new device map\n"}));
        EXPECT_EQ(ams, nullptr);
        EXPECT_EQ(amList[8][1], nullptr);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
        EXPECT_EQ(host::memoryUse().kmallocs, before + 2);
        measure(record, 0, 0);
        record.close();
        host::forgiveHeldMemory();
    });
}

TEST_F(AutoMapSessions, ABlockSizeOfZeroStopsTheKernel)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    restart(test::seeded(1));
    EXPECT_DEATH(withModule([](ModuleRun &) {
                     OpenRecord record;
                     measure(record, deviceA, 100);
                     record->diskInfo.blockSize = 0;
                     AutoMapSession *ams = nullptr;
                     newAMS(record.get(), &ams);
                 }),
                 "kernel BUG in .*<2>newAMS: Blocksize set to 0 when making automap\n");
}

TEST_F(AutoMapSessions, DevicesBeyondTheTableHaveNoSession)
{
    withModule([](ModuleRun &) {
        EXPECT_EQ(amListSlot(0, 0), &amList[0][0]);
        EXPECT_EQ(amListSlot(255, 255), &amList[255][255]);
        // Each of these is inside the table's memory, or just behind it.
        for (kernel_dev_t kdev : {8u << 20 | 256, 256u << 20, 4095u << 20 | 0xfffff}) {
            EXPECT_EQ(amListSlot(deviceMajor(kdev), deviceMinor(kdev)), nullptr);
            OpenRecord record;
            measure(record, kdev, 100);
            AutoMapSession *ams = nullptr;
            host::MemoryUse before = host::memoryUse();
            EXPECT_EQ(newAMS(record.get(), &ams), 2);
            EXPECT_EQ(ams, nullptr);
            EXPECT_TRUE(host::memoryUse() == before);
            EXPECT_EQ(getAMS(deviceMajor(kdev), deviceMinor(kdev)), nullptr);
            EXPECT_EQ(closeAMS(record.get()), 2);
            errorAMSDEV(kdev);
            measure(record, 0, 0);
        }
        EXPECT_EQ(atomic_read(&amListUsers), 1);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapSessions, WritesToOtherDevicesAreNotRecorded)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        updateAM(Bio(63, 4096), 2);
        updateAM(Bio(63, 4096), 0);
        updateAM(Bio(63, 4096), 257);
        EXPECT_TRUE(blocksIn(&tracked->map).empty());
        EXPECT_EQ(atomic_read(&amListUsers), 1);
    });
}

TEST_F(AutoMapSessions, AWriteMarksTheBlocksThatItTouches)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        EXPECT_EQ(tracked.marks(63 + 8, 4096), Blocks{1});
        EXPECT_EQ(tracked.marks(63 + 8, 4097), (Blocks{1, 2}));
        EXPECT_EQ(tracked.marks(63 + 15, 512), Blocks{1});
        EXPECT_EQ(tracked.marks(63 + 15, 1024), (Blocks{1, 2}));
        EXPECT_EQ(tracked.marks(63, 16384), (Blocks{0, 1, 2, 3}));
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapSessions, SmallestBlocksAreSectors)
{
    withModule([](ModuleRun &) {
        Tracked tracked(100, 512);
        EXPECT_EQ(tracked.marks(63 + 5, 512), Blocks{5});
        EXPECT_EQ(tracked.marks(63 + 5, 513), (Blocks{5, 6}));
        // Under a sector at the very start counts two.
        EXPECT_EQ(tracked.marks(63, 100), (Blocks{0, 1}));
        EXPECT_EQ(tracked.marks(63 + 5, 100), Blocks{5});
    });
}

TEST_F(AutoMapSessions, AWriteWithoutBytesMarksNothingAtTheStartOfABlock)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        EXPECT_EQ(tracked.marks(63 + 8, 0), Blocks{});
        EXPECT_EQ(tracked.marks(63 + 9, 0), Blocks{1});
        EXPECT_EQ(tracked.marks(63, 0), Blocks{0});
    });
}

TEST_F(AutoMapSessions, AWriteFromBeforeThePartitionCountsFromItsStart)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        EXPECT_EQ(tracked.marks(50, 4096), Blocks{0});
        EXPECT_EQ(tracked.marks(0, 8192), (Blocks{0, 1}));
    });
}

TEST_F(AutoMapSessions, AWriteThatEndsBeyondThePartitionEndsAtItsLastSector)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        // 100 blocks are 800 sectors; the map has no block 100.
        EXPECT_EQ(tracked.marks(63 + 792, 4096), Blocks{99});
        EXPECT_EQ(tracked.marks(63 + 792, 16384), Blocks{99});
        EXPECT_EQ(tracked.marks(63 + 784, 1u << 20), (Blocks{98, 99}));
        EXPECT_EQ(amsState(tracked.operator->()), 1u);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapSessions, AWriteThatEndsOneSectorTooLateIsNotCutAndBreaksTheSession)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        EXPECT_EQ(tracked.marks(63 + 792, 9 * 512), Blocks{99});
        EXPECT_EQ(amsState(tracked.operator->()), 0u);
        EXPECT_EQ(takeLog(), (Lines{"<4>updateAM: device resize detected (block 100 in size 100) "
                                    "in automap update, automap not in sync\n"}));
    });
}

TEST_F(AutoMapSessions, AnEmptyPartitionHasItsFirstBlockOnly)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        tracked->diskInfo.partitionLen = 0;
        EXPECT_EQ(tracked.marks(63, 16384), Blocks{0});
    });
}

TEST_F(AutoMapSessions, EachBlockBeyondTheMapIsToldAndTheRestIsStillMarked)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        tracked->diskInfo.partitionLen = 10000;
        EXPECT_EQ(tracked.marks(63 + 98 * 8, 4 * 4096), (Blocks{98, 99}));
        EXPECT_EQ(takeLog(), (Lines{"<4>updateAM: device resize detected (block 100 in size 100) "
                                    "in automap update, automap not in sync\n",
                                    "<4>updateAM: device resize detected (block 101 in size 100) "
                                    "in automap update, automap not in sync\n"}));
        EXPECT_EQ(amsState(tracked.operator->()), 0u);
        // From here on nothing is recorded.
        EXPECT_EQ(tracked.marks(63, 4096), Blocks{});
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapSessions, ClosingGivesEverythingBack)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        measure(record, deviceA, 70000);
        EXPECT_EQ(closeAMS(record.get()), 2);
        host::MemoryUse before = host::memoryUse();
        AutoMapSession *ams = nullptr;
        ASSERT_EQ(newAMS(record.get(), &ams), 0);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 3);
        EXPECT_EQ(closeAMS(record.get()), 0);
        EXPECT_EQ(amList[8][1], nullptr);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
        EXPECT_TRUE(host::memoryUse() == before);
        // There was no device behind it to unhook.
        EXPECT_EQ(takeLog(), (Lines{"<4>unSetMRFDEV: Unable to get request queue for MAJOR=8, "
                                    "MINOR=1 while unsetting MRF."}));
        EXPECT_EQ(closeAMS(record.get()), 2);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapSessions, ClosingAllVisitsTheWholeTable)
{
    withModule([](ModuleRun &) {
        closeAllAMS();
        EXPECT_EQ(takeLog(), Lines());
        OpenRecord record;
        AutoMapSession *ams = nullptr;
        for (kernel_dev_t kdev : {255u << 20 | 255, 255u << 20, 0u, 8u << 20 | 1}) {
            measure(record, kdev, 100);
            ASSERT_EQ(newAMS(record.get(), &ams), 0);
        }
        closeAllAMS();
        EXPECT_EQ(takeLog(), (Lines{"<4>unSetMRFDEV: Unable to get request queue for MAJOR=0, "
                                    "MINOR=0 while unsetting MRF.",
                                    "<4>unSetMRFDEV: Unable to get request queue for MAJOR=8, "
                                    "MINOR=1 while unsetting MRF.",
                                    "<4>unSetMRFDEV: Unable to get request queue for MAJOR=255, "
                                    "MINOR=0 while unsetting MRF.",
                                    "<4>unSetMRFDEV: Unable to get request queue for MAJOR=255, "
                                    "MINOR=255 while unsetting MRF."}));
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
        measure(record, 0, 0);
    });
}

TEST_F(AutoMapSessions, LookingUpTakesAReference)
{
    withModule([](ModuleRun &) {
        Tracked tracked;
        EXPECT_EQ(getAMS(8, 2), nullptr);
        AutoMapSession *ams = getAMS(8, 1);
        EXPECT_EQ(ams, tracked.operator->());
        EXPECT_EQ(atomic_read(&ams->users), 2);
        EXPECT_EQ(atomic_read(&amListUsers), 1);
        leaveUsers(&ams->users);
        EXPECT_EQ(atomic_read(&ams->users), 1);
    });
}

// Two partitions of one disk, hooked and tracked.
class TwoTracked
{
public:
    TwoTracked()
    {
        for (unsigned p : {1u, 2u}) {
            Backup *b = record(p);
            EXPECT_EQ(getDiskInfo(&b->diskInfo, disk.device(p)), 0);
            b->diskInfo.numBlocks = disk.blocks(p);
            EXPECT_EQ(newAMS(b, &session[p]), 0);
            setAMSState(session[p], AMS_IN_SYNC);
            EXPECT_EQ(setMRF(b, zelMRF), 0);
        }
    }
    ~TwoTracked() { closeAllAMS(); }
    TwoTracked(const TwoTracked &) = delete;

    Backup *record(unsigned p) { return (p == 1 ? first_ : second_).get(); }
    make_request_fn *function() { return disk.disk().queue()->function; }
    bool hooked() { return !host::hookedQueues().empty(); }

    test::TestDisk disk{{.blockSizes = {4096, 4096}}};
    AutoMapSession *session[3] = {};

private:
    OpenRecord first_;
    OpenRecord second_;
};

TEST_F(AutoMapSessions, AFailedBackupLeavesOtherDevicesTracked)
{
    withModule([](ModuleRun &) {
        TwoTracked two;
        errorAMS(two.record(1));
        EXPECT_EQ(amsState(two.session[1]), 0u);
        EXPECT_EQ(amsState(two.session[2]), 1u);
        EXPECT_EQ(two.function(), zelAMRF);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapSessions, AFailedBackupOfTheOnlyTrackedDeviceUnhooksTheQueue)
{
    withModule([](ModuleRun &) {
        TwoTracked two;
        EXPECT_EQ(closeAMS(two.record(2)), 0);
        EXPECT_EQ(two.function(), zelMRF);
        errorAMS(two.record(1));
        EXPECT_EQ(amsState(two.session[1]), 0u);
        EXPECT_FALSE(two.hooked());
        EXPECT_TRUE(list_empty(&queueListHead));
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapSessions, AFailedBackupWithoutASessionLeavesTheOneOther)
{
    withModule([](ModuleRun &) {
        TwoTracked two;
        EXPECT_EQ(closeAMS(two.record(1)), 0);
        EXPECT_EQ(setMRF(two.record(1), zelMRF), 0);
        errorAMS(two.record(1));
        EXPECT_EQ(amsState(two.session[2]), 1u);
        EXPECT_EQ(two.function(), zelAMRF);
    });
}

TEST_F(AutoMapSessions, IfTheQueueCannotBeHookedAgainAllItsSessionsEnd)
{
    withModule([](ModuleRun &) {
        TwoTracked two;
        // The failing device is not registered any more and its queue is about to go.
        unSetMRFDEV(&two.record(1)->diskInfo);
        two.disk.disk().queue()->dead = true;
        errorAMS(two.record(1));
        two.disk.disk().queue()->dead = false;
        EXPECT_EQ(amsState(two.session[1]), 0u);
        EXPECT_EQ(amsState(two.session[2]), 0u);
        EXPECT_FALSE(two.hooked());
        EXPECT_TRUE(list_empty(&queueListHead));
    });
}

TEST_F(AutoMapSessions, ADevicesErrorPutsItsWholeQueueOutOfSync)
{
    withModule([](ModuleRun &) {
        TwoTracked two;
        test::TestDiskOptions options;
        options.disk.major = 9;
        test::TestDisk otherDisk(options);
        OpenRecord other;
        ASSERT_EQ(getDiskInfo(&other->diskInfo, otherDisk.device()), 0);
        other->diskInfo.numBlocks = otherDisk.blocks();
        AutoMapSession *otherSession = nullptr;
        ASSERT_EQ(newAMS(other.get(), &otherSession), 0);
        setAMSState(otherSession, AMS_IN_SYNC);
        ASSERT_EQ(setMRF(other.get(), zelAMRF), 0);

        errorAMSDEV(7u << 20); // not registered
        EXPECT_EQ(amsState(two.session[1]), 1u);
        errorAMSDEV(two.disk.device(2));
        EXPECT_EQ(amsState(two.session[1]), 0u);
        EXPECT_EQ(amsState(two.session[2]), 0u);
        EXPECT_EQ(amsState(otherSession), 1u);
        EXPECT_EQ(two.function(), zelMRF);
        EXPECT_EQ(atomic_read(&queueListUsers), 1);
        EXPECT_EQ(atomic_read(&amListUsers), 1);
        EXPECT_EQ(closeAMS(other.get()), 0);
    });
}

TEST_F(AutoMapSessions, ClosingTheLastSessionOfAQueueUnhooksIt)
{
    withModule([](ModuleRun &) {
        TwoTracked two;
        EXPECT_EQ(closeAMS(two.record(1)), 0);
        EXPECT_TRUE(two.hooked());
        EXPECT_EQ(amsState(two.session[2]), 1u);
        EXPECT_EQ(closeAMS(two.record(2)), 0);
        EXPECT_FALSE(two.hooked());
        EXPECT_TRUE(list_empty(&queueListHead));
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_P(AutoMapSessionUsers, ClosingWaitsForThoseWhoUseTheSession)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        measure(record, deviceA, 100);
        AutoMapSession *ams = nullptr;
        ASSERT_EQ(newAMS(record.get(), &ams), 0);
        ASSERT_EQ(getAMS(8, 1), ams);
        std::atomic<bool> closed{false};
        host::Task closing = host::spawn("closing", [&] {
            EXPECT_EQ(closeAMS(record.get()), 0);
            closed = true;
        });
        EXPECT_TRUE(eventually([] {
            AutoMapSession *found = getAMS(8, 1);
            if (found != nullptr)
                leaveUsers(&found->users);
            return found == nullptr;
        }));
        host::sleepNanoseconds(2'000'000);
        EXPECT_FALSE(closed);
        EXPECT_EQ(setBlock(&ams->map, 5), 0);
        leaveUsers(&ams->users);
        closing.join();
        measure(record, 0, 0);
    });
}

TEST_P(AutoMapSessionUsers, TheTablesWriterWaitsForItsReaders)
{
    withModule([](ModuleRun &) {
        unsigned long entry = spin_lock_irqsave(&amListUsersLock);
        atomic_inc(&amListUsers);
        spin_unlock_irqrestore(&amListUsersLock, entry);
        std::atomic<bool> inside{false};
        host::Task writer = host::spawn("writer", [&] {
            unsigned long flags;
            waitForAMListUsers(&flags);
            inside = true;
            spin_unlock_irqrestore(&amListUsersLock, flags);
        });
        host::sleepNanoseconds(2'000'000);
        EXPECT_FALSE(inside);
        smp_mb();
        atomic_dec(&amListUsers);
        writer.join();
        EXPECT_TRUE(inside);
        EXPECT_EQ(atomic_read(&amListUsers), 1);
    });
}

TEST_P(AutoMapSessionUsers, WritesWhileTheSessionIsClosedAreSafe)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        measure(record, deviceA, 100);
        std::vector<host::Task> writers;
        for (int i = 0; i < 3; i++) {
            writers.push_back(host::spawn("writer", [] {
                for (sector_t sector = 63; sector < 63 + 800; sector += 40)
                    updateAM(Bio(sector, 4096), 1);
            }));
        }
        for (int i = 0; i < 5; i++) {
            AutoMapSession *ams = nullptr;
            ASSERT_EQ(newAMS(record.get(), &ams), 0);
            setAMSState(ams, AMS_IN_SYNC);
            host::yield();
            EXPECT_EQ(closeAMS(record.get()), 0);
        }
        for (host::Task &writer : writers)
            writer.join();
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
        measure(record, 0, 0);
    });
}

} // namespace
