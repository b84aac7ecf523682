/*
 * The module's functions in the way of a disk's bios. What a 2.6.30 kernel keeps in a field of the
 * queue is here a redirection of the function that takes the disk's bios; it is in place before the
 * module learns of the queue, so that putting a function there is a store.
 */
#ifndef HOOKS_H
#define HOOKS_H

#include <linux/blkdev.h>

#include "seamTypes.h"

/* Redirects the function that takes the bios of all disks whose driver has none of its own. 0, or
 * says in the log why it cannot be, and a negated errno. Process context, sleeps. */
int startHooks(void);

/* Ends all redirections and waits until no task is inside the module for one of them, nor for an
 * end of I/O. Process context, sleeps. */
void stopHooks(void);

/* The queue of a disk, whose bios can be had from now on and until the module is unloaded; or says
 * in the log why they cannot be, once for each reason, and NULL. Process context, sleeps where the
 * disk is new. */
struct request_queue *hookableQueue(struct gendisk *disk);

/* Whether that is so of the device's disk, and the module can tell the device by its number; the
 * device is kept. In all else as hookableQueue. */
bool isHookable(struct block_device *bdev);

/* The module's function in the way of a queue's bios; NULL if there is none. Any context. */
make_request_fn *hookOf(struct request_queue *queue);
/* Puts one there, or none. The queue came from hookableQueue. Any context. */
void setHook(struct request_queue *queue, make_request_fn *function);

/* Counts the module's references on a queue, during which its disk stays open. Any context. */
void keepDisk(struct request_queue *queue);
void letDiskGo(struct request_queue *queue);

/* Hands a bio of the whole disk's sectors to the disk, past the module's function; 0. A queue's own
 * make_request_fn, as the module sees it. Process context, may sleep. */
int passToDisk(struct request_queue *queue, struct bio *bio);

#endif
