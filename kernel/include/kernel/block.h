/*
 * Block devices, request queues, bios and buffer heads.
 *
 * Sectors are 512 bytes. Records stay opaque: <record>_<field> reads a field and
 * <record>_set_<field> stores it; both are plain accesses for any context.
 */
#ifndef KERNEL_BLOCK_H
#define KERNEL_BLOCK_H

#include <kernel/layout.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/types.h>

#if !defined(KERNEL_GLUE)
struct bio;
struct block_device;
struct buffer_head;
struct gendisk;
struct hd_struct;
struct request_queue;

/* Takes a bio. 0: it is taken care of and will be completed. Other: the bio was sent elsewhere
 * (its bdev or sector changed) and the caller submits it again. Process context, may sleep. */
typedef int make_request_fn(struct request_queue *queue, struct bio *bio);
/* The bio has ended; `error` is 0 or a negated errno. Interrupt context. */
typedef void bio_end_io_t(struct bio *bio, int error);
/* The buffer's I/O has ended. Interrupt context. */
typedef void bh_end_io_t(struct buffer_head *bh, int uptodate);
#endif

/* Block devices. */

/* The block device of this number, with a reference; made if it was not known. NULL without
 * memory. Process context, may sleep. */
SEAM(struct block_device *, bdget, (kernel_dev_t device));
SEAM(kernel_dev_t, bdev_dev, (struct block_device * bdev));
/* Its disk, partition and whole disk's device: NULL while the device is not open. */
SEAM(struct gendisk *, bdev_disk, (struct block_device * bdev));
SEAM(struct hd_struct *, bdev_part, (struct block_device * bdev));
SEAM(struct block_device *, bdev_contains, (struct block_device * bdev));
/* The mutex that guards its opening, closing and partition table. The kernel also holds the whole
 * disk's while it flushes it at its last close and while it reads its partitions: it submits bios
 * meanwhile, and waits for those of other tasks. */
SEAM(struct mutex *, bdev_mutex, (struct block_device * bdev));

/* NULL if not all bios of the disk can be seen, as with some kinds of disk on 6.1: the disk cannot
 * be hooked. On its devices get_super finds nothing, so that one that was measured has a queue for
 * as long as it is open. Process context; may sleep until the disk's get_super has found something.
 */
SEAM(struct request_queue *, disk_queue, (struct gendisk * disk));
/* Disks and their partitions. Partition numbers start at 1; disk_part takes those below
 * disk_part_tbl_len and may give NULL. Between rcu_read_lock and rcu_read_unlock: the table may
 * change, unless the whole disk's bdev_mutex is held, but it gets no shorter, and what was in it is
 * not freed. */
SEAM(int, disk_first_minor, (struct gendisk * disk));
SEAM(int, disk_minors, (struct gendisk * disk));
SEAM(int, disk_part_tbl_len, (struct gendisk * disk));
SEAM(struct hd_struct *, disk_part, (struct gendisk * disk, int number));
SEAM(sector_t, get_capacity, (struct gendisk * disk));
SEAM(sector_t, part_start_sect, (struct hd_struct * part));
SEAM(sector_t, part_nr_sects, (struct hd_struct * part));

/* Request queues. */

/* The lock that guards the queue, or NULL if it has none. It may be the driver's, and then does not
 * outlive the disk as the queue's memory can (blk_get_queue). */
SEAM(spinlock_t *, queue_lock, (struct request_queue * queue));
/* Both only with the queue's lock held, if it has one. */
SEAM(make_request_fn *, queue_make_request_fn, (struct request_queue * queue));
SEAM(void, queue_set_make_request_fn, (struct request_queue * queue, make_request_fn *function));
/* Keeps the queue's memory alive. blk_get_queue: any context, 0 if taken, not if the queue is dead:
 * no bio is given to its function any more. blk_put_queue may free it: process context, may sleep.
 */
SEAM(int, blk_get_queue, (struct request_queue * queue));
SEAM(void, blk_put_queue, (struct request_queue * queue));
/* Submits a bio: a partition's is remapped to its whole disk, then handed to the queue's
 * make_request_fn. Called from inside one, it only queues the bio for the outer call.
 * Process context, may sleep. */
SEAM(void, generic_make_request, (struct bio * bio));
/* Calls submit(data). The bios that it gives to a queue's function may be kept from the disk until
 * it has returned or its task sleeps, so that neighbours reach the disk as one request. A 2.6.30
 * kernel does so with all bios by itself. Process context; sleeps where submit does. */
SEAM(void, submit_together, (void (*submit)(void *data), void *data));

/* Bios. */

/* A bio with room for `vectors` vectors and one reference. NULL without memory. */
SEAM(struct bio *, bio_alloc, (gfp_t gfp, int vectors));
SEAM(void, bio_get, (struct bio * bio));
/* The last one frees. Any context. */
SEAM(void, bio_put, (struct bio * bio));
SEAM(sector_t, bio_sector, (struct bio * bio));
SEAM(void, bio_set_sector, (struct bio * bio, sector_t sector));
/* Bytes left to transfer; a completed bio has 0. */
SEAM(unsigned int, bio_size, (struct bio * bio));
SEAM(void, bio_set_size, (struct bio * bio, unsigned int bytes));
/* The two lowest bits of bi_rw: READ, WRITE, READA or WRITE with the ahead bit (3). */
SEAM(unsigned long, bio_rw, (struct bio * bio));
/* Replaces all of bi_rw. */
SEAM(void, bio_set_rw, (struct bio * bio, unsigned long rw));
SEAM(struct block_device *, bio_bdev, (struct bio * bio));
SEAM(void, bio_set_bdev, (struct bio * bio, struct block_device *bdev));
SEAM(void *, bio_private, (struct bio * bio));
SEAM(void, bio_set_private, (struct bio * bio, void *data));
SEAM(void, bio_set_end_io, (struct bio * bio, bio_end_io_t *function));
SEAM(unsigned short, bio_vcnt, (struct bio * bio));
SEAM(void, bio_set_vcnt, (struct bio * bio, unsigned short count));
SEAM(void, bio_set_idx, (struct bio * bio, unsigned short index));
/* Vector `index`, below the number that the bio was allocated for. */
SEAM(void, bio_set_vec,
     (struct bio * bio, unsigned int index, struct page *page, unsigned int length,
      unsigned int offset));
SEAM(struct page *, bio_vec_page, (struct bio * bio, unsigned int index));
SEAM(unsigned int, bio_vec_length, (struct bio * bio, unsigned int index));
SEAM(unsigned int, bio_vec_offset, (struct bio * bio, unsigned int index));
/* The BIO_UPTODATE flag: 1 from allocation on, 0 once it has failed. */
SEAM(int, bio_uptodate, (struct bio * bio));
/* Sets BIO_EOPNOTSUPP. */
SEAM(void, bio_set_eopnotsupp, (struct bio * bio));

/* Buffer heads. */

/* One on no list; all else is as its last user left it. NULL without memory. */
SEAM(struct buffer_head *, alloc_buffer_head, (gfp_t gfp));
/* Its reference count must be 0 and it must be on no list. Any context. */
SEAM(void, free_buffer_head, (struct buffer_head * bh));
/* Points the buffer at `offset` bytes into `page`. */
SEAM(void, set_bh_page, (struct buffer_head * bh, struct page *page, unsigned long offset));
SEAM(struct page *, bh_page, (struct buffer_head * bh));
/* The data's address; for a high page its offset in the page. Only the lowest 12 bits are the same
 * for both. */
SEAM(char *, bh_data, (struct buffer_head * bh));
SEAM(sector_t, bh_blocknr, (struct buffer_head * bh));
SEAM(void, bh_set_blocknr, (struct buffer_head * bh, sector_t block));
SEAM(size_t, bh_size, (struct buffer_head * bh));
SEAM(void, bh_set_size, (struct buffer_head * bh, size_t bytes));
SEAM(struct block_device *, bh_bdev, (struct buffer_head * bh));
SEAM(void, bh_set_bdev, (struct buffer_head * bh, struct block_device *bdev));
SEAM(bh_end_io_t *, bh_end_io, (struct buffer_head * bh));
SEAM(void, bh_set_end_io, (struct buffer_head * bh, bh_end_io_t *function));
/* Replaces the state bits by the sum of BH_STATE_... values. */
SEAM(void, bh_set_state, (struct buffer_head * bh, unsigned long state));
SEAM(void, bh_init_assoc_buffers, (struct buffer_head * bh));
/* The reference count: read, store, take one, drop one. */
SEAM(int, bh_count, (struct buffer_head * bh));
SEAM(void, bh_set_count, (struct buffer_head * bh, int count));
SEAM(void, get_bh, (struct buffer_head * bh));
SEAM(void, put_bh, (struct buffer_head * bh));
SEAM(int, buffer_uptodate, (struct buffer_head * bh));
SEAM(void, set_buffer_uptodate, (struct buffer_head * bh));
SEAM(void, set_buffer_eopnotsupp, (struct buffer_head * bh));
/* Clears the lock bit and wakes the waiters. Any context. */
SEAM(void, unlock_buffer, (struct buffer_head * bh));
/* Sleeps until the buffer is unlocked. Process context. */
SEAM(void, wait_on_buffer, (struct buffer_head * bh));

#endif
