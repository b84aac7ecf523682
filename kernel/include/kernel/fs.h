/* Mounted file systems. All in process context; all may sleep. */
#ifndef KERNEL_FS_H
#define KERNEL_FS_H

#include <kernel/types.h>

#if !defined(KERNEL_GLUE)
struct block_device;
struct super_block;

/* Whether a pointer is none but a negated errno. */
static inline int IS_ERR(const void *pointer)
{
    enum { mostErrors = 4095 };
    return (uintptr_t)pointer >= -(uintptr_t)mostErrors;
}
#endif

/* The super block of the file system mounted on `bdev`, with a reference and its s_umount held for
 * reading; NULL if `bdev` is NULL or nothing is mounted on it, or if it cannot be hooked
 * (disk_queue in block.h): then the kernel log says why. */
SEAM(struct super_block *, get_super, (struct block_device * bdev));
SEAM(void, drop_super, (struct super_block * sb));
/* Its block size in bytes. */
SEAM(unsigned long, sb_blocksize, (struct super_block * sb));

/*
 * Flushes the file system mounted on `bdev` and holds its writers until thaw_bdev. Its last writes
 * have reached the device when it returns. Returns the super block; NULL if nothing is mounted
 * (nothing is frozen then, but thaw_bdev is still owed); or an error pointer if the file system
 * refused (nothing is frozen then, and thaw_bdev is not owed).
 */
SEAM(struct super_block *, freeze_bdev, (struct block_device * bdev));
/* Lets the writers go on; `sb` is what freeze_bdev returned. */
SEAM(int, thaw_bdev, (struct block_device * bdev, struct super_block *sb));
/* Writes everything dirty on `bdev` and waits. NULL is allowed and does nothing. */
SEAM(int, fsync_bdev, (struct block_device * bdev));

#endif
