#include <host/block.h>
#include <host/faults.h>
#include <host/memory.h>
#include <host/task.h>

#include "support/hostTest.h"
#include "unit/host/seamBio.h"

namespace
{

using host::Disk;

class BioTest : public test::SchedulerTest
{
};
INSTANTIATE_SCHEDULERS(BioTest);

TEST_P(BioTest, fieldsAreWhatWasStored)
{
    inKernel([] {
        struct bio *bio = bio_alloc(GFP_NOIO, 2);
        ASSERT_NE(bio, nullptr);
        EXPECT_EQ(bio_uptodate(bio), 1);
        EXPECT_EQ(bio_size(bio), 0u);
        bio_set_sector(bio, 0x123456789aull);
        bio_set_size(bio, 4097);
        bio_set_rw(bio, 0x17);
        bio_set_private(bio, &bio);
        bio_set_vcnt(bio, 2);
        struct page *page = alloc_pages(GFP_NOIO, 0);
        bio_set_vec(bio, 1, page, 100, 200);
        EXPECT_EQ(bio_sector(bio), 0x123456789aull);
        EXPECT_EQ(bio_size(bio), 4097u);
        EXPECT_EQ(bio_rw(bio), 3u);
        EXPECT_EQ(bio_private(bio), &bio);
        EXPECT_EQ(bio_vcnt(bio), 2);
        EXPECT_EQ(bio_vec_page(bio, 1), page);
        EXPECT_EQ(bio_vec_length(bio, 1), 100u);
        EXPECT_EQ(bio_vec_offset(bio, 1), 200u);
        __free_pages(page, 0);
        bio_put(bio);
        EXPECT_EQ(bio_alloc(GFP_NOIO, 257), nullptr);
    });
}

TEST_P(BioTest, theLastReferenceFrees)
{
    inKernel([] {
        struct bio *bio = bio_alloc(GFP_NOIO, 1);
        EXPECT_EQ(host::memoryUse().bios, 1u);
        bio_get(bio);
        bio_put(bio);
        EXPECT_EQ(host::memoryUse().bios, 1u);
        EXPECT_EQ(host::memoryHeld().size(), 1u);
        bio_put(bio);
        EXPECT_EQ(host::memoryUse().bios, 0u);
    });
}

TEST_P(BioTest, theHostsOwnAreNotOnTheModulesAccount)
{
    inKernel([] {
        auto disk = Disk::attach(64);
        struct block_device *device = host::openDevice(disk->device());
        disk->hold();
        host::submitAsync({device, 0, 8192, READ}, [](int) {});
        EXPECT_EQ(host::memoryUse(), host::MemoryUse());
        disk->release();
        disk->waitIdle();
        host::closeDevice(device);
    });
}

TEST_P(BioTest, theNthAllocationCanFail)
{
    inKernel([] {
        host::failNth(host::Fault::bio, 2);
        host::failNth(host::Fault::bufferHead, 1);
        struct bio *bio = bio_alloc(GFP_NOIO, 1);
        EXPECT_NE(bio, nullptr);
        EXPECT_EQ(bio_alloc(GFP_NOIO, 1), nullptr);
        EXPECT_EQ(alloc_buffer_head(GFP_NOIO), nullptr);
        EXPECT_EQ(host::memoryUse().bufferHeads, 0u);
        bio_put(bio);
        host::clearFaults();
    });
}

TEST_P(BioTest, useAfterFreeIsReported)
{
    inKernel([] {
        struct bio *bio = bio_alloc(GFP_NOIO, 1);
        bio_put(bio);
        bio_sector(bio);
    });
    expectViolation("use after free: bio_sector");
    inKernel([] {
        struct bio *bio = bio_alloc(GFP_NOIO, 1);
        bio_put(bio);
        bio_put(bio);
    });
    expectViolation("use after free: bio_put");
}

TEST_P(BioTest, freeingInFlightIsReported)
{
    inKernel([] {
        auto disk = Disk::attach(64);
        struct block_device *device = host::openDevice(disk->device());
        disk->hold();
        test::SeamBio bio(device, 0, 512, READ);
        bio.submit();
        bio_put(bio.bio());
        disk->release();
        EXPECT_EQ(bio.wait(), 0);
        disk->waitIdle();
        host::closeDevice(device);
    });
    expectViolation("bio freed while in flight");
}

TEST_P(BioTest, vectorsOutOfBoundsAreReported)
{
    inKernel([] {
        struct bio *bio = bio_alloc(GFP_NOIO, 1);
        bio_set_vec(bio, 1, nullptr, 0, 0);
        bio_put(bio);
    });
    expectViolation("bio vector out of bounds");
}

TEST_P(BioTest, aWaiterSleepsUntilItsBufferIsUnlocked)
{
    inKernel([] {
        auto disk = Disk::attach(64);
        struct block_device *device = host::openDevice(disk->device());
        disk->hold();
        test::SeamBio bio(device, 0, 512, READ);
        bio.submit();
        host::Task waiter = host::spawn("waiter", [&] { EXPECT_EQ(bio.wait(), 0); });
        for (unsigned i = 0; i < 20; i++)
            host::yield();
        EXPECT_FALSE(waiter.ended());
        disk->release();
        waiter.join();
        EXPECT_EQ(buffer_uptodate(bio.buffer()), 1);
        host::closeDevice(device);
    });
}

TEST_P(BioTest, aFreshBufferIsAsItsLastUserLeftIt)
{
    inKernel([] {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        EXPECT_EQ(bh_count(bh), 0);
        EXPECT_EQ(buffer_uptodate(bh), 1);
        EXPECT_NE(bh_page(bh), nullptr);
        EXPECT_NE(bh_data(bh), nullptr);
        EXPECT_NE(bh_blocknr(bh), 0u);
        EXPECT_NE(bh_size(bh), 0u);
        EXPECT_NE(bh_bdev(bh), nullptr);
        EXPECT_NE(bh_end_io(bh), nullptr);
        free_buffer_head(bh);
    });
}

TEST_P(BioTest, bufferFieldsAreWhatWasStored)
{
    inKernel([] {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        bh_set_state(bh, 0);
        EXPECT_EQ(buffer_uptodate(bh), 0);
        struct page *low = alloc_pages(GFP_NOIO, 0);
        struct page *high = alloc_pages(GFP_HIGHUSER, 0);
        set_bh_page(bh, low, 1024);
        EXPECT_EQ(bh_data(bh), static_cast<char *>(page_address(low)) + 1024);
        set_bh_page(bh, high, 2048);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(bh_data(bh)) & 0xfff, 2048u);
        EXPECT_EQ(bh_page(bh), high);
        bh_set_blocknr(bh, 1ull << 33);
        EXPECT_EQ(bh_blocknr(bh), 1ull << 33);
        set_buffer_uptodate(bh);
        set_buffer_eopnotsupp(bh);
        EXPECT_EQ(buffer_uptodate(bh), 1);
        get_bh(bh);
        get_bh(bh);
        put_bh(bh);
        EXPECT_EQ(bh_count(bh), 1);
        bh_set_count(bh, 0);
        free_buffer_head(bh);
        __free_pages(low, 0);
        __free_pages(high, 0);
    });
}

TEST_P(BioTest, buffersFreedWithTheWrongCountOrLockedAreReported)
{
    inKernel([] {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        get_bh(bh);
        free_buffer_head(bh);
    });
    expectViolation("buffer head freed with references: 1");
    inKernel([] {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        put_bh(bh);
        free_buffer_head(bh);
    });
    expectViolation("buffer head freed with references: -1");
    inKernel([] {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        bh_set_state(bh, BH_STATE_Lock);
        free_buffer_head(bh);
    });
    expectViolation("buffer head freed while locked");
    inKernel([] {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        free_buffer_head(bh);
        get_bh(bh);
    });
    expectViolation("use after free: get_bh");
    inKernel([] {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        unlock_buffer(bh);
        free_buffer_head(bh);
    });
    expectViolation("unlock of an unlocked buffer");
}

TEST_P(BioTest, waitingInInterruptContextIsReported)
{
    inKernel([] {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        host::runInInterrupt([&] { wait_on_buffer(bh); });
        free_buffer_head(bh);
    });
    expectViolation("sleep in atomic context");
}

} // namespace
