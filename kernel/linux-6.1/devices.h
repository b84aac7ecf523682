/* The block devices that the module knows: each record stays in memory until it is unloaded. */
#ifndef DEVICES_H
#define DEVICES_H

#include <linux/blkdev.h>

/* Keeps the record of a device that cannot be removed meanwhile; returns it. May sleep. */
struct block_device *keepDevice(struct block_device *bdev);

/* The record of a disk's partition, kept; NULL if there is none of that number. May sleep where it
 * was not known yet. */
struct block_device *partitionOf(struct gendisk *disk, unsigned int number);

/* The record of the device of this number, kept; one that stands for a device which does not exist,
 * if there is none. NULL without memory. May sleep. */
struct block_device *deviceOf(dev_t number);

/* A mutex for the module's use, of a device whose record is kept. Any context. */
struct mutex *mutexOf(const struct block_device *bdev);

/* Whether the record only stands for a device that does not exist. */
int isMissing(const struct block_device *bdev);

/* Lets go of all. Process context, may sleep. */
void forgetDevices(void);

#endif
