/* The kernel log, and the end of the road. */
#define KERNEL_GLUE
#include <linux/kernel.h>

#include <kernel/log.h>

int zk_printk(const char *format, ...)
{
    va_list arguments;
    int length;

    va_start(arguments, format);
    length = vprintk(format, arguments);
    va_end(arguments);
    return length;
}

void zk_BUG(void)
{
    BUG();
}
