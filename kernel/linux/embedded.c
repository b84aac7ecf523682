/* Whether the module's own sources see the kernel's objects as they are. */
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>

#include "embedded.h"

extern const struct embedded_layout embeddedSeen[];
static const struct embedded_layout embeddedReal[] = {EMBEDDED_RECORDS(EMBEDDED_LAYOUT)};

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
    return 0;
}
