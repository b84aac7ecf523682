/* The commands that steer change tracking and exchange block maps with the agent. */
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/uaccess.h>

#include "guards.h"
#include "users.h"
#include "zellib.h"

/* The next snapshot starts a fresh map instead of handing out the changes. */
int ioctlNoLoadFromAutoMap(Backup *b)
{
    SemaphoreGuard guard(&b->bSem);
    b->noLoadFromAutoMap = 1;
    return 0;
}

/* The next snapshot ends the device's tracking. */
int ioctlNoStartAutoMap(Backup *b)
{
    SemaphoreGuard guard(&b->bSem);
    b->noStartAutoMap = 1;
    return 0;
}

/* Tells what the device's session is; all zero if there is none. 0 or 7. */
int ioctlGetAutoMapState(Backup *b, AutoMapState *userAMS, unsigned int amsLen)
{
    AutoMapState answer;
    __builtin_memset(&answer, 0, sizeof(answer));
    {
        SemaphoreGuard guard(&b->bSem);
        kernel_dev_t kdev = b->diskInfo.kdev;
        if (AutoMapSession *ams = getAMS(deviceMajor(kdev), deviceMinor(kdev))) {
            answer.major = deviceMajor(ams->diskInfo.kdev);
            answer.minor = deviceMinor(ams->diskInfo.kdev);
            answer.state = amsState(ams);
            answer.mapLen = ams->map.size;
            answer.mapSize = ams->map.numBytes;
            answer.amsKey = ams->sessionKey;
            leaveUsers(&ams->users);
        }
    }
    unsigned int len = amsLen < sizeof(answer) ? amsLen : sizeof(answer);
    if (copy_to_user(userAMS, &answer, len) != 0) {
        printk("<3>%s: copy to user space %s\n", __func__, "failed");
        return ZEL_RESULT_COPY_OUT_FAILED;
    }
    return 0;
}

/* Copies a whole map to the agent. 0 or 7. */
static int copyMapOut(BlockMap *bm, char *to)
{
    unsigned int numPages = (bm->numBytes + PAGE_SIZE - 1) >> PAGE_SHIFT;
    for (unsigned int i = 0; i < numPages; i++) {
        u32 rest = bm->numBytes & (PAGE_SIZE - 1);
        u32 count = i == numPages - 1 && rest != 0 ? rest : u32{PAGE_SIZE};
        char *dest = to + static_cast<size_t>(i) * PAGE_SIZE;
        void *bytes = kmap(bm->map[i]);
        unsigned long uncopied = copy_to_user(dest, bytes, count);
        kunmap(bm->map[i]);
        if (uncopied != 0) {
            printk("<3>%s: copy to user space failed data=%p bytesCopied=%d bytesInMap=%d\n",
                   "ioctlGetAutoMap", dest, count, bm->numBytes);
            return ZEL_RESULT_COPY_OUT_FAILED;
        }
    }
    return 0;
}

/* Checks the map against what the agent expects and copies it out. 0, 2 or 7. */
static int handOutMap(Backup *b, const UserBlockMap *userBM)
{
    BlockMap *bm = &b->blockMap;
    Users user(&bm->users, &bm->usersLock);
    if (bm->map == NULL) {
        printk("<3>%s: backup error automap is NULL %s", "ioctlGetAutoMap", "\n");
        return ZEL_RESULT_INVALID;
    }
    if (bm->size != userBM->mapLen) {
        printk("<3>%s: backup error map size mismatch kernel map size=%u user map size=%u\n",
               "ioctlGetAutoMap", bm->size, userBM->mapLen);
        return ZEL_RESULT_INVALID;
    }
    return copyMapOut(bm, reinterpret_cast<char *>(static_cast<uintptr_t>(userBM->map)));
}

/* Hands out, once, the blocks that changed between the last two snapshots. 0, 2 or 7; it keeps the
 * map unless it succeeds. */
int ioctlGetAutoMap(Backup *b, const UserBlockMap *userBM)
{
    SemaphoreGuard guard(&b->bSem);
    if (backupState(b) != BACKUP_SNAPPED) {
        printk("<3>%s: backup error map not loaded %s", __func__, "\n");
        return ZEL_RESULT_INVALID;
    }
    int ret = handOutMap(b, userBM);
    if (ret == 0)
        releaseBackupMap(b, &b->blockMap);
    return ret;
}

/* Makes blockMap from the agent's bitmap, or of all blocks if that is NULL. newBlockMap's result.
 */
static int newBUBlockMap(Backup *b, const UserBlockMap *userBM)
{
    /* The changes that a snapshot has put there and nobody has fetched. */
    releaseBackupMap(b, &b->blockMap);
    unsigned int numPages = 0;
    auto *data = reinterpret_cast<const void *>(static_cast<uintptr_t>(userBM->map));
    int ret = newBlockMap(&b->blockMap, userBM->mapLen, data, 0, &numPages);
    if (ret != 0) {
        printk("<3>%s: error creating map of size=%u\n", __func__, userBM->mapLen);
        return ret;
    }
    atomic_add(numPages, &b->totalAllocPages);
    atomic_add(numPages, &b->curAllocPages);
    return 0;
}

/* Installs the map of the blocks that the backup will read. 0, 2, 3, 5 or 6. */
int ioctlLoadBlockMap(Backup *b, const UserBlockMap *userBM)
{
    SemaphoreGuard guard(&b->bSem);
    if (!advanceBackupState(b, BACKUP_SNAPPED, BACKUP_LOADING_MAP)) {
        printk("<3>%s: backup error snapshot not %s\n", __func__, "complete");
        return ZEL_RESULT_INVALID;
    }
    int ret = newBUBlockMap(b, userBM);
    if (ret != 0) {
        setBackupState(b, BACKUP_ERR_MAP);
        printk("<3>%s: backup error failed to load device map%s", __func__, "\n");
        return ret;
    }
    {
        /* No write is between its state test and its queueing. */
        WriteGuard writers(&b->writers);
        advanceBackupState(b, BACKUP_LOADING_MAP, BACKUP_MAP_LOADED);
    }
    ret = cleanUpCache(b);
    if (ret != 0) {
        setBackupState(b, BACKUP_ERR_MAP);
        printk("<3>%s: error cleaning cache%s", __func__, "\n");
    }
    return ret;
}

/* Tells one block whose old contents are cached, for the agent to fetch early; 0xffffffff for none.
 * 0, 2 or -EFAULT. */
int ioctlGetDirtyBlock(Backup *b, u32 *userBlockNumPtr)
{
    /* In this order: once the state has been seen the map stays. */
    if (backupState(b) != BACKUP_MAP_LOADED || b->blockMap.map == NULL)
        return ZEL_RESULT_INVALID;
    unsigned int blockNum = 0xffffffff;
    {
        SemaphoreGuard guard(&b->bSem);
        if (atomic_read(&b->curCBs) != 0)
            blockNum = anyDirtyBlock(b);
    }
    return put_user(blockNum, userBlockNumPtr);
}
