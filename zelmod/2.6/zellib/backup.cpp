/* Starting a backup on a record, and tearing down whatever a record holds. */
#include <kernel/fs.h>
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "guards.h"
#include "users.h"
#include "zellib.h"

static constexpr int maxBlocksPerMapping = 256;

/* The blocks whose old contents are taken care of: none yet. newBlockMap's results. */
static int newCacheMap(Backup *b)
{
    u32 size = static_cast<u32>(b->diskInfo.numBlocks);
    unsigned int pages = 0;
    int ret = newBlockMap(&b->cacheMap, size, NULL, 1, &pages);
    if (ret != 0) {
        printk("<3>%s: error creating cache map of size=%u\n", __func__, size);
        return ret;
    }
    atomic_add(static_cast<int>(pages), &b->totalAllocPages);
    atomic_add(static_cast<int>(pages), &b->curAllocPages);
    return 0;
}

/* Pages of a mapping that takes maxBlocksPerMapping blocks. */
static int pagesPerMapping(int blockSize)
{
    int pages = blockSize * maxBlocksPerMapping / PAGE_SIZE;
    return pages <= maxMappingPages ? pages : maxMappingPages;
}

/*
 * Binds the record to a device and builds all that copy-on-write needs; the queue is not hooked
 * yet. 0, a positive result code or kernel_thread's error. A failure undoes nothing: closeBackup
 * releases whatever there is, and until then no other backup can start.
 */
int ioctlStartBackup(Backup *b, kernel_dev_t dev, unsigned int totalBlocks,
                     unsigned int maxCacheBlocks)
{
    unsigned int major = deviceMajor(dev);
    unsigned int minor = deviceMinor(dev);
    bool taken;
    {
        SpinGuard guard(&busyLock);
        taken = busy == 1;
        if (!taken)
            busy = 1;
    }
    if (taken) {
        setBackupState(b, BACKUP_REJECTED);
        printk("<3>%s: another backup operation is open can't start backup on device major=%d "
               "minor=%d\n",
               __func__, major, minor);
        return ZEL_RESULT_BUSY;
    }
    SemaphoreGuard command(&b->bSem);
    if (backupState(b) != BACKUP_IDLE) {
        printk("<3>%s: tried to start backup on device major=%d minor=%d that is already busy\n",
               __func__, major, minor);
        return ZEL_RESULT_HAS_BACKUP;
    }
    b->maxCacheBlocks = maxCacheBlocks;
    b->diskInfo.numBlocks = totalBlocks;
    int ret = getDiskInfo(&b->diskInfo, dev);
    if (ret != 0)
        return ret;
    b->maxVMPages = pagesPerMapping(b->diskInfo.blockSize);
    setBackupState(b, BACKUP_STARTING);
    if ((ret = newBlockTable(b)) != 0)
        return ret;
    if ((ret = startWorkQueue(b)) != 0)
        return ret;
    allocateBRCache(b);
    if (newDataCaches(b, dev) != 0) {
        printk("<3>%s: kmem_cache_create failed during backup start major=%d minor=%d\n", __func__,
               major, minor);
        return ZEL_RESULT_NO_MEMORY;
    }
    if ((ret = newCacheMap(b)) != 0)
        return ret;
    b->diskInfo.realMRF = getRealMRF(getRequestQueue(&b->diskInfo));
    if (b->diskInfo.realMRF == NULL) {
        printk("<3>%s: error getting real MRF for major=%d minor=%d\n", __func__, major, minor);
        return ZEL_RESULT_NOT_INITIALISED;
    }
    if ((ret = allocateBlockRequests(b)) != 0)
        return ret;
    storeActiveSession(b);
    advanceBackupState(b, BACKUP_STARTING, BACKUP_STARTED);
    printk("<6>%s: backup started for device major=%d minor=%d\n", __func__, major, minor);
    return 0;
}

/* Whether changes of b's device are being recorded. */
static bool isTracked(Backup *b)
{
    AutoMapSession *ams = getAMS(deviceMajor(b->diskInfo.kdev), deviceMinor(b->diskInfo.kdev));
    if (ams == NULL)
        return false;
    bool tracked = amsState(ams) == AMS_IN_SYNC;
    leaveUsers(&ams->users);
    return tracked;
}

/* Leaves the queue with the hook that change tracking needs: true. If it cannot, the sessions on
 * the queue are out of sync. */
static bool keepTracking(Backup *b)
{
    if (setMRF(b, zelAMRF) == 0)
        return true;
    errorAMSDEV(b->diskInfo.kdev);
    return false;
}

/* Takes the backup's hook off its queue. */
static void unhookBackup(Backup *b)
{
    if (isTracked(b) && keepTracking(b))
        return;
    if (backupState(b) == BACKUP_IDLE)
        return;
    if (countQueueAMS(getRequestQueue(&b->diskInfo)) >= 2 && keepTracking(b))
        return;
    unsetQueueMRFAMS(getRequestQueue(&b->diskInfo));
}

/*
 * Ends whatever session is active, also when it is not b's. Another record's session first runs
 * dry: hooks take it no more, and its held bios are passed on while the cache thread still finds
 * it; their wake-ups would be spent otherwise.
 *
 * The other session cannot be freed while activeSessionUsers is held and names it: its own close
 * has to come through here. b's own session does not wait for the hooks inside it, which may be
 * waiting for writers, which the caller holds; its queue is drained already.
 */
static void retireActiveSession(Backup *b)
{
    for (;;) {
        {
            WriteGuard hooksOut(&activeSessionUsers);
            Backup *s = loadActiveSession();
            if (s == NULL || s == b ||
                (atomic_read(&s->hooksInside) == 0 &&
                 (atomic_read(&s->mrInQueue) == 0 || loadCachePID() <= 0))) {
                storeActiveSession(NULL);
                activeSessionRetiring = 0;
                return;
            }
            activeSessionRetiring = 1;
        }
        schedule();
    }
}

static void closeDiskInfo(Backup *b)
{
    if (b->diskInfo.superBlock == NULL)
        return;
    drop_super(b->diskInfo.superBlock);
    b->diskInfo.superBlock = NULL;
}

static void logStats(Backup *b)
{
    auto *stats = static_cast<Stats *>(kmalloc(sizeof(Stats), GFP_KERNEL));
    if (stats == NULL)
        return;
    __builtin_memset(stats, 0, sizeof(*stats));
    setStats(b, stats);
    printStats(stats);
    kfree(stats);
}

/* Steps of closeBackup while no command and no hook can look at the record. */
static void tearDown(Backup *b)
{
    SemaphoreGuard command(&b->bSem);
    /* New writes of the device wait in their hook until the record is empty. */
    WriteGuard gate(&b->writers);
    unhookBackup(b);
    unsigned int oldState = backupState(b);
    if (oldState <= BACKUP_MAP_LOADED)
        advanceBackupState(b, oldState, BACKUP_CLOSING);
    waitForMRs(b);
    retireActiveSession(b);
    killWorkQueue(b);
    freeMMPages(b, &b->vmAreas[0]);
    freeMMPages(b, &b->vmAreas[1]);
    freeMMBRs(b);
    closeCache(b);
    closeBRCache(b);
    closeDiskInfo(b);
    releaseBackupMap(b, &b->blockMap);
    releaseBackupMap(b, &b->cacheMap);
    closeBlockTable(b);
    if (oldState != BACKUP_IDLE) {
        logStats(b);
        printk("<6>%s: backup finished device major=%d minor=%d\n", "closeBackup",
               deviceMajor(b->diskInfo.kdev), deviceMinor(b->diskInfo.kdev));
    }
    if (backupState(b) <= BACKUP_MAP_LOADED)
        setBackupState(b, BACKUP_IDLE);
}

/* Releases everything that the record holds, and the record. Its file is being released: no
 * command runs or will run on it. May sleep until all held bios are passed on. */
void closeBackup(Backup *b)
{
    tearDown(b);
    if (backupState(b) != BACKUP_REJECTED) {
        SpinGuard guard(&busyLock);
        if (busy == 1)
            busy = 0;
    }
    /* Hooks that found this session before it was cleared have waited at the gate. */
    while (atomic_read(&b->hooksInside) != 0)
        schedule();
    smp_mb();
    kfree(b);
}
