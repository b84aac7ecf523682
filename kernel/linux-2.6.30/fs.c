/* Mounted file systems. */
#define KERNEL_GLUE
#include <linux/buffer_head.h>
#include <linux/fs.h>

#include <kernel/fs.h>

struct super_block *zk_get_super(struct block_device *bdev)
{
    return get_super(bdev);
}

void zk_drop_super(struct super_block *sb)
{
    drop_super(sb);
}

unsigned long zk_sb_blocksize(struct super_block *sb)
{
    return sb->s_blocksize;
}

struct super_block *zk_freeze_bdev(struct block_device *bdev)
{
    return freeze_bdev(bdev);
}

int zk_thaw_bdev(struct block_device *bdev, struct super_block *sb)
{
    return thaw_bdev(bdev, sb);
}

int zk_fsync_bdev(struct block_device *bdev)
{
    return fsync_bdev(bdev);
}
