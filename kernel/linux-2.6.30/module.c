/* Loading and unloading. */
#include <linux/errno.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>

#include "embedded.h"
#include "hooks.h"

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Live block-level backup of mounted file systems");
MODULE_VERSION(MODULE_VERSION_TEXT);

/* The module's entry points. */
int zelInit(void);
void zelExit(void);

/* The kernel's objects as the module's own sources see them, and as they are. */
extern const struct embedded_layout embeddedSeen[];
static const struct embedded_layout embeddedReal[] = {EMBEDDED_RECORDS(EMBEDDED_LAYOUT)};

/* Whether the storage that the module reserves for the kernel's objects is what they need. */
static int checkEmbedded(void)
{
    unsigned int i;

    for (i = 0; i < ARRAY_SIZE(embeddedReal); i++) {
        const struct embedded_layout *real = &embeddedReal[i];
        const struct embedded_layout *seen = &embeddedSeen[i];

        if (seen->size == real->size && seen->alignment == real->alignment)
            continue;
        printk(KERN_ERR "zelmod: not loaded: its sources take %s for %u bytes aligned to %u, but "
                        "the kernel has %u aligned to %u; build the module anew\n",
               real->name, seen->size, seen->alignment, real->size, real->alignment);
        return -ENOEXEC;
    }
    return 0;
}

static int __init loadModule(void)
{
    int error = checkEmbedded();

    return error != 0 ? error : zelInit();
}

static void __exit unloadModule(void)
{
    zelExit();
    waitUntilLeft();
}

module_init(loadModule);
module_exit(unloadModule);
