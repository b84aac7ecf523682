// Request queues and functions put in place of a disk's own.
#include "transfer.h"

namespace
{

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

const char *realFunctionTakesAWholeDisksBio(const Environment *environment)
{
    static Transfer direct;
    static Transfer usual;
    struct block_device *bdev = bdget(environment->mounted);
    struct request_queue *queue = disk_queue(bdev_disk(bdev));
    sector_t start = part_start_sect(bdev_part(bdev));
    make_request_fn *real = exchangeFunction(queue, nullptr);
    REQUIRE(real != nullptr);
    REQUIRE_HELD(usual.begin(bdev, 8, READ));
    generic_make_request(usual.bio);
    REQUIRE_HELD(usual.succeeded());
    REQUIRE_HELD(direct.begin(bdev_contains(bdev), start + 8, READ));
    REQUIRE(real(queue, direct.bio) == 0);
    REQUIRE_HELD(direct.succeeded());
    REQUIRE(direct.sameBytes(&usual));
    direct.finish();
    usual.finish();
    return nullptr;
}

// A bio that goes straight there keeps its sector, even if it names the partition's device.
const char *realFunctionDoesNotRemap(const Environment *environment)
{
    static Transfer direct;
    static Transfer usual;
    struct block_device *bdev = bdget(environment->mounted);
    struct request_queue *queue = disk_queue(bdev_disk(bdev));
    sector_t start = part_start_sect(bdev_part(bdev));
    make_request_fn *real = exchangeFunction(queue, nullptr);
    REQUIRE_HELD(usual.begin(bdev, 8, READ));
    generic_make_request(usual.bio);
    REQUIRE_HELD(usual.succeeded());
    REQUIRE_HELD(direct.begin(bdev, start + 8, READ));
    REQUIRE(real(queue, direct.bio) == 0);
    REQUIRE_HELD(direct.succeeded());
    REQUIRE(direct.sameBytes(&usual));
    direct.finish();
    usual.finish();
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
    struct completion *sleepFor; // the hook waits for it
    struct completion *held;     // the hook keeps the bio for another task, and tells it
    struct request_queue *queue;
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
    watch.queue = queue;
    if (watch.sleepFor != nullptr)
        wait_for_completion(watch.sleepFor);
    if (watch.held != nullptr) {
        complete(watch.held);
        return 0;
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
    const char *failure = transfer->succeeded();
    make_request_fn *last = exchangeFunction(queue, watch.real);
    REQUIRE(last == watchHook);
    return failure;
}

const char *partitionsBioIsRemappedBeforeTheQueue(const Environment *environment)
{
    static Transfer transfer;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    REQUIRE_HELD(transfer.begin(bdev, 24, READ));
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &transfer));
    REQUIRE(watch.calls == 1);
    REQUIRE(watch.bdev == bdev_contains(bdev));
    REQUIRE(watch.sector == part_start_sect(bdev_part(bdev)) + 24);
    transfer.finish();
    return nullptr;
}

const char *wholeDisksBioIsNotRemapped(const Environment *environment)
{
    static Transfer transfer;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    REQUIRE_HELD(transfer.begin(bdev_contains(bdev), 24, READ));
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &transfer));
    REQUIRE(watch.calls == 1);
    REQUIRE(watch.bdev == bdev_contains(bdev));
    REQUIRE(watch.sector == 24);
    transfer.finish();
    return nullptr;
}

// As a flush of the disk's cache is submitted. A disk may refuse it, and one without a cache need
// not be asked.
const char *bioWithoutContentsIsNotRemapped(const Environment *environment)
{
    static Transfer transfer;
    constexpr unsigned long barrier = 1 << 2;
    struct block_device *bdev = bdget(environment->mounted);
    struct request_queue *queue = disk_queue(bdev_disk(bdev));
    watch = {};
    REQUIRE_HELD(transfer.begin(bdev, 0, WRITE | barrier));
    bio_set_vcnt(transfer.bio, 0);
    bio_set_size(transfer.bio, 0);
    const char *unexpected = submitWatched(queue, &transfer);
    REQUIRE(unexpected == nullptr || transfer.error == -KERNEL_EOPNOTSUPP);
    if (watch.calls != 0) {
        REQUIRE(watch.bdev == bdev);
        REQUIRE(watch.sector == 0);
    }
    transfer.finish();
    return nullptr;
}

const char *hookMaySendABioElsewhere(const Environment *environment)
{
    static Transfer transfer;
    static Transfer usual;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    watch.elsewhere = part_start_sect(bdev_part(bdev)) + 40;
    REQUIRE_HELD(transfer.begin(bdev, 24, READ));
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &transfer));
    REQUIRE(watch.calls == 2);
    REQUIRE(watch.sector == watch.elsewhere);
    REQUIRE_HELD(usual.begin(bdev, 40, READ));
    generic_make_request(usual.bio);
    REQUIRE_HELD(usual.succeeded());
    REQUIRE(transfer.sameBytes(&usual));
    usual.finish();
    transfer.finish();
    return nullptr;
}

const char *submissionInsideAHookWaitsForIt(const Environment *environment)
{
    static Transfer outer;
    static Transfer inner;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    REQUIRE_HELD(outer.begin(bdev, 24, READ));
    REQUIRE_HELD(inner.begin(bdev, 48, READ));
    watch.child = inner.bio;
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &outer));
    REQUIRE_HELD(inner.succeeded());
    REQUIRE(watch.calls == 1);
    REQUIRE(watch.childCalls == 1);
    REQUIRE(!watch.childInside);
    inner.finish();
    outer.finish();
    return nullptr;
}

const char *bioPastAPartitionsEndDoesNotReachTheQueue(const Environment *environment)
{
    static Transfer transfer;
    struct block_device *bdev = bdget(environment->mounted);
    struct request_queue *queue = disk_queue(bdev_disk(bdev));
    watch = {};
    REQUIRE_HELD(transfer.begin(bdev, part_nr_sects(bdev_part(bdev)) - 1, READ));
    watch.bio = transfer.bio;
    watch.real = exchangeFunction(queue, nullptr);
    exchangeFunction(queue, watchHook);
    generic_make_request(transfer.bio);
    const char *unexpected = transfer.failed();
    exchangeFunction(queue, watch.real);
    REQUIRE_HELD(unexpected);
    REQUIRE(watch.calls == 0);
    transfer.finish();
    return nullptr;
}

struct Helper {
    struct completion go;
    struct completion sleeperMayGo;
    int result; // of the disk's own function
    const Environment *environment;
    Thread thread;
};

void wakeTheSleeper(void *argument)
{
    auto *helper = static_cast<Helper *>(argument);
    helper->environment->settle();
    complete(&helper->sleeperMayGo);
}

const char *hookMaySleep(const Environment *environment)
{
    static Transfer transfer;
    static Helper helper;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    init_completion(&helper.sleeperMayGo);
    helper.environment = environment;
    watch.sleepFor = &helper.sleeperMayGo;
    REQUIRE_HELD(transfer.begin(bdev, 24, READ));
    REQUIRE(helper.thread.start(wakeTheSleeper, &helper));
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &transfer));
    helper.thread.join();
    REQUIRE(watch.calls == 1);
    transfer.finish();
    return nullptr;
}

void passOn(void *argument)
{
    auto *helper = static_cast<Helper *>(argument);
    wait_for_completion(&helper->go);
    helper->result = watch.real(watch.queue, watch.bio);
}

const char *anotherTaskMayPassABioOn(const Environment *environment)
{
    static Transfer transfer;
    static Transfer usual;
    static Helper helper;
    struct block_device *bdev = bdget(environment->mounted);
    watch = {};
    init_completion(&helper.go);
    watch.held = &helper.go;
    REQUIRE(helper.thread.start(passOn, &helper));
    REQUIRE_HELD(transfer.begin(bdev, 24, READ));
    REQUIRE_HELD(submitWatched(disk_queue(bdev_disk(bdev)), &transfer));
    helper.thread.join();
    REQUIRE(helper.result == 0);
    REQUIRE(watch.calls == 1);
    REQUIRE_HELD(usual.begin(bdev, 24, READ));
    generic_make_request(usual.bio);
    REQUIRE_HELD(usual.succeeded());
    REQUIRE(transfer.sameBytes(&usual));
    usual.finish();
    transfer.finish();
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
    {"realFunctionTakesAWholeDisksBio", realFunctionTakesAWholeDisksBio},
    {"realFunctionDoesNotRemap", realFunctionDoesNotRemap},
    {"partitionsBioIsRemappedBeforeTheQueue", partitionsBioIsRemappedBeforeTheQueue},
    {"wholeDisksBioIsNotRemapped", wholeDisksBioIsNotRemapped},
    {"bioPastAPartitionsEndDoesNotReachTheQueue", bioPastAPartitionsEndDoesNotReachTheQueue},
    {"bioWithoutContentsIsNotRemapped", bioWithoutContentsIsNotRemapped},
    {"hookMaySendABioElsewhere", hookMaySendABioElsewhere},
    {"submissionInsideAHookWaitsForIt", submissionInsideAHookWaitsForIt},
    {"hookMaySleep", hookMaySleep},
    {"anotherTaskMayPassABioOn", anotherTaskMayPassABioOn},
    {"queueIsReferenced", queueIsReferenced},
};

} // namespace

constinit const struct ContractSubject hookContract = subjectOf(checks);
