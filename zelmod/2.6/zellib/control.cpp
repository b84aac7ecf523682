/* Loading and unloading, and the control device's files. */
#include <kernel/chardev.h>
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>

#include "zellib.h"

static const char deviceName[] = "zelmod";

struct chrdev_operations zelFileOps = {
    .owner = NULL,
    .read = zelRead,
    .write = zelWrite,
    .poll = zelPoll,
    .ioctl = zelIOCTL,
    .mmap = zelMMAP,
    .open = zelOpen,
    .release = zelRelease,
};

/* The module's init function. A failed registration fails the load. */
extern "C" int zelInit(void)
{
    initGlobals();
    sema_init(&signalThread, 1);
    int ret = zelModRegister(ZEL_MAJOR, deviceName, &zelFileOps);
    if (ret == 0) {
        atomic_set(&initDone, 1);
    } else {
        spin_lock_init(&busyLock);
        __builtin_memset(amList, 0, sizeof(amList));
    }
    printk("<6>%s: zelmod version %d.%d.%d build %d %s\n", __func__, ZEL_VERSION_MAJOR,
           ZEL_VERSION_MINOR, ZEL_VERSION_MINOR2, ZEL_VERSION_BUILD,
           atomic_read(&initDone) == 1 ? "loaded" : "load FAILED");
    return ret;
}

/* The module's exit function; no file is open. */
extern "C" void zelExit(void)
{
    doModuleUnload();
    printk("<6>%s: zelmod version %d.%d.%d build %d exiting\n", __func__, ZEL_VERSION_MAJOR,
           ZEL_VERSION_MINOR, ZEL_VERSION_MINOR2, ZEL_VERSION_BUILD);
}

void doModuleUnload()
{
    zelUnload();
}

/* Ends all tracking and takes the device away. 0, or -1 if the module is in use. */
int zelUnload()
{
    if (zelCheckModUse() != 0)
        return -1;
    closeAllAMS();
    /* A tracked device that was unmounted has no queue to be found by any more. */
    unhookAllQueues();
    unregister_chrdev(ZEL_MAJOR, deviceName);
    printk("<6>%s: zelmod version %d.%d.%d build %d ready to be unloaded\n", __func__,
           ZEL_VERSION_MAJOR, ZEL_VERSION_MINOR, ZEL_VERSION_MINOR2, ZEL_VERSION_BUILD);
    return 0;
}

/* Ends all tracking for the agent; the module stays usable. 0, or -1 if the module is in use. */
int zelShutdown()
{
    if (zelCheckModUse() != 0)
        return -1;
    closeAllAMS();
    return 0;
}

/* Makes a record idle. */
static void initBackup(Backup *b)
{
    __builtin_memset(b, 0, sizeof(*b));
    sema_init(&b->bSem, 1);
    setBackupState(b, BACKUP_IDLE);
    init_rwsem(&b->cacheUsers);
    init_rwsem(&b->writers);
    sema_init(&b->vmAreasSem, 1);
    /* They may be looked at before they hold anything. */
    initBlockMap(&b->blockMap);
    initBlockMap(&b->cacheMap);
    atomic_set(&b->mrInQueue, 0);
    spin_lock_init(&b->mrLock);
    atomic_set(&b->ioctlCount, 0);
    atomic_set(&b->totalAllocPages, 0);
    atomic_set(&b->curAllocPages, 0);
    atomic_set(&b->totalAllocBRs, 0);
    atomic_set(&b->curAllocBRs, 0);
    atomic_set(&b->totalAllocCPs, 0);
    atomic_set(&b->curAllocCPs, 0);
    atomic_set(&b->peakAllocCPs, 0);
    atomic_set(&b->totalCBs, 0);
    atomic_set(&b->curCBs, 0);
    atomic_set(&b->totalReadBlocks, 0);
    atomic_set(&b->totalReadCBs, 0);
    atomic_set(&b->totalCleanedCBs, 0);
    atomic_set(&b->hooksInside, 0);
}

/* Gives the file a record of its own. 0, or a positive result code; then the file does not open.
 */
int zelOpen(struct inode *, struct file *file)
{
    if (atomic_read(&initDone) != 1)
        return ZEL_RESULT_NOT_INITIALISED;
    auto *b = static_cast<Backup *>(kmalloc(sizeof(Backup), GFP_KERNEL));
    if (b == NULL)
        return ZEL_RESULT_NO_MEMORY;
    initBackup(b);
    file_set_private_data(file, b);
    /* There is no release after a failed open: the record is lost with the module. */
    if (zelModGet() != 0)
        return ZEL_RESULT_CHANGED;
    return 0;
}

/* Tears down whatever the file's record holds. 0, or 2 for a file without a record. */
int zelRelease(struct inode *, struct file *file)
{
    auto *b = static_cast<Backup *>(file_private_data(file));
    if (b == NULL)
        return ZEL_RESULT_INVALID;
    file_set_private_data(file, NULL);
    closeBackup(b);
    zelModPut();
    return 0;
}

/* Data does not pass through read and write. */
long zelRead(struct file *, char *, size_t, s64 *)
{
    return 0;
}

long zelWrite(struct file *, const char *, size_t, s64 *)
{
    return 0;
}

unsigned int zelPoll(struct file *, struct poll_table_struct *)
{
    return 0;
}
