/*
 * Change tracking: one session a device, which marks every block written to it since the last
 * snapshot and outlives the backups.
 *
 * amList is read inside amListUsers and changed by its writer; a session is used with a reference
 * of its own, taken inside amList (users.h).
 */
#include <kernel/block.h>
#include <kernel/list.h>
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>

#include "users.h"
#include "zellib.h"

void waitForAMListUsers(unsigned long *flags)
{
    waitForUsers(&amListUsers, &amListUsersLock, flags);
}

void waitForAMSUsers(AutoMapSession *ams, unsigned long *flags)
{
    waitForUsers(&ams->users, &ams->usersLock, flags);
}

AutoMapSession **amListSlot(unsigned int major, unsigned int minor)
{
    if (major >= maxAMMajor || minor >= maxAMMinor)
        return NULL;
    return &amList[major][minor];
}

static AutoMapSession **slotOfDevice(kernel_dev_t kdev)
{
    return amListSlot(deviceMajor(kdev), deviceMinor(kdev));
}

AutoMapSession *getAMS(unsigned int major, unsigned int minor)
{
    AutoMapSession **slot = amListSlot(major, minor);
    if (slot == NULL)
        return NULL;
    Users tableUser(&amListUsers, &amListUsersLock);
    AutoMapSession *ams = *slot;
    if (ams != NULL)
        enterUsers(&ams->users, &ams->usersLock);
    return ams;
}

/* Puts a session (or NULL) into a slot and returns what was there. That one sees no more writes: a
 * snapshot that still has it must not take its map for a whole one. */
static AutoMapSession *exchangeSlot(AutoMapSession **slot, AutoMapSession *ams)
{
    unsigned long flags;
    waitForAMListUsers(&flags);
    AutoMapSession *old = *slot;
    if (old != NULL)
        setAMSState(old, AMS_NOT_IN_SYNC);
    *slot = ams;
    spin_unlock_irqrestore(&amListUsersLock, flags);
    return old;
}

/* Makes the session of b's device, which tracks nothing until a snapshot sets it in sync. 0, or 2
 * (device number or size), or 5 (memory). The caller has closed the device's old session. */
int newAMS(Backup *b, AutoMapSession **amSession)
{
    AutoMapSession **slot = slotOfDevice(b->diskInfo.kdev);
    if (slot == NULL)
        return ZEL_RESULT_INVALID;
    auto *ams = static_cast<AutoMapSession *>(kmalloc(sizeof(AutoMapSession), GFP_KERNEL));
    if (ams == NULL)
        return ZEL_RESULT_NO_MEMORY;
    __builtin_memset(ams, 0, sizeof(*ams));
    ams->diskInfo = b->diskInfo;
    setAMSState(ams, AMS_NOT_IN_SYNC);
    if (ams->diskInfo.blockSize == 0) {
        printk("<2>%s: Blocksize set to 0 when making automap%s", __func__, "\n");
        BUG();
    }
    unsigned int numPages = 0;
    int ret = newBlockMap(&ams->map, static_cast<u32>(b->diskInfo.numBlocks), NULL, 1, &numPages);
    if (ret != 0) {
        printk("<3>%s: failed to create new device map%s", __func__, "\n");
        return ret;
    }
    /* A class of its own for lock checking: the exchange of maps holds a backup's lock, too. */
    spin_lock_init(&ams->map.usersLock);
    atomic_add(numPages, &curAllocAMPages);
    atomic_set(&ams->users, 1);
    spin_lock_init(&ams->usersLock);
    *amSession = ams;
    exchangeSlot(slot, ams);
    return 0;
}

/* Marks a write in its device's session, if there is one. On the write path; sleeps. */
void updateAM(struct bio *bio, int bioMinor)
{
    AutoMapSession *ams = getAMS(deviceMajor(bdev_dev(bio_bdev(bio))), bioMinor);
    if (ams == NULL)
        return;
    BlockRange range = BIOToBlockNumbers(bio, &ams->diskInfo);
    if (amsState(ams) == AMS_IN_SYNC) {
        for (u64 beyond = setBlocks(&ams->map, range); beyond <= range.endBN; beyond++) {
            setAMSState(ams, AMS_NOT_IN_SYNC);
            printk("<4>%s: device resize detected (block %d in size %d) in automap update, "
                   "automap not in sync%s",
                   __func__, static_cast<int>(beyond), ams->map.size, "\n");
        }
    }
    leaveUsers(&ams->users);
}

/* b failed on the write path: its device is out of sync, and the queue keeps only the hook that
 * other tracked devices need. */
void errorAMS(Backup *b)
{
    int foundAMS = 0;
    if (AutoMapSession **slot = slotOfDevice(b->diskInfo.kdev)) {
        Users tableUser(&amListUsers, &amListUsersLock);
        if (*slot != NULL) {
            setAMSState(*slot, AMS_NOT_IN_SYNC);
            foundAMS = 1;
        }
    }
    if (countQueueAMS(getRequestQueue(&b->diskInfo)) > foundAMS) {
        if (setMRF(b, zelAMRF) == 0)
            return;
        errorAMSDEV(b->diskInfo.kdev);
    }
    unsetQueueMRFAMS(getRequestQueue(&b->diskInfo));
}

/* The entry under which a device is registered, or NULL. The caller is inside the registry. */
static QueueList *findQueueOfDevice(kernel_dev_t kdev)
{
    for (struct list_head *at = queueListHead.next; at != &queueListHead; at = at->next) {
        QueueList *ql = queueListOf(at);
        if (isInDevList(ql, kdev) != 0)
            return ql;
    }
    return NULL;
}

/* Puts every session of every device on kdev's queue out of sync. */
void errorAMSDEV(kernel_dev_t kdev)
{
    Users registryUser(&queueListUsers, &queueListUsersLock);
    QueueList *ql = findQueueOfDevice(kdev);
    if (ql == NULL)
        return;
    Users tableUser(&amListUsers, &amListUsersLock);
    for (struct list_head *at = ql->devList.next; at != &ql->devList; at = at->next) {
        AutoMapSession **slot = slotOfDevice(devListOf(at)->kdev);
        if (slot != NULL && *slot != NULL)
            setAMSState(*slot, AMS_NOT_IN_SYNC);
    }
}

/* Ends the session of b's device. 0, or 2 if there is none. */
int closeAMS(Backup *b)
{
    AutoMapSession **slot = slotOfDevice(b->diskInfo.kdev);
    AutoMapSession *ams = slot != NULL ? exchangeSlot(slot, NULL) : NULL;
    if (ams == NULL)
        return ZEL_RESULT_INVALID;
    closeAM(ams);
    return 0;
}

/* Unhooks and frees a session that is no longer in amList, when its last user has left. */
void closeAM(AutoMapSession *ams)
{
    unSetMRFAMS(ams);
    unsigned long flags;
    waitForAMSUsers(ams, &flags);
    spin_unlock_irqrestore(&ams->usersLock, flags);
    unsigned int freed = 0;
    closeBlockMap(&ams->map, &freed);
    atomic_sub(freed, &curAllocAMPages);
    kfree(ams);
}

/* Ends all sessions. */
void closeAllAMS()
{
    for (unsigned int major = 0; major < maxAMMajor; major++) {
        for (unsigned int minor = 0; minor < maxAMMinor; minor++) {
            AutoMapSession *ams = exchangeSlot(&amList[major][minor], NULL);
            if (ams != NULL)
                closeAM(ams);
        }
    }
}
