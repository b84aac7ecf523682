/* Block devices, disks and request queues. */
#define KERNEL_GLUE
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mutex.h>
#include <linux/xarray.h>

#include "seamTypes.h"

#include <kernel/block.h>

#include "devices.h"
#include "hooks.h"

/* A partition's record, and a whole disk's as that of all of it. */
static struct hd_struct *placeOf(struct block_device *bdev)
{
    return (struct hd_struct *)bdev;
}

static struct block_device *deviceAt(struct hd_struct *part)
{
    return (struct block_device *)part;
}

/* A disk that is hooked is in use also while the kernel reads its partitions before its first
 * opening counts, or flushes it after its last closing does. */
static int isOpen(struct block_device *bdev)
{
    return atomic_read(&bdev->bd_openers) > 0 ||
           (!isMissing(bdev) && !bdev_is_partition(bdev) && hookOf(bdev_get_queue(bdev)) != NULL);
}

struct block_device *zk_bdget(dev_t device)
{
    return deviceOf(device);
}

dev_t zk_bdev_dev(struct block_device *bdev)
{
    return bdev->bd_dev;
}

struct gendisk *zk_bdev_disk(struct block_device *bdev)
{
    return isOpen(bdev) ? bdev->bd_disk : NULL;
}

struct hd_struct *zk_bdev_part(struct block_device *bdev)
{
    return isOpen(bdev) ? placeOf(bdev) : NULL;
}

struct block_device *zk_bdev_contains(struct block_device *bdev)
{
    return isOpen(bdev) ? keepDevice(bdev_whole(bdev)) : NULL;
}

/* The whole disk's, also for a partition: it has none of its own. */
struct mutex *zk_bdev_mutex(struct block_device *bdev)
{
    return &bdev->bd_disk->open_mutex;
}

struct request_queue *zk_disk_queue(struct gendisk *disk)
{
    return hookableQueue(disk);
}

int zk_disk_first_minor(struct gendisk *disk)
{
    return disk->first_minor;
}

int zk_disk_minors(struct gendisk *disk)
{
    return disk->minors;
}

/* No table: whatever number a partition has, it is found. */
int zk_disk_part_tbl_len(struct gendisk *disk)
{
    return DISK_MAX_PARTS;
}

struct hd_struct *zk_disk_part(struct gendisk *disk, int number)
{
    struct block_device *part = xa_load(&disk->part_tbl, number);

    return part != NULL && bdev_nr_sectors(part) != 0 ? placeOf(part) : NULL;
}

sector_t zk_get_capacity(struct gendisk *disk)
{
    return get_capacity(disk);
}

sector_t zk_part_start_sect(struct hd_struct *part)
{
    return get_start_sect(deviceAt(part));
}

sector_t zk_part_nr_sects(struct hd_struct *part)
{
    return bdev_nr_sectors(deviceAt(part));
}

spinlock_t *zk_queue_lock(struct request_queue *queue)
{
    return &queue->queue_lock;
}

make_request_fn *zk_queue_make_request_fn(struct request_queue *queue)
{
    make_request_fn *hook = hookOf(queue);

    return hook != NULL ? hook : passToDisk;
}

void zk_queue_set_make_request_fn(struct request_queue *queue, make_request_fn *function)
{
    setHook(queue, function != passToDisk ? function : NULL);
}

int zk_blk_get_queue(struct request_queue *queue)
{
    if (!blk_get_queue(queue))
        return 1;
    keepDisk(queue);
    return 0;
}

void zk_blk_put_queue(struct request_queue *queue)
{
    letDiskGo(queue);
    blk_put_queue(queue);
}

void zk_submit_together(void (*submit)(void *data), void *data)
{
    struct blk_plug plug;

    blk_start_plug(&plug);
    submit(data);
    blk_finish_plug(&plug);
}

void zk_generic_make_request(struct bio *bio)
{
    submit_bio_noacct(bio);
}
