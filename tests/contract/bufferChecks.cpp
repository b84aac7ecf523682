// Buffer heads.
#include <kernel/block.h>

#include "contract.h"

namespace
{

void ended(struct buffer_head *, int) {}

const char *bufferKeepsItsFields(const Environment *environment)
{
    struct buffer_head *bh = alloc_buffer_head(GFP_KERNEL);
    REQUIRE(bh != nullptr);
    struct block_device *bdev = bdget(environment->mounted);
    bh_set_count(bh, 1);
    get_bh(bh);
    REQUIRE(bh_count(bh) == 2);
    put_bh(bh);
    put_bh(bh);
    REQUIRE(bh_count(bh) == 0);
    bh_set_blocknr(bh, 0x123456789aull);
    bh_set_size(bh, 1024);
    bh_set_bdev(bh, bdev);
    bh_set_end_io(bh, ended);
    bh_init_assoc_buffers(bh);
    REQUIRE(bh_blocknr(bh) == 0x123456789aull);
    REQUIRE(bh_size(bh) == 1024);
    REQUIRE(bh_bdev(bh) == bdev);
    REQUIRE(bh_end_io(bh) == ended);
    bh_set_state(bh, BH_STATE_Lock | BH_STATE_Req | BH_STATE_Mapped);
    REQUIRE(buffer_uptodate(bh) == 0);
    set_buffer_uptodate(bh);
    REQUIRE(buffer_uptodate(bh) != 0);
    set_buffer_eopnotsupp(bh);
    bh_set_state(bh, BH_STATE_Mapped);
    REQUIRE(buffer_uptodate(bh) == 0);
    free_buffer_head(bh);
    return nullptr;
}

const char *bufferPointsIntoItsPage(const Environment *)
{
    struct buffer_head *bh = alloc_buffer_head(GFP_KERNEL);
    REQUIRE(bh != nullptr);
    const gfp_t zones[] = {GFP_KERNEL, GFP_HIGHUSER};
    for (gfp_t gfp : zones) {
        struct page *page = alloc_pages(gfp, 0);
        REQUIRE(page != nullptr);
        set_bh_page(bh, page, 1024);
        REQUIRE(bh_page(bh) == page);
        REQUIRE((reinterpret_cast<unsigned long>(bh_data(bh)) & 0xfff) == 1024);
        if (gfp == GFP_KERNEL)
            REQUIRE(bh_data(bh) == static_cast<char *>(page_address(page)) + 1024);
        __free_pages(page, 0);
    }
    free_buffer_head(bh);
    return nullptr;
}

struct Wait {
    struct buffer_head *bh;
    atomic_t over;
    Thread thread;
};

void waitForBuffer(void *argument)
{
    auto *wait = static_cast<Wait *>(argument);
    wait_on_buffer(wait->bh);
    atomic_inc(&wait->over);
}

const char *waitingEndsWhenTheBufferIsUnlocked(const Environment *environment)
{
    static Wait waits[2];
    struct buffer_head *bh = alloc_buffer_head(GFP_KERNEL);
    REQUIRE(bh != nullptr);
    bh_set_count(bh, 1);
    wait_on_buffer(bh);
    bh_set_state(bh, BH_STATE_Lock);
    for (Wait &wait : waits) {
        wait.bh = bh;
        atomic_set(&wait.over, 0);
        REQUIRE(wait.thread.start(waitForBuffer, &wait));
    }
    environment->settle();
    REQUIRE(atomic_read(&waits[0].over) + atomic_read(&waits[1].over) == 0);
    set_buffer_uptodate(bh);
    unlock_buffer(bh);
    for (Wait &wait : waits)
        wait.thread.join();
    REQUIRE(atomic_read(&waits[0].over) + atomic_read(&waits[1].over) == 2);
    REQUIRE(buffer_uptodate(bh) != 0);
    put_bh(bh);
    free_buffer_head(bh);
    return nullptr;
}

void readEnded(struct bio *bio, int)
{
    auto *bh = static_cast<struct buffer_head *>(bio_private(bio));
    if (bio_uptodate(bio) != 0)
        set_buffer_uptodate(bh);
    unlock_buffer(bh);
    put_bh(bh);
    bio_put(bio);
}

// The wait itself sees to it that the disk begins.
const char *bufferIsReadByABio(const Environment *environment)
{
    struct block_device *bdev = bdget(environment->mounted);
    struct request_queue *queue = disk_queue(bdev_disk(bdev));
    spinlock_t *lock = queue_lock(queue);
    REQUIRE(lock != nullptr);
    unsigned long flags = spin_lock_irqsave(lock);
    make_request_fn *real = queue_make_request_fn(queue);
    spin_unlock_irqrestore(lock, flags);
    for (unsigned int i = 0; i < 3; i++) {
        struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
        struct bio *bio = bio_alloc(GFP_NOIO, 1);
        struct page *page = alloc_pages(GFP_HIGHUSER, 0);
        REQUIRE(bh != nullptr && bio != nullptr && page != nullptr);
        bh_set_state(bh, BH_STATE_Lock | BH_STATE_Req | BH_STATE_Mapped);
        bh_set_bdev(bh, bdev);
        set_bh_page(bh, page, 1024);
        bh_set_size(bh, 1024);
        bh_init_assoc_buffers(bh);
        bh_set_count(bh, 2);
        bio_set_bdev(bio, bdev);
        bio_set_sector(bio, part_start_sect(bdev_part(bdev)) + 2 * i);
        bio_set_rw(bio, READ);
        bio_set_vec(bio, 0, page, 1024, 1024);
        bio_set_vcnt(bio, 1);
        bio_set_idx(bio, 0);
        bio_set_size(bio, 1024);
        bio_set_private(bio, bh);
        bio_set_end_io(bio, readEnded);
        REQUIRE(real(queue, bio) == 0);
        wait_on_buffer(bh);
        REQUIRE(buffer_uptodate(bh) != 0);
        while (bh_count(bh) > 1)
            schedule();
        put_bh(bh);
        free_buffer_head(bh);
        __free_pages(page, 0);
    }
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"bufferKeepsItsFields", bufferKeepsItsFields},
    {"bufferPointsIntoItsPage", bufferPointsIntoItsPage},
    {"waitingEndsWhenTheBufferIsUnlocked", waitingEndsWhenTheBufferIsUnlocked},
    {"bufferIsReadByABio", bufferIsReadByABio},
};

} // namespace

constinit const struct ContractSubject bufferContract = subjectOf(checks);
