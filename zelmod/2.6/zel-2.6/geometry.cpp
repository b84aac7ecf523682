/* Where a device lies on its disk and how large its blocks are. */
#include <kernel/block.h>
#include <kernel/fs.h>
#include <kernel/log.h>
#include <kernel/uaccess.h>

#include "zellib.h"

static constexpr int sectorShift = 9;

/*
 * Measures the device `kdev`, which must carry a mounted file system: fills all of `di` but
 * numBlocks and realMRF. 0, 8 (nothing is mounted on it) or 3 (blocks smaller than a sector). The
 * reference on the block device is kept for ever.
 */
int getDiskInfo(DiskInfo *di, kernel_dev_t kdev)
{
    di->superBlock = NULL;
    di->kdev = kdev;
    di->bdev = bdget(kdev);
    struct super_block *sb = get_super(di->bdev);
    if (sb == NULL) {
        printk("<3>%s: device major=%d minor=%d not found, getting super block failed\n", __func__,
               deviceMajor(kdev), deviceMinor(kdev));
        return ZEL_RESULT_NOT_MOUNTED;
    }
    di->blockSize = static_cast<int>(sb_blocksize(sb));
    di->blocksPerPage = static_cast<unsigned int>(PAGE_SIZE / di->blockSize);
    di->sectorsPerBlock = di->blockSize >> sectorShift;
    if (di->sectorsPerBlock == 0) {
        printk("<4>%s: device %x has bad block size %d\n", __func__, kdev, di->blockSize);
        drop_super(sb);
        return ZEL_RESULT_CHANGED;
    }
    di->sectorsPerBlockShift = __builtin_ctz(static_cast<unsigned int>(di->sectorsPerBlock));
    struct hd_struct *part = bdev_part(di->bdev);
    struct gendisk *disk = bdev_disk(di->bdev);
    if (part != NULL) {
        di->partitionStart = part_start_sect(part);
        di->partitionLen = part_nr_sects(part);
    } else if (disk != NULL) {
        di->partitionLen = get_capacity(disk);
    } else {
        printk("<4>%s: can't detect device %x size.\n", __func__, kdev);
    }
    di->partitionSizeKB = di->partitionLen >> 1;
    drop_super(sb);
    return 0;
}

/* NULL if the device is not open, or for no device. */
struct request_queue *getRequestQueue(DiskInfo *di)
{
    return zelGetRequestQueue(di != NULL ? di->bdev : NULL);
}

/* The minor number of the whole disk that contains `kdev`, or -1. */
int getDiskMinor(kernel_dev_t kdev)
{
    struct block_device *bdev = bdget(kdev);
    if (bdev == NULL) {
        printk("<3>%s: Could not get block device for MAJOR=%d, MINOR=%d\n", __func__,
               deviceMajor(kdev), deviceMinor(kdev));
        return -1;
    }
    struct block_device *whole = bdev_contains(bdev);
    if (whole == NULL) {
        printk("<3>%s: Parent block device not valid for MAJOR=%d, MINOR=%d\n", __func__,
               deviceMajor(kdev), deviceMinor(kdev));
        return -1;
    }
    return static_cast<int>(deviceMinor(bdev_dev(whole)));
}

/* Tells the agent a device's block size and size, also of a device that is not backed up. The
 * results of getDiskInfo, or 7; nothing is written unless it is measured. */
int ioctlGetBlockSize(Backup *, kernel_dev_t kdev, BlockSize *user, unsigned int len)
{
    BlockSize bs = {};
    bs.blockSize = -1;
    bs.major = deviceMajor(kdev);
    bs.minor = deviceMinor(kdev);
    DiskInfo local = {};
    int ret = getDiskInfo(&local, kdev);
    if (ret == 0) {
        bs.blockSize = local.blockSize;
        bs.partitionSizeKB = static_cast<u32>(local.partitionSizeKB);
        if (copy_to_user(user, &bs, len < sizeof(bs) ? len : sizeof(bs)) != 0) {
            printk("<3>%s: copy to user space %s\n", __func__, "failed");
            ret = ZEL_RESULT_COPY_OUT_FAILED;
        }
    }
    if (local.superBlock != NULL)
        drop_super(local.superBlock);
    return ret;
}
