/* Request queues and the submission of bios to them. */
#include "blockInternal.h"

#include <algorithm>

#include "core.h"

namespace host
{

namespace
{

std::mutex registryGuard;
std::vector<request_queue *> registry;

// Tasks that are inside a make_request_fn or about to read one to call it.
std::atomic<int> insideFunctions{0};

const KernelReset reset([] {
    for (request_queue *queue : registry)
        delete queue;
    registry.clear();
    insideFunctions = 0;
});

void freeQueue(request_queue *queue)
{
    {
        std::lock_guard guard(registryGuard);
        registry.erase(std::find(registry.begin(), registry.end(), queue));
    }
    delete queue;
}

bool isHooked(const request_queue *queue)
{
    return queue->function.load(std::memory_order_acquire) != queue->own;
}

void checkQueueLock(const request_queue *queue, const char *function)
{
    if (!checking || !queue->queue_lock)
        return;
    const auto *lock = reinterpret_cast<const LockHead *>(queue->queue_lock);
    for (const HeldLock &held : requireTask(function).held)
        if (held.lock == lock)
            return;
    reportViolation("queue lock not held",
                    std::string(function) + " of " + queue->name + " by " + currentName());
}

// As bio_check_eod: true if the bio reaches past the end of its device.
bool pastEnd(const bio *record, unsigned sectors)
{
    sector_t size = record->bi_bdev->sectors.load(std::memory_order_relaxed);
    return sectors != 0 && size != 0 && (size < sectors || size - sectors < record->bi_sector);
}

void remapPartition(bio *record, unsigned sectors)
{
    block_device *device = record->bi_bdev;
    block_device *whole = device->bd_contains.load(std::memory_order_acquire);
    if (sectors == 0 || device == whole)
        return;
    record->bi_sector += device->bd_part.load(std::memory_order_acquire)->start_sect;
    record->bi_bdev = whole;
}

int callFunction(request_queue *queue, bio *record)
{
    // Counted before the function is read, so that whoever has put the disk's own function back
    // and then sees nobody inside knows that nobody will come any more.
    insideFunctions.fetch_add(1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    make_request_fn *function = queue->function.load(std::memory_order_acquire);
    if (function == queue->own) {
        insideFunctions.fetch_sub(1, std::memory_order_relaxed);
        return function(queue, record);
    }
    int result = function(queue, record);
    insideFunctions.fetch_sub(1, std::memory_order_release);
    return result;
}

void submit(bio *record)
{
    maySleep("generic_make_request");
    unsigned sectors = record->bi_size >> 9;
    int again;
    if (pastEnd(record, sectors)) {
        endBio(record, -KERNEL_EIO);
        return;
    }
    do {
        gendisk *disk = record->bi_bdev->bd_disk.load(std::memory_order_acquire);
        if (!disk) {
            reportViolation("bio to a device that is not open",
                            deviceName(record->bi_bdev->bd_dev) + " by " + currentName());
            endBio(record, -KERNEL_EIO);
            return;
        }
        request_queue *queue = disk->queue;
        if (queue->dead.load(std::memory_order_acquire)) {
            endBio(record, -KERNEL_EIO);
            return;
        }
        remapPartition(record, sectors);
        if (pastEnd(record, sectors)) {
            endBio(record, -KERNEL_EIO);
            return;
        }
        again = callFunction(queue, record);
    } while (again);
}

} // namespace

request_queue *newQueue(DiskState *disk, make_request_fn *own, bool withLock,
                        const std::string &name)
{
    static lock_class_key classKey;
    auto *queue = new request_queue;
    queue->function.store(own, std::memory_order_relaxed);
    queue->own = own;
    queue->name = name;
    queue->disk = disk;
    spin_lock_init_named(&queue->lock, "queue_lock", &classKey);
    if (withLock)
        queue->queue_lock = &queue->lock;
    std::lock_guard guard(registryGuard);
    registry.push_back(queue);
    return queue;
}

void retireQueue(request_queue *queue)
{
    queue->dead.store(true, std::memory_order_release);
    // It may be the driver's, and end with it.
    checkFreed(&queue->lock, sizeof(queue->lock), "request queue");
    if (queue->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        freeQueue(queue);
}

std::vector<std::string> hookedQueues()
{
    std::vector<std::string> result;
    std::lock_guard guard(registryGuard);
    for (const request_queue *queue : registry)
        if (isHooked(queue) && !queue->dead.load(std::memory_order_acquire))
            result.push_back(queue->name);
    return result;
}

void unhookQueues()
{
    std::lock_guard guard(registryGuard);
    for (request_queue *queue : registry)
        queue->function.store(queue->own, std::memory_order_release);
}

int tasksInHooks()
{
    return insideFunctions.load(std::memory_order_acquire);
}

} // namespace host

using namespace host;

spinlock_t *queue_lock(request_queue *queue)
{
    return queue->queue_lock;
}

make_request_fn *queue_make_request_fn(request_queue *queue)
{
    checkQueueLock(queue, "queue_make_request_fn");
    return queue->function.load(std::memory_order_acquire);
}

void queue_set_make_request_fn(request_queue *queue, make_request_fn *function)
{
    checkQueueLock(queue, "queue_set_make_request_fn");
    queue->function.store(function, std::memory_order_release);
}

int blk_get_queue(request_queue *queue)
{
    switchPoint();
    if (queue->dead.load(std::memory_order_acquire))
        return 1;
    queue->references.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void blk_put_queue(request_queue *queue)
{
    maySleep("blk_put_queue");
    if (queue->references.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    if (queue->dead.load(std::memory_order_acquire)) {
        freeQueue(queue);
        return;
    }
    reportViolation("queue reference that nobody held dropped",
                    queue->name + " by " + currentName());
    queue->references.store(1, std::memory_order_relaxed);
}

void submit_together(void (*submit)(void *data), void *data)
{
    submit(data);
}

void generic_make_request(bio *record)
{
    switchPoint();
    if (!checkAlive(record, bioAlive, "generic_make_request"))
        return;
    if (record->flight.load(std::memory_order_relaxed) == Flight::atDisk) {
        reportViolation("bio submitted while in flight", "by " + currentName());
        return;
    }
    record->flight.store(Flight::submitted, std::memory_order_relaxed);
    record->bi_next = nullptr;

    TaskImpl &task = requireTask("generic_make_request");
    if (task.bioTail) {
        *task.bioTail = record;
        task.bioTail = &record->bi_next;
        return;
    }
    IoPathScope onIoPath;
    do {
        // The list holds what is still to be submitted; `record` is taken off it.
        task.bioList = record->bi_next;
        if (!record->bi_next)
            task.bioTail = &task.bioList;
        record->bi_next = nullptr;
        submit(record);
        record = task.bioList;
    } while (record);
    task.bioTail = nullptr;
}
