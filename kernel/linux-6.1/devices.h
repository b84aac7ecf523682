/* The block devices that the module knows: each record stays in memory until it is unloaded. */
#ifndef DEVICES_H
#define DEVICES_H

#include <linux/blkdev.h>

/* Keeps the record of a device that cannot be removed meanwhile; returns it. May sleep. */
struct block_device *keepDevice(struct block_device *bdev);

/* The record of the device of this number, kept; one that stands for a device which does not exist,
 * if there is none. NULL without memory. May sleep. */
struct block_device *deviceOf(dev_t number);

/* Whether the record only stands for a device that does not exist. */
int isMissing(const struct block_device *bdev);

/* Notes why a kept device is refused, a text that stays; whether that was not known of it. Any
 * context. */
bool noteRefusal(struct block_device *bdev, const char *reason);

/* Lets go of all. Process context, may sleep. */
void forgetDevices(void);

#endif
