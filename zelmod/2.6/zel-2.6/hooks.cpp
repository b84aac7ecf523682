/*
 * What the module puts in place of a request queue's make_request_fn: every bio of a hooked queue
 * passes here, in the context of the task that submits it. The hooks may sleep, and allocate with
 * GFP_NOIO only.
 */
#include <kernel/block.h>
#include <kernel/log.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "guards.h"
#include "zellib.h"

/*
 * The minor number of the partition that holds the bio's first sector, or of the whole disk. The
 * bio is already remapped to the whole disk, unless it is shorter than a sector.
 */
int BIOToMinor(struct bio *bio)
{
    struct block_device *whole = bdev_contains(bio_bdev(bio));
    struct mutex *lock = bdev_mutex(whole);
    /* Keeps the partition table as it is. A task that has it, be it this one, may be waiting for
     * this bio: so it is not waited for. */
    bool taken = mutex_trylock(lock) != 0;
    rcu_read_lock();
    struct gendisk *disk = bdev_disk(whole);
    int minor = disk_first_minor(disk);
    sector_t sector = bio_sector(bio);
    for (int p = 1; p + 1 <= disk_minors(disk) && p < disk_part_tbl_len(disk); p++) {
        struct hd_struct *part = disk_part(disk, p);
        if (part == NULL)
            continue;
        sector_t start = part_start_sect(part);
        if (start <= sector && sector < start + part_nr_sects(part)) {
            minor += p;
            break;
        }
    }
    rcu_read_unlock();
    if (taken)
        mutex_unlock(lock);
    return minor;
}

/* A bio that begins before the partition counts from its start; one that ends past its length, to
 * its last sector. A partial last sector counts. */
BlockRange BIOToBlockNumbers(struct bio *bio, const DiskInfo *di)
{
    sector_t sector = bio_sector(bio);
    unsigned int size = bio_size(bio);
    sector_t rel = sector < di->partitionStart ? 0 : sector - di->partitionStart;
    sector_t end = rel + (size >> 9);
    if (end != 0)
        end--;
    if ((size & 0x1ff) != 0)
        end++;
    if (end > di->partitionLen)
        end = di->partitionLen != 0 ? di->partitionLen - 1 : 0;
    return {static_cast<unsigned int>(rel >> di->sectorsPerBlockShift),
            static_cast<unsigned int>(end >> di->sectorsPerBlockShift)};
}

/*
 * The running backup if it is of this device, else NULL. The caller is counted inside it and says
 * leaveBackup at its very last use: the record is not freed before.
 */
static Backup *enterBackup(struct bio *bio, int minor)
{
    ReadGuard taking(&activeSessionUsers);
    Backup *b = loadActiveSession();
    if (b == NULL || activeSessionRetiring != 0)
        return NULL;
    kernel_dev_t kdev = b->diskInfo.kdev;
    if (deviceMajor(kdev) != deviceMajor(bdev_dev(bio_bdev(bio))) ||
        deviceMinor(kdev) != static_cast<unsigned int>(minor))
        return NULL;
    atomic_inc(&b->hooksInside);
    return b;
}

static void leaveBackup(Backup *b)
{
    smp_mb();
    atomic_dec(&b->hooksInside);
}

/*
 * Hands the bio to the cache thread if the old contents of one of its blocks still have to be
 * saved. 1: it did, and the bio may be gone by now; 0: no need; -1: it could not, and the backup is
 * spoiled.
 */
static int holdBIO(Backup *b, struct request_queue *q, struct bio *bio, unsigned long rw, int minor)
{
    /* The state does not change between its test and the queueing. */
    ReadGuard gate(&b->writers);
    unsigned int state = backupState(b);
    if (state < BACKUP_SNAPPED || state > BACKUP_MAP_LOADED)
        return 0;
    BlockRange range = BIOToBlockNumbers(bio, &b->diskInfo);
    if (!doWeCacheAnyBlock(b, range))
        return 0;
    MakeRequest *mr = newMR(q, bio, range);
    if (mr == NULL) {
        setBackupState(b, BACKUP_ERR_QUEUE);
        errorAMS(b);
        return -1;
    }
    /* Once it is queued it may be completed and freed at any moment. */
    if (rw == WRITE)
        updateAM(bio, minor);
    addMRToQueue(b, mr);
    return 1;
}

/*
 * The full hook, while a backup needs the queue: holds writes to blocks that still have to be
 * saved, and plain reads of them too, so that these do not overtake. Read-ahead is never held.
 */
int zelMRF(struct request_queue *q, struct bio *bio)
{
    set_current_running();
    unsigned long rw = bio_rw(bio);
    int minor = BIOToMinor(bio);
    int ret = 0;
    if (rw != READA) {
        Backup *b = enterBackup(bio, minor);
        if (b != NULL) {
            ret = holdBIO(b, q, bio, rw, minor);
            leaveBackup(b);
        }
    }
    if (ret > 0)
        return 0;
    if (rw == WRITE)
        updateAM(bio, minor);
    make_request_fn *f = getRealMRF(q);
    if (f == NULL) {
        printk("<2>%s: request intercepted for unknown device major=%d minor=%d\n", __func__,
               deviceMajor(bdev_dev(bio_bdev(bio))), minor);
        BUG();
    }
    return f(q, bio);
}

/* The hook while only change tracking needs the queue. */
int zelAMRF(struct request_queue *q, struct bio *bio)
{
    int minor = BIOToMinor(bio);
    if (bio_rw(bio) == WRITE)
        updateAM(bio, minor);
    make_request_fn *f = getRealMRF(q);
    if (f == NULL) {
        printk("<2>%s: request intercepted for unknown device major=%d realMRF=%p\n", __func__,
               deviceMajor(bdev_dev(bio_bdev(bio))), reinterpret_cast<void *>(f));
        BUG();
    }
    return f(q, bio);
}

bool submitToRealMRF(Backup *b, struct bio *bio)
{
    struct request_queue *q = zelGetRequestQueue(bio_bdev(bio));
    if (q == NULL) {
        printk("<3>%s: Block read error: (bdev queue is null) MAJOR=%d MINOR=%d\n", "callRealMRF",
               deviceMajor(b->diskInfo.kdev), deviceMinor(b->diskInfo.kdev));
        return false;
    }
    if (b->diskInfo.realMRF(q, bio) != 0)
        generic_make_request(bio); /* it was remapped */
    return true;
}

/* Submits a bio past the module's own hook; 0. Without a queue it is neither submitted nor ended.
 */
int callRealMRF(Backup *b, struct bio *bio)
{
    submitToRealMRF(b, bio);
    return 0;
}
