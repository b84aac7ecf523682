/* Loading and unloading. */
#include <linux/init.h>
#include <linux/module.h>

#include "embedded.h"
#include "hooks.h"

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Live block-level backup of mounted file systems");
MODULE_VERSION(MODULE_VERSION_TEXT);

/* The module's entry points. */
int zelInit(void);
void zelExit(void);

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
