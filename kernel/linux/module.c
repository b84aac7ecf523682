/* Loading and unloading. */
#include <linux/init.h>
#include <linux/module.h>

#include "provider.h"

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Live block-level backup of mounted file systems");
MODULE_VERSION(MODULE_VERSION_TEXT);

/* The module's entry points. */
int zelInit(void);
void zelExit(void);

static int __init loadModule(void)
{
    int error = startProvider();

    if (error != 0)
        return error;
    error = zelInit();
    if (error != 0)
        stopProvider();
    return error;
}

static void __exit unloadModule(void)
{
    zelExit();
    stopProvider();
}

module_init(loadModule);
module_exit(unloadModule);
