/* The counters of a backup: for the log and for the agent. */
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/uaccess.h>

#include "guards.h"
#include "zellib.h"

/* Fills `s`, except for the driver's version. The counters go on meanwhile. */
void setStats(Backup *b, Stats *s)
{
    const DiskInfo &di = b->diskInfo;
    s->major = deviceMajor(di.kdev);
    s->minor = deviceMinor(di.kdev);
    s->state = backupState(b);
    s->partitionStart = static_cast<u32>(di.partitionStart);
    s->blockSize = di.blockSize;
    s->blocksPerPage = static_cast<s32>(di.blocksPerPage);
    s->partitionSizeKB = static_cast<u32>(di.partitionSizeKB);
    s->numBlocks = static_cast<u32>(di.numBlocks);
    s->maxVMPages = b->maxVMPages;
    s->vmPages = getVMAPageCount(b);
    s->maxCacheBlocks = b->maxCacheBlocks;
    s->curAllocAMPages = atomic_read(&curAllocAMPages);
    s->totalAllocPages = atomic_read(&b->totalAllocPages);
    s->curAllocPages = atomic_read(&b->curAllocPages);
    s->totalAllocBRs = atomic_read(&b->totalAllocBRs);
    s->curAllocBRs = atomic_read(&b->curAllocBRs);
    s->totalAllocCPs = atomic_read(&b->totalAllocCPs);
    s->curAllocCPs = atomic_read(&b->curAllocCPs);
    s->peakAllocCPs = atomic_read(&b->peakAllocCPs);
    s->totalCBs = atomic_read(&b->totalCBs);
    s->curCBs = atomic_read(&b->curCBs);
    s->totalReadBlocks = atomic_read(&b->totalReadBlocks);
    s->totalReadCBs = atomic_read(&b->totalReadCBs);
    s->totalCleanedCBs = atomic_read(&b->totalCleanedCBs);
    s->ioctlCount = atomic_read(&b->ioctlCount);
    s->eTimeToFreeze = b->eTimeToFreeze;
    s->eTimeFrozen = b->eTimeFrozen;
}

void printStats(const Stats *s)
{
    printk("<6>%s: device: major(%u) minor(%u)\n", __func__, s->major, s->minor);
    printk("<6>%s: state: %u\n", __func__, s->state);
    printk("<6>%s: block size: %i\n", __func__, s->blockSize);
    printk("<6>%s: partition size (KB): %u\n", __func__, s->partitionSizeKB);
    printk("<6>%s: file system size (blocks): %u\n", __func__, s->numBlocks);
    printk("<6>%s: pages allocated for write journal: %d\n", __func__, s->curAllocAMPages);
    printk("<6>%s: max cache size in blocks: %i\n", __func__, s->maxCacheBlocks);
    printk("<6>%s: total pages allocated: %d\n", __func__, s->totalAllocPages);
    printk("<6>%s: current pages allocated: %d\n", __func__, s->curAllocPages);
    printk("<6>%s: total Block Requests allocated: %d\n", __func__, s->totalAllocBRs);
    printk("<6>%s: current Block Requests allocated: %d\n", __func__, s->curAllocBRs);
    printk("<6>%s: total cached blocks: %d\n", __func__, s->totalAllocCPs);
    printk("<6>%s: current cached blocks: %d\n", __func__, s->curAllocCPs);
    printk("<6>%s: peak cached blocks: %d\n", __func__, s->peakAllocCPs);
    printk("<6>%s: total block cache data structures: %d\n", __func__, s->totalCBs);
    printk("<6>%s: current block cache data structures: %d\n", __func__, s->curCBs);
    printk("<6>%s: total reads from disk: %d\n", __func__, s->totalReadBlocks);
    printk("<6>%s: total reads from cache: %d\n", __func__, s->totalReadCBs);
    printk("<6>%s: blocks cleaned from cache: %d\n", __func__, s->totalCleanedCBs);
    printk("<6>%s: partition start (sector): %u\n", __func__, s->partitionStart);
    printk("<6>%s: blocks per page: %i\n", __func__, s->blocksPerPage);
    printk("<6>%s: max buffer size in pages: %i\n", __func__, s->maxVMPages);
    printk("<6>%s: buffer pages allocated: %i\n", __func__, s->vmPages);
    printk("<6>%s: commands processed: %d\n", __func__, s->ioctlCount);
    printk("<6>%s: time to freeze in seconds: %d.%09d\n", __func__, s->eTimeToFreeze.tv_sec,
           s->eTimeToFreeze.tv_nsec);
    printk("<6>%s: time frozen in seconds: %d.%09d\n", __func__, s->eTimeFrozen.tv_sec,
           s->eTimeFrozen.tv_nsec);
}

/* Tells what the agent needs to drive a backup; in any state. 0 or 7. */
int ioctlGetState(Backup *b, State *user, unsigned int len)
{
    State st;
    __builtin_memset(&st, 0, sizeof(st));
    {
        SemaphoreGuard guard(&b->bSem);
        st.major = deviceMajor(b->diskInfo.kdev);
        st.minor = deviceMinor(b->diskInfo.kdev);
        st.blockSize = b->diskInfo.blockSize;
        st.mmapSize = b->maxVMPages * PAGE_SIZE;
        st.state = backupState(b);
    }
    if (copy_to_user(user, &st, len < sizeof(st) ? len : sizeof(st)) != 0) {
        printk("<3>%s: copy to user space %s\n", __func__, "failed");
        return ZEL_RESULT_COPY_OUT_FAILED;
    }
    return 0;
}

/* Tells all counters. No command number leads here. 0, 5 or 7. */
int ioctlGetStats(Backup *b, Stats *user, unsigned int len)
{
    auto *s = static_cast<Stats *>(kmalloc(sizeof(Stats), GFP_KERNEL));
    if (s == NULL)
        return ZEL_RESULT_NO_MEMORY;
    __builtin_memset(s, 0, sizeof(*s));
    {
        SemaphoreGuard guard(&b->bSem);
        setStats(b, s);
    }
    int ret = 0;
    if (copy_to_user(user, s, len < sizeof(*s) ? len : sizeof(*s)) != 0) {
        printk("<3>%s: copy to user space %s\n", __func__, "failed");
        ret = ZEL_RESULT_COPY_OUT_FAILED;
    }
    kfree(s);
    return ret;
}
