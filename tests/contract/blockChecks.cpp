// Block devices, request queues and bios.
#include <kernel/block.h>

#include "contract.h"

namespace
{

// One bio of a page on its way, and what it was like when it ended.
struct Transfer {
    struct completion done;
    struct page *page;
    struct bio *bio;
    int error;
    unsigned int left;
    int uptodate;
};

void transferEnded(struct bio *bio, int error)
{
    auto *transfer = static_cast<Transfer *>(bio_private(bio));
    transfer->error = error;
    transfer->left = bio_size(bio);
    transfer->uptodate = bio_uptodate(bio);
    complete(&transfer->done);
}

const char *begin(Transfer *transfer, struct block_device *bdev, sector_t sector, unsigned long rw)
{
    init_completion(&transfer->done);
    transfer->page = alloc_pages(GFP_KERNEL, 0);
    REQUIRE(transfer->page != nullptr);
    struct bio *bio = bio_alloc(GFP_KERNEL, 1);
    REQUIRE(bio != nullptr);
    transfer->bio = bio;
    bio_set_bdev(bio, bdev);
    bio_set_sector(bio, sector);
    bio_set_rw(bio, rw);
    bio_set_vec(bio, 0, transfer->page, PAGE_SIZE, 0);
    bio_set_vcnt(bio, 1);
    bio_set_idx(bio, 0);
    bio_set_size(bio, PAGE_SIZE);
    bio_set_private(bio, transfer);
    bio_set_end_io(bio, transferEnded);
    return nullptr;
}

void finish(Transfer *transfer)
{
    bio_put(transfer->bio);
    __free_pages(transfer->page, 0);
}

const char *transferred(Transfer *transfer)
{
    wait_for_completion(&transfer->done);
    REQUIRE(transfer->error == 0);
    REQUIRE(transfer->left == 0);
    REQUIRE(transfer->uptodate != 0);
    return nullptr;
}

unsigned char *bytesOf(Transfer *transfer)
{
    return static_cast<unsigned char *>(page_address(transfer->page));
}

bool sameBytes(Transfer *one, Transfer *other)
{
    for (unsigned int i = 0; i < PAGE_SIZE; i++)
        if (bytesOf(one)[i] != bytesOf(other)[i])
            return false;
    return true;
}

make_request_fn *exchangeFunction(struct request_queue *queue, make_request_fn *function)
{
    spinlock_t *lock = queue_lock(queue);
    unsigned long flags = 0;
    if (lock != nullptr)
        flags = spin_lock_irqsave(lock);
    make_request_fn *before = queue_make_request_fn(queue);
    if (function != nullptr)
        queue_set_make_request_fn(queue, function);
    if (lock != nullptr)
        spin_unlock_irqrestore(lock, flags);
    return before;
}

const char *openDeviceShowsItsDisk(const Environment *environment)
{
    struct block_device *bdev = bdget(environment->mounted);
    REQUIRE(bdev != nullptr);
    REQUIRE(bdev_dev(bdev) == environment->mounted);
    REQUIRE(bdget(environment->mounted) == bdev);
    struct gendisk *disk = bdev_disk(bdev);
    REQUIRE(disk != nullptr);
    struct block_device *whole = bdev_contains(bdev);
    REQUIRE(whole != nullptr && whole != bdev);
    REQUIRE(bdev_contains(whole) == whole);
    REQUIRE(bdev_disk(whole) == disk);
    int number = static_cast<int>(deviceMinor(environment->mounted)) - disk_first_minor(disk);
    REQUIRE(number > 0 && number < disk_minors(disk));
    REQUIRE(static_cast<int>(deviceMinor(bdev_dev(whole))) == disk_first_minor(disk));
    mutex_lock(bdev_mutex(whole));
    int length = disk_part_tbl_len(disk);
    struct hd_struct *part = number < length ? disk_part(disk, number) : nullptr;
    mutex_unlock(bdev_mutex(whole));
    REQUIRE(part != nullptr);
    REQUIRE(part == bdev_part(bdev));
    REQUIRE(part_start_sect(part) > 0);
    REQUIRE(part_nr_sects(part) > 0);
    REQUIRE(part_start_sect(part) + part_nr_sects(part) <= get_capacity(disk));
    REQUIRE(disk_queue(disk) != nullptr);
    return nullptr;
}

const char *closedDeviceShowsNone(const Environment *environment)
{
    struct block_device *bdev = bdget(environment->closed);
    REQUIRE(bdev != nullptr);
    REQUIRE(bdev_dev(bdev) == environment->closed);
    REQUIRE(bdev_disk(bdev) == nullptr);
    REQUIRE(bdev_part(bdev) == nullptr);
    return nullptr;
}

const char *bioKeepsItsFields(const Environment *environment)
{
    struct bio *bio = bio_alloc(GFP_NOIO, 3);
    struct page *page = alloc_pages(GFP_KERNEL, 0);
    struct block_device *bdev = bdget(environment->mounted);
    REQUIRE(bio != nullptr);
    REQUIRE(page != nullptr);
    REQUIRE(bio_uptodate(bio) != 0);
    bio_set_sector(bio, 0x1234567890ull);
    bio_set_size(bio, 5000);
    bio_set_bdev(bio, bdev);
    bio_set_private(bio, page);
    bio_set_rw(bio, WRITE | 1 << 4);
    bio_set_vcnt(bio, 2);
    bio_set_vec(bio, 1, page, 904, 512);
    REQUIRE(bio_sector(bio) == 0x1234567890ull);
    REQUIRE(bio_size(bio) == 5000);
    REQUIRE(bio_bdev(bio) == bdev);
    REQUIRE(bio_private(bio) == page);
    REQUIRE(bio_rw(bio) == WRITE);
    bio_set_rw(bio, READA);
    REQUIRE(bio_rw(bio) == READA);
    REQUIRE(bio_vcnt(bio) == 2);
    REQUIRE(bio_vec_page(bio, 1) == page);
    REQUIRE(bio_vec_length(bio, 1) == 904);
    REQUIRE(bio_vec_offset(bio, 1) == 512);
    bio_get(bio);
    bio_put(bio);
    REQUIRE(bio_sector(bio) == 0x1234567890ull);
    bio_set_eopnotsupp(bio);
    bio_put(bio);
    __free_pages(page, 0);
    return nullptr;
}

const char *whatIsWrittenIsRead(const Environment *environment)
{
    static Transfer out;
    static Transfer in;
    struct block_device *bdev = bdget(environment->unmounted);
    REQUIRE_HELD(begin(&out, bdev, 16, WRITE));
    for (unsigned int i = 0; i < PAGE_SIZE; i++)
        bytesOf(&out)[i] = static_cast<unsigned char>(i * 13 + i / 256);
    generic_make_request(out.bio);
    REQUIRE_HELD(transferred(&out));
    REQUIRE_HELD(begin(&in, bdev, 16, READ));
    generic_make_request(in.bio);
    REQUIRE_HELD(transferred(&in));
    REQUIRE(sameBytes(&in, &out));
    finish(&in);
    finish(&out);
    return nullptr;
}

const char *bioBeyondTheEndFails(const Environment *environment)
{
    static Transfer transfer;
    struct block_device *bdev = bdget(environment->mounted);
    struct gendisk *disk = bdev_disk(bdev);
    REQUIRE_HELD(begin(&transfer, bdev_contains(bdev), get_capacity(disk), READ));
    generic_make_request(transfer.bio);
    wait_for_completion(&transfer.done);
    REQUIRE(transfer.error == -KERNEL_EIO);
    REQUIRE(transfer.uptodate == 0);
    finish(&transfer);
    return nullptr;
}

const char *realFunctionTakesAWholeDisksBio(const Environment *environment)
{
    static Transfer direct;
    static Transfer usual;
    struct block_device *bdev = bdget(environment->mounted);
    struct request_queue *queue = disk_queue(bdev_disk(bdev));
    sector_t start = part_start_sect(bdev_part(bdev));
    make_request_fn *real = exchangeFunction(queue, nullptr);
    REQUIRE(real != nullptr);
    REQUIRE_HELD(begin(&usual, bdev, 8, READ));
    generic_make_request(usual.bio);
    REQUIRE_HELD(transferred(&usual));
    REQUIRE_HELD(begin(&direct, bdev_contains(bdev), start + 8, READ));
    REQUIRE(real(queue, direct.bio) == 0);
    REQUIRE_HELD(transferred(&direct));
    REQUIRE(sameBytes(&direct, &usual));
    finish(&direct);
    finish(&usual);
    return nullptr;
}

// What a hook saw of the bios that a check submits; all others pass.
struct Watch {
    make_request_fn *real;
    struct bio *bio;
    struct block_device *bdev;
    sector_t sector;
    unsigned int calls;
    struct bio *child; // submitted from inside the hook
    unsigned int childCalls;
    bool childInside;   // it came before the hook had returned
    sector_t elsewhere; // where the hook sends the bio at its first call; 0: nowhere
    bool inside;
};
Watch watch;

int watchHook(struct request_queue *queue, struct bio *bio)
{
    if (watch.child != nullptr && bio == watch.child) {
        watch.childCalls++;
        watch.childInside = watch.inside;
        return watch.real(queue, bio);
    }
    if (bio != watch.bio)
        return watch.real(queue, bio);
    watch.calls++;
    watch.bdev = bio_bdev(bio);
    watch.sector = bio_sector(bio);
    if (watch.elsewhere != 0 && watch.calls == 1) {
        bio_set_sector(bio, watch.elsewhere);
        return 1;
    }
    watch.inside = true;
    if (watch.child != nullptr)
        generic_make_request(watch.child);
    watch.inside = false;
    return watch.real(queue, bio);
}

// Submits `transfer` with the hook in place.
const char *submitWatched(struct request_queue *queue, Transfer *transfer)
{
    watch.bio = transfer->bio;
    watch.calls = 0;
    watch.childCalls = 0;
    watch.real = exchangeFunction(queue, nullptr);
    exchangeFunction(queue, watchHook);
    generic_make_request(transfer->bio);
    const char *failure = transferred(transfer);
    make_request_fn *last = exchangeFunction(queue, watch.real);
    REQUIRE(last == watchHook);
    return failure;
}

const char *partitionsBioIsRemappedBeforeTheQueue(const Environment *environment)
{
    static Transfer transfer;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    REQUIRE_HELD(begin(&transfer, bdev, 24, READ));
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &transfer));
    REQUIRE(watch.calls == 1);
    REQUIRE(watch.bdev == bdev_contains(bdev));
    REQUIRE(watch.sector == part_start_sect(bdev_part(bdev)) + 24);
    finish(&transfer);
    return nullptr;
}

const char *wholeDisksBioIsNotRemapped(const Environment *environment)
{
    static Transfer transfer;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    REQUIRE_HELD(begin(&transfer, bdev_contains(bdev), 24, READ));
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &transfer));
    REQUIRE(watch.calls == 1);
    REQUIRE(watch.bdev == bdev_contains(bdev));
    REQUIRE(watch.sector == 24);
    finish(&transfer);
    return nullptr;
}

const char *hookMaySendABioElsewhere(const Environment *environment)
{
    static Transfer transfer;
    static Transfer usual;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    watch.elsewhere = part_start_sect(bdev_part(bdev)) + 40;
    REQUIRE_HELD(begin(&transfer, bdev, 24, READ));
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &transfer));
    REQUIRE(watch.calls == 2);
    REQUIRE(watch.sector == watch.elsewhere);
    REQUIRE_HELD(begin(&usual, bdev, 40, READ));
    generic_make_request(usual.bio);
    REQUIRE_HELD(transferred(&usual));
    REQUIRE(sameBytes(&transfer, &usual));
    finish(&usual);
    finish(&transfer);
    return nullptr;
}

const char *submissionInsideAHookWaitsForIt(const Environment *environment)
{
    static Transfer outer;
    static Transfer inner;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    REQUIRE_HELD(begin(&outer, bdev, 24, READ));
    REQUIRE_HELD(begin(&inner, bdev, 48, READ));
    watch.child = inner.bio;
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &outer));
    REQUIRE_HELD(transferred(&inner));
    REQUIRE(watch.calls == 1);
    REQUIRE(watch.childCalls == 1);
    REQUIRE(!watch.childInside);
    finish(&inner);
    finish(&outer);
    return nullptr;
}

const char *queueIsReferenced(const Environment *environment)
{
    struct request_queue *queue = disk_queue(bdev_disk(bdget(environment->mounted)));
    REQUIRE(blk_get_queue(queue) == 0);
    blk_put_queue(queue);
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"openDeviceShowsItsDisk", openDeviceShowsItsDisk},
    {"closedDeviceShowsNone", closedDeviceShowsNone},
    {"bioKeepsItsFields", bioKeepsItsFields},
    {"whatIsWrittenIsRead", whatIsWrittenIsRead},
    {"bioBeyondTheEndFails", bioBeyondTheEndFails},
    {"realFunctionTakesAWholeDisksBio", realFunctionTakesAWholeDisksBio},
    {"partitionsBioIsRemappedBeforeTheQueue", partitionsBioIsRemappedBeforeTheQueue},
    {"wholeDisksBioIsNotRemapped", wholeDisksBioIsNotRemapped},
    {"hookMaySendABioElsewhere", hookMaySendABioElsewhere},
    {"submissionInsideAHookWaitsForIt", submissionInsideAHookWaitsForIt},
    {"queueIsReferenced", queueIsReferenced},
};

} // namespace

constinit const struct ContractSubject blockContract = subjectOf(checks);
