// Reading blocks from the disk, one bio each.
#include <algorithm>
#include <cstring>
#include <set>
#include <string>

#include <host/faults.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"

namespace
{

using host::Fault;
using test::BackupRun;
using test::eventually;
using test::fallsAsleep;
using test::inMap;
using test::Lines;
using test::MappedBuffer;
using test::ModuleRun;
using test::OpenRecord;
using test::pointerText;
using test::takeLog;

class BlockReader : public test::ModuleTest
{
};

/* The table of requests. */

TEST_F(BlockReader, TheTableHoldsTheBlocksOfTheLargestMapping)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        Backup *b = record.get();
        struct Case {
            unsigned blocksPerPage;
            int pages;
        };
        for (const Case &c : {Case{1, 256}, Case{4, 64}, Case{2, 3}}) {
            b->diskInfo.blocksPerPage = c.blocksPerPage;
            b->maxVMPages = c.pages;
            ASSERT_EQ(allocateBlockRequests(b), 0);
            unsigned entries = c.blocksPerPage * static_cast<unsigned>(c.pages);
            std::string text =
                "vmalloc of " + std::to_string(entries * sizeof(BIORequest *)) + " bytes";
            Lines held = host::memoryHeld();
            EXPECT_EQ(std::count_if(held.begin(), held.end(),
                                    [&](const std::string &h) { return h.find(text) == 0; }),
                      1)
                << text;
            for (unsigned i = 0; i < entries; i++)
                EXPECT_EQ(isRequestSubmitted(b, static_cast<int>(i)), 0);
            freeMMBRs(b);
            EXPECT_EQ(b->mmBIORequests, nullptr);
            EXPECT_EQ(host::memoryUse().vmallocs, 0u);
            freeMMBRs(b);
        }
        host::clearFaults();
        host::failNth(Fault::vmalloc, 1);
        EXPECT_EQ(allocateBlockRequests(b), 5);
        host::clearFaults();
        EXPECT_EQ(takeLog(), Lines());
        host::MemoryUse before = host::memoryUse();
        allocateBRCache(b);
        closeBRCache(b);
        EXPECT_EQ(host::memoryUse(), before);
    });
}

/* One read. */

TEST_F(BlockReader, ABufferHeadDescribesItsBlock)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {1024}});
        ASSERT_EQ(backup.start(), 0);
        struct page *page = alloc_pages(GFP_NOIO, 0);
        struct buffer_head *bh = allocBH();
        initBH(backup.b(), bh, page, 2048, 77);
        EXPECT_EQ(bh_blocknr(bh), 77u);
        EXPECT_EQ(bh_bdev(bh), backup.disk.bdev());
        EXPECT_EQ(bh_page(bh), page);
        EXPECT_EQ(bh_data(bh), static_cast<char *>(page_address(page)) + 2048);
        EXPECT_EQ(bh_end_io(bh), zelBHEndIO);
        EXPECT_EQ(bh->b_state, 1u << 2 | 1u << 3 | 1u << 5);
        EXPECT_EQ(bh_size(bh), 1024u);
        // The owner's reference and the completion's.
        EXPECT_EQ(bh_count(bh), 2);

        struct bio *bio = allocBIO();
        initBIO(backup.b(), bio, bh);
        EXPECT_EQ(bio_bdev(bio), backup.disk.bdev());
        EXPECT_EQ(bio_sector(bio), 77u * 2 + backup.disk.start());
        EXPECT_EQ(bio_vcnt(bio), 1);
        EXPECT_EQ(bio->bi_idx, 0);
        EXPECT_EQ(bio_size(bio), 1024u);
        EXPECT_EQ(bio_vec_page(bio, 0), page);
        EXPECT_EQ(bio_vec_length(bio, 0), 1024u);
        EXPECT_EQ(bio_vec_offset(bio, 0), 2048u);
        EXPECT_EQ(bio_private(bio), bh);
        EXPECT_EQ(bio->bi_end_io, zelBIOEndIO);
        EXPECT_EQ(bio->bi_cnt, 2);

        bio_put(bio);
        bio_put(bio);
        zelBHEndIO(bh, 1);
        releaseBH(bh);
        __free_pages(page, 0);
    });
}

TEST_F(BlockReader, SectorsHave64Bits)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        struct page *page = alloc_pages(GFP_NOIO, 0);
        struct buffer_head *bh = allocBH();
        initBH(backup.b(), bh, page, 0, 0xfffffff0);
        struct bio *bio = allocBIO();
        initBIO(backup.b(), bio, bh);
        EXPECT_EQ(bio_sector(bio), 0x7'ffff'ff80 + backup.disk.start());
        bio_put(bio);
        bio_put(bio);
        zelBHEndIO(bh, 1);
        releaseBH(bh);
        __free_pages(page, 0);
    });
}

TEST_F(BlockReader, TheEndOfAReadIsMarkedInItsBufferHead)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        struct page *page = alloc_pages(GFP_NOIO, 0);
        for (int uptodate : {1, 0}) {
            struct buffer_head *bh = allocBH();
            initBH(backup.b(), bh, page, 0, 5);
            std::atomic<bool> woken{false};
            host::Task waiter = host::spawn("waiter", [&] {
                wait_on_buffer(bh);
                woken = true;
            });
            EXPECT_TRUE(fallsAsleep(waiter));
            EXPECT_FALSE(woken);
            takeLog();
            host::runInInterrupt([&] { zelBHEndIO(bh, uptodate); });
            waiter.join();
            EXPECT_EQ(buffer_uptodate(bh) != 0, uptodate == 1);
            EXPECT_EQ(bh_count(bh), 1);
            Lines expected;
            if (uptodate == 0)
                expected = {"<4>zelBHEndIO: buffer_head I/O error bh=" +
                            pointerText(reinterpret_cast<std::uintptr_t>(bh)) +
                            ", major=8, minor=1, block=5\n"};
            EXPECT_EQ(takeLog(), expected);
            releaseBH(bh);
        }
        __free_pages(page, 0);
    });
}

TEST_F(BlockReader, AFailedBioSaysWhereItFailed)
{
    withModule([](ModuleRun &run) {
        for (int error : {-KERNEL_EIO, -KERNEL_EOPNOTSUPP}) {
            BackupRun backup(run);
            ASSERT_EQ(backup.start(), 0);
            struct page *page = alloc_pages(GFP_NOIO, 0);
            struct buffer_head *bh = allocBH();
            struct bio *bio = allocBIO();
            initBH(backup.b(), bh, page, 0, 5);
            initBIO(backup.b(), bio, bh);
            bio->uptodate = false;
            takeLog();
            host::runInInterrupt([&] { zelBIOEndIO(bio, error); });
            EXPECT_EQ(takeLog(), (Lines{"<4>zelBIOEndIO: IO error, bio=" +
                                            pointerText(reinterpret_cast<std::uintptr_t>(bio)) +
                                            ", major=8, sector=" +
                                            std::to_string(backup.disk.start() + 40) + "\n",
                                        "<4>zelBHEndIO: buffer_head I/O error bh=" +
                                            pointerText(reinterpret_cast<std::uintptr_t>(bh)) +
                                            ", major=8, minor=1, block=5\n"}));
            constexpr unsigned long notSupported = 1u << 13;
            EXPECT_EQ(bio->eopnotsupp, error == -KERNEL_EOPNOTSUPP);
            EXPECT_EQ((bh->b_state & notSupported) != 0, error == -KERNEL_EOPNOTSUPP);
            EXPECT_EQ(bio->bi_cnt, 1);
            bio_put(bio);
            releaseBH(bh);
            __free_pages(page, 0);
        }
    });
}

TEST_F(BlockReader, TheFlagAndNotTheErrorSaysWhetherABioIsWhole)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        struct page *page = alloc_pages(GFP_NOIO, 0);
        takeLog();
        for (bool whole : {true, false}) {
            struct buffer_head *bh = allocBH();
            struct bio *bio = allocBIO();
            initBH(backup.b(), bh, page, 0, 5);
            initBIO(backup.b(), bio, bh);
            bio->uptodate = whole;
            host::runInInterrupt([&] { zelBIOEndIO(bio, whole ? -KERNEL_EIO : 0); });
            EXPECT_EQ(buffer_uptodate(bh) != 0, whole);
            EXPECT_EQ(takeLog().size(), whole ? 0u : 2u);
            bio_put(bio);
            releaseBH(bh);
        }
        __free_pages(page, 0);
    });
}

// The completion unlocks before it drops its reference: whoever is woken must not free it between.
TEST_F(BlockReader, ABufferHeadIsNotFreedUnderItsCompletion)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        struct page *page = alloc_pages(GFP_NOIO, 0);
        struct buffer_head *bh = allocBH();
        initBH(backup.b(), bh, page, 0, 5);
        set_buffer_uptodate(bh);
        unlock_buffer(bh);
        std::atomic<bool> released{false};
        host::Task owner = host::spawn("owner", [&] {
            releaseBH(bh);
            released = true;
        });
        for (int i = 0; i < 100; i++)
            host::sleepNanoseconds(10'000);
        EXPECT_FALSE(released);
        put_bh(bh);
        owner.join();
        EXPECT_EQ(host::memoryUse().bufferHeads, 0u);
        __free_pages(page, 0);
    });
}

/* Runs of blocks. */

// The module's reads as the disk got them: sector from the partition's start, bytes.
using Reads = std::vector<std::pair<std::uint64_t, std::uint32_t>>;

class ReadTrace
{
public:
    explicit ReadTrace(BackupRun &backup) : backup_(backup)
    {
        backup.disk.disk().observe(
            [this](struct bio *bio, std::uint64_t sector, std::uint32_t bytes, bool write) {
                if (!write && bio->ofModule)
                    reads_.push_back({sector - backup_.disk.start(), bytes});
            });
    }
    ~ReadTrace() { backup_.disk.disk().observe({}); }
    ReadTrace(const ReadTrace &) = delete;
    const Reads &reads() const { return reads_; }

private:
    BackupRun &backup_;
    Reads reads_;
};

TEST_F(BlockReader, BlocksSmallerThanAPageShareIt)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {1024}});
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 2);
        buffer.fill('.');
        ReadTrace trace(backup);
        ASSERT_EQ(readBlocks(backup.b(), 20, 7, buffer.slot()), 7u);
        EXPECT_EQ(trace.reads(), (Reads{{40, 1024},
                                        {42, 1024},
                                        {44, 1024},
                                        {46, 1024},
                                        {48, 1024},
                                        {50, 1024},
                                        {52, 1024}}));
        for (unsigned i = 0; i < 7; i++)
            EXPECT_EQ(isRequestSubmitted(backup.b(), static_cast<int>(i)), 1);
        EXPECT_EQ(isRequestSubmitted(backup.b(), 7), 0);
        EXPECT_EQ(waitForSubmitted(backup.b(), 20, 7), 0);
        for (unsigned i = 0; i < 7; i++)
            EXPECT_EQ(buffer.bytes(i * 1024, 1024), backup.block(20 + i)) << i;
        EXPECT_EQ(buffer.bytes(7 * 1024, 1024), backup.pattern('.'));
        EXPECT_EQ(atomic_read(&backup.b()->totalReadBlocks), 7);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocBRs), 7);
        EXPECT_EQ(atomic_read(&backup.b()->curAllocBRs), 7);
        freeSubmitted(backup.b(), 7);
        EXPECT_EQ(atomic_read(&backup.b()->curAllocBRs), 0);
        EXPECT_EQ(atomic_read(&backup.b()->totalAllocBRs), 7);
        for (unsigned i = 0; i < 7; i++)
            EXPECT_EQ(isRequestSubmitted(backup.b(), static_cast<int>(i)), 0);
        EXPECT_EQ(host::memoryUse().bios, 0u);
        EXPECT_EQ(host::memoryUse().bufferHeads, 0u);
    });
}

TEST_F(BlockReader, AllReadsAreUnderWayBeforeOneIsWaitedFor)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.mebibytes = 2});
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 256);
        backup.holdModuleReads();
        ASSERT_EQ(readBlocks(backup.b(), 0, 256, buffer.slot()), 256u);
        EXPECT_EQ(backup.disk.disk().heldCount(), 256u);
        int result = -1;
        host::Task waiter =
            host::spawn("waiter", [&] { result = waitForSubmitted(backup.b(), 0, 256); });
        EXPECT_TRUE(fallsAsleep(waiter));
        backup.disk.disk().release();
        waiter.join();
        EXPECT_EQ(result, 0);
        freeSubmitted(backup.b(), 256);
        for (unsigned i = 0; i < 256; i += 51)
            EXPECT_EQ(buffer.bytes(i * 4096, 4096), backup.block(i));
    });
}

TEST_F(BlockReader, BlocksInTheCacheAreLeftToIt)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 8);
        EXPECT_EQ(backup.write(10, 2, 0x11), 0);
        ASSERT_TRUE(eventually([&] { return atomic_read(&backup.b()->mrInQueue) == 0; }));
        ReadTrace trace(backup);
        EXPECT_EQ(readBlocks(backup.b(), 10, 2, buffer.slot()), 0u);
        EXPECT_EQ(trace.reads(), Reads());
        EXPECT_EQ(waitForSubmitted(backup.b(), 10, 2), 0);
        freeSubmitted(backup.b(), 2);
        EXPECT_EQ(readBlocks(backup.b(), 9, 4, buffer.slot()), 2u);
        EXPECT_EQ(trace.reads(), (Reads{{72, 4096}, {96, 4096}}));
        EXPECT_EQ(isRequestSubmitted(backup.b(), 0), 1);
        EXPECT_EQ(isRequestSubmitted(backup.b(), 1), 0);
        EXPECT_EQ(isRequestSubmitted(backup.b(), 2), 0);
        EXPECT_EQ(isRequestSubmitted(backup.b(), 3), 1);
        EXPECT_EQ(waitForSubmitted(backup.b(), 9, 4), 0);
        freeSubmitted(backup.b(), 4);
        EXPECT_EQ(atomic_read(&backup.b()->totalReadBlocks), 2);
    });
}

// What is in the cache is looked up by words of 32 blocks, wherever a run begins and ends.
TEST_F(BlockReader, JustTheCachedBlocksOfALongRunAreLeftToTheCache)
{
    withModule([](ModuleRun &run) {
        constexpr unsigned length = 100;
        const std::set<unsigned> cached = {21, 31, 32, 63, 96, 110};
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        Backup *b = backup.b();
        MappedBuffer buffer(backup.record, length);
        for (unsigned bn : cached)
            setBlock(&b->cacheMap, bn);
        for (unsigned start : {20u, 31u, 32u, 33u}) {
            readBlocks(b, start, length, buffer.slot());
            for (unsigned i = 0; i < length; i++)
                EXPECT_EQ(isRequestSubmitted(b, static_cast<int>(i)),
                          cached.count(start + i) == 0 ? 1 : 0)
                    << start + i;
            EXPECT_EQ(waitForSubmitted(b, start, length), 0);
            freeSubmitted(b, length);
        }
        for (unsigned bn : cached)
            unSetBlock(&b->cacheMap, bn);
    });
}

TEST_F(BlockReader, UnreadableBlocksAreZeroAndTheOthersWhole)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run, {.blockSizes = {1024}});
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 2);
        buffer.fill('.');
        // Block 22, in the middle of its page, and block 25.
        backup.disk.disk().failSectors(backup.disk.start() + 44, 1, true, false);
        backup.disk.disk().failSectors(backup.disk.start() + 51, 1, true, false);
        takeLog();
        ASSERT_EQ(readBlocks(backup.b(), 20, 7, buffer.slot()), 7u);
        EXPECT_EQ(waitForSubmitted(backup.b(), 20, 7), 12);
        freeSubmitted(backup.b(), 7);
        EXPECT_EQ(takeLog().size(), 4u);
        for (unsigned i = 0; i < 7; i++)
            EXPECT_EQ(buffer.bytes(i * 1024, 1024),
                      i == 2 || i == 5 ? backup.pattern(0) : backup.block(20 + i))
                << i;
        EXPECT_EQ(buffer.bytes(7 * 1024, 1024), backup.pattern('.'));
        EXPECT_EQ(atomic_read(&backup.b()->totalReadBlocks), 7);
    });
}

TEST_F(BlockReader, DeliveredBlocksLeaveTheMapOnceItIsLoaded)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key{};
        backup.track(1);
        key = backup.session()->sessionKey;
        ASSERT_EQ(backup.write(3, 2, 0x33), 0);
        ASSERT_EQ(backup.start(), 0);
        ASSERT_EQ(backup.snap(key), 0);
        MappedBuffer buffer(backup.record, 8);
        auto read = [&](unsigned first, unsigned count) {
            readBlocks(backup.b(), first, count, buffer.slot());
            int result = waitForSubmitted(backup.b(), first, count);
            freeSubmitted(backup.b(), count);
            return result;
        };
        EXPECT_EQ(read(3, 2), 0);
        EXPECT_TRUE(inMap(backup.b()->blockMap, 3));
        EXPECT_TRUE(inMap(backup.b()->blockMap, 4));
        ASSERT_EQ(backup.load({3, 4, 5, 6, 9}), 0);
        backup.disk.disk().failSectors(backup.disk.start() + 40, 8, true, false);
        EXPECT_EQ(read(3, 3), 12);
        for (unsigned block : {3u, 4u, 5u})
            EXPECT_FALSE(inMap(backup.b()->blockMap, block)) << block;
        EXPECT_TRUE(inMap(backup.b()->blockMap, 6));
        EXPECT_TRUE(inMap(backup.b()->blockMap, 9));
    });
}

TEST_F(BlockReader, NoAllocationIsRefused)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 8);
        for (Fault fault : {Fault::kmalloc, Fault::bufferHead, Fault::bio}) {
            host::clearFaults();
            host::failNth(fault, 2, 3);
            EXPECT_EQ(readBlocks(backup.b(), 20, 4, buffer.slot()), 4u);
            EXPECT_EQ(host::faultsInjected(fault), 3u) << host::faultName(fault);
            host::clearFaults();
            EXPECT_EQ(waitForSubmitted(backup.b(), 20, 4), 0);
            freeSubmitted(backup.b(), 4);
            EXPECT_EQ(buffer.bytes(3 * 4096, 4096), backup.block(23));
        }
    });
}

// Nothing may be written out to find memory: it may be to the device that is read.
TEST_F(BlockReader, AReadStartsNoOtherIO)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 2);
        {
            host::IoPathScope onIoPath;
            EXPECT_EQ(readBlocks(backup.b(), 20, 2, buffer.slot()), 2u);
        }
        EXPECT_EQ(waitForSubmitted(backup.b(), 20, 2), 0);
        freeSubmitted(backup.b(), 2);
    });
}

TEST_F(BlockReader, AVectorBeyondItsPageStopsTheKernel)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(withModule([](ModuleRun &run) {
                     BackupRun backup(run);
                     EXPECT_TRUE(backup.begin());
                     MappedBuffer buffer(backup.record, 8);
                     backup.disk.disk().failSectors(backup.disk.start() + 160, 8, true, false);
                     readBlocks(backup.b(), 20, 1, buffer.slot());
                     struct bio *bio = backup.b()->mmBIORequests[0]->bio;
                     wait_on_buffer(static_cast<struct buffer_head *>(bio_private(bio)));
                     bio_set_vec(bio, 0, bio_vec_page(bio, 0), 4000, 97);
                     waitForSubmitted(backup.b(), 20, 1);
                 }),
                 "kernel BUG in .*<2>waitForSubmitted: BIO segment greater than page size "
                 "\\(offset=97, length=4000\\)\n");
}

// The release waits for what is still under way.
TEST_F(BlockReader, AReleaseBeforeTheEndWaitsForIt)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        MappedBuffer buffer(backup.record, 8);
        backup.holdModuleReads();
        ASSERT_EQ(readBlocks(backup.b(), 20, 4, buffer.slot()), 4u);
        host::Task releaser = host::spawn("releaser", [&] { freeSubmitted(backup.b(), 4); });
        EXPECT_TRUE(fallsAsleep(releaser));
        EXPECT_EQ(host::memoryUse().bios, 4u);
        EXPECT_EQ(host::memoryUse().bufferHeads, 4u);
        backup.disk.disk().release();
        releaser.join();
        EXPECT_EQ(host::memoryUse().bios, 0u);
        EXPECT_EQ(host::memoryUse().bufferHeads, 0u);
    });
}

TEST_F(BlockReader, ARequestWithoutABioIsJustFreed)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        unsigned before = host::memoryUse().kmallocs;
        auto *request = static_cast<BIORequest *>(kmalloc(sizeof(BIORequest), GFP_NOIO));
        std::memset(request, 0, sizeof(*request));
        backup.b()->mmBIORequests[2] = request;
        freeSubmitted(backup.b(), 4);
        EXPECT_EQ(backup.b()->mmBIORequests[2], nullptr);
        EXPECT_EQ(atomic_read(&backup.b()->curAllocBRs), 0);
        EXPECT_EQ(host::memoryUse().kmallocs, before);
    });
}

} // namespace
