/* The block devices that the module knows: each record stays in memory until it is unloaded. */
#include "devices.h"

#include <linux/fs.h>
#include <linux/hashtable.h>
#include <linux/rcupdate.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

struct known_device {
    struct hlist_node link;
    struct block_device *bdev; /* referenced by its inode, or our own if it has none */
    const char *refusal;       /* why it was refused last; NULL if it never was */
};

/* By number. Found without a lock: it is only ever added to, under knownLock. */
static DEFINE_HASHTABLE(known, 5);
static DEFINE_SPINLOCK(knownLock);

static struct known_device *recordOf(const struct block_device *bdev)
{
    struct known_device *device;

    hash_for_each_possible_rcu_notrace(known, device, link, bdev->bd_dev) {
        if (device->bdev == bdev)
            return device;
    }
    return NULL;
}

static struct block_device *findMissing(dev_t number)
{
    struct known_device *device;

    hash_for_each_possible_rcu_notrace(known, device, link, number) {
        if (device->bdev->bd_dev == number && isMissing(device->bdev))
            return device->bdev;
    }
    return NULL;
}

int isMissing(const struct block_device *bdev)
{
    return bdev->bd_inode == NULL;
}

bool noteRefusal(struct block_device *bdev, const char *reason)
{
    struct known_device *device = recordOf(bdev);

    return device == NULL || xchg(&device->refusal, reason) != reason;
}

static void drop(struct block_device *bdev)
{
    if (isMissing(bdev))
        kfree(bdev);
    else
        iput(bdev->bd_inode);
}

/* Takes over the caller's reference, or drops it if another task has been quicker. */
static struct block_device *know(struct block_device *bdev)
{
    struct known_device *device;
    struct block_device *other;

    device = kzalloc(sizeof(*device), GFP_NOIO | __GFP_NOFAIL);
    device->bdev = bdev;
    spin_lock(&knownLock);
    other = isMissing(bdev) ? findMissing(bdev->bd_dev) : recordOf(bdev) != NULL ? bdev : NULL;
    if (other == NULL)
        hash_add_rcu(known, &device->link, bdev->bd_dev);
    spin_unlock(&knownLock);
    if (other == NULL)
        return bdev;
    kfree(device);
    drop(bdev);
    return other;
}

struct block_device *keepDevice(struct block_device *bdev)
{
    if (recordOf(bdev) == NULL && igrab(bdev->bd_inode) != NULL)
        know(bdev);
    return bdev;
}

struct block_device *deviceOf(dev_t number)
{
    struct inode *inode = ilookup(blockdev_superblock, number);
    struct block_device *bdev;

    if (inode != NULL) {
        bdev = I_BDEV(inode);
        if (recordOf(bdev) == NULL)
            return know(bdev);
        iput(inode);
        return bdev;
    }
    bdev = findMissing(number);
    if (bdev != NULL)
        return bdev;
    bdev = kzalloc(sizeof(*bdev), GFP_KERNEL);
    if (bdev == NULL)
        return NULL;
    bdev->bd_dev = number;
    return know(bdev);
}

void forgetDevices(void)
{
    struct known_device *device;
    struct hlist_node *next;
    int bucket;

    hash_for_each_safe(known, bucket, next, device, link) {
        hash_del(&device->link);
        drop(device->bdev);
        kfree(device);
    }
}
