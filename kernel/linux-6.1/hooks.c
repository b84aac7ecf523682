/*
 * Taking the bios of disks, and unloading without leaving a task behind.
 *
 * The kernel gives a bio, remapped to its whole disk, to the function that takes the disk's bios:
 * the driver's own submit_bio if it has one, else blk_mq_submit_bio. The first instruction of such
 * a function is the kernel's place for tracing it, and a tracer may send the task elsewhere; so it
 * is sent to interceptBio if the bio's queue has a hook. The queue's counter of users, by which
 * the kernel freezes a queue, must not be held while a hook sleeps: what the hook waits for may
 * itself have to enter the queue, which a freeze allows only when all others have left it.
 * blk_mq_submit_bio takes it later; a driver's own function is called with it, so it is put back
 * meanwhile.
 *
 * A disk gets a record when the module first asks for its queue, and keeps it until the module is
 * unloaded; the record has references on the queue and on the whole disk's inode, so that neither
 * address can become another's, and so that the kernel's look at the disk after its function has
 * returned finds it still there. Records are found without a lock: they are only ever added.
 *
 * Unloading. No queue has a hook any more. Unregistering the redirections waits until no task is in
 * the tracer's code. A task that was sent to interceptBio is counted from before it got there, and
 * may sleep there for as long as a disk or a lock keeps it; that count is waited for. Then there
 * may still be tasks among the instructions outside the count: the last ones of interceptBio, all
 * of refusePage, and the last ones of an end of I/O, after it has told the module. None of these
 * sleeps by itself. synchronize_rcu_tasks waits until every task that was running or had been
 * preempted anywhere has either slept by itself or gone to user mode, and is thus not among them;
 * synchronize_rcu, until every interrupt that interrupted whatever it was has returned.
 * The module's threads end in the kernel's kthread_complete_and_exit, from which they do not come
 * back.
 */
#include "hooks.h"

#include <linux/bio.h>
#include <linux/delay.h>
#include <linux/ftrace.h>
#include <linux/hashtable.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/percpu-refcount.h>
#include <linux/rcupdate.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/workqueue.h>

#include "bioSets.h"
#include "devices.h"
#include "symbols.h"

typedef void submit_fn(struct bio *bio);

struct hooked_disk {
    struct hlist_node link;
    struct request_queue *queue;
    struct block_device *whole;
    submit_fn *submit;     /* what takes the disk's bios */
    bool counted;          /* it is called with the queue's counter of users held */
    make_request_fn *hook; /* NULL for none */
    atomic_t references;   /* the module's, on the queue */
    struct work_struct work;
    struct block_device *opened; /* for those references; under disksLock */
    struct module *driver;       /* whose functions are redirected; NULL for none */
};

/* By queue; added to under disksLock. */
static DEFINE_HASHTABLE(disks, 5);
static DEFINE_MUTEX(disksLock);
static submit_fn *submitToQueue; /* blk_mq_submit_bio */
static atomic_t tasksInside = ATOMIC_INIT(0);

static __always_inline struct hooked_disk *findDisk(struct request_queue *queue)
{
    struct hooked_disk *disk;

    hash_for_each_possible_rcu_notrace(disks, disk, link, (unsigned long)queue) {
        if (disk->queue == queue)
            return disk;
    }
    return NULL;
}

/* Enters the queue as a bio does, or ends the bio. */
static int enterQueue(struct request_queue *queue, struct bio *bio)
{
    struct gendisk *disk = bio->bi_bdev->bd_disk;

    while (!percpu_ref_tryget_live(&queue->q_usage_counter)) {
        /* The other half is in the kernel's beginning of a freeze. */
        smp_rmb();
        wait_event(queue->mq_freeze_wq,
                   queue->mq_freeze_depth == 0 || test_bit(GD_DEAD, &disk->state));
        if (test_bit(GD_DEAD, &disk->state)) {
            bio_io_error(bio);
            return -ENODEV;
        }
    }
    return 0;
}

/* The calls of `submit` come from the module's own code, by which redirectBio knows them. */
static void submit(const struct hooked_disk *disk, struct bio *bio)
{
    if (!disk->counted) {
        disk->submit(bio);
    } else if (enterQueue(disk->queue, bio) == 0) {
        disk->submit(bio);
        percpu_ref_put(&disk->queue->q_usage_counter);
    }
}

/*
 * A disk takes as much of a bio as it can at once and submits the rest of it anew. The rest is kept
 * off the way that all bios go, since the hook has seen it. As the kernel does, what the disk has
 * submitted to other disks goes before the rest, whose parts may need the memory of the former.
 *
 * A driver may put a bio aside, as the device mapper's does while it is suspended, and submit it
 * anew from a task of its own; so may what limits a control group's rate, with a rest. The hook
 * sees such a bio twice, which does no harm: its blocks are saved and marked. But it must not see
 * the module's own read of an old block again, and hold it for the thread that waits for it.
 */
int passToDisk(struct request_queue *queue, struct bio *bio)
{
    const struct hooked_disk *disk = findDisk(queue);
    struct bio_list *outer = current->bio_list;
    struct bio_list submitted[2] = {};
    struct bio_list rest = BIO_EMPTY_LIST;
    struct bio_list others = BIO_EMPTY_LIST;
    struct bio *next;

    /* Its sector is the disk's, also if its device is a partition. */
    bio_set_flag(bio, BIO_REMAPPED);
    markPassed(bio);
    do {
        current->bio_list = NULL;
        while ((next = bio_list_pop(&others)) != NULL)
            submit_bio_noacct(next);
        current->bio_list = submitted;
        submit(disk, bio);
        while ((next = bio_list_pop(&submitted[0])) != NULL)
            bio_list_add(bdev_get_queue(next->bi_bdev) == queue ? &rest : &others, next);
    } while ((bio = bio_list_pop(&rest)) != NULL);
    current->bio_list = outer;
    if (outer != NULL)
        bio_list_merge(&outer[0], &others);
    else
        while ((next = bio_list_pop(&others)) != NULL)
            submit_bio_noacct(next);
    return 0;
}

/* In place of a function that takes bios. A hook may sleep, and the bio may be passed on by another
 * task, which has nobody to poll for it or to try again later. */
static void interceptBio(struct bio *bio)
{
    struct request_queue *queue = bdev_get_queue(bio->bi_bdev);
    const struct hooked_disk *disk = findDisk(queue);
    make_request_fn *hook = READ_ONCE(disk->hook);

    if (disk->counted)
        percpu_ref_put(&queue->q_usage_counter);
    if (hook == NULL)
        hook = passToDisk;
    bio->bi_opf &= ~REQ_NOWAIT;
    bio_clear_polled(bio);
    if (hook(queue, bio) != 0)
        submit_bio_noacct(bio);
    /* For the caller to put; the record keeps the queue, though the disk may be gone by now. */
    if (disk->counted)
        percpu_ref_get(&queue->q_usage_counter);
    atomic_dec(&tasksInside);
}

/* In place of a driver's rw_page, which transfers a page without a bio: the caller then makes one.
 */
static int refusePage(struct block_device *bdev, sector_t sector, struct page *page, enum req_op op)
{
    return -EOPNOTSUPP;
}

/* The two below are called at the redirected functions' first instructions, by any task. */
static void notrace redirectBio(unsigned long address, unsigned long caller, struct ftrace_ops *ops,
                                struct ftrace_regs *state)
{
    struct pt_regs *regs = ftrace_get_regs(state);
    struct bio *bio = (struct bio *)regs_get_kernel_argument(regs, 0);
    struct hooked_disk *disk;

    if (within_module(caller, THIS_MODULE) || wasPassed(bio))
        return;
    /* Its queue's function may be the module's for good, which nobody takes back any more. */
    if (test_bit(GD_DEAD, &bio->bi_bdev->bd_disk->state))
        return;
    preempt_disable_notrace();
    disk = findDisk(bdev_get_queue(bio->bi_bdev));
    if (disk != NULL && READ_ONCE(disk->hook) != NULL) {
        atomic_inc(&tasksInside);
        instruction_pointer_set(regs, (unsigned long)interceptBio);
    }
    preempt_enable_notrace();
}

static void notrace redirectPage(unsigned long address, unsigned long caller,
                                 struct ftrace_ops *ops, struct ftrace_regs *state)
{
    struct pt_regs *regs = ftrace_get_regs(state);
    struct block_device *bdev = (struct block_device *)regs_get_kernel_argument(regs, 0);
    struct hooked_disk *disk;

    preempt_disable_notrace();
    disk = findDisk(bdev_get_queue(bdev));
    if (disk != NULL && READ_ONCE(disk->hook) != NULL)
        instruction_pointer_set(regs, (unsigned long)refusePage);
    preempt_enable_notrace();
}

/* IPMODIFY keeps others from redirecting the same functions, PERMANENT the tracer from being
 * switched off. Not RECURSION: that guard leaves calls out. */
static struct ftrace_ops bioRedirection = {
    .func = redirectBio,
    .flags = FTRACE_OPS_FL_SAVE_REGS | FTRACE_OPS_FL_IPMODIFY | FTRACE_OPS_FL_PERMANENT,
};
static struct ftrace_ops pageRedirection = {
    .func = redirectPage,
    .flags = FTRACE_OPS_FL_SAVE_REGS | FTRACE_OPS_FL_IPMODIFY | FTRACE_OPS_FL_PERMANENT,
};
static bool pagesRedirected; /* under disksLock */

/* Adds a function to a redirection, which is registered with its first one: without any it would
 * be of all functions. */
static int redirect(struct ftrace_ops *redirection, void *function, bool registered)
{
    int error = ftrace_set_filter_ip(redirection, (unsigned long)function, 0, 0);

    if (error != 0 || registered)
        return error;
    error = register_ftrace_function(redirection);
    if (error != 0)
        ftrace_free_filter(redirection);
    return error;
}

int startHooks(void)
{
    int error;

    submitToQueue = kernelFunction("blk_mq_submit_bio");
    if (submitToQueue == NULL) {
        printk(KERN_ERR
               "%s: not loaded: the kernel's function blk_mq_submit_bio cannot be probed\n",
               THIS_MODULE->name);
        return -EOPNOTSUPP;
    }
    error = redirect(&bioRedirection, submitToQueue, false);
    if (error != 0)
        printk(KERN_ERR "%s: not loaded: the kernel's function blk_mq_submit_bio cannot be "
                        "redirected (error %d): kernel.ftrace_enabled is 0, or it is redirected "
                        "already\n",
               THIS_MODULE->name, -error);
    return error;
}

/* A device that cannot be backed up is asked for again and again, if only for its size. */
static void refuse(struct block_device *bdev, const char *reason)
{
    if (noteRefusal(keepDevice(bdev), reason))
        printk(KERN_ERR "%s: %pg cannot be backed up: %s\n", THIS_MODULE->name, bdev, reason);
}

/* Why the disk's changes cannot all be seen; NULL if they can. */
static const char *obstacle(struct gendisk *disk)
{
    if (bdev_is_zoned(disk->part0))
        return "it is zoned, and tells where it has written only afterwards";
    if (blk_queue_dax(disk->queue))
        return "it can be written to as memory";
    return NULL;
}

/*
 * Keeps the disk open while the module has references on its queue, so that it is not taken out of
 * service, or its driver unloaded, while it is hooked.
 *
 * References are taken and dropped where nobody may sleep, so this follows a moment later. The file
 * system that is backed up keeps the disk open, too. Should it be unmounted within that moment, the
 * last closing of the disk waits for its bios, those that are held among them; a disk that is taken
 * out of service then refuses what the module still gives to it.
 *
 * It is not opened when its queue is first asked for: nobody would tell when a backup that never
 * hooked it has ended. Nor each time: the cache thread asks for the queue as well, and must not
 * wait for the disk's mutex, whose owner may be waiting for a write that is held.
 */
static void settleOpening(struct work_struct *work)
{
    struct hooked_disk *disk = container_of(work, struct hooked_disk, work);
    struct block_device *bdev;
    bool wanted;

    mutex_lock(&disksLock);
    wanted = atomic_read(&disk->references) > 0;
    if (wanted && disk->opened == NULL) {
        bdev = blkdev_get_by_dev(disk->whole->bd_dev, FMODE_READ, NULL);
        if (bdev == disk->whole)
            disk->opened = bdev;
        else if (!IS_ERR(bdev))
            blkdev_put(bdev, FMODE_READ); /* another one that has its number by now */
        else
            printk(KERN_WARNING "%s: disk %s cannot be kept open (error %ld)\n", THIS_MODULE->name,
                   disk->whole->bd_disk->disk_name, -PTR_ERR(bdev));
    } else if (!wanted && disk->opened != NULL) {
        blkdev_put(disk->opened, FMODE_READ);
        disk->opened = NULL;
    }
    mutex_unlock(&disksLock);
}

/* Redirects the driver's own functions, if it has any for this disk. The driver stays loaded as
 * long as they are redirected: the tracer does not forget a function that goes. */
static int redirectDriver(struct hooked_disk *disk,
                          const struct block_device_operations *operations)
{
    int error = 0;

    if (operations->submit_bio == NULL && operations->rw_page == NULL)
        return 0;
    if (!try_module_get(operations->owner))
        return -ENODEV;
    disk->driver = operations->owner;
    if (operations->submit_bio != NULL) {
        disk->submit = operations->submit_bio;
        disk->counted = true;
        error = redirect(&bioRedirection, operations->submit_bio, true);
    }
    if (error == 0 && operations->rw_page != NULL) {
        error = redirect(&pageRedirection, operations->rw_page, pagesRedirected);
        pagesRedirected = pagesRedirected || error == 0;
    }
    return error;
}

static const char *whyNotRedirected(int error)
{
    switch (error) {
    case -ENOMEM:
        return "there was no memory for it";
    case -ENODEV:
        return "it or its driver is going away";
    case -EBUSY:
        return "what takes its bios is redirected already";
    default:
        return "what takes its bios cannot be redirected";
    }
}

/* Under disksLock. NULL if it cannot be hooked. */
static struct hooked_disk *addDisk(struct gendisk *gendisk)
{
    struct hooked_disk *disk;
    int error = -ENOMEM;

    disk = kzalloc(sizeof(*disk), GFP_NOIO);
    if (disk == NULL)
        goto refuse;
    error = -ENODEV;
    if (!blk_get_queue(gendisk->queue))
        goto free;
    disk->queue = gendisk->queue;
    disk->whole = keepDevice(gendisk->part0);
    disk->submit = submitToQueue;
    INIT_WORK(&disk->work, settleOpening);
    error = redirectDriver(disk, gendisk->fops);
    if (error != 0)
        goto put;
    hash_add_rcu(disks, &disk->link, (unsigned long)disk->queue);
    return disk;

put:
    module_put(disk->driver);
    blk_put_queue(disk->queue);
free:
    kfree(disk);
refuse:
    refuse(gendisk->part0, whyNotRedirected(error));
    return NULL;
}

struct request_queue *hookableQueue(struct gendisk *gendisk)
{
    struct hooked_disk *disk = findDisk(gendisk->queue);
    const char *reason;

    if (disk != NULL)
        return disk->queue;
    reason = obstacle(gendisk);
    if (reason != NULL) {
        refuse(gendisk->part0, reason);
        return NULL;
    }
    mutex_lock(&disksLock);
    disk = findDisk(gendisk->queue);
    if (disk == NULL)
        disk = addDisk(gendisk);
    mutex_unlock(&disksLock);
    return disk != NULL ? disk->queue : NULL;
}

/* The module tells a disk's partitions by the numbers that a disk has been given: its own and the
 * partition's place in the table. The kernel numbers others as it sees fit; the module would take
 * them for another device, or not find them. */
static bool isNumbered(const struct block_device *part)
{
    const struct gendisk *disk = part->bd_disk;

    return part->bd_partno < disk->minors &&
           part->bd_dev == MKDEV(disk->major, disk->first_minor + part->bd_partno);
}

bool isHookable(struct block_device *bdev)
{
    if (bdev_is_partition(bdev) && !isNumbered(bdev)) {
        refuse(bdev, "its device number does not follow its disk's");
        return false;
    }
    return hookableQueue(bdev->bd_disk) != NULL;
}

make_request_fn *hookOf(struct request_queue *queue)
{
    struct hooked_disk *disk = findDisk(queue);

    return disk != NULL ? READ_ONCE(disk->hook) : NULL;
}

void setHook(struct request_queue *queue, make_request_fn *function)
{
    WRITE_ONCE(findDisk(queue)->hook, function);
}

void keepDisk(struct request_queue *queue)
{
    struct hooked_disk *disk = findDisk(queue);

    if (disk != NULL && atomic_inc_return(&disk->references) == 1)
        schedule_work(&disk->work);
}

void letDiskGo(struct request_queue *queue)
{
    struct hooked_disk *disk = findDisk(queue);

    if (disk != NULL && atomic_dec_and_test(&disk->references))
        schedule_work(&disk->work);
}

/* A tracer that has found itself broken never ends one; then the module's code must not go. */
static void endRedirection(struct ftrace_ops *redirection)
{
    while (unregister_ftrace_function(redirection) != 0)
        schedule_timeout_uninterruptible(HZ);
    ftrace_free_filter(redirection);
}

void stopHooks(void)
{
    struct hooked_disk *disk;
    struct hlist_node *next;
    int bucket;

    endRedirection(&bioRedirection);
    if (pagesRedirected)
        endRedirection(&pageRedirection);
    while (atomic_read(&tasksInside) != 0)
        schedule_timeout_uninterruptible(1);
    synchronize_rcu();
    synchronize_rcu_tasks();
    hash_for_each_safe(disks, bucket, next, disk, link) {
        flush_work(&disk->work);
        if (disk->opened != NULL)
            blkdev_put(disk->opened, FMODE_READ);
        hash_del(&disk->link);
        blk_put_queue(disk->queue);
        module_put(disk->driver);
        kfree(disk);
    }
}
