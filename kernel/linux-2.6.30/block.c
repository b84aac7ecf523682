/* Block devices, disks and request queues. */
#define KERNEL_GLUE
#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/fs.h>
#include <linux/genhd.h>
#include <linux/kernel.h>

#include <kernel/block.h>

#include "hooks.h"

struct block_device *zk_bdget(dev_t device)
{
    return bdget(device);
}

dev_t zk_bdev_dev(struct block_device *bdev)
{
    return bdev->bd_dev;
}

struct gendisk *zk_bdev_disk(struct block_device *bdev)
{
    return bdev->bd_disk;
}

struct hd_struct *zk_bdev_part(struct block_device *bdev)
{
    return bdev->bd_part;
}

struct block_device *zk_bdev_contains(struct block_device *bdev)
{
    return bdev->bd_contains;
}

struct mutex *zk_bdev_mutex(struct block_device *bdev)
{
    return &bdev->bd_mutex;
}

struct request_queue *zk_disk_queue(struct gendisk *disk)
{
    return disk->queue;
}

int zk_disk_first_minor(struct gendisk *disk)
{
    return disk->first_minor;
}

int zk_disk_minors(struct gendisk *disk)
{
    return disk->minors;
}

int zk_disk_part_tbl_len(struct gendisk *disk)
{
    return rcu_dereference(disk->part_tbl)->len;
}

struct hd_struct *zk_disk_part(struct gendisk *disk, int number)
{
    return rcu_dereference(rcu_dereference(disk->part_tbl)->part[number]);
}

sector_t zk_get_capacity(struct gendisk *disk)
{
    return get_capacity(disk);
}

sector_t zk_part_start_sect(struct hd_struct *part)
{
    return part->start_sect;
}

sector_t zk_part_nr_sects(struct hd_struct *part)
{
    return part->nr_sects;
}

spinlock_t *zk_queue_lock(struct request_queue *queue)
{
    return queue->queue_lock;
}

make_request_fn *zk_queue_make_request_fn(struct request_queue *queue)
{
    return hookOf(queue->make_request_fn);
}

void zk_queue_set_make_request_fn(struct request_queue *queue, make_request_fn *function)
{
    queue->make_request_fn = countedHook(function);
}

/* The kernel's own two functions for this are not for modules. */
int zk_blk_get_queue(struct request_queue *queue)
{
    if (test_bit(QUEUE_FLAG_DEAD, &queue->queue_flags))
        return 1;
    kobject_get(&queue->kobj);
    return 0;
}

void zk_blk_put_queue(struct request_queue *queue)
{
    kobject_put(&queue->kobj);
}

/* A queue that was empty waits for more bios, until somebody waits for one of them. */
void zk_submit_together(void (*submit)(void *data), void *data)
{
    submit(data);
}

void zk_generic_make_request(struct bio *bio)
{
    generic_make_request(bio);
}
