/* Whether the module's own sources see the kernel's objects as they are. */
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "embedded.h"

extern const struct embedded_layout embeddedSeen[];
static const struct embedded_layout embeddedReal[] = {EMBEDDED_RECORDS(EMBEDDED_LAYOUT)};

/*
 * Whether the running kernel's locks are larger than those of the tree that this was built from. A
 * kernel's version magic does not tell whether it checks its locks. It initialises a semaphore in
 * code of its own, and writes behind the end of one that is too small.
 */
static int kernelHasMore(void)
{
    enum { pattern = 0xa5, room = 256 };
    static unsigned char area[sizeof(struct rw_semaphore) + room] __attribute__((aligned(16)));
    static unsigned long key[8]; /* as large as such a kernel's */
    unsigned int i;

    memset(area, pattern, sizeof(area));
    __init_rwsem((struct rw_semaphore *)area, "embedded", (struct lock_class_key *)key);
    for (i = sizeof(struct rw_semaphore); i < sizeof(area); i++)
        if (area[i] != pattern)
            return 1;
    return 0;
}

int checkEmbedded(void)
{
    unsigned int i;

    for (i = 0; i < ARRAY_SIZE(embeddedReal); i++) {
        const struct embedded_layout *real = &embeddedReal[i];
        const struct embedded_layout *seen = &embeddedSeen[i];

        if (seen->size == real->size && seen->alignment == real->alignment)
            continue;
        printk(KERN_ERR "%s: not loaded: its sources take %s for %u bytes aligned to %u, but the "
                        "kernel has %u aligned to %u; build the module anew\n",
               THIS_MODULE->name, real->name, seen->size, seen->alignment, real->size,
               real->alignment);
        return -ENOEXEC;
    }
    if (kernelHasMore()) {
        printk(KERN_ERR
               "%s: not loaded: its sources take rw_semaphore for %u bytes, but the running "
               "kernel has more; build the module from that kernel's tree\n",
               THIS_MODULE->name, (unsigned int)sizeof(struct rw_semaphore));
        return -ENOEXEC;
    }
    return 0;
}
