/* The command that delivers blocks as they were at the snapshot. */
#include <kernel/log.h>
#include <kernel/sync.h>

#include "guards.h"
#include "zellib.h"

static constexpr char command[] = "ioctlReadBlocks";

/* Whether the blocks up to `end` are covered by the maps that count in this state. */
static bool rangeIsMapped(Backup *b, unsigned int state, unsigned int end)
{
    if (state == BACKUP_MAP_LOADED) {
        if (b->blockMap.map == NULL) {
            printk("<3>%s: block map is null%s", command, "\n");
            return false;
        }
        if (end > b->blockMap.size) {
            printk("<3>%s: end block number out of block map range%s", command, "\n");
            return false;
        }
    }
    if (b->cacheMap.map == NULL) {
        printk("<3>%s: cache map is null%s", command, "\n");
        return false;
    }
    if (end > b->cacheMap.size) {
        printk("<3>%s: block num (%u) out of range (%u)\n", command, end, b->cacheMap.size);
        return false;
    }
    return true;
}

/* Fills the mapping with a run of blocks that fits it: 0, 2 or 12. */
static int deliver(Backup *b, unsigned int start, unsigned int num, BackupVMA *bvma)
{
    unsigned int fromDisk = readBlocks(b, start, num, bvma);
    unsigned int fromCache = fromDisk < num ? readFromCache(b, start, num, bvma) : 0;
    int ret = ZEL_RESULT_INVALID;
    if (fromDisk + fromCache != num) {
        printk("<3>%s: read (%u) blocks from disk and (%u) blocks from cache and expected to read "
               "(%u) blocks\n",
               command, fromDisk, fromCache, num);
    } else {
        ret = waitForSubmitted(b, start, num);
        if (ret == ZEL_RESULT_UNREADABLE)
            printk("<4>%s: Received an IO error while reading sectors for backup.  Some sectors "
                   "could not be read%s",
                   command, "\n");
        readCheckCache(b, start, num, bvma);
    }
    if (fromDisk != 0)
        freeSubmitted(b, num);
    return ret;
}

/*
 * Reads `num` blocks from `start` on into the mapping that begins at user address `data`. 0; 2 for
 * a request that is refused; 12 if blocks could not be read, which are zero then.
 */
int ioctlReadBlocks(Backup *b, unsigned int start, unsigned int num, void *data)
{
    SemaphoreGuard guard(&b->bSem);
    unsigned int state = backupState(b);
    if (state != BACKUP_MAP_LOADED && state != BACKUP_SNAPPED) {
        printk("<3>%s: state (%d) not valid\n", command, state);
        return ZEL_RESULT_INVALID;
    }
    unsigned int end = start + num;
    if (end < num) {
        printk("<3>%s: invalid block read range (%u-%u)\n", command, start, end);
        return ZEL_RESULT_INVALID;
    }
    if (!rangeIsMapped(b, state, end))
        return ZEL_RESULT_INVALID;
    SemaphoreGuard mappings(&b->vmAreasSem);
    BackupVMA *bvma;
    if (checkVMA(b, reinterpret_cast<unsigned long>(data), &bvma) == 0) {
        printk("<3>%s: invalid data pointer%s", command, "\n");
        return ZEL_RESULT_INVALID;
    }
    unsigned int blockSize = static_cast<unsigned int>(b->diskInfo.blockSize);
    unsigned long mapped = static_cast<unsigned long>(bvma->vmPages) * PAGE_SIZE;
    if (static_cast<u64>(num) * blockSize > mapped) {
        printk("<3>%s: tried to read (%u) number of blocks size (%u) and mmap region can hold "
               "(%lu) bytes\n",
               command, num, blockSize, mapped);
        return ZEL_RESULT_INVALID;
    }
    return deliver(b, start, num, bvma);
}
