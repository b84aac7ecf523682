/* Thin wrappers over module references and request-queue access. */
#include <kernel/block.h>
#include <kernel/chardev.h>
#include <kernel/sync.h>

#include "zellib.h"

/* register_chrdev's result. */
int zelModRegister(unsigned int major, const char *name, struct chrdev_operations *fops)
{
    fops->owner = this_module();
    return register_chrdev(major, name, fops);
}

/* Whether the module is in use: never, as far as it knows itself. */
int zelCheckModUse()
{
    return 0;
}

/* Takes a module reference: 0 if taken, 1 if the module is going away. */
int zelModGet()
{
    return try_module_get(this_module()) != 0 ? 0 : 1;
}

void zelModPut()
{
    module_put(this_module());
}

/* The device's request queue, or NULL if the device is not open. */
struct request_queue *zelGetRequestQueue(struct block_device *bdev)
{
    if (bdev == NULL)
        return NULL;
    struct gendisk *disk = bdev_disk(bdev);
    return disk != NULL ? disk_queue(disk) : NULL;
}

/* Takes the queue's lock, if it has one: guards its make_request_fn. */
void zelLockRequestQueue(struct request_queue *q, unsigned long *flags)
{
    if (spinlock_t *lock = queue_lock(q))
        *flags = spin_lock_irqsave(lock);
}

void zelUnlockRequestQueue(struct request_queue *q, unsigned long *flags)
{
    if (spinlock_t *lock = queue_lock(q))
        spin_unlock_irqrestore(lock, *flags);
}
