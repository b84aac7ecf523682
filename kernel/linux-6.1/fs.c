/* Mounted file systems. */
#define KERNEL_GLUE
#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/module.h>

#include <kernel/fs.h>

#include "devices.h"
#include "fs.h"
#include "hooks.h"
#include "symbols.h"

static struct super_block *(*getSuper)(struct block_device *bdev);

int findFileSystemFunctions(void)
{
    getSuper = kernelFunction("get_super");
    if (getSuper != NULL)
        return 0;
    printk(KERN_ERR "%s: not loaded: the kernel's function get_super cannot be probed\n",
           THIS_MODULE->name);
    return -EOPNOTSUPP;
}

/* On a device that cannot be hooked nothing is found, so that it is refused before the module asks
 * for its queue: none at all it would take for one that has gone meanwhile. s_umount is not held
 * while that is looked at, as it nests inside the mutex that a disk is opened with. */
struct super_block *zk_get_super(struct block_device *bdev)
{
    struct super_block *sb = getSuper(bdev);

    if (sb == NULL)
        return NULL;
    drop_super(sb);
    return isHookable(bdev) ? getSuper(bdev) : NULL;
}

void zk_drop_super(struct super_block *sb)
{
    drop_super(sb);
}

unsigned long zk_sb_blocksize(struct super_block *sb)
{
    return sb->s_blocksize;
}

/* What is frozen stays mounted until the caller thaws it. */
struct super_block *zk_freeze_bdev(struct block_device *bdev)
{
    int error = isMissing(bdev) ? 0 : freeze_bdev(bdev);

    return error != 0 ? ERR_PTR(error) : bdev->bd_fsfreeze_sb;
}

int zk_thaw_bdev(struct block_device *bdev, struct super_block *sb)
{
    return isMissing(bdev) ? 0 : thaw_bdev(bdev);
}

int zk_fsync_bdev(struct block_device *bdev)
{
    return bdev == NULL || isMissing(bdev) ? 0 : fsync_bdev(bdev);
}
