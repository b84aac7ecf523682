/*
 * The registry of hooked request queues: what each queue's make_request_fn was before the module
 * came, and which devices want it hooked.
 *
 * Entries are read inside queueListUsers and changed by its writer (users.h). An entry keeps a
 * reference on its queue, so that the queue can be given back its function at any time; putting
 * that reference may sleep and waits until the registry has been left.
 */
#include <kernel/block.h>
#include <kernel/list.h>
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "guards.h"
#include "users.h"
#include "zellib.h"

/* Becomes the registry's one writer: returns holding queueListUsersLock. */
void waitForQueueListUsers(unsigned long *flags)
{
    waitForUsers(&queueListUsers, &queueListUsersLock, flags);
}

/* Zeroed memory for a record of the registry; never refused. */
static void *allocRecord(size_t size)
{
    void *record;
    while ((record = kmalloc(size, GFP_NOIO)) == NULL)
        schedule();
    __builtin_memset(record, 0, size);
    return record;
}

/* The entry of a queue, or NULL. The caller is inside the registry. */
static QueueList *findQueue(struct request_queue *q)
{
    for (struct list_head *at = queueListHead.next; at != &queueListHead; at = at->next) {
        QueueList *ql = queueListOf(at);
        if (ql->rQueue == q)
            return ql;
    }
    return NULL;
}

static make_request_fn *readMRF(struct request_queue *q)
{
    unsigned long flags = 0;
    zelLockRequestQueue(q, &flags);
    make_request_fn *fn = queue_make_request_fn(q);
    zelUnlockRequestQueue(q, &flags);
    return fn;
}

static void storeMRF(struct request_queue *q, make_request_fn *fn)
{
    unsigned long flags = 0;
    zelLockRequestQueue(q, &flags);
    queue_set_make_request_fn(q, fn);
    zelUnlockRequestQueue(q, &flags);
}

/* Nothing keeps the queue hooked for this device any more, so the session that it may have stops
 * tracking. The caller is the writer. */
static void dropDev(DevList *dl)
{
    {
        Users tableUser(&amListUsers, &amListUsersLock);
        AutoMapSession **slot = amListSlot(deviceMajor(dl->kdev), deviceMinor(dl->kdev));
        if (slot != NULL && *slot != NULL)
            setAMSState(*slot, AMS_NOT_IN_SYNC);
    }
    list_del(&dl->list);
    kfree(dl);
}

/* Drops an entry without devices; the caller is the writer, has given the queue its function back
 * or will before it leaves, and puts the queue after it has left. */
static void dropQueue(QueueList *ql)
{
    list_del(&ql->list);
    kfree(ql);
}

/* 1 if the device is registered under this entry. The caller is inside the registry. */
int isInDevList(QueueList *ql, kernel_dev_t kdev)
{
    if (ql == NULL)
        return 0;
    for (struct list_head *at = ql->devList.next; at != &ql->devList; at = at->next)
        if (devListOf(at)->kdev == kdev)
            return 1;
    return 0;
}

/* Makes `dl` the device's record under this entry: 1. 0 if it is there already or `ql` is NULL;
 * then `dl` stays the caller's. The caller is the writer. */
int addDevToList(QueueList *ql, kernel_dev_t kdev, DevList *dl)
{
    if (ql == NULL || isInDevList(ql, kdev) != 0)
        return 0;
    dl->kdev = kdev;
    list_add_tail(&dl->list, &ql->devList);
    return 1;
}

/* 1 if the device is registered under this queue. */
int isInQueueList(struct request_queue *q, kernel_dev_t kdev)
{
    if (q == NULL)
        return 0;
    Users user(&queueListUsers, &queueListUsersLock);
    return isInDevList(findQueue(q), kdev);
}

/* Registers a device under a queue. False: the queue is going away and has no entry. */
static bool registerDevice(struct request_queue *q, kernel_dev_t kdev)
{
    auto *ql = static_cast<QueueList *>(allocRecord(sizeof(QueueList)));
    auto *dl = static_cast<DevList *>(allocRecord(sizeof(DevList)));
    bool newUsed = false;
    bool dlUsed = false;
    unsigned long flags;
    waitForQueueListUsers(&flags);
    QueueList *found = findQueue(q);
    if (found != NULL) {
        dlUsed = addDevToList(found, kdev, dl) != 0;
    } else if (blk_get_queue(q) == 0) {
        ql->rQueue = q;
        ql->realMRF = readMRF(q);
        INIT_LIST_HEAD(&ql->devList);
        dlUsed = addDevToList(ql, kdev, dl) != 0;
        list_add_tail(&ql->list, &queueListHead);
        newUsed = true;
    }
    spin_unlock_irqrestore(&queueListUsersLock, flags);
    if (!newUsed)
        kfree(ql);
    if (!dlUsed)
        kfree(dl);
    return found != NULL || newUsed;
}

/* Registers a device under a queue, with its entry if it is the first one. */
void addQueueToList(struct request_queue *q, kernel_dev_t kdev)
{
    if (q == NULL) {
        printk("<3>%s: Could not add queue to list (null).%s", __func__, "\n");
        return;
    }
    registerDevice(q, kdev);
}

/* The function to which the queue's bios finally go; NULL only for a NULL queue. Any task that
 * submits I/O. */
make_request_fn *getRealMRF(struct request_queue *q)
{
    if (q == NULL) {
        printk("<4>%s: Can't get MRF on NULL queue.%s", __func__, "\n");
        /* Not entered, and yet left: callers count on it. */
        leaveUsers(&queueListUsers);
        return NULL;
    }
    Users user(&queueListUsers, &queueListUsersLock);
    for (struct list_head *at = queueListHead.next; at != &queueListHead; at = at->next) {
        QueueList *ql = queueListOf(at);
        if (ql->rQueue == q && ql->realMRF != NULL)
            return ql->realMRF;
    }
    return readMRF(q);
}

/* Hooks the queue if the device is registered under it. An entry cannot go away in between, so that
 * no queue stays hooked that the registry does not know. */
static bool hookRegistered(struct request_queue *q, kernel_dev_t kdev, make_request_fn *fn)
{
    Users user(&queueListUsers, &queueListUsersLock);
    if (isInDevList(findQueue(q), kdev) == 0)
        return false;
    storeMRF(q, fn);
    return true;
}

/* Installs `fn` on the queue of b's device. 0, or 1 if the device has no queue (any more). */
int setMRF(Backup *b, make_request_fn *fn)
{
    struct request_queue *q = getRequestQueue(&b->diskInfo);
    if (q == NULL)
        return 1;
    /* Registered again if it was removed before the queue could be hooked. */
    while (!hookRegistered(q, b->diskInfo.kdev, fn)) {
        if (!registerDevice(q, b->diskInfo.kdev))
            return 1;
    }
    return 0;
}

/* How many of the devices registered under the queue have a tracking session. */
int countQueueAMS(struct request_queue *q)
{
    if (q == NULL) {
        printk("<3>%s: Could not count ams sessions for request queue because queue was null.%s",
               __func__, "\n");
        return 0;
    }
    Users user(&queueListUsers, &queueListUsersLock);
    QueueList *ql = findQueue(q);
    if (ql == NULL)
        return 0;
    Users tableUser(&amListUsers, &amListUsersLock);
    int count = 0;
    for (struct list_head *at = ql->devList.next; at != &ql->devList; at = at->next) {
        kernel_dev_t kdev = devListOf(at)->kdev;
        AutoMapSession **slot = amListSlot(deviceMajor(kdev), deviceMinor(kdev));
        if (slot != NULL && *slot != NULL)
            count++;
    }
    return count;
}

/* Drops all devices of an entry. The caller is the writer. */
static void dropDevices(QueueList *ql)
{
    while (!list_empty(&ql->devList))
        dropDev(devListOf(ql->devList.next));
}

/* Gives the queue its own function back and forgets it; its devices' sessions stop tracking. Does
 * nothing for a queue without an entry. */
void unsetQueueMRFAMS(struct request_queue *q)
{
    if (q == NULL) {
        printk("<3>%s: Could not unset MRFS for request queue because queue was null.%s", __func__,
               "\n");
        return;
    }
    unsigned long flags;
    waitForQueueListUsers(&flags);
    QueueList *ql = findQueue(q);
    if (ql == NULL) {
        spin_unlock_irqrestore(&queueListUsersLock, flags);
        return;
    }
    dropDevices(ql);
    if (ql->rQueue == NULL) {
        printk("<2>%s: Could not find real make request fn for queue.%s", __func__, "\n");
        BUG();
    }
    storeMRF(q, ql->realMRF);
    dropQueue(ql);
    spin_unlock_irqrestore(&queueListUsersLock, flags);
    blk_put_queue(q);
}

void unSetMRFAMS(AutoMapSession *ams)
{
    if (ams != NULL)
        unSetMRFDEV(&ams->diskInfo);
}

/* Whether a backup keeps this device as it was: then its hook is not to be taken off under it. The
 * caller is inside activeSessionUsers. */
static bool isBeingKept(kernel_dev_t kdev)
{
    Backup *b = loadActiveSession();
    if (b == NULL || b->diskInfo.kdev != kdev)
        return false;
    unsigned int state = backupState(b);
    return state >= BACKUP_SNAPPED && state <= BACKUP_MAP_LOADED;
}

/*
 * Removes one device; the queue gets its own function back when that was its last one. A device
 * whose snapshot is being kept stays: sessions may be closed at any time, and the end of the backup
 * unhooks it.
 */
void unSetMRFDEV(DiskInfo *diskInfo)
{
    struct request_queue *q = getRequestQueue(diskInfo);
    if (q == NULL) {
        kernel_dev_t kdev = diskInfo != NULL ? diskInfo->kdev : 0;
        printk("<4>%s: Unable to get request queue for MAJOR=%d, MINOR=%d while unsetting MRF.",
               __func__, deviceMajor(kdev), deviceMinor(kdev));
        return;
    }
    ReadGuard activeStays(&activeSessionUsers);
    make_request_fn *realMRF = NULL;
    bool forgotten = false;
    unsigned long flags;
    waitForQueueListUsers(&flags);
    QueueList *targetQueue = findQueue(q);
    if (targetQueue != NULL && !isBeingKept(diskInfo->kdev)) {
        for (struct list_head *at = targetQueue->devList.next; at != &targetQueue->devList;) {
            DevList *targetDev = devListOf(at);
            at = at->next;
            if (targetDev->kdev == diskInfo->kdev)
                dropDev(targetDev);
        }
        if (list_empty(&targetQueue->devList)) {
            realMRF = targetQueue->realMRF;
            dropQueue(targetQueue);
            forgotten = true;
        }
    }
    unsigned long flagsForRequestQueue = 0;
    zelLockRequestQueue(q, &flagsForRequestQueue);
    if (realMRF != NULL && realMRF != queue_make_request_fn(q))
        queue_set_make_request_fn(q, realMRF);
    zelUnlockRequestQueue(q, &flagsForRequestQueue);
    spin_unlock_irqrestore(&queueListUsersLock, flags);
    if (forgotten)
        blk_put_queue(q);
}

/* Gives every queue back its own function: those of devices that were unmounted since cannot be
 * found from the device any more. For the module's exit. */
void unhookAllQueues()
{
    for (;;) {
        unsigned long flags;
        waitForQueueListUsers(&flags);
        if (list_empty(&queueListHead)) {
            spin_unlock_irqrestore(&queueListUsersLock, flags);
            return;
        }
        QueueList *ql = queueListOf(queueListHead.next);
        struct request_queue *q = ql->rQueue;
        dropDevices(ql);
        /* A queue whose disk is gone gets no more bios, and its lock may have gone with the disk.
         */
        bool alive = blk_get_queue(q) == 0;
        if (alive)
            storeMRF(q, ql->realMRF);
        dropQueue(ql);
        spin_unlock_irqrestore(&queueListUsersLock, flags);
        if (alive)
            blk_put_queue(q);
        blk_put_queue(q);
    }
}
