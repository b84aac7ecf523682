/*
 * "kbackupd": takes the held bios one by one in the order of their arrival, saves what they are
 * about to overwrite and passes them on.
 *
 * It takes neither activeSessionUsers nor writers. The session that it finds stays until the thread
 * has ended: its close drains the queue, clears activeSession and stops the thread before it frees
 * anything, and no other session can begin while the thread runs.
 */
#include <kernel/block.h>
#include <kernel/log.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "zellib.h"

static constexpr int sigKill = 9;

/* Saves the blocks that the held bio would overwrite, passes it on and frees `mr`. The cache
 * thread; sleeps. */
void processMR(Backup *b, MakeRequest *mr)
{
    /* Once passed on the bio may be gone. */
    unsigned long dir = bio_rw(mr->bio);
    if (dir == WRITE) {
        for (u64 bn = mr->startBN; bn <= mr->endBN; bn++)
            if (doWeCacheBlock(b, static_cast<unsigned int>(bn)) != 0)
                cacheBlock(b, mr, static_cast<unsigned int>(bn));
    }
    callRealMRF(b, mr->bio);
    if (dir == WRITE) {
        for (u64 bn = mr->startBN; bn <= mr->endBN; bn++)
            markWritten(b, static_cast<unsigned int>(bn));
    }
    smp_mb();
    atomic_dec(&b->mrInQueue);
    closeMR(mr);
}

int backup_cache(void *)
{
    daemonize("kbackupd");
    allow_signal(sigKill);
    printk("<6>%s: kbackupd thread started%s", __func__, "\n");
    complete(&backup_cacheThreadStartCompleted);
    while (atomic_read(&backup_cacheThreadContinue) == 1) {
        /* A signal only makes for a round without a wake-up. */
        (void)down_interruptible(&signalThread);
        if (atomic_read(&backup_cacheThreadContinue) != 1)
            break;
        Backup *b = loadActiveSession();
        if (b == NULL || backupState(b) <= BACKUP_STARTED)
            continue;
        MakeRequest *mr = getTopMR(b);
        if (mr != NULL)
            processMR(b, mr);
    }
    up(&signalThread);
    printk("<6>%s: backupd thread exiting%s", __func__, "\n");
    complete_and_exit(&backup_cacheThreadExited, 0);
}
