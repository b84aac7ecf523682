/*
 * The queue of held bios of a backup, and the start and stop of the thread that empties it.
 *
 * First in, first out; signalThread counts one wake-up for each bio and one to stop.
 */
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "guards.h"
#include "zellib.h"

/* NULL without memory. On the write path. */
MakeRequest *newMR(struct request_queue *q, struct bio *bio, BlockRange range)
{
    auto *mr = static_cast<MakeRequest *>(kmalloc(sizeof(MakeRequest), GFP_NOIO));
    if (mr == NULL)
        return NULL;
    __builtin_memset(mr, 0, sizeof(*mr));
    mr->q = q;
    mr->bio = bio;
    mr->startBN = range.startBN;
    mr->endBN = range.endBN;
    return mr;
}

/* Appends and wakes the cache thread, which may have finished with `mr` when this returns. */
void addMRToQueue(Backup *b, MakeRequest *mr)
{
    {
        SpinGuard queue(&b->mrLock);
        if (b->mrHead == NULL)
            b->mrHead = mr;
        else
            b->mrTail->next = mr;
        b->mrTail = mr;
        atomic_inc(&b->mrInQueue);
    }
    up(&signalThread);
}

/* Takes the first one off the queue; NULL if it is empty. It counts as queued until it is done. */
MakeRequest *getTopMR(Backup *b)
{
    SpinGuard queue(&b->mrLock);
    MakeRequest *mr = b->mrHead;
    if (mr != NULL) {
        if (mr == b->mrTail)
            b->mrTail = NULL;
        b->mrHead = mr->next;
        mr->next = NULL;
    }
    return mr;
}

void closeMR(MakeRequest *mr)
{
    kfree(mr);
}

/*
 * Starts the cache thread and waits until it runs; 0, or kernel_thread's error. Waits for as long
 * as another record's thread has not stopped: its wake-ups are not ours to take.
 */
int startWorkQueue(Backup *b)
{
    down(&cacheThreadOwner);
    down(&signalThread); /* the thread sleeps until the first bio; it gives this back at its end */
    atomic_set(&backup_cacheThreadContinue, 1);
    int pid = kernel_thread(backup_cache, NULL, 0);
    storeCachePID(pid);
    if (pid < 0) {
        printk("<3>%s: error starting cache thread%s", __func__, "\n");
        up(&cacheThreadOwner);
        return pid;
    }
    b->startedCacheThread = 1;
    wait_for_completion(&backup_cacheThreadStartCompleted);
    return 0;
}

/* Waits until every held bio has been passed on. The caller keeps new ones out. */
void waitForMRs(Backup *b)
{
    if (loadCachePID() <= 0)
        return;
    unsigned long flags = spin_lock_irqsave(&b->mrLock);
    while (atomic_read(&b->mrInQueue) > 0 && loadCachePID() > 0) {
        spin_unlock_irqrestore(&b->mrLock, flags);
        schedule();
        flags = spin_lock_irqsave(&b->mrLock);
    }
    smp_mb();
    if (loadCachePID() <= 0)
        printk("<3>%s: backup_cache thread died during waitForMRs%s", __func__, "\n");
    spin_unlock_irqrestore(&b->mrLock, flags);
}

/* Stops the cache thread if this record started it. */
void killWorkQueue(Backup *b)
{
    if (b->startedCacheThread == 0 || loadCachePID() <= 0)
        return;
    atomic_set(&backup_cacheThreadContinue, 0);
    up(&signalThread);
    wait_for_completion(&backup_cacheThreadExited);
    storeCachePID(0);
    up(&cacheThreadOwner);
}
