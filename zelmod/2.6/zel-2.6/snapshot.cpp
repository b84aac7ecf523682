/* Fixing the point in time of a backup, under a frozen file system. */
#include <kernel/fs.h>
#include <kernel/log.h>
#include <kernel/sync.h>
#include <kernel/task.h>
#include <kernel/time.h>
#include <kernel/uaccess.h>

#include "guards.h"
#include "users.h"
#include "zellib.h"

static constexpr char command[] = "ioctlSnapShot";

/* end - start. */
struct kernel_timespec calcTimeDiff(const struct kernel_timespec *start,
                                    const struct kernel_timespec *end)
{
    struct kernel_timespec diff = {end->tv_sec - start->tv_sec, end->tv_nsec - start->tv_nsec};
    if (diff.tv_nsec < 0) {
        diff.tv_nsec += 1000000000;
        diff.tv_sec--;
    }
    return diff;
}

/* The map that the session goes on with, kept in the backup's until the two are exchanged. */
static int newDeviceMap(Backup *b, u32 size)
{
    unsigned int pages = 0;
    int ret = newBlockMap(&b->blockMap, size, NULL, 1, &pages);
    if (ret != 0) {
        printk("<3>%s: failed to create new device map%s", command, "\n");
        return ret;
    }
    atomic_add(static_cast<int>(pages), &b->totalAllocPages);
    atomic_add(static_cast<int>(pages), &b->curAllocPages);
    return 0;
}

/* A new session of b's device with a reference, or NULL if it was closed at once. newAMS's results.
 */
static int renewSession(Backup *b, AutoMapSession **chosen)
{
    AutoMapSession *ams;
    int ret = newAMS(b, &ams);
    if (ret != 0) {
        printk("<3>%s: new automap failed%s", command, "\n");
        return ret;
    }
    *chosen = getAMS(deviceMajor(b->diskInfo.kdev), deviceMinor(b->diskInfo.kdev));
    return 0;
}

/* What becomes of the command after the session was looked at. */
enum class Outcome { proceed, end };

/*
 * Settles which session tracks the device from the snapshot on: the one there is, if the agent
 * proves that it has the backup which that one continues; a new one; or none. On `proceed` it is in
 * `*chosen` with a reference, or NULL. On `end` the command ends with `*ret`.
 */
static Outcome chooseSession(Backup *b, const AMSessionKey *key, AutoMapSession **chosen, int *ret)
{
    *chosen = NULL;
    *ret = 0;
    AutoMapSession *ams = getAMS(deviceMajor(b->diskInfo.kdev), deviceMinor(b->diskInfo.kdev));
    if (ams == NULL) {
        if (b->noStartAutoMap == 1)
            return Outcome::proceed;
    } else if (b->noStartAutoMap == 1) {
        leaveUsers(&ams->users);
        closeAMS(b);
        return Outcome::proceed;
    } else if (amsState(ams) != AMS_IN_SYNC || b->noLoadFromAutoMap == 1) {
        leaveUsers(&ams->users);
        closeAMS(b);
    } else if (__builtin_memcmp(key, &ams->sessionKey, sizeof(*key)) != 0) {
        /* The agent sees that the state did not change. */
        printk("<3>%s: session key mismatch%s", command, "\n");
        leaveUsers(&ams->users);
        return Outcome::end;
    } else if (b->diskInfo.numBlocks != ams->map.size) {
        /* The two numbers are the halves of the device's block count. */
        printk("<4>%s: device resize detected, device has (%u) blocks and automap has (%u), "
               "resetting automap\n",
               command, static_cast<u32>(b->diskInfo.numBlocks),
               static_cast<u32>(b->diskInfo.numBlocks >> 32));
        setAMSState(ams, AMS_NOT_IN_SYNC);
        leaveUsers(&ams->users);
        closeAMS(b);
    } else if ((*ret = newDeviceMap(b, ams->map.size)) != 0) {
        leaveUsers(&ams->users);
        return Outcome::end;
    } else {
        *chosen = ams;
        return Outcome::proceed;
    }
    *ret = renewSession(b, chosen);
    return *ret == 0 ? Outcome::proceed : Outcome::end;
}

/* waitForAMSUsers for a caller that has a reference itself and keeps it, so that the session cannot
 * go away meanwhile. Returns holding ams->usersLock with no other user inside. */
static void waitForOtherAMSUsers(AutoMapSession *ams, unsigned long *flags)
{
    constexpr int idleAndOwn = 2;
    *flags = spin_lock_irqsave(&ams->usersLock);
    while (atomic_read(&ams->users) != idleAndOwn) {
        spin_unlock_irqrestore(&ams->usersLock, *flags);
        schedule();
        *flags = spin_lock_irqsave(&ams->usersLock);
    }
    smp_mb();
}

/* The key that ties the next backup to this one. Put in place with no reader inside. */
static void renewKey(AutoMapSession *ams)
{
    AMSessionKey key;
    __builtin_memset(&key, 0xff, sizeof(key));
    for (unsigned int i = 0; i < sizeof(key.key); i++)
        get_random_bytes(&key.key[i], 1);
    unsigned long flags;
    waitForOtherAMSUsers(ams, &flags);
    ams->sessionKey = key;
    spin_unlock_irqrestore(&ams->usersLock, flags);
}

/* Gives the backup the session's map of changed blocks and the session the empty one. Both are
 * idle, so neither wait sleeps under ams->usersLock. */
static void exchangeMaps(Backup *b, AutoMapSession *ams)
{
    unsigned long backupFlags;
    unsigned long sessionFlags;
    waitForBlockMapUsers(&b->blockMap, &backupFlags);
    waitForBlockMapUsers(&ams->map, &sessionFlags);
    struct page **changed = ams->map.map;
    ams->map.map = b->blockMap.map;
    b->blockMap.map = changed;
    spin_unlock_irqrestore(&ams->map.usersLock, sessionFlags);
    spin_unlock_irqrestore(&b->blockMap.usersLock, backupFlags);
}

/* The point in time: no write is between its state test and its queueing, the file system is frozen
 * and nobody else looks at the session. True if the backup has got the session's map. */
static bool fixPointInTime(Backup *b, AutoMapSession *ams)
{
    WriteGuard gate(&b->writers);
    if (ams == NULL) {
        advanceBackupState(b, BACKUP_STARTED, BACKUP_SNAPPED);
        return false;
    }
    unsigned long flags;
    waitForOtherAMSUsers(ams, &flags);
    bool exchange = amsState(ams) == AMS_IN_SYNC;
    if (exchange)
        exchangeMaps(b, ams);
    else
        setAMSState(ams, AMS_IN_SYNC);
    advanceBackupState(b, BACKUP_STARTED, BACKUP_SNAPPED);
    spin_unlock_irqrestore(&ams->usersLock, flags);
    return exchange;
}

/* From the hook on; the session is settled. 0 or 2. */
static int takeSnapshot(Backup *b, AutoMapSession *ams)
{
    if (ams != NULL)
        renewKey(ams);
    if (setMRF(b, zelMRF) != 0) {
        printk("<3>%s: device major=%d minor=%d not valid\n", command,
               deviceMajor(b->diskInfo.kdev), deviceMinor(b->diskInfo.kdev));
        return ZEL_RESULT_INVALID;
    }
    struct block_device *bdev = b->diskInfo.bdev;
    printk("<3>%s: Going to freez: %d.%d\n", command, deviceMajor(bdev_dev(bdev)),
           deviceMinor(bdev_dev(bdev)));
    struct kernel_timespec before;
    struct kernel_timespec frozen;
    struct kernel_timespec thawed;
    current_kernel_time(&before);
    struct super_block *sb = freeze_bdev(bdev);
    current_kernel_time(&frozen);
    if (sb == NULL || IS_ERR(sb)) {
        if (sb == NULL)
            thaw_bdev(bdev, NULL);
        printk("<3>%s: freeze_bdev could not freeze the device.%s", command, "\n");
        return ZEL_RESULT_INVALID;
    }
    bool exchanged = fixPointInTime(b, ams);
    /* The session may have been closed, and the queue unhooked with it, until now. */
    setMRF(b, zelMRF);
    thaw_bdev(bdev, sb);
    current_kernel_time(&thawed);
    /* The session fell out of sync after its map was chosen: the empty one would say that nothing
     * has changed. */
    if (!exchanged)
        releaseBackupMap(b, &b->blockMap);
    b->eTimeToFreeze = calcTimeDiff(&before, &frozen);
    b->eTimeFrozen = calcTimeDiff(&before, &thawed);
    return 0;
}

/*
 * Takes the snapshot of a started backup: from here on its blocks are kept as they are now. `len`
 * bytes of the previous backup's session key are at `userKey`, the rest of it is zero. 0, also if
 * the key is not the session's (the state is 2 then as before), or a result code.
 */
int ioctlSnapShot(Backup *b, AMSessionKey *userKey, unsigned int len)
{
    AMSessionKey key = {};
    bool copied = copy_from_user(&key, userKey, len < sizeof(key) ? len : sizeof(key)) == 0;
    SemaphoreGuard guard(&b->bSem);
    if (backupState(b) != BACKUP_STARTED)
        return ZEL_RESULT_INVALID;
    if (!copied) {
        printk("<3>%s: copy from user space %s\n", command, "failed");
        return ZEL_RESULT_COPY_IN_FAILED;
    }
    /* Of a snapshot that failed after its map was made. */
    releaseBackupMap(b, &b->blockMap);
    AutoMapSession *ams;
    int ret;
    if (chooseSession(b, &key, &ams, &ret) == Outcome::end)
        return ret;
    ret = takeSnapshot(b, ams);
    if (ams != NULL)
        leaveUsers(&ams->users);
    return ret;
}

/* Writes out everything dirty on the backup's device, if it has one; 0. */
int ioctlSync(Backup *b)
{
    fsync_bdev(b->diskInfo.bdev);
    return 0;
}
